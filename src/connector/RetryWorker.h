#pragma once

namespace nipcconnector {

/// Whether the calling thread is the retry thread of this retry manager.
bool isRetryThreadOf(const void* retryManager);

}  // namespace nipcconnector
