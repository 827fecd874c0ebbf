#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "nex_nipc.h"

namespace interleaving {

/// A platform with one service that comes and goes, and that refuses connections, loses them and fails to disconnect
/// as it likes. Events of a connection come in order, on a thread that calls `deliver`, and none runs once its
/// connection is disconnected; a service tells of a client that comes.
class ModelPlatform {
public:
    static ModelPlatform& instance();

    void reset();
    /// Without one connects fail; those that are connected hear that it went down.
    void setService(bool up);
    /// Delivers events until nobody is left who could cause one.
    void deliver();

    enum class State { Open, Gone, Failed, Undead, Closed };
    struct Connection {
        std::int32_t handle = -1;
        nexNipc_listener_t listener = nullptr;
        void* context = nullptr;
        State state = State::Open;
        struct Event {
            std::uint16_t id;
            std::int32_t status;
        };
        std::deque<Event> events{};
        bool inListener = false;
    };
    /// What is neither disconnected nor was given up by the platform.
    std::vector<std::int32_t> held() const;
    bool isOpen(std::int32_t handle) const;

    /// The operations come in here.
    nex_status_t open(std::int32_t* handle, nexNipc_listener_t listener, void* context, bool isService);
    nex_status_t close(std::int32_t handle);

private:
    Connection* nextToDeliver();

    std::deque<Connection> connections_;
    std::int32_t nextHandle_ = 100;
    bool serviceUp_ = true;
};

}  // namespace interleaving
