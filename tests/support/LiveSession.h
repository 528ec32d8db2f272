// A session on real sockets whose peer is the test itself.
#pragma once

#include "Platform/network/EpollNetwork.h"
#include "Platform/system/SystemClock.h"
#include "Services/CoreMIDIBridge.h"
#include "Services/RTPMIDISession.h"
#include "support/Fakes.h"
#include "support/Packet.h"
#include "support/PeerSocket.h"

#include <memory>

namespace tessary::test {

/// The whole path of a MIDI message, from the network thread to `output`. The main queue is a fake that runs
/// on the test's thread.
class LiveSession {
  public:
    explicit LiveSession(MIDIOutput& output)
        : platform_(machine_.platform({.network = &network_, .midiOutput = &output, .clock = &clock_}))
        , bridge_(platform_) {
        while (!data_) { // the two ports of a peer are neighbours
            try {
                control_ = std::make_unique<PeerSocket>(host_);
                data_ = std::make_unique<PeerSocket>(host_, static_cast<std::uint16_t>(control_->port() + 1));
            } catch (const std::runtime_error&) {
            }
        }
        session_ = std::make_shared<RTPMIDISession>(platform_, "peer", host_, control_->port(), "test");
        session_->midiPacketReceived = [this](std::span<const std::uint8_t> packet) {
            bridge_.handleRTPMIDIPacket(packet);
        };
        session_->start();
        machine_.time.run(); // the state is stored before the peer answers
        accept(*control_);
        dataPort_ = accept(*data_);
    }
    LiveSession(const LiveSession&) = delete;
    LiveSession& operator=(const LiveSession&) = delete;
    ~LiveSession() {
        session_->stop();
        network_.stop();
    }

    /// Sends one datagram of MIDI: an RTP header and this command section.
    void play(std::span<const std::uint8_t> section) {
        std::array<std::uint8_t, 256> datagram{0x80, 0x61, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA};
        datagram[2] = static_cast<std::uint8_t>(++sequence_ >> 8);
        datagram[3] = static_cast<std::uint8_t>(sequence_);
        std::copy(section.begin(), section.end(), datagram.begin() + 12);
        data_->sendTo(dataPort_, std::span(datagram).first(12 + section.size()));
    }

  private:
    /// Accepts the next invitation; returns the port that it came from.
    std::uint16_t accept(PeerSocket& peer) {
        const auto arrival = peer.receive();
        const auto invitation = AppleMIDIPacket::decode(arrival.bytes).value();
        const auto token = std::get<AppleMIDIPacket::Invitation>(invitation.value).token;
        peer.sendTo(arrival.fromPort, AppleMIDIPacket{AppleMIDIPacket::Accept{token, 7, "peer"}}.encode());
        return arrival.fromPort;
    }

    static constexpr IPv4Host host_{{127, 0, 1, 9}};
    FakeMachine machine_;
    EpollNetwork network_{};
    const SystemClock clock_;
    const Platform platform_;
    CoreMIDIBridge bridge_;
    std::unique_ptr<PeerSocket> control_, data_;
    std::shared_ptr<RTPMIDISession> session_;
    std::uint16_t dataPort_ = 0;
    std::uint16_t sequence_ = 0;
};

} // namespace tessary::test
