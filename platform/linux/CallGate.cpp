#include "CallGate.h"

namespace nexnipc {
namespace {

thread_local CallGate::Entry* innermost = nullptr;

}  // namespace

CallGate::Entry::Entry(CallGate& gate) : gate_(gate) {
    std::lock_guard<std::mutex> lock(gate_.mutex_);
    if (gate_.shut_) return;
    ++gate_.inside_;
    entered_ = true;
    outer_ = innermost;
    innermost = this;
}

CallGate::Entry::~Entry() {
    if (!entered_) return;
    innermost = outer_;
    std::lock_guard<std::mutex> lock(gate_.mutex_);
    --gate_.inside_;
    if (gate_.shut_) gate_.left_.notify_all();
}

unsigned CallGate::ownEntries() const {
    unsigned count = 0;
    for (const Entry* entry = innermost; entry != nullptr; entry = entry->outer_) {
        if (&entry->gate_ == this) ++count;
    }
    return count;
}

void CallGate::shut() {
    std::lock_guard<std::mutex> lock(mutex_);
    shut_ = true;
}

void CallGate::waitEmpty() {
    if (ownEntries() > 0) return;
    std::unique_lock<std::mutex> lock(mutex_);
    left_.wait(lock, [this] { return inside_ == 0; });
}

void CallGate::waitOthersUntil(std::chrono::steady_clock::time_point deadline) {
    const unsigned own = ownEntries();
    std::unique_lock<std::mutex> lock(mutex_);
    left_.wait_until(lock, deadline, [this, own] { return inside_ <= own; });
}

}  // namespace nexnipc
