#include "Player.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tessary::device {

namespace {

constexpr std::array<std::uint8_t, 8> scaleNotes{60, 62, 64, 65, 67, 69, 71, 72};

constexpr std::array<std::pair<std::string_view, Play>, 6> names{{{"scale", Play::scale},
                                                                  {"chords", Play::chords},
                                                                  {"sweep", Play::sweep},
                                                                  {"sysex", Play::sysex},
                                                                  {"mixed", Play::mixed},
                                                                  {"nothing", Play::nothing}}};

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
    // 7D is the manufacturer byte that is nobody's.
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
    switch (i % 12) {
    case 0:
        return {0x90, 60, velocityAt(i)};
    case 1:
        return {0x80, 60, velocityAt(i)};
    case 2:
        return {0xA0, 60, count};
    case 3:
        return {0xB0, 1, count};
    case 4:
        return {0xC0, count};
    case 5:
        return {0xD0, count};
    case 6:
        return {0xE0, count, sevenBits(i)};
    case 7:
        return {0xF2, count, sevenBits(i)};
    case 8:
        return {0xF3, count};
    case 9:
        return {0xF1, count};
    case 10:
        return {0xF8};
    default:
        return sysexAt(i, sysexSize);
    }
}

} // namespace

std::optional<Play> playNamed(std::string_view name) {
    for (const auto& [known, play] : names)
        if (known == name) return play;
    return std::nullopt;
}

MIDIMessage messageAt(Play play, std::uint64_t i, std::size_t sysexSize) {
    switch (play) {
    case Play::scale:
        return scaleAt(i);
    case Play::chords:
        return chordsAt(i);
    case Play::sweep:
        return sweepAt(i);
    case Play::sysex:
        return sysexAt(i, sysexSize);
    case Play::mixed:
        return mixedAt(i, sysexSize);
    case Play::nothing:
        break;
    }
    return {};
}

} // namespace tessary::device
