#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "AckSequence.h"
#include "ChannelPool.h"
#include "Connect.h"
#include "Gathering.h"
#include "PacketBatch.h"
#include "SendQueue.h"
#include "SharedBuffers.h"
#include "Spin.h"
#include "Upcall.h"

namespace nexnipc {

// A client's connection to a service. Its sockets are closed with the last reference.
class Client final : public Gatherer, public std::enable_shared_from_this<Client> {
public:
    // Waits for the service, connects and starts the delivery thread; writes the handle before the first call
    // of the listener.
    static int connect(std::int32_t* handle, const ClientConnectRecord& record);

    Client(std::int32_t handle, const ClientConnectRecord& record, Connection connection);

    // Ends it, and waits for running listener calls (not for the one it is called from).
    void disconnect();

    int sendAsync(const AsyncRpcRecord& record);
    int share(const ShareFdMsg* message);
    int callSync(SyncRpcRecord& record);

    void sendGathered() noexcept override;
    void onGatherTimer() noexcept override;

    const std::int32_t handle;
    Upcall upcall;

private:
    int open();
    void shutdown();
    void onControl(PacketBatch& scratch);
    bool handleControl(Packet& packet);

    int send(const FrameHeader& header, const void* payload, int descriptor);
    int sendFromListener(FrameHeader header, const void* payload);
    int flushGathered() noexcept;
    int awaitGathered();

    void deliver();
    int receive(PacketBatch& batch, Spin& spin);
    bool takePackets(PacketBatch& batch, Spin& spin);
    bool handlePacket(Packet& packet);
    bool handleCallback(Packet& packet);
    bool handleShare(Packet& packet);

    int acknowledge();
    void urge(const Channel& channel, const FrameHeader& request) const;
    int exchange(Channel& channel, const FrameHeader& request, const void* payload, int descriptor,
                 SyncRpcRecord& record);
    int takeAnswer(const FrameHeader& answer, int inlineLength, const Fd& memory, SyncRpcRecord& record) const;

    const std::uint16_t uuid_;
    const PacketSocket main_;
    const PacketSocket control_;
    const bool ownProcess_;             // the service is in this process,
    const std::int32_t serviceHandle_;  // under this handle
    const std::uint32_t maxSync_;
    const std::chrono::microseconds spinLimit_;
    ChannelPool channels_;
    AckSequence acks_;
    ReceiveBuffers incomingBuffers_;  // delivery thread
    bool isAnnounced_ = false;        // delivery thread: a share will follow
    std::atomic<std::uint64_t> controlSource_{0};
    std::atomic<std::uint32_t> lastCall_{0};
    std::atomic<bool> disconnected_{false};

    std::mutex gatherMutex_;
    SendQueue gathered_;
    SendBuffers buffers_;
    std::atomic<bool> anyGathered_{false};
    bool full_ = false;   // the service did not take all of it
    bool timed_ = false;  // the timer will look for gathered frames
};

}  // namespace nexnipc
