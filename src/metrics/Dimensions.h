#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "smarthome/TalvoraDimension.h"

namespace nipcconnector {

inline smarthome::TalvoraDimension stringDimension(std::string name, std::string value) {
    smarthome::TalvoraDimension dimension;
    dimension.name = std::move(name);
    dimension.stringValue = std::move(value);
    dimension.valueType = smarthome::TalvoraDimensionType::String;
    return dimension;
}

/// Keeps the low 32 bits of the value, which is all that a dimension holds.
template <typename Integer>
smarthome::TalvoraDimension integerDimension(std::string name, Integer value) {
    smarthome::TalvoraDimension dimension;
    dimension.name = std::move(name);
    dimension.intValue = static_cast<std::int32_t>(value);
    dimension.valueType = smarthome::TalvoraDimensionType::Integer;
    return dimension;
}

}  // namespace nipcconnector
