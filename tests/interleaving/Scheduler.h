#pragma once

#include <semaphore.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace interleaving {

/// Lets the threads of one schedule run one at a time, and decides by the schedule's number who goes on at each lock,
/// wait, sleep and log line. The same number gives the same schedule.
///
/// Locks, waits, thread starts and the steady clock of everything in this program come here (see Interposed.cpp). The
/// clock stands still until nobody else can go on, or at random in an impatient schedule.
class Scheduler {
public:
    static Scheduler& instance();

    /// From here on what is drawn follows from `number`.
    void begin(std::uint64_t number);
    /// Runs the jobs to their end, and all threads that they start.
    void run(const std::vector<std::function<void()>>& jobs);
    /// Time may pass while somebody could go on.
    bool impatient = false;
    /// So many threads can be had, then one cannot, then all others can.
    unsigned int threadsUntilShortage = 0;

    /// Anybody may go on here.
    void yield();
    static constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
    /// Until somebody wakes those who wait for `reason`; false when the clock reached `deadline` first.
    bool wait(const void* reason, std::uint64_t deadline = kNever);
    /// The same, without being waited for: false when nobody but such as this one is left.
    bool attend(const void* reason);
    void wake(const void* reason);

    std::uint64_t now() const { return clock_; }
    /// From 0 to `range` - 1.
    unsigned int random(unsigned int range);
    bool chance(unsigned int oneIn) { return random(oneIn) == 0; }

    /// Prints why this schedule is wrong, and ends the program.
    [[noreturn]] void fail(const char* why) const;
    /// What happened, when one schedule alone is looked at.
    void trace(const char* format, ...) __attribute__((format(printf, 2, 3)));
    bool traces = false;

    /// Whether the calling thread is one of the schedule; a thread that was just started becomes one.
    bool governs();
    /// Calls `start`, which starts one thread, and waits until the schedule has it; or throws what std::thread does.
    void startThread(const std::function<void()>& start);

private:
    enum class State { Ready, Waiting, Attending, Ended };
    struct Actor {
        Actor() { sem_init(&turn, 0, 0); }
        sem_t turn;
        State state = State::Ready;
        const void* reason = nullptr;
        std::uint64_t deadline = kNever;
        bool woken = false;
        std::function<void()> job;
    };
    struct Membership;

    void serve(Actor& actor);
    void end();
    bool sleepAs(State state, const void* reason, std::uint64_t deadline);
    void advance();
    Actor* choose();
    void handOver();

    std::vector<std::unique_ptr<Actor>> pool_;    // Threads for jobs, kept from schedule to schedule.
    std::vector<std::unique_ptr<Actor>> others_;  // Places for the threads that jobs start.
    std::vector<Actor*> actors_;                  // Of this schedule.
    std::vector<Actor*> ready_;
    Actor* running_ = nullptr;
    Actor* expected_ = nullptr;
    sem_t arrived_, over_;
    std::uint64_t number_ = 0;
    std::uint64_t state_ = 0;
    std::uint64_t clock_ = 1'000'000'000;
    unsigned int steps_ = 0;
    unsigned int haste_ = 0;
    static thread_local Actor* self;

    Scheduler();
};

}  // namespace interleaving
