// What a simulated device plays: endless streams of MIDI messages in which each message follows from its
// number alone, so that a receiver can tell which are missing, doubled or out of order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tessary::device {

/// One whole MIDI message: 1 to 3 bytes, or a System Exclusive from its F0 to its F7.
using MIDIMessage = std::vector<std::uint8_t>;

enum class Play { nothing, scale, chords, sweep, sysex, mixed };

/// F0, the manufacturer byte, F7. From 7 bytes on a System Exclusive carries its number.
constexpr std::size_t minSysexSize = 3;

/// The notes that sound together in `Play::chords`. Its messages come in pairs of this many notes on and as
/// many notes off.
constexpr std::size_t notesPerChord = 3;

/// Message number `i`, counted from 0 for each session. All on MIDI channel 1;
/// a device may move them to another.
///
///     scale    i even: note on, i odd: note off of the same note; the notes are C major from 60 up to 72,
///              over and over; the velocity of both is i mod 127 + 1
///     chords   three notes on, then the same three off; triads on the degrees of C major; velocity as above
///     sweep    controller 74, up from 0 to 127 and down again
///     sysex    F0 7D n n n n ... F7, `sysexSize` bytes in all; n is the number, seven bits a byte, the
///              highest first; the byte at offset k, from 6 on, is (7 i + k + k / 128) mod 128; a short one
///              ends sooner
///     mixed    i mod 12: note on, note off, poly pressure, controller, program, channel pressure,
///              pitch bend, song position, song select, time code quarter frame, timing clock, System
///              Exclusive; the data bytes count
///     nothing  an empty message
///
/// @param sysexSize  bytes of a System Exclusive, F0 and F7 included; `minSysexSize` or more
/// Runs on: any thread. Allocates: the message.
MIDIMessage messageAt(Play play, std::uint64_t i, std::size_t sysexSize);

} // namespace tessary::device
