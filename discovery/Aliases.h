// Keeps aliases from the embedded responder.
#pragma once

#include <cstdint>
#include <span>

namespace tessary::discovery {

/// Gives every CNAME record of an mDNS response (RFC 1035, section 4) a private-use type (RFC 6895, section
/// 3.1), which is never looked up. libavahi-core 0.8 recurses without end on an alias that leads back to
/// itself, and fails an assertion when an alias's target expires. DNS-SD needs no aliases (RFC 6763). A
/// datagram that does not parse is left unchanged.
///
/// Allocates: never.
void hideAliases(std::span<std::uint8_t> datagram);

} // namespace tessary::discovery
