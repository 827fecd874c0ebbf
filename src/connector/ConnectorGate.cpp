#include "connector/ConnectorGate.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace nipcconnector {
namespace ConnectorGate {

struct Door {
    NIPCConnector* connector = nullptr;
    std::weak_ptr<NIPCConnector> owner;
    bool owned = false;
    bool closed = false;
    unsigned int inside = 0;
};

namespace {

struct Gate {
    std::mutex mutex;
    std::condition_variable left;
    std::unordered_map<const void*, std::shared_ptr<Door>> doors;
    std::vector<std::shared_ptr<NIPCConnector>> kept;
};

Gate& gate() {
    static Gate& instance = *new Gate;
    return instance;
}

thread_local Pin* innermostPin = nullptr;

using Clock = std::chrono::steady_clock;
// With the half second that the platform may take before, a process is gone within a second.
constexpr std::chrono::milliseconds patience(400);

std::shared_ptr<Door> findDoor(const void* address) {
    const auto found = gate().doors.find(address);
    return found != gate().doors.end() ? found->second : nullptr;
}

}  // namespace

unsigned int visitsOfThisThread(const Door& door) {
    unsigned int visits = 0;
    for (const Pin* pin = innermostPin; pin != nullptr; pin = pin->outer) {
        if (pin->door.get() == &door) ++visits;
    }
    return visits;
}

namespace {

// The real clock, also in tests: it is about memory, not about behaviour.
void waitForOthers(std::unique_lock<std::mutex>& lock, const Door& door, Clock::time_point deadline) {
    const unsigned int own = visitsOfThisThread(door);
    gate().left.wait_until(lock, deadline, [&] { return door.inside == own; });
}

}  // namespace

Pin::Pin(const void* address, Visitor visitor) {
    const std::lock_guard<std::mutex> lock(gate().mutex);
    std::shared_ptr<Door> found = findDoor(address);
    if (!found || (found->closed && visitor == Visitor::Any)) return;
    if (found->owned) {
        owner = found->owner.lock();
        if (!owner) return;
    }
    door = std::move(found);
    connector = door->connector;
    ++door->inside;
    outer = innermostPin;
    innermostPin = this;
}

Pin::~Pin() {
    if (connector == nullptr) return;
    {
        const std::lock_guard<std::mutex> lock(gate().mutex);
        --door->inside;
        innermostPin = outer;
        gate().left.notify_all();
    }
    owner.reset();
}

void open(NIPCConnector* connector) {
    auto door = std::make_shared<Door>();
    door->connector = connector;
    const std::lock_guard<std::mutex> lock(gate().mutex);
    gate().doors[connector] = std::move(door);
}

void adopt(const std::shared_ptr<NIPCConnector>& connector) {
    const std::lock_guard<std::mutex> lock(gate().mutex);
    const std::shared_ptr<Door> door = findDoor(connector.get());
    if (!door) return;
    door->owner = connector;
    door->owned = true;
}

void close(NIPCConnector* connector) {
    const std::lock_guard<std::mutex> lock(gate().mutex);
    if (const std::shared_ptr<Door> door = findDoor(connector)) door->closed = true;
}

bool isOpen(NIPCConnector* connector) {
    const std::lock_guard<std::mutex> lock(gate().mutex);
    const std::shared_ptr<Door> door = findDoor(connector);
    return door && !door->closed;
}

void retire(NIPCConnector* connector) {
    std::unique_lock<std::mutex> lock(gate().mutex);
    const std::shared_ptr<Door> door = findDoor(connector);
    if (!door) return;
    waitForOthers(lock, *door, Clock::now() + patience);
    gate().doors.erase(connector);
}

void releaseOrKeep(std::shared_ptr<NIPCConnector>* first, std::size_t count) {
    const Clock::time_point deadline = Clock::now() + patience;
    for (std::shared_ptr<NIPCConnector>* connector = first; connector != first + count; ++connector) {
        std::unique_lock<std::mutex> lock(gate().mutex);
        const std::shared_ptr<Door> door = findDoor(connector->get());
        if (!door) continue;
        waitForOthers(lock, *door, deadline);
        if (door->inside > 0) {
            gate().kept.push_back(std::move(*connector));
        } else {
            gate().doors.erase(connector->get());
        }
        lock.unlock();
        connector->reset();
    }
}

}  // namespace ConnectorGate
}  // namespace nipcconnector
