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

    friend bool operator==(const IPv4Host&, const IPv4Host&) = default;
};

} // namespace tessary
