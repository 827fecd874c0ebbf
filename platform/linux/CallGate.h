#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace nexnipc {

// Counts the listener calls of one handle, so that they can be stopped and waited for.
class CallGate {
public:
    // Stands around one call. False when the gate is shut: the call must not be made.
    class Entry {
    public:
        explicit Entry(CallGate& gate);
        ~Entry();
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        explicit operator bool() const { return entered_; }

    private:
        friend class CallGate;
        CallGate& gate_;
        Entry* outer_ = nullptr;  // the entry of this thread around this one
        bool entered_ = false;
    };

    // No call starts after this.
    void shut();
    // Waits until no call is running. Returns at once when called from inside one.
    void waitEmpty();
    // Waits until no other thread is in a call, or the deadline.
    void waitOthersUntil(std::chrono::steady_clock::time_point deadline);

private:
    unsigned ownEntries() const;

    std::mutex mutex_;
    std::condition_variable left_;
    unsigned inside_ = 0;
    bool shut_ = false;
};

}  // namespace nexnipc
