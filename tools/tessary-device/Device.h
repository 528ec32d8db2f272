// One simulated companion device: the accepting side of RTP-MIDI sessions.
#pragma once

#include "Announcement.h"
#include "Platform/network/EventLoop.h"
#include "Player.h"
#include "RTPMIDIWriter.h"
#include "Services/AppleMIDIPacket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace tessary::device {

using Seconds = std::chrono::duration<double>;

inline EventLoop::Clock::duration ticks(Seconds time) {
    return std::chrono::duration_cast<EventLoop::Clock::duration>(time);
}

enum class Port { control, data };

/// What a device is and does. Delays count from the device's start where nothing else is said.
struct DeviceOptions {
    Announcement announcement{.name = "Tessary Device", .port = 5004}; // the data port is the next one

    Play play = Play::scale;
    double rate = 4; // messages a second and session
    std::size_t messagesPerDatagram = 1;
    std::uint64_t messages = 0; // for each session; 0: without end
    std::size_t sysexSize = 256;
    std::uint8_t channel = 1; // 1 to 16, of all its channel messages
    bool startsClock = false;
    bool waitsForClock = false;

    std::optional<Port> rejects;
    bool isSilent = false;
    std::chrono::milliseconds answerDelay{0};
    bool hasWrongToken = false;
    std::optional<Seconds> byeAfter; // after the session is up
    Seconds openAfter{0};
    std::optional<Seconds> closeAfter;
    double garbageRate = 0; // datagrams a second and session
    bool hasOtherSSRC = false;
};

/// A session is identified by the initiator's address and SSRC, begins with its control invitation and ends
/// with a BY from either side. It plays from message 0 once a clock exchange has completed.
///
/// Runs on: the thread of the event loop, all of it.
class Device {
  public:
    /// The device opens its ports once the loop runs. The loop outlives the device, but runs no more when the
    /// device has gone.
    ///
    /// Errors: the loop's `run` throws `std::system_error` if a port cannot be opened.
    Device(EventLoop& loop, DeviceOptions options);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// Ends every session with a BY on both ports and closes the ports, so that an invitation that arrives
    /// later is answered with port unreachable. Prints what was sent in all.
    void stop();

    /// Prints one line about the device.
    void print(const std::string& event) const;

  private:
    using Clock = EventLoop::Clock;
    struct Socket;
    struct Remote;
    struct Session;
    struct Stream;
    using SessionRef = std::shared_ptr<Session>;
    using WeakSession = std::weak_ptr<Session>;

    void openPorts();
    void closePorts();

    void received(const Remote& from, std::span<const std::uint8_t> datagram);
    void handle(const Remote& from, const AppleMIDIPacket::Invitation& packet);
    void handle(const Remote& from, const AppleMIDIPacket::Bye& packet);
    void handle(const Remote& from, const AppleMIDIPacket::ClockSync& packet);
    /// Answers to invitations, which this side never sends.
    template <typename Other>
    void handle(const Remote&, const Other&) {}

    SessionRef sessionOf(const Remote& from, std::uint32_t ssrc) const;
    void sendBye(const Session& session);
    void startClockExchange(const WeakSession& weak);
    void clockCompleted(const SessionRef& session, bool startedHere);
    void keepSending(const WeakSession& weak, Stream stream);
    bool playNextDatagram(Session& session);
    bool sendGarbage(const Session& session);

    void answer(const Remote& to, const AppleMIDIPacket& packet);
    void after(std::optional<Seconds> delay, std::function<void()> work); ///< absent: never
    std::uint32_t ssrcOf(Port port) const { return port == Port::control ? controlSSRC_ : dataSSRC_; }
    std::uint64_t timestamp() const; ///< in units of 100 microseconds

    EventLoop& loop_;
    const DeviceOptions options_;
    const Clock::time_point startedAt_ = Clock::now();
    std::mt19937 random_;
    const std::uint32_t controlSSRC_;
    const std::uint32_t dataSSRC_;
    std::list<Socket> sockets_;
    std::vector<SessionRef> sessions_; ///< all others hold weak references
    std::uint64_t datagramsSent_ = 0;
    std::uint64_t messagesSent_ = 0;
};

} // namespace tessary::device
