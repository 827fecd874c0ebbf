// nipcctl serve: a service for tests and prototypes.
#include <condition_variable>
#include <csignal>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Commands.h"
#include "Input.h"
#include "Link.h"
#include "Output.h"
#include "ShellCommand.h"
#include "StopSignal.h"
#include "nipcconnector/FunctionId.h"

namespace nipcctl {
namespace {

constexpr std::size_t longestEvent = 5242880;

struct ServeOptions {
    ServiceOptions service;
    std::vector<std::string> replies;
    std::vector<std::string> replyFiles;
    std::vector<std::string> commands;
};

using Answer = std::function<CommandResult(std::string_view payload)>;

/// Commands that asynchronous requests have started: as many at once as a machine can bear, the next one waits.
class CommandSlots {
public:
    void take() {
        std::unique_lock<std::mutex> lock(mutex_);
        freed_.wait(lock, [this] { return free_ > 0; });
        --free_;
    }
    void release() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ++free_;
        }
        freed_.notify_one();
    }

private:
    std::mutex mutex_;
    std::condition_variable freed_;
    int free_ = 16;
};

std::string_view viewOf(const char* data, unsigned int length) {
    return length > 0 ? std::string_view(data, length) : std::string_view();
}

template <typename Respond>
void respondWith(const Respond& respond, const CommandResult& result) {
    respond(result.succeeded, result.output.data(), static_cast<unsigned int>(result.output.size()));
}

void answerSync(const Link& link, const std::string& name, const Answer& answer) {
    link.connector->registerSyncRequestHandler(name, [answer](const char* data, unsigned int length) {
        const CommandResult result = answer(viewOf(data, length));
        return result.succeeded ? std::vector<char>(result.output.begin(), result.output.end()) : std::vector<char>();
    });
}

void answerAtOnce(const Link& link, const std::string& name, const Answer& answer) {
    link.connector->registerAsyncRequestHandler(
        name, [answer](const char* data, unsigned int length, const auto& respond, const std::string&) {
            respondWith(respond, answer(viewOf(data, length)));
        });
}

/// On a thread of its own, so that other requests are answered while a command runs.
void answerLater(const Link& link, const std::string& name, const Answer& answer,
                 const std::shared_ptr<CommandSlots>& slots) {
    link.connector->registerAsyncRequestHandler(
        name, [answer, slots](const char* data, unsigned int length, const auto& respond, const std::string&) {
            slots->take();
            // Given back by the thread's end, and where the system has no thread to give.
            const std::shared_ptr<CommandSlots> slot(slots.get(), [slots](CommandSlots* all) { all->release(); });
            std::thread([answer, slot, respond, payload = std::string(viewOf(data, length))] {
                respondWith(respond, answer(payload));
            }).detach();
        });
}

std::pair<std::string, std::string> split(const std::string& definition) {
    const std::size_t equals = definition.find('=');
    if (equals == std::string::npos) throw Failure(Exit::Usage, inQuotes(definition) + " is not NAME=VALUE");
    return {definition.substr(0, equals), definition.substr(equals + 1)};
}

Answer replyFrom(const std::string& path) {
    readAll(path);  // A file that cannot be read is told now rather than at the first request.
    return [path](std::string_view) {
        try {
            return CommandResult{true, readAll(path)};
        } catch (const Failure& failure) {
            complain(failure.what());
            return CommandResult{};
        }
    };
}

/// Keeps who has which identifier, since two names with the same one cannot be told apart.
class Names {
public:
    std::pair<std::string, std::string> take(const std::string& definition) {
        auto parts = split(definition);
        const auto [known, isNew] = names_.emplace(nipcconnector::computeFunctionId(parts.first), parts.first);
        if (!isNew && known->second == parts.first)
            throw Failure(Exit::Usage, inQuotes(parts.first) + " is answered twice");
        if (!isNew)
            throw Failure(Exit::Usage,
                          inQuotes(parts.first) + " and " + inQuotes(known->second) + " have one identifier");
        return parts;
    }

private:
    std::map<nipcconnector::FunctionId, std::string> names_;
};

void registerAnswers(const ServeOptions& options, const Link& link) {
    Names names;
    const auto both = [&](const std::string& name, const Answer& answer) {
        answerSync(link, name, answer);
        answerAtOnce(link, name, answer);
    };
    for (const std::string& definition : options.replies) {
        const auto [name, text] = names.take(definition);
        both(name, [text = text](std::string_view) { return CommandResult{true, text}; });
    }
    for (const std::string& definition : options.replyFiles) {
        const auto [name, path] = names.take(definition);
        both(name, replyFrom(path));
    }
    const auto slots = std::make_shared<CommandSlots>();
    for (const std::string& definition : options.commands) {
        const auto [name, command] = names.take(definition);
        const Answer answer = [command = command](std::string_view payload) {
            return runShellCommand(command, payload);
        };
        answerSync(link, name, answer);
        answerLater(link, name, answer, slots);
    }
}

/// Each line is "EVENT payload".
void publishLines(nipcconnector::NIPCConnector& connector) {
    for (std::string line; std::getline(std::cin, line);) {
        const std::size_t space = line.find(' ');
        const std::string event = line.substr(0, space);
        const std::string payload = space == std::string::npos ? "" : line.substr(space + 1);
        if (event.empty()) continue;
        if (payload.size() <= longestEvent) {
            connector.publishEvent(event, payload);
        } else {
            complain("an event of more than " + std::to_string(longestEvent) + " bytes was not published");
        }
    }
}

Exit runServe(const ServeOptions& options) {
    std::signal(SIGTTIN, SIG_IGN);  // In the background of a terminal there are no lines for it, and it serves on.
    const Link link = makeServer(options.service);
    const auto stopped = std::make_shared<bool>(false);
    onStopSignal([monitor = link.monitor, stopped] { monitor->change([&] { *stopped = true; }); });
    registerAnswers(options, link);
    offer(link);
    if (isTerminal(2)) complain("offering service " + std::to_string(link.uuid));
    // Not on this thread, which has to end while the other still reads.
    std::thread([connector = link.connector] { publishLines(*connector); }).detach();
    while (!link.monitor->await(deadlineIn(0), [&] { return *stopped; })) {
    }
    endShellCommands();
    return Exit::Ok;
}

}  // namespace

void addServe(CLI::App& app, Run& run) {
    const auto options = std::make_shared<ServeOptions>();
    CLI::App& command = *app.add_subcommand(
        "serve",
        "Offers a service until SIGINT or SIGTERM, and publishes each line \"EVENT payload\" of standard input");
    options->service.addTo(command);
    command.add_option("--reply", options->replies, "NAME=TEXT: answers the request with the text")
        ->allow_extra_args(false);
    command.add_option("--reply-file", options->replyFiles, "NAME=FILE: answers it with what the file holds by then")
        ->allow_extra_args(false);
    command
        .add_option(
            "--exec", options->commands,
            "NAME=COMMAND: runs the command with the payload on its standard input, and answers with its output")
        ->allow_extra_args(false);
    command.callback([&run, options] { run = [options] { return runServe(*options); }; });
}

}  // namespace nipcctl
