#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// The plain types of the connector contract. Start reading at GenericConnector.h.
namespace smarthome {

/// Result of the request operations, 32 bits wide. All other values are reserved for other
/// implementations of the contract.
enum class RequestStatus : std::int32_t {
    Success = 0,  ///< The request was sent (asynchronous) or answered (synchronous).
    /// It was not. The metrics or the log mostly name the reason. A large asynchronous request that was not
    /// acknowledged in time, and a synchronous one whose answer did not come, may have been executed.
    Failure = 4,
};

/// What a synchronous request returns.
struct SyncRequestResult {
    RequestStatus status = RequestStatus::Failure;  ///< Whether it was answered.
    std::vector<char> response;                     ///< The answer's bytes; empty on failure.
};

namespace ConnectorConstants {

/// The kind of a connector. Other kinds belong to other connector libraries.
enum ConnectorType : std::int32_t {
    Nipc = 2,  ///< Local inter-process messaging, the one kind of this library.
};

}  // namespace ConnectorConstants

/// Receives the answer to an asynchronous request. `data` points to `length` bytes that are valid only
/// during the call, and may be null when `length` is 0.
using AsyncResponseCallback = std::function<void(bool success, const char* data, unsigned int length)>;

/// Receives an event. `data` points to `length` bytes that are valid only during the call, and may be
/// null when `length` is 0.
using EventHandler = std::function<void(const char* data, unsigned int length)>;

/// Answers a synchronous request by returning the response bytes, 1 to 16384 of them. An empty vector
/// is reported to the client as a failure.
using SyncRequestHandler = std::function<std::vector<char>(const char* data, unsigned int length)>;

/// Answers an asynchronous request by calling `respond`, now or later, from any thread, with up to
/// 5 MiB. `requestId` is "<client id>_<request context>" and tells the open requests apart, except those of
/// a recurring callback, which all have the same one per client ("<client id>_1"). `data` is valid only
/// during the call. Every call of `respond` sends one more answer: a callback of one request takes the
/// first, the recurring callback takes all.
using AsyncRequestHandler = std::function<void(
    const char* data, unsigned int length,
    std::function<void(bool success, const char* data, unsigned int length)> respond, const std::string& requestId)>;

}  // namespace smarthome
