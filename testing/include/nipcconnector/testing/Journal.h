#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "nipcconnector/ILogger.h"
#include "nipcconnector/IMetricsRecorder.h"

namespace nipcconnector::testing {

/// A log line as the logger got it (`format`) and as a reader sees it (`text`); or a metric, of level 'M', which
/// reads `Name Key="value" Number=1`: the caller's dimensions, after the common ones were checked.
struct Line {
    char level;          ///< 'I', 'D', 'E' or 'W'; 'M' is a metric.
    std::string format;  ///< As the connector gave it.
    std::string text;    ///< With its arguments put in.
    /// All three alike.
    bool operator==(const Line& other) const {
        return level == other.level && format == other.format && text == other.text;
    }
};
/// In order.
using Lines = std::vector<Line>;
/// For the messages of tests that fail.
inline std::ostream& operator<<(std::ostream& out, const Line& line) {
    return out << line.level << " \"" << line.text << "\" (" << line.format << ")";
}

/// The line that a logger makes of this format and these arguments.
Line info(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// @copydoc info
Line debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// @copydoc info
Line error(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// @copydoc info
Line warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// The line that a recorder makes of this metric, written as above.
inline Line metric(const std::string& text) { return {'M', text, text}; }

/// What one connector logged and measured, in order.
class Journal {
public:
    /// For the connector of this name, which its metrics must carry.
    explicit Journal(std::string connectorName) : name(std::move(connectorName)) {}

    /// What logger and recorder do.
    void add(Line line);
    /// All of them, in order.
    Lines lines() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return entries;
    }
    /// How many have this text.
    std::size_t count(const std::string& text) const {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = counts.find(text);
        return found == counts.end() ? 0 : found->second;
    }
    /// Forgets all lines.
    void clear() {
        const std::lock_guard<std::mutex> lock(mutex);
        entries.clear();
        counts.clear();
    }
    /// Waits until a line of this text has come; false after ten seconds.
    bool waitFor(const std::string& text) const;
    /// Runs `hook` once, on the logging thread, when a line of this text or format comes.
    void onLine(const std::string& textOrFormat, std::function<void()> hook);

    const std::string name;  ///< The connector's.

private:
    mutable std::mutex mutex;
    mutable std::condition_variable grown;
    Lines entries;
    std::map<std::string, std::size_t> counts;
    std::map<std::string, std::function<void()>> hooks;
};

/// A logger that writes to the journal, for getInstance().
std::unique_ptr<ILogger> recordingLogger(std::shared_ptr<Journal> journal);
/// A recorder that does.
std::unique_ptr<IMetricsRecorder> recordingRecorder(std::shared_ptr<Journal> journal);

}  // namespace nipcconnector::testing
