// Packets in tests, written so that a person can read them.
#pragma once

#include <cctype>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace tessary::test {

/// Hexadecimal digits in any grouping, and text in single quotes: "FF FF 'IN' 0000 0002".
inline std::vector<std::uint8_t> packet(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    int high = -1;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\'') {
            for (++i; i < text.size() && text[i] != '\''; ++i)
                bytes.push_back(static_cast<std::uint8_t>(text[i]));
        } else if (std::isxdigit(static_cast<unsigned char>(c))) {
            const int digit = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (c | 0x20) - 'a' + 10;
            if (high >= 0) bytes.push_back(static_cast<std::uint8_t>(high << 4 | digit));
            high = high >= 0 ? -1 : digit;
        } else if (c != ' ') {
            throw std::invalid_argument("not a packet");
        }
    }
    if (high >= 0) throw std::invalid_argument("half a byte");
    return bytes;
}

inline std::vector<std::uint8_t> operator""_packet(const char* text, std::size_t length) {
    return packet({text, length});
}

} // namespace tessary::test
