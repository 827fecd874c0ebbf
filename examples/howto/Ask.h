#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "nipcconnector/NIPCConnector.h"

namespace howto {

// [ask]
/// The answer; or nothing when the request fails or no answer comes within `limit`. Not to be called from a
/// callback of `client`: the answer would have to come on the thread that waits for it.
inline std::optional<std::string> ask(nipcconnector::NIPCConnector& client, const std::string& request,
                                      const std::string& payload, std::chrono::milliseconds limit) {
    // Shared, because the answer may still come after we have given up.
    const auto answer = std::make_shared<std::promise<std::optional<std::string>>>();
    const auto callback = [answer](bool success, const char* data, unsigned int length) {
        answer->set_value(success ? std::make_optional(std::string(data, length)) : std::nullopt);
    };
    const auto length = static_cast<unsigned int>(payload.size());
    const auto status = client.makeAsyncRequest("", request, payload.data(), length, callback);
    if (status != smarthome::RequestStatus::Success) return std::nullopt;
    auto future = answer->get_future();
    if (future.wait_for(limit) != std::future_status::ready) return std::nullopt;
    return future.get();
}
// [ask]

}  // namespace howto
