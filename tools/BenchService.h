#pragma once

#include <cstdint>
#include <string>

namespace nipcctl::bench {

/// What the service that is measured answers, and the event it publishes. An event begins with the time at which it was
/// published, in nanoseconds of the steady clock, which the processes of a machine share.
constexpr const char* echo = "echo";        ///< synchronous and asynchronous: the payload
constexpr const char* take = "take";        ///< asynchronous: a few bytes, whatever comes
constexpr const char* publish = "publish";  ///< synchronous: publishes an event of the length given as a number
constexpr const char* event = "event";

std::int64_t now();

/// A process of its own that offers the service, in a directory of its own that this process uses from then on as well.
/// Both go with the object.
class ServiceProcess {
public:
    explicit ServiceProcess(std::uint16_t uuid);
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

private:
    std::string directory_;
    int lifeline_ = -1;
    int pid_ = -1;
};

}  // namespace nipcctl::bench
