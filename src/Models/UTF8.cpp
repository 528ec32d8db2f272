#include "Models/UTF8.h"

#include <cstdint>

namespace tessary {

namespace {

struct Decoded {
    char32_t codePoint = 0;
    std::size_t length = 0; ///< in bytes; 0: the text does not start with a well-formed character
};

Decoded decodeFirst(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byte(0);
    if (lead < 0x80) return {lead, 1};

    std::size_t length = 0;
    char32_t codePoint = 0;
    char32_t smallest = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, codePoint = lead & 0x1Fu, smallest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, codePoint = lead & 0x0Fu, smallest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, codePoint = lead & 0x07u, smallest = 0x10000;
    } else {
        return {};
    }
    if (text.size() < length) return {};
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return {};
        codePoint = (codePoint << 6) | (byte(i) & 0x3Fu);
    }
    const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < smallest || codePoint > 0x10FFFF || isSurrogate) return {};
    return {codePoint, length};
}

bool breaksLines(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029;
}

void appendHex(std::string& out, std::uint32_t value, int digits) {
    constexpr std::string_view hex = "0123456789abcdef";
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        out += hex[(value >> shift) & 0xF];
}

} // namespace

bool isUTF8(std::string_view bytes) {
    while (!bytes.empty()) {
        const Decoded first = decodeFirst(bytes);
        if (first.length == 0) return false;
        bytes.remove_prefix(first.length);
    }
    return true;
}

std::string escapedControls(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Decoded first = decodeFirst(text);
        if (first.length == 0) {
            out += "\\x";
            appendHex(out, static_cast<std::uint8_t>(text.front()), 2);
            text.remove_prefix(1);
            continue;
        }
        if (!breaksLines(first.codePoint)) {
            out += text.substr(0, first.length);
        } else if (first.codePoint == '\n') {
            out += "\\n";
        } else if (first.codePoint == '\r') {
            out += "\\r";
        } else if (first.codePoint == '\t') {
            out += "\\t";
        } else {
            out += "\\u{";
            appendHex(out, first.codePoint, 4);
            out += '}';
        }
        text.remove_prefix(first.length);
    }
    return out;
}

} // namespace tessary
