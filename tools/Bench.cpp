// nipcctl bench: what a round trip, an event and a large transfer take on this machine.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BenchService.h"
#include "Commands.h"
#include "Link.h"
#include "Output.h"

namespace nipcctl {
namespace {

using smarthome::RequestStatus;

constexpr unsigned largeFactor = 20;  // A large transfer takes some twenty times as long as a small message.
constexpr unsigned large = 65536;
constexpr double patience = 30;

struct BenchOptions {
    std::uint16_t uuid = 64999;
    unsigned count = 2000;
    bool json = false;
};

struct Workload {
    const char* name;
    unsigned bytes;
    std::function<double()> measure;  // one, in microseconds
};

struct Result {
    const char* name;
    unsigned bytes;
    std::vector<double> times;  // sorted

    double percentile(double share) const {
        const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(times.size())));
        return times[rank > 0 ? rank - 1 : 0];
    }
    double mean() const {
        double sum = 0;
        for (const double time : times) sum += time;
        return sum / static_cast<double>(times.size());
    }
};

/// What is waited for. It may come when nobody waits any longer.
struct Answer {
    std::shared_ptr<Monitor> monitor;
    bool done = false;
    double time = 0;

    void finish(double microseconds) {
        monitor->change([&] {
            done = true;
            time = microseconds;
        });
    }
};

class Bencher {
public:
    explicit Bencher(const BenchOptions& options) : link_(makeClient({options.uuid, false})) {
        link_.connector->subscribeForEvent("nipcctl", bench::event,
                                           [answer = answer_](const char* data, unsigned int length) {
                                               const std::int64_t arrived = bench::now();
                                               std::int64_t published = 0;
                                               if (length >= sizeof(published))
                                                   std::memcpy(&published, data, sizeof(published));
                                               answer->finish(static_cast<double>(arrived - published) / 1000);
                                           });
        initialize(link_);
        link_.awaitConnected(deadlineIn(patience), true);
    }

    double synchronous(const std::string& payload) {
        const std::int64_t start = bench::now();
        const auto result = link_.connector->makeSyncRequest("nipcctl", bench::echo, payload.data(), sizeOf(payload));
        if (result.status != RequestStatus::Success || result.response.size() != payload.size()) fail();
        return static_cast<double>(bench::now() - start) / 1000;
    }

    double asynchronous(const char* name, const std::string& payload) {
        answer_->done = false;
        const std::int64_t start = bench::now();
        const RequestStatus status =
            link_.connector->makeAsyncRequest("nipcctl", name, payload.data(), sizeOf(payload),
                                              [answer = answer_, start](bool, const char*, unsigned int) {
                                                  answer->finish(static_cast<double>(bench::now() - start) / 1000);
                                              });
        if (status != RequestStatus::Success) fail();
        return await();
    }

    double event(unsigned bytes) {
        answer_->done = false;
        const std::string length = std::to_string(bytes);
        const auto result = link_.connector->makeSyncRequest("nipcctl", bench::publish, length.data(), sizeOf(length));
        if (result.status != RequestStatus::Success) fail();
        return await();
    }

private:
    static unsigned int sizeOf(const std::string& bytes) { return static_cast<unsigned int>(bytes.size()); }

    double await() {
        if (!link_.monitor->await(deadlineIn(patience), [this] { return answer_->done; })) fail();
        return answer_->time;
    }

    [[noreturn]] static void fail() { throw Failure(Exit::Timeout, "the service that is measured does not answer"); }

    const Link link_;
    const std::shared_ptr<Answer> answer_ = std::make_shared<Answer>(Answer{link_.monitor});
};

/// Zeros, which no log line copies.
std::string payloadOf(unsigned bytes) { return std::string(bytes, '\0'); }

std::vector<Workload> workloadsOf(Bencher& bencher) {
    std::vector<Workload> workloads;
    for (const unsigned bytes : {16U, 1024U, 16000U})
        workloads.push_back({"synchronous round trip", bytes,
                             [&bencher, payload = payloadOf(bytes)] { return bencher.synchronous(payload); }});
    for (const unsigned bytes : {16U, 16000U})
        workloads.push_back({"asynchronous round trip", bytes, [&bencher, payload = payloadOf(bytes)] {
                                 return bencher.asynchronous(bench::echo, payload);
                             }});
    for (const unsigned bytes : {16U, 16000U})
        workloads.push_back({"event, one way", bytes, [&bencher, bytes] { return bencher.event(bytes); }});
    for (const unsigned bytes : {large, 1U << 20U, 5U << 20U})
        workloads.push_back({"large transfer", bytes, [&bencher, payload = payloadOf(bytes)] {
                                 return bencher.asynchronous(bench::take, payload);
                             }});
    for (const unsigned bytes : {1U << 20U})
        workloads.push_back({"large event, one way", bytes, [&bencher, bytes] { return bencher.event(bytes); }});
    return workloads;
}

Result measure(const Workload& workload, unsigned count) {
    if (workload.bytes >= large) count /= largeFactor;
    count = std::max(count, 1U);
    for (unsigned i = 0; i < count / 10; ++i) workload.measure();  // warms up
    Result result{workload.name, workload.bytes, {}};
    result.times.reserve(count);
    for (unsigned i = 0; i < count; ++i) result.times.push_back(workload.measure());
    std::sort(result.times.begin(), result.times.end());
    return result;
}

std::string decimal(double value) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.1f", value);
    return text;
}

std::vector<std::string> rowOf(const Result& result) {
    const double mean = result.mean();
    return {result.name,
            std::to_string(result.bytes),
            std::to_string(result.times.size()),
            decimal(result.percentile(0.5)),
            decimal(result.percentile(0.9)),
            decimal(result.percentile(0.99)),
            decimal(result.times.back()),
            decimal(1e6 / mean),
            decimal(result.bytes / mean)};
}

Json jsonOf(const Result& result) {
    return {{"name", result.name},
            {"bytes", result.bytes},
            {"count", result.times.size()},
            {"p50_us", result.percentile(0.5)},
            {"p90_us", result.percentile(0.9)},
            {"p99_us", result.percentile(0.99)},
            {"max_us", result.times.back()},
            {"mean_us", result.mean()}};
}

Exit runBench(const BenchOptions& options) {
    std::vector<Result> results;
    {
        const auto service = std::make_unique<bench::ServiceProcess>(options.uuid);
        Bencher bencher(options);
        for (const Workload& workload : workloadsOf(bencher)) results.push_back(measure(workload, options.count));
    }
    if (options.json) {
        for (const Result& result : results) writeJson(jsonOf(result));
        return Exit::Ok;
    }
    std::vector<std::vector<std::string>> rows{
        {"", "bytes", "count", "p50 us", "p90 us", "p99 us", "max us", "per second", "MB/s"}};
    for (const Result& result : results) rows.push_back(rowOf(result));
    writeOut(table(rows, "lrrrrrrrr"));
    return Exit::Ok;
}

}  // namespace

void addBench(CLI::App& app, Run& run) {
    const auto options = std::make_shared<BenchOptions>();
    CLI::App& command =
        *app.add_subcommand("bench", "Measures round trips, events and large transfers with a service of its own");
    command.add_option("-u,--uuid", options->uuid, "Number for the service (64999)");
    command.add_option("--count", options->count, "How many of each; a twentieth of it for large transfers (2000)");
    command.add_flag("--json", options->json, "Writes a line of JSON per row");
    command.callback([&run, options] { run = [options] { return runBench(*options); }; });
}

}  // namespace nipcctl
