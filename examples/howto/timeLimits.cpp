// Requests that are given up after a while, though the service never answers.
#include "Ask.h"
#include "Pair.h"

int main() {
    using Respond = std::function<void(bool, const char*, unsigned int)>;
    const howto::Pair pair("greeter", 4301);
    pair.server->registerAsyncRequestHandler("greet", [](const char*, unsigned int, const Respond& respond,
                                                         const std::string&) { respond(true, "Hello", 5); });
    pair.server->registerAsyncRequestHandler(
        "think", [](const char*, unsigned int, const Respond&, const std::string&) { /* It never comes to an end. */ });
    if (!pair.connect()) return 1;

    const bool answered = howto::ask(*pair.client, "greet", "", std::chrono::seconds(5)) == "Hello";
    const bool givenUp = !howto::ask(*pair.client, "think", "", std::chrono::milliseconds(50));
    return answered && givenUp ? 0 : 1;
}
