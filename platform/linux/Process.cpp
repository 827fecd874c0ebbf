#include "Process.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "Client.h"
#include "Service.h"

namespace nexnipc {
namespace {

constexpr std::chrono::milliseconds kExitLimit(500);

}  // namespace

std::uint16_t ClientIds::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (unsigned tried = 0; tried < used_.size(); ++tried) {
        ++last_;
        if (last_ == 0 || used_[last_]) continue;
        used_[last_] = true;
        return last_;
    }
    return 0;
}

void ClientIds::release(std::uint16_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    used_[id] = false;
}

Process::Process()
    : presence(std::make_shared<Presence>(lane)), gatherTimer(std::make_shared<GatherTimer>(lane)), pid_(::getpid()) {}

Process& Process::get() {
    static Process* const process = [] {
        auto* made = new Process;
        std::atexit(atExit);
        return made;
    }();
    return *process;
}

int Process::start() { return quiet_ ? -ECANCELED : lane.start(); }

std::int32_t Process::nextHandle() { return ++lastHandle_; }

void Process::atExit() {
    try {
        get().goQuiet();
    } catch (...) {
        // Out of memory while ending: the kernel closes the rest.
    }
}

void Process::goQuiet() {
    // A child of a fork does not own what its parent offers.
    if (::getpid() != pid_) return;
    quiet_ = true;
    presence->cancelAll();
    const auto openServices = services.close();
    const auto openClients = clients.close();
    for (const auto& service : openServices) service->withdraw();
    for (const auto& client : openClients) client->upcall.gate.shut();
    const auto deadline = std::chrono::steady_clock::now() + kExitLimit;
    for (const auto& service : openServices) service->upcall.gate.waitOthersUntil(deadline);
    for (const auto& client : openClients) client->upcall.gate.waitOthersUntil(deadline);
    for (const auto& client : openClients) client->sendGathered();
    for (const auto& service : openServices) service->dropSessions();
}

}  // namespace nexnipc
