// Keeps aliases from the embedded responder.
#pragma once

#include <cstdint>
#include <span>

namespace tessary::discovery {

/// Gives every CNAME record of an mDNS response (RFC 1035, section 4) a type of private use (RFC 6895,
/// section 3.1), which nobody looks up. libavahi-core 0.8 recurses without end on an alias that leads back to
/// itself, and stops at an assertion when the target of one expires. DNS-SD needs no aliases (RFC 6763). What
/// does not parse stays as it is.
///
/// Allocates: never.
void hideAliases(std::span<std::uint8_t> datagram);

} // namespace tessary::discovery
