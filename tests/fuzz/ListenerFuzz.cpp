// A connector's listener with arbitrary parameter records, whose pointers are null or good. Built once for the client
// and once for the server.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <thread>

#include "ConnectorTestAccess.h"
#include "FuzzInput.h"
#include "LineLogger.h"
#include "RawPeer.h"
#include "cutils/ashmem.h"
#include "nipcconnector/FunctionId.h"
#include "nipcconnector/testing/FakePlatform.h"
#include "nipcconnector/testing/FakeTime.h"

using nipcconnector::NIPCConnector;
using Access = nipcconnector::ConnectorTestAccess;
using namespace nipcconnector::testing;

namespace {

// Every line is put together, and nothing kept.
class Scribbler : public LineLogger {
    void log(const char* format, std::va_list arguments) override {
        char line[512];
        std::vsnprintf(line, sizeof line, format, arguments);
    }
};

struct Subject {
    Subject() {
        FakeTime::instance().waitsExpireAtOnce = true;
        connector->registerSyncRequestHandler(
            "echo", [](const char* data, unsigned int length) { return std::vector<char>(data, data + length); });
        connector->registerAsyncRequestHandler(
            "note", [](const char* data, unsigned int length, auto respond, auto&) { respond(true, data, length); });
        connector->subscribeForEvent("publisher", "news", [](auto, auto) {});
        require(connector->initialize(), "the connector starts");
        settle();
        listener = platform.endpoint().listener;
        connector->makeAsyncRequest("service", "note", "x", 1, [](auto, auto, auto) {});
    }
    /// No retry goes on beyond the input that began it.
    void settle() const {
        while (Access::retryManager(*connector).isActive()) std::this_thread::yield();
    }

    FakePlatform& platform = FakePlatform::instance();
    const std::shared_ptr<NIPCConnector> connector =
        NIPCConnector::getInstance(NIPC_FUZZ_CLIENT, "subject", {"service", 7}, std::make_unique<Scribbler>(), nullptr);
    Listener listener = nullptr;
};

/// A share, of which parts may be missing.
struct Share {
    explicit Share(FuzzInput& input) {
        const std::uint8_t choice = input.byte();
        const std::string payload = input.bytes(input.byte());
        metadata = {static_cast<std::uint32_t>(payload.size()), input.number(), input.byte() % 3U};
        if ((choice & 1U) != 0) metadata.length += input.number();
        if ((choice & 8U) != 0)
            descriptor = ashmem_create_region("share", payload.size() + 1);
        else if ((choice & 2U) != 0)
            descriptor = open((choice & 4U) != 0 ? "/dev/null" : "/", O_RDONLY | O_CLOEXEC);
        if (pwrite(descriptor, payload.data(), payload.size(), 0) < 0) ++failed;
        message = {1, sizeof metadata, (choice & 16U) != 0 ? nullptr : &descriptor,
                   (choice & 32U) != 0 ? nullptr : &metadata, 0};
    }
    ~Share() {
        if (descriptor >= 0 && fcntl(descriptor, F_GETFD) >= 0) close(descriptor);
    }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    ShareFdMetadata metadata{};
    std::int32_t descriptor = -1;
    ShareFdMsg message{};
    int failed = 0;
};

std::uint16_t pick(FuzzInput& input) {
    const std::uint16_t choices[] = {nipcconnector::computeFunctionId("echo"),
                                     nipcconnector::computeFunctionId("note"),
                                     nipcconnector::computeFunctionId("news"),
                                     1000,
                                     1001,
                                     1002,
                                     1003,
                                     CLIENT_SHARE_FD_ID,
                                     SERVER_SHARE_FD_ID,
                                     NEX_NIPC_EVENT_CONNECTION_DONE,
                                     NEX_NIPC_EVENT_CLIENT_CONNECTED,
                                     NEX_NIPC_EVENT_CLIENT_DISCONNECTED,
                                     NEX_NIPC_EVENT_SERVER_UP,
                                     NEX_NIPC_EVENT_SERVER_DOWN};
    const std::uint8_t choice = input.byte();
    return choice < std::size(choices) ? choices[choice] : input.number();
}

void deliver(Subject& subject, FuzzInput& input) {
    const std::uint8_t nulls = input.byte();
    nexNipc_parameter_t parameter{};
    parameter.type = input.byte() % 8U;
    parameter.peerId = input.byte() % 4U;
    parameter.functionId = parameter.eventId = pick(input);
    parameter.requestContext = reinterpret_cast<void*>(std::uintptr_t{input.byte()} % 4U);
    parameter.userContext = (nulls & 128U) != 0 ? nullptr : subject.connector.get();
    std::int32_t status = input.byte() % 3 - 1;
    if ((nulls & 16U) != 0) subject.platform.failNext(Operation::Callback, -EAGAIN);
    if ((nulls & 32U) != 0) subject.platform.failNext(Operation::RpcAsync, -EAGAIN);
    const bool isShare = (parameter.type == CALLBACK && parameter.functionId == CLIENT_SHARE_FD_ID) ||
                         (parameter.type == ASYNC_FUNCTION && parameter.functionId == SERVER_SHARE_FD_ID);
    Share share(input);
    const std::string payload = input.bytes(input.number() % 2000U);
    auto length = static_cast<std::uint32_t>(isShare ? sizeof share.message : payload.size());
    std::vector<char> buffer(parameter.type == SYNC_FUNCTION ? 16384 : payload.size());
    std::copy(payload.begin(), payload.end(), buffer.begin());
    if ((nulls & 1U) == 0) parameter.length = &length;
    if ((nulls & 2U) == 0) parameter.status = &status;
    if ((nulls & 4U) == 0) parameter.data = isShare ? static_cast<void*>(&share.message) : buffer.data();
    subject.listener(&parameter);
    require(length <= 16384, "no answer is longer than its place");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Subject subject;
    FuzzInput input(data, size);
    while (!input.empty()) deliver(subject, input);
    subject.settle();
    subject.platform.reset();
    const int lowest = dup(STDIN_FILENO);
    require(lowest >= 0 && lowest < 100, "no descriptor is left behind");
    close(lowest);
    return 0;
}
