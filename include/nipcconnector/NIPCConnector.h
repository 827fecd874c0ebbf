#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nipcconnector/ILogger.h"
#include "nipcconnector/IMetricsRecorder.h"
#include "nipcconnector/NIPCServiceConfig.h"
#include "smarthome/Export.h"
#include "smarthome/GenericConnector.h"

struct nexNipc_parameter_t;
struct ServerStartRecord;
struct ShareFdMsg;

/// The connector of this library, and what an application supplies to it. Start reading at NIPCConnector.h.
namespace nipcconnector {

class CallbackManager;
struct ConnectorGuards;

/// The connector of this library: a client of a named local service, or the server that offers it.
///
/// Obtained from getInstance, brought up with initialize, and alive until the process ends. A client
/// connects in the background and reconnects by itself; requests made before it is connected fail. A
/// server whose service cannot be started keeps trying and ends the process after five minutes.
///
/// Thread-safe. Handlers, callbacks and event handlers run on a delivery thread of the platform, one at a
/// time for one connector, with no lock of the library held, so they may call the connector again; what
/// they are given is valid only during the call. What they throw is caught and logged. No operation
/// throws, allocation failure aside. What an operation does is told at the interface it comes from.
class SMARTHOME_EXPORT NIPCConnector : public virtual smarthome::GenericConnector {
public:
    /// Returns the connector of this process for the role and name, building it on the first call.
    ///
    /// Later calls for the same role and name return the same object; their configuration, logger and
    /// recorder are not used, and the latter two are destroyed. `logger` and `metricsRecorder` may be
    /// null and are owned by the connector. Does not connect: call initialize(). Returns an empty
    /// pointer when memory is short and while the process is ending. Thread-safe.
    static std::shared_ptr<NIPCConnector> getInstance(bool isClient, const std::string& name,
                                                      const NIPCServiceConfig& config, std::unique_ptr<ILogger> logger,
                                                      std::unique_ptr<IMetricsRecorder> metricsRecorder);

    /// Used by getInstance. A connector built in any other way has nowhere to keep callbacks and handlers.
    NIPCConnector(bool isClient, const std::string& name, const NIPCServiceConfig& config,
                  std::unique_ptr<ILogger> logger, std::unique_ptr<IMetricsRecorder> metricsRecorder);

    /// Stops reconnecting and disconnects a client. A service that was started stays as it is.
    ~NIPCConnector() override;

    bool registerAsyncRequestHandler(const std::string& requestName, smarthome::AsyncRequestHandler handler) override;
    smarthome::RequestStatus makeAsyncRequest(const std::string& service, const std::string& requestName,
                                              const char* data, unsigned int length,
                                              smarthome::AsyncResponseCallback callback) override;
    void unregisterAsyncRequestHandler(const std::string& requestName) override;
    bool setRecurringCallback(smarthome::AsyncResponseCallback callback) override;
    smarthome::RequestStatus makeAsyncRequestWithRecurringCallback(const std::string& service,
                                                                   const std::string& requestName, const char* data,
                                                                   unsigned int length) override;

    /// Starts the service (server) or a connect in the background (client) and returns without waiting.
    /// False only when the configuration is invalid, the process is ending, or no thread can be had for
    /// connecting or, after a failed start, for trying again: true says nothing about the outcome, which the
    /// log, the metrics and reportAggregateMetrics tell.
    bool initialize() override;

    bool subscribeForEvent(const std::string& publisher, const std::string& eventType,
                           smarthome::EventHandler handler) override;
    bool unsubscribeForEvent(const std::string& publisher, const std::string& eventType) override;

    /// Not supported: does nothing but log a warning, and returns true.
    bool unsubscribeFromPublisher(const std::string& publisher) override;

    /// Publishes to the clients of every server connector in this process, which share one set of clients.
    bool publishEvent(const std::string& eventType) override;
    bool publishEvent(const std::string& eventType, const char* data, unsigned int length) override;
    bool publishEvent(const std::string& eventType, const std::string& data) override;
    bool registerSyncRequestHandler(const std::string& requestName, smarthome::SyncRequestHandler handler) override;
    smarthome::SyncRequestResult makeSyncRequest(const std::string& service, const std::string& requestName,
                                                 const char* data, unsigned int length) override;
    void unregisterSyncRequestHandler(const std::string& requestName) override;

    /// Records the metric "AggregateConnectionQuality" (state, counters since construction, age of the
    /// connection in milliseconds) and logs the same figures at info level. Any thread, any time, but not
    /// from inside the logger or the recorder.
    void reportAggregateMetrics();

private:
    friend struct ConnectorTestAccess;  // The unit tests' view of the members.

    /// Retries one operation on a thread of its own, with exponential backoff, until it succeeds or is
    /// stopped. At most one operation at a time.
    class AsyncRetryManager {
    public:
        explicit AsyncRetryManager(NIPCConnector* owner);
        ~AsyncRetryManager();
        AsyncRetryManager(const AsyncRetryManager&) = delete;
        AsyncRetryManager& operator=(const AsyncRetryManager&) = delete;

        /// Starts retrying `newOperation` (0 means success) unless a retry is running already. False when
        /// no thread can be had.
        bool startRetry(std::function<std::int32_t()> newOperation, const std::string& newOperationName);
        /// Stops the worker and waits up to 500 ms for it to end.
        void stopRetry();
        bool isActive() const;

