#pragma once

#include <condition_variable>
#include <cstdarg>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "nipcconnector/ILogger.h"
#include "nipcconnector/IMetricsRecorder.h"

namespace nipctest {

/// A log line as the logger got it (`format`) and as a reader sees it (`text`).
struct Line {
    char level;
    std::string format;
    std::string text;
    bool operator==(const Line& other) const {
        return level == other.level && format == other.format && text == other.text;
    }
};
inline std::ostream& operator<<(std::ostream& out, const Line& line) {
    return out << line.level << " \"" << line.text << "\" (" << line.format << ")";
}

/// Expected lines; the text may be left out where the format has no arguments.
inline Line info(const std::string& format, const std::string& text = {}) {
    return {'I', format, text.empty() ? format : text};
}
inline Line debug(const std::string& format, const std::string& text = {}) {
    return {'D', format, text.empty() ? format : text};
}
inline Line error(const std::string& format, const std::string& text = {}) {
    return {'E', format, text.empty() ? format : text};
}
inline Line warn(const std::string& format, const std::string& text = {}) {
    return {'W', format, text.empty() ? format : text};
}

/// What one connector logged and measured, in order.
class Journal {
public:
    explicit Journal(std::string connectorName) : name(std::move(connectorName)) {}

    void log(char level, const char* format, std::va_list arguments);
    /// A metric reads `Name Key="value" Number=1`: the caller's dimensions, after the common ones were checked.
    void record(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions);

    std::vector<Line> lines() const;
    std::vector<std::string> metrics() const;
    std::size_t count(const std::string& textOrMetric) const;
    void clear();
    /// Waits until a line of this text, or this metric, has come; false after ten seconds.
    bool waitFor(const std::string& textOrMetric, std::size_t times = 1) const;
    /// Runs `hook` once, on the logging thread, when a line of this text comes.
    void onLine(const std::string& text, std::function<void()> hook);

private:
    const std::string name;
    mutable std::mutex mutex;
    mutable std::condition_variable grown;
    std::vector<Line> loggedLines;
    std::vector<std::string> recordedMetrics;
    std::map<std::string, std::size_t> counts;
    std::map<std::string, std::function<void()>> hooks;
};

std::unique_ptr<nipcconnector::ILogger> recordingLogger(std::shared_ptr<Journal> journal);
std::unique_ptr<nipcconnector::IMetricsRecorder> recordingRecorder(std::shared_ptr<Journal> journal);

}  // namespace nipctest
