#include "Player.h"

#include <algorithm>
#include <array>

namespace tessary::device {

namespace {

constexpr std::array<std::uint8_t, 8> scaleNotes{60, 62, 64, 65, 67, 69, 71, 72};

std::uint8_t sevenBits(std::uint64_t value) {
    return static_cast<std::uint8_t>(value & 0x7F);
}

/// Never 0, which would make a note off of a note on.
std::uint8_t velocityAt(std::uint64_t i) {
    return static_cast<std::uint8_t>(i % 127 + 1);
}

MIDIMessage scaleAt(std::uint64_t i) {
    const std::uint8_t status = i % 2 == 0 ? 0x90 : 0x80;
    return {status, scaleNotes[i / 2 % scaleNotes.size()], velocityAt(i)};
}

MIDIMessage chordsAt(std::uint64_t i) {
    const std::uint64_t chord = i / (2 * notesPerChord);
    const std::uint8_t status = i / notesPerChord % 2 == 0 ? 0x90 : 0x80;
    const std::uint64_t degree = chord % 7 + 2 * (i % notesPerChord);
    const auto octave = static_cast<std::uint8_t>(12 * (degree / 7));
    return {status, static_cast<std::uint8_t>(scaleNotes[degree % 7] + octave), velocityAt(i)};
}

MIDIMessage sweepAt(std::uint64_t i) {
    const std::uint64_t step = i % 254;
    return {0xB0, 74, sevenBits(step < 128 ? step : 254 - step)};
}

MIDIMessage sysexAt(std::uint64_t i, std::size_t size) {
    // 7D is the manufacturer byte for non-commercial use.
    MIDIMessage message{0xF0, 0x7D, sevenBits(i >> 21), sevenBits(i >> 14), sevenBits(i >> 7), sevenBits(i)};
    message.resize(std::min(message.size(), size - 1));
    message.reserve(size);
    for (std::size_t k = message.size(); k + 1 < size; ++k)
        message.push_back(sevenBits(7 * i + k + k / 128));
    message.push_back(0xF7);
    return message;
}

MIDIMessage mixedAt(std::uint64_t i, std::size_t sysexSize) {
    const std::uint8_t count = sevenBits(i / 12);
    const std::array<MIDIMessage, 11> messages{{{0x90, 60, velocityAt(i)},
                                                {0x80, 60, velocityAt(i)},
                                                {0xA0, 60, count},
                                                {0xB0, 1, count},
                                                {0xC0, count},
                                                {0xD0, count},
                                                {0xE0, count, sevenBits(i)},
                                                {0xF2, count, sevenBits(i)},
                                                {0xF3, count},
                                                {0xF1, count},
                                                {0xF8}}};
    return i % 12 < messages.size() ? messages[i % 12] : sysexAt(i, sysexSize);
}

} // namespace

MIDIMessage messageAt(Play play, std::uint64_t i, std::size_t sysexSize) {
    if (play == Play::scale) return scaleAt(i);
    if (play == Play::chords) return chordsAt(i);
    if (play == Play::sweep) return sweepAt(i);
    if (play == Play::sysex) return sysexAt(i, sysexSize);
    if (play == Play::mixed) return mixedAt(i, sysexSize);
    return {};
}

} // namespace tessary::device
