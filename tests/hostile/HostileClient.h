#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "RawPeer.h"

/// Sessions of clients that do what none may, drawn at random.
class HostileClient {
public:
    HostileClient(std::string path, std::uint16_t uuid, std::uint64_t seed);

    void session();
    /// One that keeps to the rules, and asks about as much.
    void ordinarySession();
    /// Holds as many connections as this process may have descriptors; how many.
    std::size_t exhaustDescriptors();
    void letGo();

    /// Sessions by kind, and what went wrong: violations that were not answered by an end of the connection.
    std::map<std::string, std::uint64_t> counts;
    std::map<std::string, std::uint64_t> survived;

private:
    struct Kind {
        const char* name;
        unsigned weight;
        void (HostileClient::*run)();
    };
    static const std::array<Kind, 11> kKinds;

    void badGreeting();
    void halfOpen();
    void violation();
    void randomFrames();
    void randomBytes();
    void region();
    void acknowledgements();
    void unreadAnswers();
    void channels();
    void torn();
    void buffers();

    bool enter(RawClient& client);
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::uint16_t function();
    std::string bytes(std::size_t size);
    std::vector<int> someDescriptors();
    void rewrite();

    const std::string path_;
    const std::uint16_t uuid_;
    std::mt19937_64 random_;
    std::vector<Greeting> greetings_;
    std::vector<RawPeer> descriptors_;  ///< Of every kind; the first is a good region that is mapped at region_.
    char* region_ = nullptr;
    std::deque<RawPeer> held_;
};

/// A descriptor of each kind that is not a region of ours, or not a good one.
std::vector<RawPeer> strangeDescriptors();
/// The lengths that may lie most usefully.
std::uint32_t lyingLength(std::uint64_t random);
