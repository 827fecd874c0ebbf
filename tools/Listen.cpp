// nipcctl listen: events as they come.
#include <unistd.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Link.h"
#include "Names.h"
#include "Output.h"
#include "StopSignal.h"
#include "nipcconnector/FunctionId.h"

namespace nipcctl {
namespace {

struct ListenOptions {
    ServiceOptions service;
    std::vector<std::string> events;
    bool hex = false;
    bool json = false;
    unsigned long count = 0;
    double seconds = 0;
};

struct Event {
    std::chrono::system_clock::time_point time;
    std::string name;
    std::string payload;
};

/// Between the delivery thread and the one that prints. A reader that is slow makes the delivery wait, and then the
/// service drop events for us alone.
struct Arrivals {
    static constexpr std::size_t limit = 256;
    std::deque<Event> queue;
    bool stopped = false;
};

/// Two names with one identifier cannot be told apart: only one of them would ever be heard.
void checkNames(const std::vector<std::string>& names) {
    std::map<nipcconnector::FunctionId, std::string> byId;
    for (const std::string& name : names) {
        if (name.empty()) continue;
        const auto [known, isNew] = byId.emplace(nipcconnector::computeFunctionId(name), name);
        if (!isNew && known->second != name)
            throw Failure(Exit::Usage, inQuotes(name) + " and " + inQuotes(known->second) +
                                           " have one identifier: listen to one of them");
    }
}

void subscribe(const Link& link, const std::string& name, const std::shared_ptr<Arrivals>& arrivals) {
    link.connector->subscribeForEvent(
        "nipcctl", name, [name, arrivals, monitor = link.monitor](const char* data, unsigned int length) {
            Event event{std::chrono::system_clock::now(), name, length > 0 ? std::string(data, length) : std::string()};
            monitor->await(deadlineIn(0),
                           [&] { return arrivals->stopped || arrivals->queue.size() < Arrivals::limit; });
            monitor->change([&] { arrivals->queue.push_back(std::move(event)); });
        });
}

void print(const ListenOptions& options, const Event& event) {
    if (options.json) {
        Json line;
        line["time"] = timeStamp(event.time, true);
        line["event"] = jsonText(event.name);
        putBytes(line, event.payload);
        return writeJson(line);
    }
    std::string line = timeStamp(event.time, true) + " " + escaped(event.name);
    if (!event.payload.empty()) line += " " + (options.hex ? hexOf(event.payload) : escaped(event.payload));
    writeLine(line);
}

/// For a person who watches: says when the service comes and goes.
class Announcer {
public:
    explicit Announcer(const Link& link) : link_(link) {}
    void tell(bool connected) {
        if (!isTerminal(STDERR_FILENO) || told_ == (connected ? 1 : 0)) return;
        told_ = connected ? 1 : 0;
        complain((connected ? "connected to service " : "waiting for service ") + std::to_string(link_.uuid));
    }

private:
    const Link& link_;
    int told_ = -1;
};

Exit printEvents(const ListenOptions& options, const Link& link, Arrivals& arrivals) {
    const Clock::time_point deadline = deadlineIn(options.seconds);
    Announcer announcer(link);
    bool connected = false;
    announcer.tell(connected);
    for (unsigned long printed = 0;;) {
        std::deque<Event> taken;
        bool stopped = false;
        const bool changed = link.monitor->await(deadline, [&] {
            stopped = arrivals.stopped;
            return stopped || !arrivals.queue.empty() || link.monitor->connected != connected;
        });
        link.monitor->change([&] {
            taken.swap(arrivals.queue);
            connected = link.monitor->connected;
        });
        announcer.tell(connected);
        for (const Event& event : taken) {
            print(options, event);
            if (++printed == options.count) return Exit::Ok;
            if (Clock::now() >= deadline) break;  // Also where events come faster than somebody reads them.
        }
        if (stopped) return Exit::Ok;
        if (changed && Clock::now() < deadline) continue;
        if (options.count == 0) return Exit::Ok;
        throw Failure(Exit::Timeout,
                      std::to_string(printed) + " of " + std::to_string(options.count) + " events came in time");
    }
}

Exit runListen(const ListenOptions& options) {
    checkNames(options.events);
    const auto arrivals = std::make_shared<Arrivals>();
    const Link link = makeClient(options.service);
    onStopSignal([monitor = link.monitor, arrivals] { monitor->change([&] { arrivals->stopped = true; }); });
    for (const std::string& name : options.events) subscribe(link, name, arrivals);
    initialize(link);
    return printEvents(options, link, *arrivals);
}

}  // namespace

void addListen(CLI::App& app, Run& run) {
    const auto options = std::make_shared<ListenOptions>();
    CLI::App& command = *app.add_subcommand("listen", "Writes a line for each event as it comes");
    addNames(command, "EVENT", options->events, "Names of events; '' stands for all that are not named");
    options->service.addTo(command);
    CLI::Option* hex = command.add_flag("--hex", options->hex, "Writes payloads in hexadecimal");
    command.add_flag("--json", options->json, "Writes a line of JSON per event")->excludes(hex);
    command.add_option("--count", options->count, "Ends after that many events");
    command.add_option("--for", options->seconds, "Ends after that many seconds");
    command.callback([&run, options] { run = [options] { return runListen(*options); }; });
}

}  // namespace nipcctl
