#include "HostileClient.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "cutils/ashmem.h"
#include "nipcconnector/FunctionId.h"

using namespace nexnipc;

namespace {

constexpr std::uint32_t kRegionSize = 100000;
constexpr std::size_t kHeld = 100;
constexpr std::uint32_t kBuffersSize = 1100000;

RawPeer memory(std::size_t size, unsigned flags, int seals) {
    const int descriptor = memfd_create("test", MFD_CLOEXEC | flags);
    if (descriptor >= 0 && ftruncate(descriptor, static_cast<off_t>(size)) == 0) fcntl(descriptor, F_ADD_SEALS, seals);
    return RawPeer(descriptor);
}

}  // namespace

std::vector<RawPeer> strangeDescriptors() {
    constexpr int regionSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
    std::vector<RawPeer> all;
    const auto add = [&all](int descriptor) { all.emplace_back(descriptor); };
    add(ashmem_create_region("test", 1));
    all.push_back(memory(kRegionSize, 0, 0));
    all.push_back(memory(kRegionSize, MFD_ALLOW_SEALING, F_SEAL_SHRINK | F_SEAL_GROW));
    all.push_back(memory(kRegionSize, MFD_ALLOW_SEALING, regionSeals | F_SEAL_WRITE));
    all.push_back(memory(std::size_t{1} << 30U, MFD_ALLOW_SEALING, regionSeals));  // All holes.
    all.push_back(memory(std::size_t{1} << 30U, MFD_ALLOW_SEALING | MFD_HUGETLB, regionSeals | F_SEAL_WRITE));
    add(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    add(open("/dev/null", O_RDWR | O_CLOEXEC));
    add(open("/dev/zero", O_RDWR | O_CLOEXEC));
    add(open("/proc/self/exe", O_PATH | O_CLOEXEC));
    add(epoll_create1(EPOLL_CLOEXEC));
    add(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    add(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0));
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == 0) std::for_each(ends, ends + 2, add);
    all.erase(std::remove_if(all.begin(), all.end(), [](const RawPeer& each) { return !each.valid(); }), all.end());
    return all;
}

std::uint32_t lyingLength(std::uint64_t random) {
    constexpr std::uint32_t lengths[] = {0, 1, 9, 10, 64, 4096, 16384, 16385, 100000, 5U << 20, 1U << 30, 0xFFFFFFFFU};
    return lengths[random % std::size(lengths)];
}

const std::array<HostileClient::Kind, 11> HostileClient::kKinds = {{
    {"bad greeting", 15, &HostileClient::badGreeting},
    {"half open", 15, &HostileClient::halfOpen},
    {"violation", 30, &HostileClient::violation},
    {"random frames", 20, &HostileClient::randomFrames},
    {"random bytes", 10, &HostileClient::randomBytes},
    {"region", 10, &HostileClient::region},
    {"acknowledgements", 5, &HostileClient::acknowledgements},
    {"unread answers", 1, &HostileClient::unreadAnswers},
    {"channels", 2, &HostileClient::channels},
    {"torn", 10, &HostileClient::torn},
    {"buffers", 1, &HostileClient::buffers},
}};

HostileClient::HostileClient(std::string path, std::uint16_t uuid, std::uint64_t seed)
    : path_(std::move(path)), uuid_(uuid), random_(seed), greetings_(badGreetings(uuid)) {
    const int good = ashmem_create_region("test", kRegionSize);
    void* const mapped = mmap(nullptr, kRegionSize, PROT_READ | PROT_WRITE, MAP_SHARED, good, 0);
    if (mapped != MAP_FAILED) region_ = static_cast<char*>(mapped);
    descriptors_.emplace_back(good);
    for (RawPeer& strange : strangeDescriptors()) descriptors_.push_back(std::move(strange));
}

void HostileClient::session() {
    unsigned sum = 0;
    for (const Kind& kind : kKinds) sum += kind.weight;
    unsigned drawn = below(sum);
    const auto* kind = kKinds.begin();
    for (; drawn >= kind->weight; ++kind) drawn -= kind->weight;
    ++counts[kind->name];
    (this->*kind->run)();
}

void HostileClient::ordinarySession() {
    RawClient client;
    if (!enter(client)) return;
    for (unsigned left = below(100) == 0 ? 500 : below(20); left > 0; --left) {
        client.main.send(packet(header(FrameType::AsyncRequest, nipcconnector::computeFunctionId("note"), 4, 1), 4));
        client.main.receiveDescriptor();
    }
}

