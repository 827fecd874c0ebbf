#include "nipcconnector/testing/Journal.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>

namespace nipcconnector::testing {
namespace {

using smarthome::TalvoraDimension;
using smarthome::TalvoraDimensionType;

std::string describe(const TalvoraDimension& dimension) {
    switch (dimension.valueType) {
        case TalvoraDimensionType::Predefined:
            return '#' + std::to_string(dimension.predefinedId) + dimension.name + dimension.stringValue;
        case TalvoraDimensionType::String:
            return dimension.name + "=\"" + dimension.stringValue + '"';
        case TalvoraDimensionType::Integer:
            return dimension.name + '=' + std::to_string(dimension.intValue) + dimension.stringValue;
    }
    return "of unknown type";
}

Line makeLine(char level, const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return {level, format, std::move(text)};
}

#define NIPC_TESTING_LINE(line, level)              \
    std::va_list arguments;                         \
    va_start(arguments, format);                    \
    Line line = makeLine(level, format, arguments); \
    va_end(arguments)
#define NIPC_TESTING_LOG(operation, level)             \
    void operation(const char* format, ...) override { \
        NIPC_TESTING_LINE(line, level);                \
        journal->add(std::move(line));                 \
    }

struct RecordingLogger : ILogger {
    explicit RecordingLogger(std::shared_ptr<Journal> target) : journal(std::move(target)) {}
    NIPC_TESTING_LOG(info, 'I')
    NIPC_TESTING_LOG(debug, 'D')
    NIPC_TESTING_LOG(error, 'E')
    NIPC_TESTING_LOG(warn, 'W')
    std::shared_ptr<Journal> journal;
};

struct RecordingRecorder : IMetricsRecorder {
    explicit RecordingRecorder(std::shared_ptr<Journal> target) : journal(std::move(target)) {}
    void record(const std::string& metricName, const std::vector<TalvoraDimension>& dimensions) override {
        std::string common, text;
        for (int id = 1; id <= 13; ++id) common += " #" + std::to_string(id);
        common += " MetricName=\"" + metricName + "\" ServiceName=\"" + journal->name + "\" Counter=1";
        for (const auto& dimension : dimensions) text += ' ' + describe(dimension);
        const bool complete = text.compare(0, common.size(), common) == 0;
        journal->add(metric(complete ? metricName + text.substr(common.size()) : "not the common dimensions:" + text));
    }
    std::shared_ptr<Journal> journal;
};

}  // namespace

#define NIPC_TESTING_MAKE(operation, level)   \
    Line operation(const char* format, ...) { \
        NIPC_TESTING_LINE(line, level);       \
        return line;                          \
    }
NIPC_TESTING_MAKE(info, 'I')
NIPC_TESTING_MAKE(debug, 'D')
NIPC_TESTING_MAKE(error, 'E')
NIPC_TESTING_MAKE(warn, 'W')

void Journal::add(Line line) {
    std::unique_lock<std::mutex> lock(mutex);
    ++counts[line.text];
    auto found = hooks.find(line.text);
    if (found == hooks.end()) found = hooks.find(line.format);
    const auto hook = found != hooks.end() ? found->second : nullptr;
    if (found != hooks.end()) hooks.erase(found);
    entries.push_back(std::move(line));
    grown.notify_all();
    lock.unlock();
    if (hook) hook();
}

bool Journal::waitFor(const std::string& text) const {
    std::unique_lock<std::mutex> lock(mutex);
    return grown.wait_for(lock, std::chrono::seconds(10), [&] { return counts.count(text) > 0; });
}

void Journal::onLine(const std::string& textOrFormat, std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    hooks[textOrFormat] = std::move(hook);
}

std::unique_ptr<ILogger> recordingLogger(std::shared_ptr<Journal> journal) {
    return std::make_unique<RecordingLogger>(std::move(journal));
}

std::unique_ptr<IMetricsRecorder> recordingRecorder(std::shared_ptr<Journal> journal) {
    return std::make_unique<RecordingRecorder>(std::move(journal));
}

}  // namespace nipcconnector::testing
