// An IPv4 host, as an endpoint of a connection.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace tessary {

struct IPv4Host {
    /// The four address bytes in network byte order; 0.0.0.0 is the unspecified address.
    std::array<std::uint8_t, 4> bytes{};

    /// The dotted-decimal text, at most 15 characters.
    std::string text() const;

    /// Reads dotted-decimal text; absent if it is none.
    static std::optional<IPv4Host> parse(const std::string& text);

    /// Whether one machine can have this address: not 0.0.0.0/8, multicast, reserved or broadcast (RFC 6890).
    bool isUnicast() const { return bytes[0] != 0 && bytes[0] < 224; }

    friend bool operator==(const IPv4Host&, const IPv4Host&) = default;
};

} // namespace tessary
