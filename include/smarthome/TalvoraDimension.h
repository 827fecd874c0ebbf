#pragma once

#include <cstdint>
#include <string>

namespace smarthome {

/// Which member of a TalvoraDimension carries its value. Value 3 is left free.
enum class TalvoraDimensionType : std::int32_t {
    Predefined = 1,  ///< `predefinedId` alone; `name` and `stringValue` are empty.
    String = 2,      ///< `name` and `stringValue`.
    Integer = 4,     ///< `name` and `intValue`.
};

/// One dimension of a metric: a key and a typed value. The members and their order are shared with the
/// metrics service.
struct TalvoraDimension {
    std::string name;               ///< The key, e.g. "MetricName"; empty for a predefined dimension.
    std::string stringValue;        ///< The value of a String dimension; else empty.
    std::int64_t int64Value = 0;    ///< A value slot of the record that this library neither writes nor reads.
    std::int32_t intValue = 0;      ///< The value of an Integer dimension.
    std::int32_t predefinedId = 0;  ///< The id of a Predefined dimension, 1 to 13.
    TalvoraDimensionType valueType = TalvoraDimensionType::String;  ///< Where the value is.
    bool flag = false;  ///< A trailing flag of the record that this library never sets.
};

}  // namespace smarthome
