// Datagrams of the data port, from several senders: what is published is what a second parser says.
//
// An input is a row of records: how, sender, flags, length, list. Of `how`, the low bits choose the step of
// the sequence number, 0x08 has 64 more senders say the same, 0x10 stretches System Exclusive by 4,000 bytes
// (with 0x80 by 3,998), 0x20 cuts the datagram short, 0x40 makes it the list's bytes alone. Of the flags, the
// high bits are those of the section's header, the low ones the CSRC count.
#include "Fuzz.h"
#include "ReferenceParser.h"
#include "Services/CoreMIDIBridge.h"
#include "support/Fakes.h"

#include <array>
#include <map>

using namespace tessary;
using fuzz::Bytes;

namespace {

using Sequences = std::map<std::uint8_t, std::uint16_t>;

struct Record {
    explicit Record(fuzz::Reader& input)
        : how(input.byte())
        , sender(input.byte())
        , flags(input.byte())
        , list(input.bytes()) {
        const bool isExclusive = !list.empty() && (list[0] == 0xF0 || list[0] == 0xF7);
        if (how & 0x10 && isExclusive) list.insert(list.begin() + 1, how & 0x80 ? 3998 : 4000, 0x11);
    }

    Bytes datagram(std::uint8_t from, Sequences& sequences) const {
        if (how & 0x40) return list;
        constexpr std::array<std::uint16_t, 8> steps{1, 1, 0, 2, 65535, 65535 - 98, 65535 - 99, 30'000};
        const auto sequence = static_cast<std::uint16_t>(sequences[from] += steps[how % 8]);
        Bytes bytes{static_cast<std::uint8_t>(0x80 | (flags & 0x0F)), 0x61};
        bytes.push_back(static_cast<std::uint8_t>(sequence >> 8));
        bytes.push_back(static_cast<std::uint8_t>(sequence));
        bytes.insert(bytes.end(), {0, 0, 0, 0, 0xCA, 0xFE, 0, from});
        bytes.resize(bytes.size() + std::size_t{4} * (flags & 0x0F), 0xC5);
        const std::size_t length = list.size();
        const bool isLong = (flags & 0x80) || length > 15;
        bytes.push_back(static_cast<std::uint8_t>((flags & 0x70) | (isLong ? 0x80 | length >> 8 : length)));
        if (isLong) bytes.push_back(static_cast<std::uint8_t>(length));
        bytes.insert(bytes.end(), list.begin(), list.end());
        if (flags & 0x40) bytes.insert(bytes.end(), {0x20, 0x90, 0x3C, 0xF7}); // a journal
        if (how & 0x20) bytes.pop_back();
        return bytes;
    }

    const std::uint8_t how, sender, flags;
    Bytes list;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::FakeMachine machine;
    CoreMIDIBridge bridge(machine.platform());
    fuzz::ReferenceParser reference;
    Sequences sequences;
    fuzz::Reader input(data, size);
    std::size_t sent = 0;
    while (!input.isEmpty() && sent < 100'000) { // enough for two of the longest messages
        const Record record(input);
        for (int others = record.how & 0x08 ? 64 : 0; others >= 0; --others) {
            const Bytes bytes = record.datagram(static_cast<std::uint8_t>(record.sender + others), sequences);
            sent += bytes.size();
            machine.midiOutput.messages.clear();
            bridge.handleRTPMIDIPacket(bytes);
            fuzz::require(machine.midiOutput.messages == reference.parse(bytes),
                          "both parsers publish the same");
        }
    }
    return 0;
}
