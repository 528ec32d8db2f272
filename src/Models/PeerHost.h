// One reachable peer, as discovery hands it to the dialer and the menu.
#pragma once

#include "Models/IPv4Host.h"

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>

namespace tessary {

/// A value record. Its identity is its address alone: equality and hash read `ip` and nothing else.
struct PeerHost {
    std::string ip;          ///< dotted-decimal IPv4 text, the key that matches peers, sessions and trust
    std::string displayName; ///< instance name of the peer's `_apple-midi._udp` service
    IPv4Host host;           ///< what sessions connect to
    std::uint16_t port = 0;  ///< the peer's AppleMIDI control port

    const std::string& id() const { return ip; }

    friend bool operator==(const PeerHost& a, const PeerHost& b) { return a.ip == b.ip; }
};

struct PeerHostHash {
    std::size_t operator()(const PeerHost& peer) const { return std::hash<std::string>{}(peer.ip); }
};

/// At most one record an address; two sets are equal when their addresses are.
using PeerSet = std::unordered_set<PeerHost, PeerHostHash>;

} // namespace tessary
