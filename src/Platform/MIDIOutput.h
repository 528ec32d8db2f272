// What the services need from the machine: one virtual MIDI source. On the packet path.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace tessary {

/// Reference of a client or a source of the machine's MIDI system; 0 is none.
using MIDIObjectRef = std::uint32_t;

/// 0 for success, negative for a failure.
using MIDIStatus = std::int32_t;

/// The byte-stream protocol of MIDI 1.0.
constexpr std::int32_t midiProtocol1_0 = 1;

class MIDIOutput {
  public:
    virtual ~MIDIOutput() = default;

    /// Joins the MIDI system as `name`. `client` becomes nonzero exactly when 0 is returned.
    ///
    /// Runs on: the main thread.
    virtual MIDIStatus createClient(std::string_view name, MIDIObjectRef& client) = 0;

    /// Makes a source that other programs can listen to. `source` becomes nonzero exactly when 0 is returned.
    ///
    /// Runs on: the main thread. Errors: negative, also for `client` 0.
    virtual MIDIStatus createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                                    MIDIObjectRef& source) = 0;

    /// Fixes the identity of the source by which saved connections find it again. A MIDI system that knows
    /// its ports by name alone has nothing to do here.
    virtual void setUniqueID(MIDIObjectRef source, std::int32_t uniqueID) = 0;

    virtual void disposeSource(MIDIObjectRef source) = 0;
    virtual void disposeClient(MIDIObjectRef client) = 0;

    /// Publishes one whole MIDI message: a channel or system message of one to three bytes, or a System
    /// Exclusive from its F0 to its F7.
    ///
    /// @param hostTime  when the message was parsed, in nanoseconds of `Clock::hostTime`
    /// Runs on: one thread at a time, the network's. Allocates: never. Waits: never. Errors: none reported;
    /// what the MIDI system has no room for is dropped whole.
    virtual void publish(MIDIObjectRef source, std::uint64_t hostTime,
                         std::span<const std::uint8_t> message) = 0;
};

} // namespace tessary
