// A session packet, as it comes from the network.
#include "Require.h"
#include "Services/AppleMIDIPacket.h"

#include <algorithm>
#include <set>
#include <string_view>

using namespace tessary;
using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> datagram(data, size);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto packet = AppleMIDIPacket::decode(datagram);

    const std::string_view command = size >= 4 && text.starts_with("\xFF\xFF") ? text.substr(2, 2) : "";
    const bool isClock = command == "CK";
    const bool isKnown = std::set<std::string_view>{"IN", "OK", "NO", "BY", "CK"}.contains(command);
    require(packet.has_value() == (isKnown && size >= (isClock ? 36u : 16u)), "what is accepted");
    if (!packet) return 0;

    const auto encoded = packet->encode();
    const std::string_view again(reinterpret_cast<const char*>(encoded.data()), encoded.size());
    require(AppleMIDIPacket::decode(encoded) == packet, "what was encoded decodes to the same");
    require(again.substr(0, 4) == text.substr(0, 4), "the command");
    if (isClock) {
        require(again.size() == 36 && again.substr(4, 5) == text.substr(4, 5), "SSRC and count");
        require(again.substr(9, 3) == std::string_view("\0\0\0", 3), "padding");
        require(again.substr(12) == text.substr(12, 24), "times");
        return 0;
    }
    require(again.substr(4, 4) == std::string_view("\0\0\0\2", 4), "version");
    require(again.substr(8, 8) == text.substr(8, 8), "token and SSRC");
    if (command == "BY") {
        require(again.size() == 16, "an end of session has no name");
        return 0;
    }
    const std::string_view name = text.substr(16, text.find('\0', 16) - 16);
    const std::string_view decoded = again.substr(16, again.size() - 17);
    require(again.ends_with('\0'), "the name's end");
    require(decoded == name || decoded.empty(), "the name is whole or empty");
    const bool isASCII =
        std::ranges::all_of(name, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    require(decoded == name || !isASCII, "a name in ASCII is never lost");
    return 0;
}