        /// The two halves of stopRetry. False when no retry was running; then there is nothing to wait for.
        bool requestStop();
        void awaitStop(std::uint64_t deadline);
        static std::uint64_t stopDeadline();

        /// A success makes starts that were refused before it pointless.
        void forgetRefusedStart();

    private:
        friend struct ConnectorTestAccess;
        struct Run;

        bool startWorker(const std::string& forOperation);
        bool takeRefusedStart();
        void retryWorkerThread();
        template <typename Function>
        void guarded(Function&& function);
        bool retryUntilDone(Run& run);
        void loadOperation(Run& run);
        bool goesRoundAgain(bool succeeded);
        void reportSuccess(const Run& run);
        void reportFailure(Run& run, std::int32_t status);
        void pause(std::uint64_t milliseconds) const;

        NIPCConnector* connector;
        std::thread workerThread;
        std::atomic<bool> active{false};
        std::mutex mutex;
        std::condition_variable condition;
        bool threadFinished = true;
        std::function<std::int32_t()> operation;
        std::string operationName;
        std::int32_t attemptCount = 0;
        std::uint64_t startTime = 0;
        // A start that came while another retry was running, for the worker to find when it ends. `mutex`
        // guards all from `threadFinished` to the end, and `workerThread`.
        bool startRefused = false;
        std::function<std::int32_t()> refusedOperation;
        std::string refusedName;
    };

    friend struct Registry;
    static void stopAll(const std::vector<std::shared_ptr<NIPCConnector>>& connectors);

    // Lifecycle.
    bool initClient();
    bool initServer();
    bool deinitClient();
    void handleConnectionResult(bool success);
    void handleServerDisconnection();
    std::int32_t connectToService();
    std::int32_t startService(const ServerStartRecord& record);
    std::int32_t startServiceAgain(const ServerStartRecord& record);
    void adoptServiceHandle();
    void markConnected();
    bool hasValidConfig() const;

    // Client side.
    bool isHandlePending() const;
    void awaitHandle();
    bool takeConnection(bool isAsync, std::int32_t& handle);
    void countAsyncRequestFailure(const std::string& requestName, const char* reason, unsigned int length);
    void countSyncRequestFailure(const char* reason);
    bool nipcSendAsyncRequest(std::uint16_t functionId, const char* payload, unsigned int length, void* context);
    bool nipcSendSyncRequest(std::uint16_t functionId, const char* payload, unsigned int length, char* response,
                             unsigned int* responseLength);
    static int clientListener(nexNipc_parameter_t* param);
    void dispatchToClient(nexNipc_parameter_t& param);
    void dispatchCallback(nexNipc_parameter_t& param);
    void dispatchConnectionEvent(const nexNipc_parameter_t& param);
    bool handleFunctionCallback(std::uint16_t functionId, const char* data, unsigned int length, void* context);

    // Server side.
    static int serverListener(nexNipc_parameter_t* param);
    int dispatchToServer(nexNipc_parameter_t& param, CallbackManager& manager);
    int answerSyncRequest(nexNipc_parameter_t& param, CallbackManager& manager);
    void dispatchAsyncFunction(nexNipc_parameter_t& param, CallbackManager& manager);
    void trackClient(const nexNipc_parameter_t& param);
    void sendAsyncResponse(std::uint16_t clientId, bool success, const char* data, unsigned int length,
                           void* requestContext);
    std::int32_t currentHandle();
    bool handleAsyncRequest(const std::string& name, const char* data, unsigned int length, std::uint16_t clientId,
                            std::uint16_t reserved, void* requestContext);
    bool nipcSendEvent(std::uint16_t clientId, std::uint16_t functionId, const char* data, unsigned int length,
                       void* requestContext);

    // Large payloads.
    bool sendLargePayload(std::uint16_t functionId, const char* data, unsigned int length, void* requestContext,
                          std::uint16_t targetClientId);
    bool shareAndWait(ShareFdMsg& message, unsigned int length, std::uint16_t targetClientId);
    bool failLargePayload(const char* reason, unsigned int length);
    void acknowledgeTransfer();
    bool processFd(nexNipc_parameter_t* param);
    bool acknowledgeFd(std::uint16_t peerId, unsigned int length);
    bool dispatchFd(std::uint16_t peerId, std::uint16_t functionId, const char* data, unsigned int length,
                    void* requestContext);
    bool failFd(const char* reason, unsigned int length);

    void recordMetric(const std::string& metricName, const std::vector<smarthome::TalvoraDimension>& dimensions);

    std::mutex fdAckMutex;
    std::condition_variable fdAckCondition;
    bool fdAckReceived = true;
    bool isClient;
    std::mutex connectionMutex;
    bool isConnecting = false;
    bool isConnected = false;
    std::unique_ptr<ILogger> logger;
    std::unique_ptr<IMetricsRecorder> metricsRecorder;
    std::int32_t nipcHandle = -1;
    std::mutex statsMutex;
    std::uint64_t lastDisconnectionTime = 0;
    std::uint64_t connectionStartTime = 0;
    std::uint64_t disconnectionCount = 0;
    std::uint64_t asyncRequestWhileDisconnectedCount = 0;
    std::uint64_t asyncRequestFailureCount = 0;
    std::uint64_t syncRequestFailureCount = 0;
    AsyncRetryManager retryManager;
    NIPCServiceConfig serviceConfig;
    std::unique_ptr<ConnectorGuards> guards;
};

}  // namespace nipcconnector
