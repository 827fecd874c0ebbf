#include "Scheduler.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <system_error>
#include <thread>

namespace interleaving {
namespace {

constexpr unsigned int kTooManySteps = 100'000;

void await(sem_t& semaphore) {
    while (sem_wait(&semaphore) != 0) continue;
}

}  // namespace

thread_local Scheduler::Actor* Scheduler::self = nullptr;

/// Ends with the thread that has it.
struct Scheduler::Membership {
    ~Membership() { instance().end(); }
};

Scheduler& Scheduler::instance() {
    static auto* const scheduler = new Scheduler;
    return *scheduler;
}

Scheduler::Scheduler() {
    sem_init(&arrived_, 0, 0);
    sem_init(&over_, 0, 0);
}

void Scheduler::begin(std::uint64_t number) {
    number_ = state_ = number;
    steps_ = 0;
    haste_ = random(3) * 3;
    clock_ = 1'000'000'000;
    impatient = false;
    threadsUntilShortage = 0;
}

void Scheduler::run(const std::vector<std::function<void()>>& jobs) {
    actors_.clear();
    for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (i == pool_.size()) {
            pool_.push_back(std::make_unique<Actor>());
            std::thread([this, &actor = *pool_.back()] { serve(actor); }).detach();
        }
        pool_[i]->job = jobs[i];
        pool_[i]->state = State::Ready;
        actors_.push_back(pool_[i].get());
    }
    running_ = nullptr;
    handOver();
    await(over_);
}

void Scheduler::serve(Actor& actor) {
    self = &actor;
    for (;;) {
        await(actor.turn);
        actor.job();
        end();
    }
}

void Scheduler::end() {
    self->state = State::Ended;
    handOver();
}

void Scheduler::startThread(const std::function<void()>& start) {
    if (threadsUntilShortage > 0 && --threadsUntilShortage == 0) {
        trace("no thread can be had");
        throw std::system_error(EAGAIN, std::generic_category());
    }
    const auto free = std::find_if(others_.begin(), others_.end(), [this](const auto& actor) {
        return std::find(actors_.begin(), actors_.end(), actor.get()) == actors_.end();
    });
    expected_ = free != others_.end() ? free->get() : others_.emplace_back(std::make_unique<Actor>()).get();
    expected_->state = State::Ready;
    start();
    await(arrived_);
}

bool Scheduler::governs() {
    if (self != nullptr) return true;
    if (expected_ == nullptr || running_ == nullptr) return false;
    static thread_local Membership membership;
    self = expected_;
    expected_ = nullptr;
    actors_.push_back(self);
    sem_post(&arrived_);
    await(self->turn);
    return true;
}

void Scheduler::yield() {
    if (self == nullptr) return;  // Between schedules.
    if (++steps_ > kTooManySteps) fail("it does not come to an end");
    handOver();
}

bool Scheduler::wait(const void* reason, std::uint64_t deadline) { return sleepAs(State::Waiting, reason, deadline); }

bool Scheduler::attend(const void* reason) { return sleepAs(State::Attending, reason, kNever); }

bool Scheduler::sleepAs(State state, const void* reason, std::uint64_t deadline) {
    self->state = state;
    self->reason = reason;
    self->deadline = deadline;
    self->woken = false;
    yield();
    return self->woken;
}

void Scheduler::wake(const void* reason) {
    for (Actor* const actor : actors_) {
        if (actor->reason != reason || (actor->state != State::Waiting && actor->state != State::Attending)) continue;
        actor->state = State::Ready;
        actor->woken = true;
    }
}

// To the next time that somebody waits for; without any, those who attend may go home.
void Scheduler::advance() {
    std::uint64_t next = kNever;
    for (const Actor* const actor : actors_) {
        if (actor->state == State::Waiting) next = std::min(next, actor->deadline);
    }
    if (next != kNever) clock_ = std::max(clock_, next);
    for (Actor* const actor : actors_) {
        const bool isDue = actor->state == State::Waiting && actor->deadline <= clock_ && next != kNever;
        if (isDue || (next == kNever && ready_.empty() && actor->state == State::Attending)) {
            actor->state = State::Ready;
            ready_.push_back(actor);
        }
    }
}

Scheduler::Actor* Scheduler::choose() {
    ready_.clear();
    for (Actor* const actor : actors_) {
        if (actor->state == State::Ready) ready_.push_back(actor);
    }
    if (ready_.empty() || (impatient && chance(64))) advance();
    if (ready_.empty()) return nullptr;
    const bool goesOn = running_ != nullptr && running_->state == State::Ready;
    return goesOn && random(8) < haste_ ? running_ : ready_[random(static_cast<unsigned int>(ready_.size()))];
}

void Scheduler::handOver() {
    Actor* const next = choose();
    if (next == self && next != nullptr) return;
    Actor* const left = self;
    const bool leaves = left == nullptr || left->state == State::Ended;
    running_ = next;
    if (next != nullptr) {
        sem_post(&next->turn);
    } else {
        for (const Actor* const actor : actors_) {
            if (actor->state == State::Waiting) fail("everybody waits for somebody else");
        }
        sem_post(&over_);
    }
    if (!leaves) await(left->turn);
}

// The generator is SplitMix64.
unsigned int Scheduler::random(unsigned int range) {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15U);
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
    return static_cast<unsigned int>((z ^ (z >> 31U)) >> 32U) % range;
}

void Scheduler::fail(const char* why) const {
    std::printf("FAILED: %s. Again, with every step: nipc_interleaving 1 %llu\n", why,
                static_cast<unsigned long long>(number_));
    std::fflush(stdout);
    _exit(1);
}

void Scheduler::trace(const char* format, ...) {
    if (!traces) return;
    const auto found = std::find(actors_.begin(), actors_.end(), self);
    std::printf("%6u ms  thread %td  ", static_cast<unsigned int>(clock_ / 1'000'000 % 1'000'000),
                found - actors_.begin());
    std::va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
}

}  // namespace interleaving
