#pragma once

#include <string>

#include "smarthome/ConnectorTypes.h"
#include "smarthome/Export.h"

namespace smarthome {

/// Publish and subscribe. Thread-safe: any operation may be called from any thread, also from inside a
/// callback or handler. The order of the operations is a binary contract: append, never insert.
class SMARTHOME_EXPORT IPubSubConnector {
public:
    virtual ~IPubSubConnector();

    /// Runs `handler` for every later event named `eventType`, replacing an earlier handler for it.
    /// Local to this process: nothing is sent to the publisher, and subscribing before the connection is
    /// up is fine. The handler is kept until it is replaced or unsubscribed; it runs on a delivery thread
    /// with no lock of the library held. `publisher` names who publishes, for implementations that reach
    /// more than one. Returns false only when the connector cannot keep the handler.
    virtual bool subscribeForEvent(const std::string& publisher, const std::string& eventType,
                                   EventHandler handler) = 0;

    /// Forgets the handler for `eventType`; true whether or not there was one. A call of the handler that
    /// is already under way on another thread goes on.
    virtual bool unsubscribeForEvent(const std::string& publisher, const std::string& eventType) = 0;

    /// Forgets every handler for events of `publisher`, where the implementation can tell publishers apart.
    virtual bool unsubscribeFromPublisher(const std::string& publisher) = 0;

    /// Publishes an event without payload to every connected client.
    virtual bool publishEvent(const std::string& eventType) = 0;

    /// Publishes an event with `length` bytes at `data`, 0 to 5242880 of them, which the caller keeps and
    /// which are copied before the call returns. Never waits for a slow subscriber while `length` is
    /// below 16384; longer events wait up to 3 s for each subscriber in turn, and up to 3 s for each
    /// transfer of this connector that is ahead. True means that the event
    /// was handed out, not that each subscriber got it: failed sends are logged and recorded one by one.
    virtual bool publishEvent(const std::string& eventType, const char* data, unsigned int length) = 0;

    /// The same with the bytes of a string.
    virtual bool publishEvent(const std::string& eventType, const std::string& data) = 0;
};

}  // namespace smarthome
