#pragma once

#include <string>

#include "smarthome/ConnectorTypes.h"
#include "smarthome/Export.h"

namespace smarthome {

/// Asynchronous requests. Thread-safe: any operation may be called from any thread, also from inside a
/// callback or handler. The order of the operations is a binary contract: append, never insert.
class SMARTHOME_EXPORT IAsyncReqConnector {
public:
    virtual ~IAsyncReqConnector();

    /// Server: answers asynchronous requests named `requestName` with `handler`, replacing an earlier
    /// one. The handler runs on the service's delivery thread, one request at a time, with no lock of the
    /// library held. Returns false only when the connector cannot keep the handler.
    virtual bool registerAsyncRequestHandler(const std::string& requestName, AsyncRequestHandler handler) = 0;

    /// Client: sends a request with `length` bytes at `data` (0 to 5242880; the caller keeps them, they
    /// are copied before the call returns) and returns without waiting for the answer. From 16384 bytes
    /// on the call waits up to 3 s for the service to take the payload over, and before that up to 3 s for
    /// each transfer of this connector that is ahead of it.
    ///
    /// After Success, `callback` runs at most once, on a delivery thread with no lock of the library
    /// held; it never runs when the service does not answer, and there is no time limit. Where Failure
    /// is returned it does not run from then on. A request made while disconnected fails, is not queued, and starts a
    /// reconnection. `service` names the addressee, for implementations that reach more than one.
    virtual RequestStatus makeAsyncRequest(const std::string& service, const std::string& requestName, const char* data,
                                           unsigned int length, AsyncResponseCallback callback) = 0;

    /// Server: forgets the handler for `requestName`, if there is one. Later requests of that name get no
    /// answer. A call of the handler that is already under way goes on.
    virtual void unregisterAsyncRequestHandler(const std::string& requestName) = 0;

    /// Client: sets the one callback that takes the answers to all requests made with
    /// makeAsyncRequestWithRecurringCallback, replacing an earlier one. Optional for implementations:
    /// the default does nothing and returns false.
    virtual bool setRecurringCallback(AsyncResponseCallback callback);

    /// Client: as makeAsyncRequest, but the answer goes to the recurring callback, which stays in place
    /// and can tell requests apart by the content of the answers alone. Fails while no recurring callback
    /// is set. Optional for implementations: the default does nothing and returns Failure.
    virtual RequestStatus makeAsyncRequestWithRecurringCallback(const std::string& service,
                                                                const std::string& requestName, const char* data,
                                                                unsigned int length);
};

}  // namespace smarthome
