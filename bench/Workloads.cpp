#include "Workloads.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "Process.h"
#include "Report.h"

namespace bench {
namespace {

std::uint64_t duration(const Options& options) { return static_cast<std::uint64_t>(options.seconds * 1e9); }

// W1 and W4: one caller's calls, one after the other, until `most` of them or the time is through.
std::vector<double> callRepeatedly(const Options& options, Subject& subject, int caller, long most,
                                   std::uint64_t limit) {
    const std::vector<char> data(options.size, 'q');
    const std::size_t expected = options.is("W4") && options.variant != "answers" ? 0 : options.size;
    std::vector<double> latencies;
    latencies.reserve(static_cast<std::size_t>(most));
    const std::uint64_t start = now();
    for (std::uint64_t before = start; static_cast<long>(latencies.size()) < most && before - start < limit;) {
        const auto turn = static_cast<long>(latencies.size());
        require(subject.call(caller, turn, data.data(), data.size()) == expected, "answer of the wrong size");
        const std::uint64_t after = now();
        latencies.push_back(static_cast<double>(after - before));
        before = after;
    }
    return latencies;
}

// All callers at once, `most` calls of each.
std::vector<double> callFromAll(const Options& options, Subject& subject, long most, std::uint64_t limit) {
    std::vector<std::vector<double>> latencies(static_cast<std::size_t>(options.callers));
    const auto run = [&](int caller) {
        latencies[static_cast<std::size_t>(caller)] = callRepeatedly(options, subject, caller, most, limit);
    };
    std::vector<std::thread> others;
    for (int caller = 1; caller < options.callers; ++caller) others.emplace_back(run, caller);
    run(0);
    for (std::thread& other : others) other.join();
    for (int caller = 1; caller < options.callers; ++caller) {
        const std::vector<double>& more = latencies[static_cast<std::size_t>(caller)];
        latencies[0].insert(latencies[0].end(), more.begin(), more.end());
    }
    return std::move(latencies[0]);
}

void measureCalls(const Options& options, Subject& subject, pid_t service) {
    subject.connect();
    callFromAll(options, subject, options.is("W4") ? 5 : 500, duration(options) / 4);
    const Usage before = Usage::take(service);
    std::vector<double> latencies =
        callFromAll(options, subject, std::max(options.count / options.callers, 1L), duration(options));
    const Usage after = Usage::take(service);
    const auto count = static_cast<double>(latencies.size());
    printRun(options, before, after, count, after.at - before.at, std::move(latencies));
}

void measurePipeline(const Options& options, Subject& subject, pid_t service) {
    subject.connect();
    const long probe = std::min(options.count, 2000L);
    subject.pipeline(probe);
    const std::uint64_t start = now();
    subject.pipeline(probe);
    const double rate = static_cast<double>(probe) / static_cast<double>(now() - start);
    const long count = std::clamp(static_cast<long>(options.seconds * 1e9 * rate), 1L, options.count);

    const Usage before = Usage::take(service);
    subject.pipeline(count);
    const Usage after = Usage::take(service);
    printRun(options, before, after, static_cast<double>(count), after.at - before.at, {});
}

void measureEvents(const Options& options, Subject& subject, SharedPage& page, pid_t service) {
    std::atomic<std::uint64_t> last{0};
    std::vector<double> latencies;
    if (options.rate > 0) latencies.reserve(static_cast<std::size_t>(options.count));
    subject.subscribe([&](int subscriber, const char* data, std::size_t size) {
        require(size == options.size, "event of the wrong size");
        const std::uint64_t arrived = now();
        std::uint64_t published = 0;
        std::memcpy(&published, data, sizeof(published));
        if (options.rate > 0 && subscriber == 0) latencies.push_back(static_cast<double>(arrived - published));
        last.store(arrived, std::memory_order_relaxed);
        page.arrivals[subscriber].count.fetch_add(1, std::memory_order_release);
    });
    page.subscribed = options.subscribers;

    while (page.publishingSince == 0) nap(1000);
    const Usage before = Usage::take(service);
    const auto stalled = [&] { return last != 0 && now() - last > 2000000000U; };
    for (;;) {
        const long published = page.published;
        if (published >= 0 && (page.slowestSubscriber(options.subscribers) >= published || stalled())) break;
        nap(5000);
    }
    const Usage after = Usage::take(service);
    double delivered = 0;
    for (int i = 0; i < options.subscribers; ++i) delivered += static_cast<double>(page.arrivals[i].count);
    const double expected = static_cast<double>(page.published) * options.subscribers;
    printRun(options, before, after, delivered, last - page.publishingSince, std::move(latencies),
             ',' + field("delivered", delivered / expected, 4));
}

void measureFootprint(const Options& options, Subject& subject, pid_t service) {
    const pid_t self = getpid();
    const long unconnected = statusField(self, "VmRSS:");
    subject.connect();
    callRepeatedly(options, subject, 0, 100, duration(options) + 1000000000U);
    nap(1000000);
    const long client = contextSwitches(self);
    const long server = contextSwitches(service);
    nap(5000000);
    const long ownNap = 1;
    const auto wakeups = [](long later, long earlier) { return static_cast<double>(later - earlier) / 5; };
    const double clientWakeups = wakeups(contextSwitches(self) - ownNap, client);
    const double serverWakeups = wakeups(contextSwitches(service), server);

    std::string fields = field("rss_unconnected_kb", static_cast<double>(unconnected), 0) + ',' +
                         field("wakeups_client", clientWakeups, 1) + ',' + field("wakeups_server", serverWakeups, 1) +
                         ',' + field("rss_daemons_kb", 0, 0);
    const struct {
        const char* name;
        pid_t pid;
        const char* key;
    } figures[] = {
        {"rss_client_kb", self, "VmRSS:"},    {"rss_server_kb", service, "VmRSS:"},
        {"anon_client_kb", self, "RssAnon:"}, {"anon_server_kb", service, "RssAnon:"},
        {"threads_client", self, "Threads:"}, {"threads_server", service, "Threads:"},
    };
    for (const auto& f : figures) fields += ',' + field(f.name, static_cast<double>(statusField(f.pid, f.key)), 0);
    printLine(options, fields);
}

}  // namespace

void measure(const Options& options, Subject& subject, SharedPage& page, pid_t service) {
    if (options.is("W2")) return measurePipeline(options, subject, service);
    if (options.is("W3")) return measureEvents(options, subject, page, service);
    if (options.is("W5")) return measureFootprint(options, subject, service);
    measureCalls(options, subject, service);
}

}  // namespace bench
