#include "HostileService.h"

#include "Endpoint.h"
#include "HostileClient.h"

using namespace nexnipc;

namespace {

constexpr std::uint16_t kRequest = 2000;
constexpr std::uint16_t kEvent = 3000;

Welcome goodWelcome() {
    Welcome welcome;
    welcome.version = kVersion;
    welcome.clientId = 1;
    return welcome;
}

}  // namespace

HostileService::HostileService(const std::string& path, std::uint64_t seed)
    : listener_(RawPeer::listenAt(path)), random_(seed), strange_(strangeDescriptors()) {}

bool HostileService::session() {
    RawClient client{listener_.accept(), RawPeer()};
    if (!client.main.valid()) return false;
    client.main.receiveDescriptor();  // Its greeting.
    const unsigned drawn = below(5);
    if (drawn == 0) {
        ++counts["bad welcome"];
        refuse(client.main);
        return true;
    }
    auto [ours, theirs] = RawPeer::pair();
    client.control = std::move(ours);
    client.main.send(welcomePacket(goodWelcome()), {theirs.fd()});
    theirs = RawPeer();
    constexpr struct {
        const char* name;
        void (HostileService::*act)(const RawClient& client);
    } acts[] = {{"violation to a client", &HostileService::violate},
                {"noise", &HostileService::sendNoise},
                {"lying answers", &HostileService::lieInAnswers},
                {"lying shares", &HostileService::lieInShares}};
    ++counts[acts[drawn - 1].name];
    (this->*acts[drawn - 1].act)(client);
    return true;
}

void HostileService::refuse(const RawPeer& client) {
    Welcome welcome = goodWelcome();
    FrameHeader frame = header(FrameType::Welcome, 0, sizeof welcome);
    std::vector<int> descriptors{anyDescriptor()};
    switch (below(7)) {
        case 0:
            welcome.magic = 1;
            break;
        case 1:
            ++welcome.version;
            break;
        case 2:
            frame.status = static_cast<std::int32_t>(random_());
            break;
        case 3:
            frame.type = static_cast<FrameType>(below(16));
            break;
        case 4:
            descriptors.assign(below(2) * 253, anyDescriptor());
            break;
        case 5:
            descriptors.clear();
            break;
        default:
            break;  // The descriptor is none of a control socket.
    }
    const std::string whole = bytesOf(frame) + bytesOf(welcome);
    client.send(below(4) == 0 ? whole.substr(0, below(static_cast<unsigned>(whole.size()))) : whole, descriptors);
}

void HostileService::violate(const RawClient& client) {
    const Violation& v = kToClient[below(static_cast<unsigned>(kToClient.size()))];
    v.commit(client.main, client.control, strange_.front().fd());
    if (!client.main.isClosed()) ++survived[v.name];
}

void HostileService::sendNoise(const RawClient& client) {
    for (unsigned i = below(20); i > 0; --i) {
        FrameHeader frame = header(static_cast<FrameType>(below(16)), static_cast<std::uint16_t>(random_()), below(100),
                                   below(2) * random_(), below(5), static_cast<std::int32_t>(below(3)) - 1);
        const std::size_t payload = frame.length;
        if (below(8) == 0) frame.length = lyingLength(random_());
        std::vector<int> descriptors(below(3) == 0 ? below(3) : 0, anyDescriptor());
        (below(3) == 0 ? client.control : client.main).send(packet(frame, payload), descriptors);
    }
}

// To the one synchronous call that the client makes.
void HostileService::lieInAnswers(const RawClient& client) {
    client.control.receiveDescriptor();  // OpenChannel.
    auto [ours, theirs] = RawPeer::pair();
    const bool isChannel = below(4) > 0;
    const auto number = below(3) == 0 ? static_cast<std::uint32_t>(random_()) : below(2);
    client.control.send(packet(header(FrameType::ChannelOpened, 0, 0, 0, number), 0),
                        {isChannel ? theirs.fd() : anyDescriptor()});
    if (!isChannel) return;
    std::string request(1, '\0');
    FrameHeader asked;
    for (RawPeer none; asked.type != FrameType::SyncRequest && !request.empty();) {
        client.main.receive(request, none);
        request.copy(reinterpret_cast<char*>(&asked), sizeof asked);
    }
    const std::size_t payload = below(2) == 0 ? below(200) : 0;
    FrameHeader lie = header(FrameType::SyncReply, kRequest, static_cast<std::uint32_t>(payload), 0, asked.sequence, 0);
    if (below(3) == 0) lie.length = lyingLength(random_());
    if (below(4) == 0) lie.context = random_();
    if (below(8) == 0) lie.sequence = below(3);
    if (below(8) == 0) lie.type = static_cast<FrameType>(below(16));
    std::vector<int> descriptors(below(3) == 0 ? 1 + below(2) : 0, anyDescriptor());
    ours.send(packet(lie, payload), descriptors);
}

void HostileService::lieInShares(const RawClient& client) {
    for (unsigned i = 0; i < 5; ++i) {
        const ShareFdMetadata metadata{lyingLength(random_()), kEvent, below(2)};
        client.main.send(packet(header(FrameType::Share, 0, sizeof metadata, 0, i), 0) + bytesOf(metadata),
                         {anyDescriptor()});
    }
}

void sufferSessions(std::uint16_t uuid, unsigned times) {
    for (; times > 0; --times) {
        Endpoint client;
        if (client.connect(uuid) != 0) continue;
        client.request(kRequest, "x");
        client.call(kRequest, "x", 200);
    }
}
