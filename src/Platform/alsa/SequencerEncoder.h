// MIDI bytes as events of the ALSA sequencer. On the packet path.
#pragma once

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>

namespace tessary {

/// Encodes short messages with libasound. System Exclusive needs no encoder: its event refers to the bytes.
///
/// Runs on: one thread at a time, except that another thread may encode real-time messages meanwhile.
class SequencerEncoder {
  public:
    /// Errors: throws `std::bad_alloc`.
    SequencerEncoder() = default;

    /// Returns a direct event to every subscriber of the port.
    ///
    /// @param port      the sending port's number
    /// @param hostTime  the time stamp of the event, in nanoseconds of the monotonic clock
    /// @param bytes     a whole message of one to three bytes, or System Exclusive of 1 to 256 bytes, whole
    /// or
    ///                  a piece. The event of a System Exclusive refers to these bytes, so they must outlive
    ///                  it.
    /// @return absent if the sequencer has no event for the message: an undefined status, a wrong number of
    ///         data bytes, or a data byte above 127
    /// Allocates: never.
    std::optional<snd_seq_event_t> encode(std::uint8_t port, std::uint64_t hostTime,
                                          std::span<const std::uint8_t> bytes) {
        if (bytes.empty()) return std::nullopt;
        snd_seq_event_t event{};
        event.time.time.tv_sec = static_cast<unsigned>(hostTime / 1'000'000'000);
        event.time.time.tv_nsec = static_cast<unsigned>(hostTime % 1'000'000'000);
        snd_seq_ev_set_direct(&event);
        event.flags = SND_SEQ_TIME_STAMP_REAL | SND_SEQ_TIME_MODE_ABS;
        snd_seq_ev_set_source(&event, port);
        snd_seq_ev_set_subs(&event);

        const std::uint8_t status = bytes[0];
        if (status < 0x80 || status == 0xF0 || status == 0xF7) {
            auto* const data = const_cast<std::uint8_t*>(bytes.data()); // only read
            snd_seq_ev_set_sysex(&event, static_cast<unsigned>(bytes.size()), data);
            return event;
        }

        // The encoder would take a status byte among the data for the start of another message.
        if (std::any_of(bytes.begin() + 1, bytes.end(), [](std::uint8_t byte) { return byte >= 0x80; }))
            return std::nullopt;
        snd_midi_event_t* encoder = (status >= 0xF8 ? realTime_ : other_).get();
        const auto size = static_cast<long>(bytes.size());
        if (snd_midi_event_encode(encoder, bytes.data(), size, &event) != size ||
            event.type == SND_SEQ_EVENT_NONE)
            return std::nullopt;
        return event;
    }

  private:
    using Encoder = std::unique_ptr<snd_midi_event_t, decltype(&snd_midi_event_free)>;

    static Encoder makeEncoder() {
        constexpr std::size_t maxShortMessage = 3;
        snd_midi_event_t* encoder = nullptr;
        if (snd_midi_event_new(maxShortMessage, &encoder) < 0) throw std::bad_alloc();
        return {encoder, snd_midi_event_free};
    }

    const Encoder realTime_ = makeEncoder();
    const Encoder other_ = makeEncoder();
};

} // namespace tessary
