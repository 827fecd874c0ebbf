#pragma once

#include <cstdint>
#include <string>

namespace nipcconnector {

/// Which platform service a connector offers or reaches.
///
/// The platform knows a service by its uuid alone. Services that leave it at 65535 all share that one
/// number, so give each service a uuid of its own. A configuration with an empty name and uuid 65535 is
/// invalid, which shows at initialize().
struct NIPCServiceConfig {
    std::string serverName;      ///< The service's name; shown in log lines.
    std::uint16_t uuid = 65535;  ///< The service's number, 0 to 65534; 65535 means none.
};

}  // namespace nipcconnector
