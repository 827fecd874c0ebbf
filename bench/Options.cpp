#include "Options.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <set>

namespace bench {
namespace {

const std::set<std::string> variants = {"", "logged", "answers", "raw-packet", "raw-memory", "raw-memory-recycled"};

[[noreturn]] void usage(const char* program, const std::string& problem) {
    std::fprintf(stderr,
                 "%s: %s\n"
                 "usage: %s [--workload W1..W5] [--variant NAME] [--size BYTES] [--secs SECONDS] [--count N]\n"
                 "       [--window N] [--subs 1..%d] [--rate EVENTS_PER_S] [--pin none|same|split]\n"
                 "       [--clients N] [--idle N] [--names N] [--callers N] [--services N]\n"
                 "variants:",
                 program, problem.c_str(), program, maxSubscribers);
    for (const std::string& variant : variants) std::fprintf(stderr, " \"%s\"", variant.c_str());
    std::fputc('\n', stderr);
    std::exit(2);
}

template <typename Number>
bool parse(const std::string& text, Number& number, double least, double most) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= least && value <= most)) return false;
    number = static_cast<Number>(value);
    return true;
}

}  // namespace

Options parseOptions(int argc, char** argv) {
    Options o;
    using Text = const std::string&;
    const std::map<std::string, std::function<bool(Text)>> setters = {
        {"--workload", [&](Text v) { return !(o.workload = v).empty(); }},
        {"--variant", [&](Text v) { return variants.count(o.variant = v) == 1; }},
        {"--pin", [&](Text v) { return (o.pin = v) == "none" || v == "same" || v == "split"; }},
        {"--size", [&](Text v) { return parse(v, o.size, 1, 64 << 20); }},
        {"--secs", [&](Text v) { return parse(v, o.seconds, 0.01, 3600); }},
        {"--count", [&](Text v) { return parse(v, o.count, 1, 1e9); }},
        {"--rate", [&](Text v) { return parse(v, o.rate, 0, 1e6); }},
        {"--window", [&](Text v) { return parse(v, o.window, 1, 100000); }},
        {"--subs", [&](Text v) { return parse(v, o.subscribers, 1, maxSubscribers); }},
        {"--clients", [&](Text v) { return parse(v, o.clients, 1, 64); }},
        {"--idle", [&](Text v) { return parse(v, o.idle, 0, 10000); }},
        {"--names", [&](Text v) { return parse(v, o.names, 0, 60000); }},
        {"--callers", [&](Text v) { return parse(v, o.callers, 1, 128); }},
        {"--services", [&](Text v) { return parse(v, o.services, 1, 1000); }},
    };
    for (int i = 1; i < argc; i += 2) {
        const auto setter = setters.find(argv[i]);
        if (setter == setters.end()) usage(argv[0], std::string("no such option: ") + argv[i]);
        if (i + 1 == argc || !setter->second(argv[i + 1])) usage(argv[0], std::string("bad value for ") + argv[i]);
    }
    if (o.workload.size() != 2 || o.workload < "W1" || o.workload > "W5") usage(argv[0], "no such workload");
    if (o.is("W3") && o.size < 8) usage(argv[0], "events carry the time they were published: 8 bytes at least");
    return o;
}

}  // namespace bench
