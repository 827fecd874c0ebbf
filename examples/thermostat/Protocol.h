#pragma once

#include <cstdint>

/// What the thermostat's clients and its server agree on.
namespace thermostat {

constexpr const char* serviceName = "thermostat";
constexpr std::uint16_t serviceUuid = 4242;

/// Synchronous, no payload: the temperature, e.g. "21.5".
constexpr const char* getTemperature = "getTemperature";
/// Asynchronous, e.g. "21.5": answered with the temperature once it is reached.
constexpr const char* setTarget = "setTarget";
/// Asynchronous, no payload: answered once for each sensor, so a client asks with its recurring callback.
constexpr const char* readSensors = "readSensors";
constexpr int sensorCount = 3;
/// Asynchronous, the firmware image: answered with the image's checksum.
constexpr const char* uploadFirmware = "uploadFirmware";
constexpr unsigned int firmwareSize = 5242880;  // The most that one message carries.
/// Asynchronous, no payload: answered with the recorded temperatures.
constexpr const char* downloadHistory = "downloadHistory";
constexpr unsigned int historySize = 1048576;
/// Synchronous, no payload: the checksum of that answer.
constexpr const char* historyChecksum = "historyChecksum";

/// Event, "NUMBER TEMPERATURE": the number counts the changes since the server was started.
constexpr const char* temperatureChanged = "temperatureChanged";

}  // namespace thermostat
