// A session packet, as it comes from the network.
#include "Fuzz.h"
#include "Services/AppleMIDIPacket.h"

#include <algorithm>
#include <set>
#include <string_view>

using namespace tessary;
using namespace std::string_literals;
using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto packet = AppleMIDIPacket::decode({data, size});
    const std::string command = size >= 4 && text.starts_with("\xFF\xFF") ? text.substr(2, 2) : "";
    const bool isKnown = std::set{"IN"s, "OK"s, "NO"s, "BY"s, "CK"s}.contains(command);
    require(packet.has_value() == (isKnown && size >= (command == "CK" ? 36 : 16)), "what is accepted");
    if (!packet) return 0;

    const auto encoded = packet->encode();
    require(AppleMIDIPacket::decode(encoded) == packet, "what was encoded decodes to the same");
    const std::string again(encoded.begin(), encoded.end());
    if (command == "CK") {
        require(again == text.substr(0, 9) + "\0\0\0"s + text.substr(12, 24), "a clock packet");
        return 0;
    }
    const std::string head = text.substr(0, 4) + "\0\0\0\2"s + text.substr(8, 8);
    const std::string name = text.substr(16, text.find('\0', 16) - 16);
    const bool isASCII = std::ranges::all_of(name, [](signed char c) { return c >= 0; });
    if (command == "BY")
        require(again == head, "an end of session has no name");
    else if (isASCII || again != head + "\0"s) // a name that is no UTF-8 is left out
        require(again == head + name + "\0"s, "version, token, SSRC and the whole name");
    return 0;
}
