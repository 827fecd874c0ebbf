#include "Observers.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace bench {
namespace {

std::atomic<long> looked{0};

#define NIPC_BENCH_FORMAT_LINE()                                     \
    char line[512];                                                  \
    std::va_list arguments;                                          \
    va_start(arguments, format);                                     \
    looked += std::vsnprintf(line, sizeof(line), format, arguments); \
    va_end(arguments)

class CountingLogger final : public nipcconnector::ILogger {
public:
    void info(const char* format, ...) override { NIPC_BENCH_FORMAT_LINE(); }
    void debug(const char* format, ...) override { NIPC_BENCH_FORMAT_LINE(); }
    void error(const char* format, ...) override { NIPC_BENCH_FORMAT_LINE(); }
    void warn(const char* format, ...) override { NIPC_BENCH_FORMAT_LINE(); }
};

class CountingRecorder final : public nipcconnector::IMetricsRecorder {
public:
    void record(const std::string&, const std::vector<smarthome::TalvoraDimension>& dimensions) override {
        for (const auto& dimension : dimensions) looked += dimension.intValue;
    }
};

}  // namespace

std::unique_ptr<nipcconnector::ILogger> makeCountingLogger() { return std::make_unique<CountingLogger>(); }

std::unique_ptr<nipcconnector::IMetricsRecorder> makeCountingRecorder() { return std::make_unique<CountingRecorder>(); }

}  // namespace bench
