// One RTP-MIDI session to one peer, on the initiator's side. It never sends MIDI.
//
// On the packet path: a datagram of the data port reaches `midiPacketReceived` on the network thread without
// a lock, an allocation or a thread switch.
#pragma once

#include "Models/IPv4Host.h"
#include "Platform/Platform.h"
#include "Platform/UDPConnection.h"
#include "Services/AppleMIDIPacket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

namespace tessary {

/// Invites the peer on its control port, then on its data port, exchanges clocks, and then passes on what
/// arrives, kept alive by a clock heartbeat:
///
///     idle → invitingControl → invitingData → syncing → running → (failed →) idle
///
/// Owned by `std::shared_ptr`. The owner constructs it, sets the two callbacks, calls `start`, and later
/// `stop` before it releases the session. Every handler that the session registers holds it weakly.
///
/// Threads: construction, `start`, `state` and `stateDidChange` belong to the main thread, everything that
/// arrives to the session's own queue; `stop` runs on either. A short lock guards what both touch; it is held
/// across the sending of a session packet, so that nothing is sent after an end-of-session packet, and never
/// across a callback.
class RTPMIDISession : public std::enable_shared_from_this<RTPMIDISession> {
  public:
    /// A tagged value; two states are equal when case and reason are.
    struct State {
        enum class Case { idle, invitingControl, invitingData, syncing, running, failed };
        Case which = Case::idle;
        std::string reason; ///< of `failed`

        static State failed(std::string reason) { return {Case::failed, std::move(reason)}; }
        friend bool operator==(const State&, const State&) = default;
    };
    using Case = State::Case;

    /// The local ports, the same for every session of the program.
    static constexpr std::uint16_t controlLocalPort = 51204;
    static constexpr std::uint16_t dataLocalPort = 51205;

    /// Does no input or output except reading the persistent SSRC, or writing it the first time.
    RTPMIDISession(const Platform& platform, std::string peerName, IPv4Host host, std::uint16_t controlPort,
                   std::string localName);

    RTPMIDISession(const RTPMIDISession&) = delete;
    RTPMIDISession& operator=(const RTPMIDISession&) = delete;
    ~RTPMIDISession();

    /// Called on the main thread with each new state, once `state` holds it. Set before `start`.
    std::function<void(const State&)> stateDidChange;

    /// Called on the session's queue with each datagram of the data port that is no session packet: whole,
    /// from its RTP header on. Set before `start`.
    std::function<void(std::span<const std::uint8_t>)> midiPacketReceived;

    /// Begins the handshake; does nothing unless the state is `idle`.
    void start();

    /// Ends the session from any state: end-of-session packets are sent on the invited ports before this
    /// returns, the connections are cancelled 0.1 seconds later, and the state becomes `idle`.
    ///
    /// Runs on: the main thread or the session's queue.
    void stop();

    /// Writes a line with the probable cause once an invitation has been unanswered, or could not be sent,
    /// for three seconds. To be called every second.
    ///
    /// Runs on: the main thread.
    void reportSilence();

    State state() const;
    const std::string& peerName() const { return peerName_; }

  private:
    enum class Port { control, data };

    void setState(State next); // with the lock held
    void storeState(const State& next);

    std::shared_ptr<UDPConnection>
    makeUDPConnection(std::uint16_t localPort, std::uint16_t remotePort,
                      std::function<void(const UDPConnection&)> onReady,
                      std::function<void(std::span<const std::uint8_t>)> onReceive);
    UDPHandlers receiveLoop(UDPHandlers handlers, std::function<void(std::span<const std::uint8_t>)> handler);
    static void send(const AppleMIDIPacket& packet, UDPConnection& on);

    void controlConnReady(const UDPConnection& connection);
    void dataConnReady(const UDPConnection& connection);
    void startDataConnection(); // with the lock held
    void handleControlPacket(std::span<const std::uint8_t> datagram);
    void handleDataDatagram(std::span<const std::uint8_t> datagram);
    void handleDataControlPacket(const AppleMIDIPacket& packet);

    void acceptanceArrived(Port port, std::uint32_t token);
    void decideHeldAcceptances();
    void controlAccepted(std::uint32_t token); // with the lock held
    void dataAccepted(std::uint32_t token);    // with the lock held
    void endedByPeer(std::string reason);

    std::uint64_t timestamp() const; // with the lock held
    void sendInitialClockSync();     // with the lock held
    void handleClockSync(const AppleMIDIPacket::ClockSync& packet);
    void startCKHeartbeat(); // with the lock held
    void heartbeatTick(Timer& timer, int& ticks);

    static std::uint32_t stableSSRC(const Platform& platform);

    const Platform platform_;
    const std::string peerName_;
    const IPv4Host remoteHost_;
    const std::uint16_t controlRemotePort_;
    const std::uint16_t dataRemotePort_;
    const std::uint32_t ssrc_;
    const std::string localName_;
    const std::shared_ptr<TimerQueue> queue_;

    mutable std::mutex mutex_;
    State state_;                ///< as last stored on the main thread
    int statesOnTheirWay_ = 0;   ///< set, but not stored yet
    bool isRunningSaid_ = false; ///< set, whether it is stored yet or not
    bool isConnFailed_ = false;  ///< a connection is not open, and the log says why
    std::string reportedSilence_;
    std::shared_ptr<UDPConnection> controlConn_;
    std::shared_ptr<UDPConnection> dataConn_;
    std::uint32_t controlToken_ = 0; ///< of the last invitation; 0: none sent
    std::uint32_t dataToken_ = 0;
    /// Tokens of acceptances that arrived before the state was stored; decided then.
    std::optional<std::uint32_t> heldControlAcceptance_;
    std::optional<std::uint32_t> heldDataAcceptance_;
    std::shared_ptr<Timer> ckTimer_;
    std::chrono::system_clock::time_point startedAt_;
};

} // namespace tessary
