// nipc_interleaving [schedules] [seed]: the retry thread, listeners, requesters and the end of one connector, let loose
// on each other in as many orders as there are schedules. Each is known by its number, the seed for the first. Whatever
// the order: a client whose service is there ends up connected, with a handle that lives and no other; a service starts
// once; what ends leaves no thread and no connection, and is not used afterwards.
#include <sched.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

#include "ConnectorTestAccess.h"
#include "LineLogger.h"
#include "ModelPlatform.h"
#include "Scheduler.h"
#include "connector/CallbackManager.h"
#include "connector/ConnectedClients.h"
#include "connector/ConnectorGate.h"
#include "connector/Registry.h"
#include "connector/TimeSource.h"

void setDeathCallback(void (*)()) __asm__("__sanitizer_set_death_callback") __attribute__((weak));

using namespace interleaving;
using nipcconnector::NIPCConnector;
using Access = nipcconnector::ConnectorTestAccess;

namespace {

Scheduler& scheduler = Scheduler::instance();
ModelPlatform& platform = ModelPlatform::instance();

class ScheduledTime : public nipcconnector::TimeSource {
public:
    std::uint64_t now() override { return scheduler.now(); }
    void sleep(std::uint64_t milliseconds) override {
        scheduler.wait(this, scheduler.now() + milliseconds * 1'000'000U);
    }
    unsigned int random(unsigned int range) override { return scheduler.random(range); }
    std::cv_status waitUntil(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                             std::uint64_t deadline) override {
        const std::chrono::nanoseconds sinceEpoch(static_cast<std::int64_t>(deadline));
        return condition.wait_until(lock, std::chrono::steady_clock::time_point(sinceEpoch));
    }
};

/// Where the connector lives, and once did: nobody may write there afterwards.
class Place {
public:
    Place() : memory_(std::malloc(sizeof(NIPCConnector))) {}
    ~Place() { std::free(memory_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    std::shared_ptr<NIPCConnector> build(bool isClient, std::unique_ptr<nipcconnector::ILogger> logger) {
        auto* const connector =
            new (memory_) NIPCConnector(isClient, "subject", {"service", 7}, std::move(logger), nullptr);
        return {connector, [this](NIPCConnector* dead) {
                    dead->~NIPCConnector();
                    std::memset(memory_, kGone, sizeof(NIPCConnector));
                    isGone = true;
                }};
    }
    void check() const {
        const auto* const bytes = static_cast<const unsigned char*>(memory_);
        for (std::size_t i = 0; isGone && i < sizeof(NIPCConnector); ++i) {
            if (bytes[i] != kGone) scheduler.fail("written to after its destruction");
        }
    }
    bool isGone = false;

private:
    static constexpr unsigned char kGone = 0xA5;
    void* memory_;
};

class SchedulingLogger : public LineLogger {
public:
    explicit SchedulingLogger(const Place& subject) : place_(subject) {}

private:
    void log(const char* format, std::va_list arguments) override {
        if (place_.isGone) scheduler.fail("logs after its destruction");
        if (scheduler.traces) {
            char line[200];
            std::vsnprintf(line, sizeof line, format, arguments);
            scheduler.trace("%s", line);
        }
        if (scheduler.governs()) scheduler.yield();
    }
    const Place& place_;
};

enum class End { None, Deleted, WithTheRegistry };

/// One connector and all that meets on it.
class Schedule {
public:
    explicit Schedule(std::uint64_t number) {
        scheduler.begin(number);
        platform.reset();
        nipcconnector::connectedClientSet().connectedClients.clear();
        isClient_ = !scheduler.chance(4);
        end_ = static_cast<End>(scheduler.random(3));
        // Who deletes a connector has to give the others the time that they need to leave it.
        scheduler.impatient = end_ != End::Deleted && scheduler.chance(4);
        shortage_ = scheduler.chance(4);
        scheduler.threadsUntilShortage = shortage_ ? scheduler.random(3) + 1 : 0;
        connector_ = place_->build(isClient_, std::make_unique<SchedulingLogger>(*place_));
        raw_ = connector_.get();
        if (end_ == End::WithTheRegistry) enterRegistry();
    }

    ~Schedule() {
        connector_.reset();
        place_->check();
        if (!place_->isGone) static_cast<void>(place_.release());  // Kept, for good.
    }
    Schedule(const Schedule&) = delete;
    Schedule& operator=(const Schedule&) = delete;

    void play() {
        const auto events = [] { platform.deliver(); };
        std::vector<std::function<void()>> jobs = {events, events, user([this] { raw_->initialize(); }),
                                                   user([this] { use(); })};
        if (isClient_) jobs.insert(jobs.end(), {comeAndGo, user([this] { use(); })});
        if (end_ != End::None) jobs.emplace_back([this] { end(); });
        if (end_ == End::WithTheRegistry) connector_.reset();
        scheduler.run(jobs);
        if (end_ == End::None) {
            // Where no thread could be had, nobody connects before the next request.
            if (shortage_ && isIdle()) scheduler.run({events, [this] { isClient_ ? ask() : start(); }});
            checkConnection();
            connector_.reset();
        }
        checkEnd();
    }

    static inline int kept = 0;

private:
    void start() { raw_->initialize(); }
    void ask() { Access::sendSync(*raw_); }
    bool isIdle() const {
        const auto state = Access::state(*raw_);
        return !state.connected && !state.connecting;
    }

    void enterRegistry() {
        nipcconnector::Registry& registry = nipcconnector::registry();
        registry.closed = false;
        registry.instances.emplace("subject", connector_);
        registry.callbackManagers[raw_] = std::make_shared<nipcconnector::CallbackManager>();
        nipcconnector::ConnectorGate::adopt(connector_);
    }

    /// What the application does, on a thread that holds the connector as long.
    std::function<void()> user(std::function<void()> action) {
        return
            [this, action = std::move(action), share = std::make_shared<std::shared_ptr<NIPCConnector>>(connector_)] {
                action();
                share->reset();
                scheduler.wake(this);
            };
    }

    void use() {
        for (unsigned int left = scheduler.random(6); left > 0; --left) {
            if (scheduler.chance(2)) pass();
            if (scheduler.chance(4)) {
                raw_->reportAggregateMetrics();
            } else if (isClient_) {
                ask();
            } else if (scheduler.chance(2)) {
                start();
            } else {
                raw_->publishEvent("event");
            }
        }
    }

    // Times that meet each other, and the slices of the worker's pauses.
    static void pass(std::uint64_t slice = 100) {
        scheduler.wait(nullptr, scheduler.now() + scheduler.random(4) * slice * 1'000'000U);
    }

    static void comeAndGo() {
        const unsigned int times = 2 * scheduler.random(3);
        for (unsigned int i = 0; i < times; ++i) {
            if (i % 2 == 0 || scheduler.chance(2)) pass(i % 2 == 0 ? 100 : 600);
            platform.setService(i % 2 == 1);
        }
    }

    void end() {
        pass();
        scheduler.trace("the end begins");
        if (end_ == End::WithTheRegistry) return nipcconnector::registry().tearDown();
        while (connector_.use_count() > 1) scheduler.wait(this);
        connector_.reset();
    }

    void checkConnection() const {
        const auto state = Access::state(*raw_);
        if (!state.connected) scheduler.fail(state.connecting ? "connecting for ever" : "reconnect lost");
        if (state.connecting) scheduler.fail("connecting and connected");
        if (Access::retryManager(*raw_).isActive()) scheduler.fail("active without a worker");
        if (!platform.isOpen(state.handle)) scheduler.fail("connected with a dead handle");
        if (platform.held().size() != 1) scheduler.fail("a connection leaked");
    }

    void checkEnd() const {
        if (!place_->isGone) {
            if (!scheduler.impatient) scheduler.fail("kept though everybody had left");
            ++kept;
        } else if (isClient_ && !platform.held().empty()) {
            scheduler.fail("a connection outlived its connector");
        }
    }

    std::unique_ptr<Place> place_ = std::make_unique<Place>();
    std::shared_ptr<NIPCConnector> connector_;
    NIPCConnector* raw_ = nullptr;
    End end_ = End::None;
    bool isClient_ = true;
    bool shortage_ = false;
};

void stayOnOneProcessor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
}

void warmUp() {  // What is built at its first use, for which others would have to wait.
    nipcconnector::registry();
    nipcconnector::connectedClientSet();
    nipcconnector::setTimeSource(new ScheduledTime);
    NIPCConnector(true, "first", {"service", 7}, nullptr, nullptr);
}

[[noreturn]] void crash(int) { scheduler.fail("crash"); }

}  // namespace

int main(int argc, char** argv) {
    const unsigned long long schedules = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 5000;
    const unsigned long long seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : std::random_device()();
    std::printf("%llu schedules from number %llu on\n", schedules, seed);
    std::fflush(stdout);
    scheduler.traces = schedules == 1;
    if (setDeathCallback != nullptr) setDeathCallback([] { crash(0); });
    std::signal(SIGSEGV, crash);
    std::signal(SIGABRT, crash);
    stayOnOneProcessor();
    warmUp();
    const auto began = std::chrono::system_clock::now();
    for (unsigned long long number = seed; number != seed + schedules; ++number) Schedule(number).play();
    const std::chrono::duration<double> took = std::chrono::system_clock::now() - began;
    std::printf("%.0f s, %.0f a second; %d connectors kept past the end of the registry\n", took.count(),
                static_cast<double>(schedules) / took.count(), Schedule::kept);
    return 0;
}
