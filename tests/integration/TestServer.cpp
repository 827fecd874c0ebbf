#include "TestServer.h"

using smarthome::AsyncResponseCallback;

namespace {

std::string textOf(const char* data, unsigned int length) { return length == 0 ? "" : std::string(data, length); }

std::vector<char> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

void respondWith(const AsyncResponseCallback& respond, const std::string& text) {
    respond(true, text.data(), static_cast<unsigned int>(text.size()));
}

void addHandlers(Connector& connector) {
    connector.registerSyncRequestHandler("echo", [](auto data, auto length) { return bytesOf(textOf(data, length)); });
    connector.registerSyncRequestHandler("digest",
                                         [](auto data, auto length) { return bytesOf(digest(data, length)); });
    connector.registerSyncRequestHandler(
        "make", [](auto data, auto length) { return bytesOf(pattern(std::stoul(textOf(data, length)))); });
    connector.registerAsyncRequestHandler(
        "digest", [](auto data, auto length, auto respond, auto&) { respondWith(respond, digest(data, length)); });
    connector.registerAsyncRequestHandler("make", [](auto data, auto length, auto respond, auto&) {
        respondWith(respond, pattern(std::stoul(textOf(data, length))));
    });
    connector.registerAsyncRequestHandler(
        "identify", [](auto, auto, auto respond, auto& requestId) { respondWith(respond, requestId); });
    connector.registerAsyncRequestHandler("publish", [&connector](auto data, auto length, auto, auto&) {
        if (length == 0)
            connector.publishEvent("news");
        else
            connector.publishEvent("news", pattern(std::stoul(textOf(data, length))));
    });
}

}  // namespace

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 31 + i / 251 + size) % 256);
    return text;
}

std::string digest(const char* data, std::size_t size) {
    std::uint64_t hash = 14695981039346656037U;
    for (std::size_t i = 0; i < size; ++i) hash = (hash ^ static_cast<unsigned char>(data[i])) * 1099511628211U;
    return std::to_string(size) + ":" + std::to_string(hash);
}

int runServer(const std::vector<std::string>& arguments) {
    const auto uuid = static_cast<std::uint16_t>(std::stoi(arguments.at(0)));
    const auto connector =
        Connector::getInstance(false, "server", {"server", uuid}, std::make_unique<StartLogger>(), nullptr);
    addHandlers(*connector);
    connector->initialize();
    nipctest::say(StartLogger::started ? "up" : "failed");
    while (!nipctest::hearParent().empty()) continue;
    return 0;
}
