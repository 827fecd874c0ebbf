#include "Service.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>

#include "Process.h"
#include "ServiceDelivery.h"
#include "Settings.h"
#include "Thread.h"
#include "Undo.h"

namespace nexnipc {
namespace {

// One process cannot use up what all clients share: this process's descriptors.
constexpr std::size_t kClientsPerService = 512;
constexpr unsigned kClientsPerPeer = 128;
constexpr unsigned kChannelsPerPeer = 256;

}  // namespace

Service::Service(std::int32_t number, const ServerStartRecord& record)
    : uuid(record.uuid),
      handle(number),
      upcall(record.listener, record.userContext),
      maxSync_(maxSyncLength()),
      spinLimit_(spinLimit()),
      startedAt_(static_cast<std::uint64_t>(::time(nullptr))),
      budget_(std::make_shared<QueueBudget>(0)) {}

Service::~Service() = default;

int Service::start(std::int32_t* handle, const ServerStartRecord& record) {
    Process& process = Process::get();
    if (const int status = process.start()) return status;
    const auto service = std::make_shared<Service>(process.nextHandle(), record);
    if (const int status = service->open()) return status;
    const std::shared_ptr<Acceptor> acceptor = service->acceptor_;
    const auto delivery = std::make_shared<ServiceDelivery>(service);
    if (!process.services.add(service->handle, service)) return -ECANCELED;
    const std::int32_t before = std::exchange(*handle, service->handle);
    Undo undo([&] {
        *handle = before;
        process.services.cancel(service->handle);
        service->stop();
    });
    const std::string name = "nipc-svc-" + std::to_string(service->uuid);
    int status = startThread(name.c_str(), [delivery] { delivery->run(); });
    if (status == 0) status = acceptor->open();
    if (status == 0) undo.dismiss();
    return status;
}

int Service::open() {
    wakeup_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeup_.valid()) return -errno;
    epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_.valid()) return -errno;
    epoll_event wakeup{};
    wakeup.events = EPOLLIN;
    wakeup.data.u64 = ServiceDelivery::kInbox;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeup_.get(), &wakeup) != 0) return -errno;
    if (const int status = endpoint_.offer(uuid)) return status;
    // The group is looked up here and not for each client: the lane does not wait for a directory of users.
    acceptor_ =
        std::make_shared<Acceptor>(Process::get().lane, endpoint_.takeListener(), trustedGroup(), weak_from_this());
    return 0;
}

void Service::withdraw() {
    upcall.gate.shut();
    std::shared_ptr<Acceptor> acceptor;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        endpoint_.withdraw();
        acceptor.swap(acceptor_);
    }
    if (acceptor) acceptor->close();
}

void Service::dropSessions() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    wake();
    for (const auto& entry : sessions_) entry.second->shutdown();
}

void Service::stop() {
    withdraw();
    dropSessions();
    upcall.gate.waitEmpty();
}

void Service::wake() {
    const std::uint64_t one = 1;
    // Full only when a wake-up is pending anyway.
    [[maybe_unused]] const ssize_t written = ::write(wakeup_.get(), &one, sizeof(one));
}

std::shared_ptr<Session> Service::find(std::uint16_t clientId) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = sessions_.find(clientId);
    return found == sessions_.end() ? nullptr : found->second;
}

int Service::callback(std::uint16_t clientId, const CallbackRecord& record) {
    const std::shared_ptr<Session> session = find(clientId);
    if (!session) return -ENOTCONN;
    if (record.functionId == SERVER_FD_PROCESSING_COMPLETED_ID) return session->acknowledge();
    FrameHeader header;
    header.type = FrameType::Callback;
    header.functionId = record.functionId;
    header.length = record.length;
    header.context = reinterpret_cast<std::uintptr_t>(record.requestContext);
    return session->send(header, record.payload, record.requestContext != nullptr);
}

int Service::share(std::uint16_t clientId, const ShareFdMsg* message) {
    OutgoingShare outgoing;
    if (const int status = outgoing.take(message)) return status;
    const std::shared_ptr<Session> session = find(clientId);
    return session ? session->share(outgoing) : -ENOTCONN;
}

