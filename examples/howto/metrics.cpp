// A recorder of one's own: it counts what went wrong, by name and reason.
#include <map>
#include <mutex>

#include "nipcconnector/NIPCConnector.h"

namespace {

using smarthome::TalvoraDimension;

// [recorder]
/// What was counted; shared by the recorder, which belongs to its connector, and by who reads it. Thread-safe.
class Counts {
public:
    void add(const std::string& what) {
        const std::lock_guard<std::mutex> lock(mutex);
        ++counts[what];
    }

    int of(const std::string& what) const {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = counts.find(what);
        return found == counts.end() ? 0 : found->second;
    }

private:
    mutable std::mutex mutex;
    std::map<std::string, int> counts;
};

class CountingRecorder : public nipcconnector::IMetricsRecorder {
public:
    explicit CountingRecorder(std::shared_ptr<Counts> shared) : counts(std::move(shared)) {}

    void record(const std::string& metricName, const std::vector<TalvoraDimension>& dimensions) override {
        std::string what = metricName;
        for (const TalvoraDimension& dimension : dimensions)
            if (dimension.name == "FailureReason") what += ": " + dimension.stringValue;
        counts->add(what);
    }

private:
    const std::shared_ptr<Counts> counts;
};
// [recorder]

}  // namespace

int main() {
    const auto counts = std::make_shared<Counts>();
    const auto client = nipcconnector::NIPCConnector::getInstance(true, "nobody", {"nobody", 4307}, nullptr,
                                                                  std::make_unique<CountingRecorder>(counts));
    if (!client) return 1;
    client->makeSyncRequest("", "isThereAnybody", nullptr, 0);
    client->reportAggregateMetrics();
    return counts->of("RequestWhileDisconnected") == 1 && counts->of("SyncRequestFailure: SendRequestFailed") == 1 &&
                   counts->of("AggregateConnectionQuality") == 1
               ? 0
               : 1;
}
