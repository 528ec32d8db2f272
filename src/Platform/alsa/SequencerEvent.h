// MIDI bytes as events of the ALSA sequencer. On the road of a MIDI message.
#pragma once

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace tessary {

/// A direct event to every subscriber of the port.
///
/// @param port      the sending port's number
/// @param hostTime  its time stamp, in nanoseconds of the monotonic clock
/// @param bytes     a whole message of one to three bytes, or System Exclusive: the whole or a piece, 1 to
/// 256
///                  bytes, which the event then refers to
/// @return absent for what the sequencer has no event for: an undefined status, a wrong number of data bytes,
///         or data bytes that are none
/// Runs on: any thread. Allocates: never.
inline std::optional<snd_seq_event_t> sequencerEvent(std::uint8_t port, std::uint64_t hostTime,
                                                     std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) return std::nullopt;
    snd_seq_event_t event{};
    event.flags = SND_SEQ_TIME_STAMP_REAL | SND_SEQ_TIME_MODE_ABS;
    event.time.time.tv_sec = static_cast<unsigned>(hostTime / 1'000'000'000);
    event.time.time.tv_nsec = static_cast<unsigned>(hostTime % 1'000'000'000);
    event.queue = SND_SEQ_QUEUE_DIRECT;
    event.source.port = port;
    event.dest.client = SND_SEQ_ADDRESS_SUBSCRIBERS;
    event.dest.port = SND_SEQ_ADDRESS_UNKNOWN;

    const std::uint8_t status = bytes[0];
    if (status < 0x80 || status == 0xF0 || status == 0xF7) {
        event.type = SND_SEQ_EVENT_SYSEX;
        event.flags |= SND_SEQ_EVENT_LENGTH_VARIABLE;
        event.data.ext.len = static_cast<unsigned>(bytes.size());
        event.data.ext.ptr = const_cast<std::uint8_t*>(bytes.data()); // which is only read from
        return event;
    }

    const auto data = bytes.subspan(1);
    const auto isStatus = [](std::uint8_t byte) { return byte >= 0x80; };
    if (std::any_of(data.begin(), data.end(), isStatus)) return std::nullopt;

    // A note, and everything else: they lie at different places of the event.
    const auto note = [&](snd_seq_event_type_t type) -> std::optional<snd_seq_event_t> {
        if (data.size() != 2) return std::nullopt;
        event.type = static_cast<std::uint8_t>(type);
        event.data.note.channel = status & 0x0F;
        event.data.note.note = data[0];
        event.data.note.velocity = data[1];
        return event;
    };
    const auto control = [&](snd_seq_event_type_t type, std::size_t size, unsigned parameter,
                             int value) -> std::optional<snd_seq_event_t> {
        if (data.size() != size) return std::nullopt;
        event.type = static_cast<std::uint8_t>(type);
        if (status < 0xF0) event.data.control.channel = status & 0x0F;
        event.data.control.param = parameter;
        event.data.control.value = value;
        return event;
    };
    const int first = data.empty() ? 0 : data[0];
    const int both = data.size() < 2 ? first : data[1] << 7 | data[0];

    switch (status & 0xF0) {
    case 0x80:
        return note(SND_SEQ_EVENT_NOTEOFF);
    case 0x90:
        return note(SND_SEQ_EVENT_NOTEON);
    case 0xA0:
        return note(SND_SEQ_EVENT_KEYPRESS);
    case 0xB0:
        return control(SND_SEQ_EVENT_CONTROLLER, 2, static_cast<unsigned>(first), both >> 7);
    case 0xC0:
        return control(SND_SEQ_EVENT_PGMCHANGE, 1, 0, first);
    case 0xD0:
        return control(SND_SEQ_EVENT_CHANPRESS, 1, 0, first);
    case 0xE0:
        return control(SND_SEQ_EVENT_PITCHBEND, 2, 0, both - 8192); // the sequencer's centre is 0
    default:
        break;
    }
    switch (status) {
    case 0xF1:
        return control(SND_SEQ_EVENT_QFRAME, 1, 0, first);
    case 0xF2:
        return control(SND_SEQ_EVENT_SONGPOS, 2, 0, both);
    case 0xF3:
        return control(SND_SEQ_EVENT_SONGSEL, 1, 0, first);
    case 0xF6:
        return control(SND_SEQ_EVENT_TUNE_REQUEST, 0, 0, 0);
    case 0xF8:
        return control(SND_SEQ_EVENT_CLOCK, 0, 0, 0);
    case 0xFA:
        return control(SND_SEQ_EVENT_START, 0, 0, 0);
    case 0xFB:
        return control(SND_SEQ_EVENT_CONTINUE, 0, 0, 0);
    case 0xFC:
        return control(SND_SEQ_EVENT_STOP, 0, 0, 0);
    case 0xFE:
        return control(SND_SEQ_EVENT_SENSING, 0, 0, 0);
    case 0xFF:
        return control(SND_SEQ_EVENT_RESET, 0, 0, 0);
    default:
        return std::nullopt;
    }
}

} // namespace tessary