void Service::welcome(PacketSocket main, Peer peer, bool probe) {
    Welcome welcome;
    welcome.version = kVersion;
    welcome.pid = ::getpid();
    welcome.uid = ::geteuid();
    welcome.serviceHandle = handle;
    welcome.startedAt = startedAt_;
    FrameHeader header;
    header.type = FrameType::Welcome;
    header.length = sizeof(welcome);
    PacketSocket theirControl;
    std::list<std::shared_ptr<Session>> arrival(1);  // made before the welcome, after which nothing may fail
    std::shared_ptr<Session>& session = arrival.front();
    if (!probe) header.status = admit(main, peer, theirControl, session);
    if (session) welcome.clientId = session->id;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        welcome.clients = static_cast<std::uint32_t>(sessions_.size());
    }
    if (!session) {
        main.send(header, &welcome, -1, Wait::No);
        return;
    }
    // From here on the session is the delivery thread's to end.
    if (session->main.send(header, &welcome, theirControl.fd(), Wait::No) != 0) session->shutdown();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        arrived_.splice(arrived_.end(), arrival);
    }
    wake();
}

// A process that has ended may have left its own ends of a connection under way to us, where they stay open as long as
// that client's requests are not read.
void Service::letAbandonedLeave() {
    std::vector<std::shared_ptr<Session>> sessions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sessions.reserve(sessions_.size());
        for (const auto& entry : sessions_) sessions.push_back(entry.second);
    }
    for (const auto& session : sessions) {
        if (::kill(session->peer.pid, 0) != 0 && errno == ESRCH) session->letLeave();
    }
}

int Service::admit(PacketSocket& main, Peer peer, PacketSocket& theirControl, std::shared_ptr<Session>& session) {
    letAbandonedLeave();
    PacketSocket control;
    if (const int status = PacketSocket::pair(control, theirControl)) return status;
    const std::uint16_t id = Process::get().clientIds.take();
    if (id == 0) return -EUSERS;
    Undo noId([id] { Process::get().clientIds.release(id); });
    if (const int status = reserveClient(peer.pid)) return status;
    Undo noClient([&] { releaseClient(peer.pid); });
    const auto admitted = std::make_shared<Session>(id, peer, std::move(main), std::move(control), Process::get().lane,
                                                    budget_, weak_from_this(), spinLimit_.count() > 0);
    Undo noSession([&] {
        admitted->shutdown();
        Session::release(admitted);
    });
    if (const int status = admitted->attach()) return status;
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return -ECONNREFUSED;
    sessions_.emplace(id, admitted);
    session = admitted;
    noSession.dismiss();
    noClient.dismiss();
    noId.dismiss();
    return 0;
}

int Service::reserveClient(pid_t pid) {
    std::lock_guard<std::mutex> lock(mutex_);
    PeerUse& use = peers_[pid];
    if (sessions_.size() >= kClientsPerService || use.clients >= kClientsPerPeer) {
        if (use.clients == 0) peers_.erase(pid);
        return -EUSERS;
    }
    ++use.clients;
    return 0;
}

void Service::releaseClient(pid_t pid) {
    std::lock_guard<std::mutex> lock(mutex_);
    releaseClientLocked(pid);
}

void Service::releaseClientLocked(pid_t pid) {
    const auto use = peers_.find(pid);
    if (--use->second.clients == 0) peers_.erase(use);
}

void Service::forget(std::shared_ptr<Session> session) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sessions_.erase(session->id);
        peers_.find(session->peer.pid)->second.channels -= session->channels;
        releaseClientLocked(session->peer.pid);
        Process::get().clientIds.release(session->id);
    }
    Session::release(std::move(session));
}

bool Service::reserveChannel(Session& session) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sessions_.count(session.id) == 0) return false;
    PeerUse& use = peers_.find(session.peer.pid)->second;
    if (use.channels >= kChannelsPerPeer) return false;
    ++use.channels;
    ++session.channels;
    return true;
}

void Service::releaseChannel(Session& session) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sessions_.count(session.id) == 0) return;  // all of them were released with it
    --peers_.find(session.peer.pid)->second.channels;
    --session.channels;
}

void Service::resume(std::uint16_t clientId) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        resumed_.push_back(clientId);
    }
    wake();
}

void Service::acknowledged(std::uint16_t clientId) {
    Call call;
    call.type = ASYNC_FUNCTION;
    call.peerId = clientId;
    call.functionId = CLIENT_FD_PROCESSING_COMPLETED_ID;
    call.status = -1;
    upcall.run(call);
}

}  // namespace nexnipc
