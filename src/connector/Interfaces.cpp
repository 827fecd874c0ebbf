// The out-of-line parts of the public interfaces, so that their vtables have one home.
#include "nipcconnector/ILogger.h"
#include "nipcconnector/IMetricsRecorder.h"
#include "smarthome/GenericConnector.h"

namespace smarthome {

IPubSubConnector::~IPubSubConnector() = default;
IAsyncReqConnector::~IAsyncReqConnector() = default;
ISyncReqConnector::~ISyncReqConnector() = default;

bool IAsyncReqConnector::setRecurringCallback(AsyncResponseCallback /*callback*/) { return false; }

RequestStatus IAsyncReqConnector::makeAsyncRequestWithRecurringCallback(const std::string& /*service*/,
                                                                        const std::string& /*requestName*/,
                                                                        const char* /*data*/, unsigned int /*length*/) {
    return RequestStatus::Failure;
}

GenericConnector::GenericConnector(const std::string& connectorName,
                                   const ConnectorConstants::ConnectorType& connectorType)
    : name(connectorName), type(connectorType) {}

GenericConnector::~GenericConnector() = default;

bool GenericConnector::initialize() { return true; }

}  // namespace smarthome

namespace nipcconnector {

ILogger::~ILogger() = default;

void ILogger::verbose(const char* /*format*/, ...) {}

IMetricsRecorder::~IMetricsRecorder() = default;

}  // namespace nipcconnector
