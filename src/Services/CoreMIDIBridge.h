// The program's one virtual MIDI source, and the parser that feeds it. On the packet path: no lock, no heap
// allocation, no system call but the output's own.
#pragma once

#include "Platform/MIDIOutput.h"
#include "Platform/Platform.h"
#include "Services/SystemExclusive.h"

#include <cstdint>
#include <span>

namespace tessary {

/// Splits the MIDI list of each RTP-MIDI datagram into messages and publishes each at once, by its own call
/// and stamped with the present host time. Receive-only: it reads neither delta times nor the recovery
/// journal.
class CoreMIDIBridge {
  public:
    /// Makes the client and the source, both named "Tessary Link". A failure is one log line each; the bridge
    /// then parses and publishes nothing.
    ///
    /// Runs on: the main thread.
    explicit CoreMIDIBridge(const Platform& platform);

    CoreMIDIBridge(const CoreMIDIBridge&) = delete;
    CoreMIDIBridge& operator=(const CoreMIDIBridge&) = delete;
    ~CoreMIDIBridge();

    /// Takes one datagram of a data port, from its RTP header on (RFC 3550, section 5.1; RFC 6295, section
    /// 3).
    ///
    /// Runs on: a session's queue, and never on two at a time: every session's queue is served by the one
    /// network thread, which is what makes the shared running status safe without a lock. Allocates: never.
    /// Errors: none reported; what does not parse is dropped.
    void handleRTPMIDIPacket(std::span<const std::uint8_t> packet);

  private:
    /// Splits one MIDI list (RFC 6295, section 3.2) of 0 to 4095 bytes into messages and publishes each.
    void parseMIDISection(std::span<const std::uint8_t> list, bool zBit, bool pBit);

    struct SystemExclusiveEnd {
        std::size_t position = 0;    ///< of the first byte that is no longer its own
        bool wasInterrupted = false; ///< that byte is a status byte that cut it short: a command
    };

    /// Takes a status byte that belongs to System Exclusive: reads what follows it, from `position` on, up to
    /// and with the tail.
    SystemExclusiveEnd parseSystemExclusive(std::uint8_t head, std::span<const std::uint8_t> list,
                                            std::size_t position);

    void publish(std::span<const std::uint8_t> message);

    MIDIOutput& output_;
    const Clock& clock_;
    MIDIObjectRef client_ = 0;
    MIDIObjectRef source_ = 0;
    std::uint8_t runningStatus_ = 0; ///< the last status byte of any list of any session; 0: none
    SystemExclusive systemExclusive_;
};

} // namespace tessary
