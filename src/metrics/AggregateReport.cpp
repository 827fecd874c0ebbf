#include "connector/Limits.h"
#include "connector/Log.h"
#include "connector/TimeSource.h"
#include "metrics/Dimensions.h"
#include "nipcconnector/NIPCConnector.h"

namespace nipcconnector {

void NIPCConnector::reportAggregateMetrics() {
    std::unique_lock<std::mutex> stats(statsMutex, std::defer_lock);
    std::unique_lock<std::mutex> connection(connectionMutex, std::defer_lock);
    std::lock(stats, connection);  // The connection paths take them the other way round.
    const bool connected = isConnected;
    connection.unlock();

    std::int32_t durationMs = 0;
    const auto since = static_cast<std::int64_t>(connectionStartTime);
    if (connected && since > 0) {
        durationMs = static_cast<std::int32_t>((static_cast<std::int64_t>(timeSource().now()) - since) /
                                               static_cast<std::int64_t>(NANOSECONDS_PER_MILLISECOND));
    }
    recordMetric("AggregateConnectionQuality",
                 {stringDimension("ConnectionState", connected ? "Connected" : "Disconnected"),
                  integerDimension("TotalDisconnectionCount", disconnectionCount),
                  integerDimension("AsyncRequestWhileDisconnectedCount", asyncRequestWhileDisconnectedCount),
                  integerDimension("AsyncRequestFailureCount", asyncRequestFailureCount),
                  integerDimension("SyncRequestFailureCount", syncRequestFailureCount),
                  integerDimension("CurrentConnectionDurationMs", durationMs)});
    NIPC_LOG(logger, info,
             "Aggregate metrics - Disconnections: %llu, AsyncReqWhileDisc: %llu, AsyncReqFail: %llu, "
             "SyncReqFail: %llu, ConnDuration: %ldms",
             static_cast<unsigned long long>(disconnectionCount),
             static_cast<unsigned long long>(asyncRequestWhileDisconnectedCount),
             static_cast<unsigned long long>(asyncRequestFailureCount),
             static_cast<unsigned long long>(syncRequestFailureCount), static_cast<long>(durationMs));
}

}  // namespace nipcconnector
