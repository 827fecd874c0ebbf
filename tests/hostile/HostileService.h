#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "RawPeer.h"

/// A service that does what none may, to one client after the other.
class HostileService {
public:
    HostileService(const std::string& path, std::uint64_t seed);

    /// False when no client came.
    bool session();

    std::map<std::string, std::uint64_t> counts;
    std::map<std::string, std::uint64_t> survived;

private:
    void refuse(const RawPeer& client);
    void violate(const RawClient& client);
    void sendNoise(const RawClient& client);
    void lieInAnswers(const RawClient& client);
    void lieInShares(const RawClient& client);
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    int anyDescriptor() { return strange_[below(static_cast<unsigned>(strange_.size()))].fd(); }

    const RawPeer listener_;
    std::mt19937_64 random_;
    const std::vector<RawPeer> strange_;
};

/// Lets itself be told off: connects, asks something of each kind, and leaves; so many times.
void sufferSessions(std::uint16_t uuid, unsigned times);
