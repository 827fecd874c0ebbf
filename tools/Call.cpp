// nipcctl call: one request, or the same several times, and its answer.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "Commands.h"
#include "Input.h"
#include "Link.h"
#include "Output.h"

namespace nipcctl {
namespace {

using smarthome::RequestStatus;

struct CallOptions {
    ServiceOptions service;
    std::string name;
    std::string data;
    std::string file;
    bool async = false;
    bool wait = false;
    bool hex = false;
    bool json = false;
    unsigned repeat = 1;
    double timeout = 10;
};

/// One request under way. Shared with the thread that makes it, which outlives who waits no longer.
struct Exchange {
    bool done = false;
    bool sent = false;
    bool success = false;
    std::string answer;
    double milliseconds = 0;
};

class Caller {
public:
    Caller(const CallOptions& options, std::shared_ptr<const std::string> payload)
        : options_(options), payload_(std::move(payload)), link_(makeClient(options.service)) {
        initialize(link_);
    }

    Exchange call() {
        const Clock::time_point deadline = deadlineIn(options_.timeout);
        for (;;) {
            link_.awaitConnected(deadline, options_.wait || calledBefore_);
            Exchange exchange = attempt(deadline);
            if (exchange.sent) {
                calledBefore_ = true;
                return exchange;
            }
            // The connection was lost just before: the loss is being told, or a new connection is being made.
            link_.monitor->await(std::min(deadline, Clock::now() + std::chrono::milliseconds(20)),
                                 [this] { return !link_.monitor->connected; });
        }
    }

    /// Why an exchange was not a success.
    Failure failureOf() const {
        const Monitor& monitor = *link_.monitor;
        const std::string what = "request " + inQuotes(options_.name);
        if (const auto& status = monitor.transportFailure) {
            const Exit code = *status == -ETIMEDOUT                                ? Exit::Timeout
                              : *status == -ECONNRESET || *status == -ECONNREFUSED ? Exit::Unreachable
                                                                                   : Exit::Negative;
            return {code, what + " failed: " + meaningOf(*status)};
        }
        if (monitor.refused)
            return {Exit::Negative, what + " was refused: the service does not answer it, or has nothing to say to it"};
        if (!monitor.firstError.empty()) return {Exit::Negative, what + " failed: " + escaped(monitor.firstError)};
        return {Exit::Negative, what + " was answered with a failure"};
    }

private:
    Exchange attempt(Clock::time_point deadline) {
        Monitor& monitor = *link_.monitor;
        const auto exchange = std::make_shared<Exchange>();
        monitor.beginRequest();
        unsigned lossesBefore = 0;
        monitor.await(Clock::now(), [&] {
            lossesBefore = monitor.losses;
            return true;
        });
        std::thread([exchange, link = link_, payload = payload_, name = options_.name, async = options_.async] {
            async ? callAsync(exchange, link, name, *payload) : callSync(exchange, link, name, *payload);
        }).detach();

        bool lost = false;
        Exchange result;
        const bool ended = monitor.await(deadline, [&] {
            lost = options_.async && monitor.losses != lossesBefore;
            result = *exchange;
            return exchange->done || lost;
        });
        if (!ended)
            throw Failure(Exit::Timeout, "service " + std::to_string(link_.uuid) + " has not answered " +
                                             inQuotes(options_.name) + " in time");
        if (!result.done) throw Failure(Exit::Unreachable, "the service went away before it had answered");
        return result;
    }

    static void finish(const std::shared_ptr<Exchange>& exchange, Monitor& monitor, Clock::time_point start,
                       bool success, std::string answer) {
        const std::chrono::duration<double, std::milli> time = Clock::now() - start;
        monitor.change([&] {
            if (exchange->done) return;
            exchange->done = true;
            exchange->sent = !monitor.notSent;
            exchange->success = success;
            exchange->answer = std::move(answer);
            exchange->milliseconds = time.count();
        });
    }

    static void callSync(const std::shared_ptr<Exchange>& exchange, const Link& link, const std::string& name,
                         const std::string& payload) {
        const Clock::time_point start = Clock::now();
        const auto result =
            link.connector->makeSyncRequest("nipcctl", name, payload.data(), static_cast<unsigned int>(payload.size()));
        finish(exchange, *link.monitor, start, result.status == RequestStatus::Success,
               std::string(result.response.begin(), result.response.end()));
    }

    static void callAsync(const std::shared_ptr<Exchange>& exchange, const Link& link, const std::string& name,
                          const std::string& payload) {
        const Clock::time_point start = Clock::now();
        const RequestStatus status = link.connector->makeAsyncRequest(
            "nipcctl", name, payload.data(), static_cast<unsigned int>(payload.size()),
            [exchange, monitor = link.monitor, start](bool success, const char* data, unsigned length) {
                finish(exchange, *monitor, start, success, length > 0 ? std::string(data, length) : std::string());
            });
        if (status != RequestStatus::Success) finish(exchange, *link.monitor, start, false, "");
    }

    const CallOptions& options_;
    const std::shared_ptr<const std::string> payload_;
    const Link link_;
    bool calledBefore_ = false;
};

void print(const CallOptions& options, const Exchange& exchange) {
    if (options.json) {
        Json line;
        line["name"] = jsonText(options.name);
        line["status"] = exchange.success ? "success" : "failure";
        line["milliseconds"] = exchange.milliseconds;
        putBytes(line, exchange.answer);
        return writeJson(line);
    }
    if (options.hex) return writeLine(hexOf(exchange.answer));
    writeOut(exchange.answer);
    if (isTerminal(1) && !exchange.answer.empty() && exchange.answer.back() != '\n') writeOut("\n");
}

Exit runCall(const CallOptions& options) {
    const bool fromFile = !options.file.empty() || options.data == "-";
    std::string payload = fromFile ? readAll(options.file.empty() ? "-" : options.file) : options.data;
    if (payload.size() > 0xffffffffU) throw Failure(Exit::Usage, "the payload is too long");
    Caller caller(options, std::make_shared<const std::string>(std::move(payload)));
    for (unsigned i = 0; i < options.repeat; ++i) {
        const Exchange exchange = caller.call();
        if (exchange.success || options.json || !exchange.answer.empty()) print(options, exchange);
        if (!exchange.success) throw caller.failureOf();
    }
    return Exit::Ok;
}

}  // namespace

void addCall(CLI::App& app, Run& run) {
    const auto options = std::make_shared<CallOptions>();
    CLI::App& command = *app.add_subcommand("call", "Makes a request and writes the answer to standard output");
    command.add_option("NAME", options->name, "Name of the request")->required();
    CLI::Option* data = command.add_option("DATA", options->data, "Payload; - reads it from standard input");
    command.add_option("-f,--file", options->file, "Reads the payload from a file")->excludes(data);
    options->service.addTo(command);
    command.add_flag("--async", options->async, "Makes an asynchronous request (synchronous by default)");
    command.add_option("--repeat", options->repeat, "Makes it that many times, one after the other");
    command.add_option("--timeout", options->timeout, "Seconds that each request may take; 0 sets no limit (10)");
    command.add_flag("--wait", options->wait, "Waits for a service that is not there yet");
    CLI::Option* hex = command.add_flag("--hex", options->hex, "Writes the answer in hexadecimal, one line each");
    command.add_flag("--json", options->json, "Writes a line of JSON per answer")->excludes(hex);
    command.callback([&run, options] { run = [options] { return runCall(*options); }; });
}

}  // namespace nipcctl