bool HostileClient::enter(RawClient& client) {
    client = letIn(path_, uuid_);
    if (!client.control.valid()) ++counts["refused"];
    return client.control.valid();
}

std::uint16_t HostileClient::function() {
    constexpr std::uint16_t special[] = {0, 1000, 1001, 1002, 1003, CLIENT_SHARE_FD_ID, SERVER_SHARE_FD_ID, 65535};
    if (below(2) == 0) return nipcconnector::computeFunctionId(below(2) == 0 ? "note" : "echo");
    return below(2) == 0 ? special[below(std::size(special))] : static_cast<std::uint16_t>(random_());
}

std::string HostileClient::bytes(std::size_t size) {
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [this] { return static_cast<char>(random_()); });
    return text;
}

std::vector<int> HostileClient::someDescriptors() {
    constexpr unsigned numbers[] = {0, 0, 0, 0, 1, 1, 2, 253};
    std::vector<int> list(numbers[below(std::size(numbers))]);
    for (int& each : list) each = descriptors_[below(static_cast<unsigned>(descriptors_.size()))].fd();
    return list;
}

void HostileClient::badGreeting() {
    const RawPeer peer = RawPeer::connectTo(path_);
    const Greeting& greeting = greetings_[below(static_cast<unsigned>(greetings_.size()))];
    const bool isRandom = below(3) == 0;
    std::string text = isRandom ? bytes(1 + below(60)) : greeting.bytes;
    std::vector<int> list(static_cast<std::size_t>(greeting.descriptors), descriptors_.back().fd());
    if (isRandom) list = someDescriptors();
    if (peer.send(std::move(text), list) && !peer.isClosed()) ++survived[greeting.name];
}

// Some say the beginning of a greeting, all stay.
void HostileClient::halfOpen() {
    held_.push_back(RawPeer::connectTo(path_));
    if (held_.size() > kHeld) held_.pop_front();
}

void HostileClient::violation() {
    RawClient client;
    if (!enter(client)) return;
    const Violation& v = kToService[below(static_cast<unsigned>(kToService.size()))];
    if (v.needsChannel()) {
        client.control.send(packet(header(FrameType::OpenChannel, 0, 0), 0));
        client.control.receiveDescriptor();
    }
    v.commit(client.main, client.control, descriptors_[1].fd());
    if (!client.main.isClosed()) ++survived[v.name];
}

void HostileClient::randomFrames() {
    RawClient client;
    if (!enter(client)) return;
    std::string frames;  // Of one packet.
    for (unsigned i = below(20); i > 0; --i) {
        FrameHeader frame = header(static_cast<FrameType>(below(16)), function(), below(100), below(2) * random_(),
                                   below(5), static_cast<std::int32_t>(below(5)) - 1);
        const std::size_t payload = frame.length;
        if (below(8) == 0) frame.length = lyingLength(random_());
        frames += packet(frame, payload);
        if (below(3) == 0) {
            frames.resize(aligned(frames.size()));
            continue;
        }
        (below(4) == 0 ? client.control : client.main).send(std::exchange(frames, ""), someDescriptors());
    }
}

void HostileClient::randomBytes() {
    RawClient client;
    if (!enter(client)) return;
    for (unsigned i = below(20); i > 0; --i) {
        (below(4) == 0 ? client.control : client.main).send(bytes(below(below(10) == 0 ? 20000 : 60)));
    }
}

void HostileClient::region() {
    RawClient client;
    if (!enter(client)) return;
    const int descriptor = descriptors_[below(2) * below(static_cast<unsigned>(descriptors_.size()))].fd();
    if (below(2) == 0) {
        client.control.send(packet(header(FrameType::OpenChannel, 0, 0), 0));
        client.control.receiveDescriptor();
        client.main.send(packet(header(FrameType::SyncRequest, function(), lyingLength(random_()), 16384, 1), 0),
                         {descriptor});
    } else {
        const ShareFdMetadata metadata{below(2) == 0 ? kRegionSize : lyingLength(random_()), function(), below(2)};
        std::string frame = packet(header(FrameType::Share, 0, sizeof metadata, 0, below(3)), 0) + bytesOf(metadata);
        client.main.send(std::move(frame), {descriptor});
    }
    rewrite();
    shutdown(client.main.fd(), SHUT_WR);
    client.main.isClosed();
}

