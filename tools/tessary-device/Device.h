// One simulated companion device: the accepting side of RTP-MIDI sessions.
#pragma once

#include "Announcement.h"
#include "Models/IPv4Host.h"
#include "Player.h"
#include "RTPMIDIWriter.h"
#include "Services/AppleMIDIPacket.h"

#include <asio.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace tessary::device {

using Seconds = std::chrono::duration<double>;

enum class Port { control, data };

/// What a device is and does. Delays count from the device's start where nothing else is said.
struct DeviceOptions {
    std::string name = "Tessary Device";
    std::string markerName; // empty: no marker service
    std::vector<IPv4Host> addresses;
    std::uint16_t controlPort = 5004; // the data port is the next one
    bool announces = true;

    Play play = Play::scale;
    double rate = 4; // messages a second and session
    std::size_t messagesPerDatagram = 1;
    std::uint64_t messages = 0; // for each session; 0: without end
    std::size_t sysexSize = 256;
    std::uint8_t channel = 1; // 1 to 16, of all its channel messages
    bool startsClock = false;
    bool waitsForClock = false;

    std::optional<Port> rejects;
    bool silent = false;
    std::chrono::milliseconds answerDelay{0};
    bool wrongToken = false;
    std::optional<Seconds> byeAfter; // from the moment the session runs
    std::optional<Seconds> openAfter;
    std::optional<Seconds> closeAfter;
    std::optional<Seconds> withdrawAfter;
    double garbageRate = 0; // datagrams a second and session
    bool otherSSRC = false;
};

/// A session belongs to the initiator's address and SSRC, begins with its control invitation and ends with a
/// BY from either side. It plays from message 0 once a clock exchange has completed.
///
/// Runs on: the thread of the `io_context`, all of it.
class Device {
  public:
    /// The announcer and the context outlive the device, and the device outlives every handler of the
    /// context.
    Device(asio::io_context& context, Announcer& announcer, DeviceOptions options);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// Announces the device and opens its ports.
    ///
    /// Errors: `std::system_error` if a port cannot be opened. (With `openAfter` it comes out of the
    /// context.)
    void start();

    /// Sends BY on both ports to every session, forgets them all and closes the ports: an invitation that
    /// comes now is to find nobody there, instead of a socket that nobody reads any more.
    void sayBye();

    /// Prints what was sent in all.
    void printTotals() const;

  private:
    using Clock = std::chrono::steady_clock;
    using UDP = asio::ip::udp;
    struct Link;
    struct Session;
    using SessionRef = std::shared_ptr<Session>;

    void announce();
    void openPorts();
    void closePorts();
    void closeSockets();
    void receive(Link& link, Port port);
    void received(Link& link, Port port, std::span<const std::uint8_t> datagram, const UDP::endpoint& from);

    void controlInvitation(Link& link, const AppleMIDIPacket::Invitation& invitation,
                           const UDP::endpoint& from);
    void dataInvitation(Link& link, const AppleMIDIPacket::Invitation& invitation, const UDP::endpoint& from);
    void bye(Link& link, Port port, const AppleMIDIPacket::Bye& packet, const UDP::endpoint& from);
    void clockSync(Link& link, const AppleMIDIPacket::ClockSync& packet, const UDP::endpoint& from);

    SessionRef sessionOf(const Link& link, const UDP::endpoint& from, std::uint32_t ssrc) const;
    void end(const SessionRef& session);
    void sayBye(const Session& session);
    void startClockExchange(const SessionRef& session);
    void clockCompleted(const SessionRef& session, bool startedHere);
    void playDue(const SessionRef& session);
    void playNextDatagram(Session& session);
    void sendGarbage(const SessionRef& session, Clock::time_point due);

    void answer(Link& link, Port port, const AppleMIDIPacket& packet, const UDP::endpoint& to);
    void send(Link& link, Port port, std::span<const std::uint8_t> datagram, const UDP::endpoint& to);
    void after(Seconds delay, std::function<void()> work);
    std::uint32_t ssrcOf(Port port) const { return port == Port::control ? controlSSRC_ : dataSSRC_; }
    std::uint64_t timestamp() const;
    void print(const std::string& event) const;

    asio::io_context& context_;
    Announcer& announcer_;
    const DeviceOptions options_;
    const Clock::time_point startedAt_ = Clock::now();
    std::mt19937 random_;
    std::uint32_t controlSSRC_;
    std::uint32_t dataSSRC_;
    std::optional<Announcer::ID> announcement_;
    std::vector<std::unique_ptr<Link>> links_;
    std::vector<SessionRef> sessions_;
    std::uint64_t datagramsSent_ = 0;
    std::uint64_t messagesSent_ = 0;
};

} // namespace tessary::device
