#pragma once

#include <cstdint>

#include "nex_nipc.h"

namespace nipcconnector {

/// The payload length that a listener call names; 0 when it names none, or no payload.
inline unsigned int payloadLength(const nexNipc_parameter_t& param) {
    return param.length != nullptr && param.data != nullptr ? *param.length : 0;
}

inline std::int32_t statusOf(const nexNipc_parameter_t& param) { return param.status != nullptr ? *param.status : 0; }

inline void setStatus(nexNipc_parameter_t& param, std::int32_t status) {
    if (param.status != nullptr) *param.status = status;
}

}  // namespace nipcconnector