// While it may be read.
void HostileClient::rewrite() {
    for (unsigned i = 0; region_ != nullptr && i < 200; ++i) {
        reinterpret_cast<volatile char*>(region_)[below(kRegionSize)] = static_cast<char>(i);
    }
}

void HostileClient::acknowledgements() {
    RawClient client;
    if (!enter(client)) return;
    for (unsigned i = 0; i < 50; ++i) client.control.send(packet(header(FrameType::Ack, 0, 0, 0, i), 0));
    shutdown(client.control.fd(), SHUT_WR);
    shutdown(client.main.fd(), SHUT_WR);
    if (!client.main.isClosed()) ++survived["acknowledgements"];
}

// As many as the service takes, until it reads no more.
void HostileClient::unreadAnswers() {
    RawClient client;
    if (!enter(client)) return;
    const std::string frame =
        packet(header(FrameType::AsyncRequest, nipcconnector::computeFunctionId("note"), 100, 1), 100);
    for (unsigned i = 0; i < 2000; ++i) {
        if (!client.main.send(frame)) sched_yield();
    }
    held_.push_back(std::move(client.main));
    held_.push_back(std::move(client.control));
}

void HostileClient::channels() {
    RawClient client;
    if (!enter(client)) return;
    const unsigned wanted = below(140);
    for (unsigned i = 0; i < wanted; ++i) client.control.send(packet(header(FrameType::OpenChannel, 0, 0), 0));
    for (unsigned i = 0; i < wanted; ++i) client.control.receiveDescriptor();
    for (unsigned i = 0; i < 200; ++i) {
        const auto channel = static_cast<std::int32_t>(below(wanted + 1));
        const auto echo = nipcconnector::computeFunctionId("echo");
        if (below(20) == 0) client.control.send(packet(header(FrameType::CloseChannel, 0, 0, 0, below(140)), 0));
        client.main.send(packet(header(FrameType::SyncRequest, echo, 1000, 16384, i, channel), 1000));
    }
}

// Requests, and gone in the middle of it, whole or by halves.
void HostileClient::torn() {
    RawClient client;
    if (!enter(client)) return;
    const std::string frame = packet(header(FrameType::AsyncRequest, function(), 40, below(2)), 40);
    for (unsigned i = below(30); i > 0; --i) client.main.send(frame);
    constexpr int ways[] = {SHUT_RD, SHUT_WR, SHUT_RDWR};
    if (below(2) == 0) shutdown(client.main.fd(), ways[below(3)]);
    if (below(2) == 0) shutdown(client.control.fd(), ways[below(3)]);
    if (below(4) == 0) client.main.send(packet(header(FrameType::Share, 0, 10), 10), {client.main.fd()});  // Itself.
}

// Payloads in memory that is written to, and full of holes, while they are read.
void HostileClient::buffers() {
    RawClient client;
    if (!enter(client)) return;
    const RawPeer memory(ashmem_create_region("test", kBuffersSize));
    client.main.send(packet(header(FrameType::Buffers, 0, 0), 0), {memory.fd()});
    const auto last = static_cast<std::int32_t>(below(8) == 0 ? 66 : 64);
    for (unsigned i = 0; i < 40; ++i) {
        const auto number = static_cast<std::int32_t>(below(static_cast<unsigned>(last))) + 1;
        client.main.send(packet(header(FrameType::AsyncRequest, function(), below(16385), 1, 0, number), 0));
        const std::uint32_t word = below(2) * 0xFFFFFFFFU;
        [[maybe_unused]] const ssize_t written = pwrite(memory.fd(), &word, sizeof word, below(32) * 4);
        if (below(4) == 0) fallocate(memory.fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, kBuffersSize);
    }
}

std::size_t HostileClient::exhaustDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const std::size_t before = held_.size();
    for (int probe = 0; probe >= 0;) {
        RawPeer peer = RawPeer::connectTo(path_);
        if (peer.valid()) held_.push_back(std::move(peer));
        probe = dup(STDIN_FILENO);
        if (probe >= 0) close(probe);
    }
    return held_.size() - before;
}

void HostileClient::letGo() { held_.clear(); }
