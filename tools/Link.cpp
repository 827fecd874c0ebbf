#include "Link.h"

#include <cerrno>
#include <map>
#include <system_error>
#include <utility>

#include "ConnectorLog.h"
#include "Exit.h"

namespace nipcctl {

Clock::time_point deadlineIn(double seconds) {
    constexpr double longest = 10.0 * 365 * 86400;
    const double limit = seconds > 0 && seconds < longest ? seconds : longest;
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(limit));
}

void ServiceOptions::addTo(CLI::App& command) {
    command.add_option("-u,--uuid", uuid, "Number of the service, 0 to 65535")->required();
    command.add_flag("-v,--verbose", verbose, "Write the connector's log to standard error");
}

void Monitor::beginRequest() {
    const std::lock_guard<std::mutex> lock(mutex_);
    transportFailure.reset();
    refused = false;
    notSent = false;
    firstError.clear();
}

namespace {

Link make(bool isClient, const ServiceOptions& options) {
    Link link;
    link.uuid = options.uuid;
    link.monitor = std::make_shared<Monitor>();
    link.connector = nipcconnector::NIPCConnector::getInstance(isClient, "nipcctl", {"nipcctl", options.uuid},
                                                               connectorLog(link.monitor, options.verbose), nullptr);
    if (!link.connector) throw Failure(Exit::Unreachable, "no connector can be made");
    return link;
}

}  // namespace

Link makeClient(const ServiceOptions& options) { return make(true, options); }
Link makeServer(const ServiceOptions& options) { return make(false, options); }

void initialize(const Link& link) {
    if (!link.connector->initialize()) throw Failure(Exit::Unreachable, "the connector cannot be started");
}

void offer(const Link& link) {
    initialize(link);
    const Monitor& monitor = *link.monitor;
    int status = 0;
    link.monitor->await(Clock::now(), [&] {
        status = monitor.startFailure.value_or(0);
        return true;
    });
    if (status != 0)
        throw Failure(Exit::Unreachable,
                      "service " + std::to_string(link.uuid) + " cannot be offered: " + meaningOf(status));
}

void Link::awaitConnected(Clock::time_point deadline, bool patient) const {
    const Monitor& state = *monitor;
    std::optional<int> failure;
    const bool ended = monitor->await(deadline, [&] {
        failure = state.startFailure;
        return state.connected || (failure && *failure != -ETIMEDOUT && !patient);
    });
    if (ended && !failure) return;
    const std::string service = "service " + std::to_string(uuid) + " cannot be reached: ";
    if (ended) throw Failure(Exit::Unreachable, service + meaningOf(*failure));
    throw Failure(Exit::Timeout, service + "no connection came about in time");
}

std::string meaningOf(int status) {
    static const std::map<int, const char*> meanings = {
        {-ECONNREFUSED, "nobody offers it"},
        {-ECONNRESET, "it has gone away"},
        {-EADDRINUSE, "another process offers it"},
        {-EACCES, "it belongs to another user, who does not let this one in"},
        {-EPERM, "its directory is not safe, for others may write there or own it"},
        {-ETIMEDOUT, "its process does not respond"},
        {-EUSERS, "it has as many clients as it takes"},
        {-EMSGSIZE, "the payload is too long"},
    };
    const auto known = meanings.find(status);
    if (known != meanings.end()) return known->second;
    return std::generic_category().message(-status) + " (" + std::to_string(status) + ")";
}

}  // namespace nipcctl
