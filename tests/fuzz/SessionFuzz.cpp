// A service that answers, sends events and shares regions, and one client after the other that sends it anything.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Endpoint.h"
#include "FuzzInput.h"
#include "Process.h"
#include "RawPeer.h"
#include "cutils/ashmem.h"

using namespace nexnipc;

namespace {

constexpr std::uint16_t kService = 41403;
constexpr std::uint16_t kEvent = 2000, kAnswer = 2001, kShare = 2002, kAcknowledge = 2003, kFlood = 2004;

void serve(Endpoint& self, const Message& message, nexNipc_parameter_t& parameter) {
    if (message.type == SYNC_FUNCTION) return answer(parameter, message.data);
    if (message.id == kEvent) self.callback(message.peer, kEvent, message.data);
    if (message.id == kAnswer) self.callback(message.peer, ASYNC_RESPONSE_SUCCESS_ID, message.data, message.context);
    if (message.id == kAcknowledge) self.callback(message.peer, SERVER_FD_PROCESSING_COMPLETED_ID, "");
    for (int i = 0; message.id == kFlood && i < 40; ++i) self.callback(message.peer, kEvent, std::string(16000, 'f'));
    if (message.id != kShare) return;
    static const int region = regionOf("shared");
    self.share(message.peer, region, {6, kEvent, 0});
}

struct Service {
    Service() { require(endpoint.start(kService) == 0, "the service starts"); }

    const nipctest::ServiceDirectory directory;
    Endpoint endpoint{serve};
    const std::vector<int> descriptors{regionOf("region"), open("/dev/null", O_RDWR | O_CLOEXEC),
                                       ashmem_create_region("buffers", 2U << 20U),
                                       socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

FrameHeader headerFrom(FuzzInput& input) {
    constexpr std::uint16_t functions[] = {kEvent, kAnswer, kShare, kAcknowledge, kFlood, 1000, 1001, 65524, 65525, 0};
    FrameHeader frame = header(static_cast<FrameType>(input.byte() % 16), functions[input.byte() % 10], 0);
    frame.context = input.byte() % 4 * 16384U;
    frame.sequence = input.byte() % 5;
    frame.status = input.byte() % 3 - 1;
    return frame;
}

// Each packet: choices, header, payload. With the highest bit of the choices it is one of several frames of a packet.
void sendAll(FuzzInput& input, const Service& service, const RawClient& client) {
    std::string bytes;
    while (!input.empty()) {
        const std::uint8_t choice = input.byte();
        const std::vector<int> descriptors((choice & 3U) % 3, service.descriptors[(choice >> 2U) % 4]);
        FrameHeader frame = headerFrom(input);
        const std::string payload = input.bytes(input.byte());
        frame.length = static_cast<std::uint32_t>(payload.size());
        if ((choice & 32U) != 0) frame.length += input.number();
        bytes += bytesOf(frame) + payload;
        if ((choice & 128U) != 0) {
            bytes.resize(aligned(bytes.size()));
            continue;
        }
        ((choice & 64U) != 0 ? client.control : client.main).send(bytes, descriptors);
        bytes.clear();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Service service;
    FuzzInput input(data, size);
    {
        const RawClient client = letIn(service.directory.path + "/" + std::to_string(kService) + ".sock", kService);
        require(client.control.valid(), "each client is let in");
        client.control.send(packet(header(FrameType::OpenChannel, 0, 0), 0));
        client.control.receiveDescriptor();
        sendAll(input, service, client);
    }
    require(service.endpoint.next(NEX_NIPC_EVENT_CLIENT_DISCONNECTED).id != 0, "each client is told to be gone");
    service.endpoint.forget();
    return 0;
}
