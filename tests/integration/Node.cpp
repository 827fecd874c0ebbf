#include "Node.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

using smarthome::AsyncResponseCallback;

namespace {

Node make(bool isClient, const std::string& name, std::uint16_t uuid) {
    Node node;
    node.journal = std::make_shared<nipcconnector::testing::Journal>(name);
    node.connector =
        Connector::getInstance(isClient, name, {name, uuid}, nipcconnector::testing::recordingLogger(node.journal),
                               nipcconnector::testing::recordingRecorder(node.journal));
    return node;
}

std::string textOf(const char* data, unsigned int length) { return length == 0 ? "" : std::string(data, length); }

std::vector<char> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

void respondWith(const AsyncResponseCallback& respond, bool success, const std::string& text) {
    respond(success, text.data(), static_cast<unsigned int>(text.size()));
}

void addSynchronousHandlers(const Node& node) {
    Connector& connector = *node.connector;
    connector.registerSyncRequestHandler("echo", [](auto data, auto length) { return bytesOf(textOf(data, length)); });
    connector.registerSyncRequestHandler("digest",
                                         [](auto data, auto length) { return bytesOf(digest(data, length)); });
    connector.registerSyncRequestHandler(
        "make", [](auto data, auto length) { return bytesOf(pattern(std::stoul(textOf(data, length)))); });
    connector.registerSyncRequestHandler(
        "throw", [](auto, auto) -> std::vector<char> { throw std::runtime_error("synchronous"); });
    connector.registerSyncRequestHandler("await log", [journal = node.journal](auto data, auto length) {
        return bytesOf(journal->waitFor(textOf(data, length)) ? "logged" : "missing");
    });
}

void addAsynchronousHandlers(const Node& node) {
    Connector& connector = *node.connector;
    connector.registerAsyncRequestHandler("digest", [](auto data, auto length, auto respond, auto&) {
        respondWith(respond, true, digest(data, length));
    });
    connector.registerAsyncRequestHandler("make", [](auto data, auto length, auto respond, auto&) {
        respondWith(respond, true, pattern(std::stoul(textOf(data, length))));
    });
    connector.registerAsyncRequestHandler("fail",
                                          [](auto, auto, auto respond, auto&) { respondWith(respond, false, "no"); });
    connector.registerAsyncRequestHandler(
        "identify", [](auto, auto, auto respond, auto& requestId) { respondWith(respond, true, requestId); });
    connector.registerAsyncRequestHandler("throw",
                                          [](auto, auto, auto, auto&) { throw std::runtime_error("asynchronous"); });
    connector.registerAsyncRequestHandler("later and twice", [](auto, auto, auto respond, auto&) {
        std::thread([respond] {
            respondWith(respond, true, "first");
            respondWith(respond, true, "second");
        }).detach();
    });
    connector.registerAsyncRequestHandler("publish", [&connector](auto data, auto length, auto, auto&) {
        if (length == 0)
            connector.publishEvent("news");
        else
            connector.publishEvent("news", pattern(std::stoul(textOf(data, length))));
    });
}

}  // namespace

Node server(std::uint16_t uuid) { return make(false, "server" + std::to_string(uuid), uuid); }
Node client(std::uint16_t uuid, const std::string& name) { return make(true, name, uuid); }

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
    for (const std::string& uuid : arguments) {
        const Node node = server(static_cast<std::uint16_t>(std::stoi(uuid)));
        addSynchronousHandlers(node);
        addAsynchronousHandlers(node);
        node.connector->initialize();
        nipctest::say(node.journal->count("Initializing IPC server..done") == 1 ? "up" : "failed");
    }
    while (!nipctest::hearParent().empty()) continue;
    return 0;
}
