#include "Report.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Process.h"

namespace bench {

Usage Usage::take(pid_t service) {
    Usage usage;
    usage.switches = contextSwitches(getpid()) + contextSwitches(service);
    usage.clientCpu = cpuTime(getpid());
    usage.serviceCpu = cpuTime(service);
    usage.at = now();
    return usage;
}

std::string field(const char* name, double value, int digits) {
    char text[128];
    std::snprintf(text, sizeof(text), "\"%s\":%.*f", name, digits, value);
    return text;
}

void printLine(const Options& o, const std::string& fields) {
    std::printf(
        "{\"system\":\"nipc\",\"variant\":\"%s\",\"pin\":\"%s\",\"workload\":\"%s\",\"size\":%zu,\"subs\":%d,"
        "\"rate\":%ld,\"clients\":%d,\"idle\":%d,\"names\":%d,\"callers\":%d,\"services\":%d,%s}\n",
        o.variant.c_str(), o.pin.c_str(), o.workload.c_str(), o.size, o.subscribers, o.rate, o.clients, o.idle, o.names,
        o.callers, o.services, fields.c_str());
}

void printRun(const Options& options, const Usage& before, const Usage& after, double count, std::uint64_t elapsed,
              std::vector<double> latencies, const std::string& more) {
    const double client = (after.clientCpu - before.clientCpu) / count / 1e3;
    const double service = (after.serviceCpu - before.serviceCpu) / count / 1e3;
    const double switches = static_cast<double>(after.switches - before.switches) / count;
    std::string fields = field("n", count, 0) + ',' + field("per_s", count * 1e9 / static_cast<double>(elapsed), 1) +
                         ',' + field("cpu_us", client + service) + ',' + field("cpu_client_us", client) + ',' +
                         field("cpu_server_us", service) + ',' + field("switches", switches);
    if (!latencies.empty()) {
        std::sort(latencies.begin(), latencies.end());
        const auto percentile = [&](double share) {
            return latencies[static_cast<std::size_t>(static_cast<double>(latencies.size() - 1) * share)] / 1e3;
        };
        fields += ',' + field("p50_us", percentile(0.5)) + ',' + field("p99_us", percentile(0.99));
    }
    printLine(options, fields + more);
}

}  // namespace bench
