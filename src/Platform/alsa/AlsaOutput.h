// The virtual MIDI source as a port of the ALSA sequencer. On the packet path.
#pragma once

#include "Platform/Log.h"
#include "Platform/MIDIOutput.h"

#include <memory>

namespace tessary {

/// One sequencer client with one port that other programs can read from and subscribe to.
///
/// Short messages are sent at once, as direct events: the kernel delivers each to every subscriber before the
/// call returns. Their time stamp is the time at which they were parsed, on the monotonic clock. If a
/// subscription requests time stamps of a sequencer queue, as those of the bridges to JACK and PipeWire do,
/// the kernel replaces the time stamp by that queue's time at delivery. A subscriber whose input pool is full
/// misses the event; it neither blocks nor affects the other subscribers.
///
/// The names and the port number are the same in each run, because saved connections identify the source by
/// them.
///
/// Holds one client and one source at a time. Cheap until `createClient`. `publish` must not be called during
/// or after the disposal of the source.
class AlsaOutput : public MIDIOutput {
  public:
    /// @param log  outlives the output
    explicit AlsaOutput(Log& log);
    AlsaOutput(const AlsaOutput&) = delete;
    AlsaOutput& operator=(const AlsaOutput&) = delete;
    /// Blocks for about 100 milliseconds at most.
    ~AlsaOutput() override;

    /// Whether this machine has an ALSA sequencer that the user may open.
    static bool isAvailable();

    /// Errors: a negated errno, usually -ENOENT for no sequencer; -EBUSY if a client exists already.
    MIDIStatus createClient(std::string_view name, MIDIObjectRef& client) override;

    /// Errors: -EINVAL without a client; -EBUSY if a source exists already; -EAGAIN if no thread can be
    /// created; otherwise a negated errno.
    MIDIStatus createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                            MIDIObjectRef& source) override;

    /// Does nothing: the sequencer identifies ports by client, name and number.
    void setUniqueID(MIDIObjectRef source, std::int32_t uniqueID) override;

    void disposeSource(MIDIObjectRef source) override;
    void disposeClient(MIDIObjectRef client) override;

    /// One system call for a short message. System Exclusive is paced, see `PacedSender`. Dropped: the four
    /// status bytes that MIDI 1.0 leaves undefined (F4, F5, F9, FD), for which the sequencer has no event,
    /// and messages with a wrong number of data bytes or with one above 127.
    void publish(MIDIObjectRef source, std::uint64_t hostTime,
                 std::span<const std::uint8_t> message) override;

  private:
    class Client;
    Log& log_;
    std::unique_ptr<Client> client_;
};

} // namespace tessary
