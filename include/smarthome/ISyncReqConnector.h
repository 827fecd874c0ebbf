#pragma once

#include <string>

#include "smarthome/ConnectorTypes.h"
#include "smarthome/Export.h"

namespace smarthome {

/// Synchronous requests. Thread-safe: any operation may be called from any thread. The order of the
/// operations is a binary contract: append, never insert.
class SMARTHOME_EXPORT ISyncReqConnector {
public:
    virtual ~ISyncReqConnector();

    /// Server: answers synchronous requests named `requestName` with `handler`, replacing an earlier one.
    /// The handler runs on the service's delivery thread, one request at a time, with no lock of the
    /// library held, and its client waits for as long as it runs. Returns false only when the connector
    /// cannot keep the handler.
    virtual bool registerSyncRequestHandler(const std::string& requestName, SyncRequestHandler handler) = 0;

    /// Client: sends a request with `length` bytes at `data`, which the caller keeps, and blocks until the
    /// service has answered or is gone. The answer has at most 16384 bytes. A request made while
    /// disconnected fails at once and starts a reconnection. May be called from a callback of the same
    /// connector, but not from a handler of the very service it addresses. `service` names the addressee,
    /// for implementations that reach more than one.
    virtual SyncRequestResult makeSyncRequest(const std::string& service, const std::string& requestName,
                                              const char* data, unsigned int length) = 0;

    /// Server: forgets the handler for `requestName`, if there is one. Later requests of that name fail.
    virtual void unregisterSyncRequestHandler(const std::string& requestName) = 0;
};

}  // namespace smarthome
