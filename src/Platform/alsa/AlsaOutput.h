// The virtual MIDI source as a port of the ALSA sequencer. On the road of a MIDI message.
#pragma once

#include "Platform/Log.h"
#include "Platform/MIDIOutput.h"

#include <memory>

namespace tessary {

/// One sequencer client with one port that other programs can read from and subscribe to.
///
/// Short messages go out at once, as direct events: the kernel hands each to every subscriber before the call
/// returns. Their time stamp is the real time at which they were parsed. A subscriber that wants its events
/// stamped by a queue of its own, as the bridges to JACK and PipeWire do, gets the time of that queue at the
/// moment of arrival instead. A subscriber whose own queue is full misses the event; it neither holds up nor
/// disturbs anybody else.
///
/// Names and the port's number are the same in each run: saved connections find the source by them.
///
/// Holds one client and one source at a time. Cheap until `createClient`. Nothing may be published any more
/// when the source is disposed of.
class AlsaOutput : public MIDIOutput {
  public:
    /// @param log  outlives the output
    explicit AlsaOutput(Log& log);
    AlsaOutput(const AlsaOutput&) = delete;
    AlsaOutput& operator=(const AlsaOutput&) = delete;
    /// Takes about 100 milliseconds at most.
    ~AlsaOutput() override;

    /// Whether this machine has a sequencer that this user may open.
    static bool isAvailable();

    /// Errors: a negated errno, above all -ENOENT for no sequencer; -EBUSY if there is a client already.
    MIDIStatus createClient(std::string_view name, MIDIObjectRef& client) override;

    /// Errors: -EINVAL for no client; -EBUSY if there is a source already; -EAGAIN if no thread can be made;
    /// else a negated errno.
    MIDIStatus createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                            MIDIObjectRef& source) override;

    /// Does nothing: the sequencer knows ports by client, name and number.
    void setUniqueID(MIDIObjectRef source, std::int32_t uniqueID) override;

    void disposeSource(MIDIObjectRef source) override;
    void disposeClient(MIDIObjectRef client) override;

    /// One system call for a short message. System Exclusive is paced, see `PacedSender`. The four statuses
    /// that MIDI 1.0 leaves undefined (F4, F5, F9, FD) have no event in the sequencer and are dropped, and so
    /// is a message whose data bytes are none.
    void publish(MIDIObjectRef source, std::uint64_t hostTime,
                 std::span<const std::uint8_t> message) override;

  private:
    class Client;
    Log& log_;
    std::unique_ptr<Client> client_;
};

} // namespace tessary
