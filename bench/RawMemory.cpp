// The limit for large payloads: a region made, filled, handed over and copied out by hand. "raw-memory" makes a region
// for each transfer; "raw-memory-recycled" makes one and keeps it mapped at both ends.
#include <sys/mman.h>

#include <cstring>
#include <thread>
#include <vector>

#include "RawSocket.h"
#include "Subject.h"

namespace bench {
namespace {

struct Region {
    int fd = -1;
    char* memory = nullptr;
    std::size_t size = 0;

    static Region make(std::size_t size) {
        const int fd = memfd_create("bench", MFD_CLOEXEC);
        require(fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) == 0, "memfd");
        return map(fd, size, PROT_READ | PROT_WRITE);
    }
    static Region map(int fd, std::size_t size, int protection) {
        void* memory = mmap(nullptr, size, protection, MAP_SHARED, fd, 0);
        require(memory != MAP_FAILED, "mmap");
        return {fd, static_cast<char*>(memory), size};
    }
    void release() {
        munmap(memory, size);
        close(fd);
        *this = Region();
    }
};

// The payload's size, and a descriptor unless it is -1.
void sendRegion(const RawSocket& s, std::size_t size, int fd) {
    iovec part{&size, sizeof(size)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(fd));
        std::memcpy(CMSG_DATA(header), &fd, sizeof(fd));
    }
    require(sendmsg(s.get(), &message, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(size)), "sendmsg");
}

// False when the peer is gone.
bool receiveRegion(const RawSocket& s, std::size_t& size, int& fd) {
    iovec part{&size, sizeof(size)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (recvmsg(s.get(), &message, MSG_CMSG_CLOEXEC) != static_cast<ssize_t>(sizeof(size))) return false;
    fd = -1;
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) std::memcpy(&fd, CMSG_DATA(header), sizeof(fd));
    return true;
}

class RawMemory final : public Subject {
public:
    explicit RawMemory(Options given) : options(std::move(given)), recycled(options.variant != "raw-memory") {}

    const char* unsupported() const override { return options.is("W4") ? nullptr : "large payloads only"; }

    void startService() override { listener = RawSocket::listenIn(options.directory); }

    void answer() override {
        for (;;) std::thread([this, s = listener.accept()] { answerOne(s); }).detach();
    }

    void publish(const char*, std::size_t) override {}
    void connect() override { socket = RawSocket::connectIn(options.directory); }
    void connectIdle(int) override {}

    std::size_t call(int, long, const char* data, std::size_t size) override {
        const bool fresh = region.memory == nullptr;
        if (fresh) region = Region::make(size);
        std::memcpy(region.memory, data, size);
        sendRegion(socket, size, fresh ? region.fd : -1);
        if (!recycled) region.release();
        char acknowledgement = 0;
        require(socket.receive(&acknowledgement, 1) == 1, "no acknowledgement");
        return 0;
    }

    void pipeline(long) override {}
    void subscribe(OnEvent) override {}

private:
    void answerOne(const RawSocket& s) const {
        Region received;
        std::size_t size = 0;
        for (int fd = -1; receiveRegion(s, size, fd);) {
            if (fd >= 0) received = Region::map(fd, size, PROT_READ);
            const std::vector<char> copy(received.memory, received.memory + size);
            if (!recycled) received.release();
            s.send(copy.data(), 1);
        }
    }

    const Options options;
    const bool recycled;
    RawSocket listener;
    RawSocket socket;
    Region region;
};

}  // namespace

std::unique_ptr<Subject> makeRawMemorySubject(const Options& options) { return std::make_unique<RawMemory>(options); }

}  // namespace bench
