// The session packets of the AppleMIDI protocol, version 2, which set up and keep an RTP-MIDI session.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace tessary {

/// One session packet, a value. On the wire each is one UDP datagram that starts with FF FF and two ASCII
/// letters; all integers are big-endian.
///
///     IN, OK, NO   FF FF cc cc | version 2 (4) | token (4) | ssrc (4) | name, UTF-8, ended by 00
///     BY           FF FF 'B''Y' | version 2 (4) | token (4) | ssrc (4)
///     CK           FF FF 'C''K' | ssrc (4) | count (1) | 00 00 00 | t1 (8) | t2 (8) | t3 (8)
struct AppleMIDIPacket {
    struct Invitation {
        std::uint32_t token = 0;
        std::uint32_t ssrc = 0;
        std::string name;
        friend bool operator==(const Invitation&, const Invitation&) = default;
    };
    struct Accept {
        std::uint32_t token = 0;
        std::uint32_t ssrc = 0;
        std::string name;
        friend bool operator==(const Accept&, const Accept&) = default;
    };
    struct Reject {
        std::uint32_t token = 0;
        std::uint32_t ssrc = 0;
        std::string name;
        friend bool operator==(const Reject&, const Reject&) = default;
    };
    struct Bye {
        std::uint32_t token = 0;
        std::uint32_t ssrc = 0;
        friend bool operator==(const Bye&, const Bye&) = default;
    };
    /// Times in units of 100 microseconds.
    struct ClockSync {
        std::uint32_t ssrc = 0;
        std::uint8_t count = 0;
        std::uint64_t t1 = 0;
        std::uint64_t t2 = 0;
        std::uint64_t t3 = 0;
        friend bool operator==(const ClockSync&, const ClockSync&) = default;
    };

    using Value = std::variant<Invitation, Accept, Reject, Bye, ClockSync>;
    Value value;

    /// The exact bytes of the datagram. The name is written as it is: neither shortened nor searched for 00.
    ///
    /// Runs on: any thread. Allocates: the buffer. Errors: none; a name that is no UTF-8 is written as no
    /// bytes.
    std::vector<std::uint8_t> encode() const;

    /// Reads one datagram; absent when it is too short for its command, has another signature or an unknown
    /// command. The version is not examined, bytes past the end are ignored, a name that is no UTF-8 is
    /// empty.
    ///
    /// Runs on: any thread. Allocates: the name.
    static std::optional<AppleMIDIPacket> decode(std::span<const std::uint8_t> bytes);

    friend bool operator==(const AppleMIDIPacket&, const AppleMIDIPacket&) = default;
};

} // namespace tessary
