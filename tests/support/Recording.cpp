#include "Recording.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <sstream>

namespace nipctest {
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

std::string describe(const std::vector<TalvoraDimension>& dimensions) {
    std::ostringstream text;
    for (const auto& dimension : dimensions) text << ' ' << describe(dimension);
    return text.str();
}

Line makeLine(char level, const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(size) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return {level, format, std::move(text)};
}

#define NIPCTEST_LINE(line, level)                  \
    std::va_list arguments;                         \
    va_start(arguments, format);                    \
    Line line = makeLine(level, format, arguments); \
    va_end(arguments)
#define NIPCTEST_LOG(level)            \
    {                                  \
        NIPCTEST_LINE(line, level);    \
        journal->log(std::move(line)); \
    }
#define NIPCTEST_MAKE(level)        \
    {                               \
        NIPCTEST_LINE(line, level); \
        return line;                \
    }

class RecordingLogger : public nipcconnector::ILogger {
public:
    explicit RecordingLogger(std::shared_ptr<Journal> target) : journal(std::move(target)) {}
    void info(const char* format, ...) override NIPCTEST_LOG('I') void debug(const char* format, ...) override
        NIPCTEST_LOG('D') void error(const char* format, ...) override
        NIPCTEST_LOG('E') void warn(const char* format, ...) override NIPCTEST_LOG('W')

            private : std::shared_ptr<Journal> journal;
};

class RecordingRecorder : public nipcconnector::IMetricsRecorder {
public:
    explicit RecordingRecorder(std::shared_ptr<Journal> target) : journal(std::move(target)) {}
    void record(const std::string& metricName, const std::vector<TalvoraDimension>& dimensions) override {
        journal->record(metricName, dimensions);
    }

private:
    std::shared_ptr<Journal> journal;
};

}  // namespace

Line info(const char* format, ...) NIPCTEST_MAKE('I') Line debug(const char* format, ...) NIPCTEST_MAKE('D') Line
    error(const char* format, ...) NIPCTEST_MAKE('E') Line warn(const char* format, ...) NIPCTEST_MAKE('W')

        void Journal::log(Line line) {
    std::unique_lock<std::mutex> lock(mutex);
    ++counts[line.text];
    auto found = hooks.find(line.text);
    if (found == hooks.end()) found = hooks.find(line.format);
    const auto hook = found != hooks.end() ? found->second : nullptr;
    if (found != hooks.end()) hooks.erase(found);
    loggedLines.push_back(std::move(line));
    grown.notify_all();
    lock.unlock();
    if (hook) hook();
}

void Journal::record(const std::string& metricName, const std::vector<TalvoraDimension>& dimensions) {
    std::string expected;
    for (int id = 1; id <= 13; ++id) expected += " #" + std::to_string(id);
    expected += " MetricName=\"" + metricName + "\" ServiceName=\"" + name + "\" Counter=1";
    std::string text = describe(dimensions);
    const bool complete = text.compare(0, expected.size(), expected) == 0;
    text = complete ? metricName + text.substr(expected.size()) : "without the common dimensions:" + text;

    const std::lock_guard<std::mutex> lock(mutex);
    ++counts[text];
    recordedMetrics.push_back(std::move(text));
    grown.notify_all();
}

std::vector<Line> Journal::lines() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return loggedLines;
}

std::vector<std::string> Journal::metrics() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return recordedMetrics;
}

std::size_t Journal::count(const std::string& textOrMetric) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = counts.find(textOrMetric);
    return found == counts.end() ? 0 : found->second;
}

void Journal::clear() {
    const std::lock_guard<std::mutex> lock(mutex);
    loggedLines.clear();
    recordedMetrics.clear();
    counts.clear();
}

bool Journal::waitFor(const std::string& textOrMetric, std::size_t times) const {
    std::unique_lock<std::mutex> lock(mutex);
    return grown.wait_for(lock, std::chrono::seconds(10), [&] {
        const auto found = counts.find(textOrMetric);
        return found != counts.end() && found->second >= times;
    });
}

void Journal::onLine(const std::string& textOrFormat, std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    hooks[textOrFormat] = std::move(hook);
}

std::unique_ptr<nipcconnector::ILogger> recordingLogger(std::shared_ptr<Journal> journal) {
    return std::make_unique<RecordingLogger>(std::move(journal));
}

std::unique_ptr<nipcconnector::IMetricsRecorder> recordingRecorder(std::shared_ptr<Journal> journal) {
    return std::make_unique<RecordingRecorder>(std::move(journal));
}

}  // namespace nipctest
