// UDP sockets that share one local port.
#pragma once

#include "Models/IPv4Host.h"
#include "Platform/system/OpenFile.h"

#include <cstdint>
#include <optional>
#include <system_error>

namespace tessary {

struct UDPSocketResult {
    OpenFile socket;
    std::error_code error;
};

/// A socket bound to `localPort` of the wildcard address and connected to the peer. It never delivers a
/// datagram from another address, not even one that arrives between bind and connect.
UDPSocketResult openConnected(std::optional<std::uint16_t> localPort, IPv4Host host,
                              std::uint16_t remotePort);

/// A socket that holds `localPort` against other programs and drops whatever arrives.
UDPSocketResult openPlaceholder(std::uint16_t localPort);

/// The local address that a connected socket was given.
IPv4Host localAddress(int file);

} // namespace tessary
