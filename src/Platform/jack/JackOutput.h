// The virtual MIDI source as an output port of JACK. On the packet path.
#pragma once

#include "Platform/Log.h"
#include "Platform/MIDIOutput.h"

#include <memory>
#include <thread>

namespace tessary {

/// One JACK client with one MIDI output port, at a JACK server that is already running; none is ever started.
///
/// A message is played exactly one period after it was published, so the spacing of messages survives. When
/// the server dies, the client and its port return under the same names once there is a server again; what is
/// published in between is dropped, and so is what is older than a second at its cycle because the server was
/// stopped, note-offs included; one log line says how many messages. Calls of libjack that may block happen
/// on a thread of this object's own, which sleeps while the server lives.
///
/// Opened once: one client and one source, created once each.
class JackOutput : public MIDIOutput {
  public:
    /// @param log  outlives the output
    explicit JackOutput(Log& log);
    JackOutput(const JackOutput&) = delete;
    JackOutput& operator=(const JackOutput&) = delete;
    /// Takes about 200 milliseconds at most, even if the server hangs.
    ~JackOutput() override;

    /// A server that exists but does not answer within 0.1 seconds is no failure: the source appears once it
    /// answers.
    ///
    /// Errors: the negated `jack_status_t` of libjack, above all for no server; -EBUSY after the first call;
    /// -EAGAIN if no thread can be made.
    MIDIStatus createClient(std::string_view name, MIDIObjectRef& client) override;

    /// Errors: -EINVAL for no client; -EBUSY after the first call; -EIO if the server refuses.
    MIDIStatus createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                            MIDIObjectRef& source) override;

    /// Does nothing: JACK knows ports by their names.
    void setUniqueID(MIDIObjectRef source, std::int32_t uniqueID) override;

    /// The port stays until the client is disposed of; nothing more is played on it.
    void disposeSource(MIDIObjectRef source) override;
    void disposeClient(MIDIObjectRef client) override;

    /// No lock and no system call. A message longer than 32,720 bytes, which no JACK port takes, and one that
    /// the queue to JACK has no room for are dropped whole.
    void publish(MIDIObjectRef source, std::uint64_t hostTime,
                 std::span<const std::uint8_t> message) override;

  private:
    class Link;
    const std::shared_ptr<Link> link_;
    std::thread thread_;
};

} // namespace tessary
