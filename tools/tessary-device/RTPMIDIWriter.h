// Packs MIDI messages into RTP-MIDI datagrams (RFC 6295).
#pragma once

#include "Player.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tessary::device {

/// The longest MIDI list written: with all headers it fits the Ethernet MTU of 1500 bytes.
constexpr std::size_t maxListSize = 1200;

/// One RTP stream of MIDI.
///
///     80 61 | sequence number (2) | timestamp (4) | SSRC (4) | header of the list | the list
///
/// The list's header is one byte for up to 15 bytes and two bytes (B = 1) above that. There is no recovery
/// journal (J = 0), no delta time before the first command (Z = 0) and one of 0 before each further command.
/// Every command has its status byte.
class RTPMIDIWriter {
  public:
    using Send = std::function<void(std::span<const std::uint8_t> datagram)>;

    RTPMIDIWriter(std::uint32_t ssrc, std::uint16_t firstSequenceNumber)
        : ssrc_(ssrc)
        , sequenceNumber_(firstSequenceNumber) {}

    /// Hands the datagrams that carry `messages` to `send`, in order. Usually that is one; messages that do
    /// not fit one list go on in the next. A System Exclusive that is longer than a list goes in segments (F0
    /// ... F0, F7 ... F0, F7 ... F7), each in a datagram of its own.
    ///
    /// @param timestamp  of all these messages, in units of 100 microseconds
    /// Runs on: one thread at a time. Allocates: yes. Errors: none; an empty message is left out.
    void write(std::span<const MIDIMessage> messages, std::uint32_t timestamp, const Send& send);

  private:
    std::vector<std::uint8_t> datagram(std::span<const std::uint8_t> list, std::uint32_t timestamp);

    std::uint32_t ssrc_;
    std::uint16_t sequenceNumber_;
};

} // namespace tessary::device
