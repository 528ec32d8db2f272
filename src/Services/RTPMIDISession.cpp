#include "Services/RTPMIDISession.h"

#include "Platform/Clock.h"
#include "Platform/Log.h"
#include "Platform/Preferences.h"
#include "Platform/Random.h"

#include <utility>

namespace tessary {

namespace {

using namespace std::chrono_literals;

constexpr const char* ssrcKey = "TessaryLink.localSSRC.v1";

/// Both sides count in units of 100 microseconds; the protocol fixes this for every clock packet.
constexpr double timestampUnitsPerSecond = 10'000.0;

/// The heartbeat starts dense, so that the peer's clock estimate settles, and then only keeps the session
/// alive.
constexpr auto denseHeartbeat = 1s;
constexpr int denseHeartbeats = 5;
constexpr auto sparseHeartbeat = 10s;

/// A device answers an invitation within milliseconds.
constexpr auto silenceTimeout = 3s;

/// The connections outlive the end-of-session packets by this much.
constexpr auto cancellationDelay = 100ms;

} // namespace

RTPMIDISession::RTPMIDISession(const Platform& platform, std::string peerName, IPv4Host host,
                               std::uint16_t controlPort, std::string localName)
    : platform_(platform)
    , peerName_(std::move(peerName))
    , remoteHost_(host)
    , controlRemotePort_(controlPort)
    // 65535 has no port above it: such a peer is invited twice on the one port that it has.
    , dataRemotePort_(controlPort == 65535 ? controlPort : static_cast<std::uint16_t>(controlPort + 1))
    , ssrc_(stableSSRC(platform))
    , localName_(std::move(localName))
    , queue_(platform.network.makeQueue("tessary.rtpmidi-session"))
    , startedAt_(platform.clock.now()) {}

RTPMIDISession::~RTPMIDISession() {
    if (ckTimer_) ckTimer_->cancel();
}

std::uint32_t RTPMIDISession::stableSSRC(const Platform& platform) {
    if (const auto stored = platform.preferences.number(ssrcKey)) return *stored;
    const std::uint32_t drawn = platform.random.nonzero();
    platform.preferences.setNumber(ssrcKey, drawn);
    return drawn;
}

// State

RTPMIDISession::State RTPMIDISession::state() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

void RTPMIDISession::setState(State next) {
    ++statesOnTheirWay_;
    platform_.mainQueue.post([weak = weak_from_this(), next = std::move(next)] {
        if (const auto self = weak.lock()) self->storeState(next);
    });
}

void RTPMIDISession::storeState(const State& next) {
    bool decide = false;
    {
        const std::lock_guard lock(mutex_);
        state_ = next;
        --statesOnTheirWay_;
        decide = statesOnTheirWay_ == 0 && (heldControlAcceptance_ || heldDataAcceptance_);
    }
    if (stateDidChange) stateDidChange(next);
    if (decide) {
        queue_->post([weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->decideHeldAcceptances();
        });
    }
}

// Start and stop

void RTPMIDISession::start() {
    const std::lock_guard lock(mutex_);
    if (state_.which != Case::idle) return;
    startedAt_ = platform_.clock.now();
    isRunningSaid_ = false;
    controlConn_ = makeUDPConnection(
        controlLocalPort, controlRemotePort_,
        [weak = weak_from_this()](const UDPConnection& connection) {
            if (const auto self = weak.lock()) self->controlConnReady(connection);
        },
        [weak = weak_from_this()](std::span<const std::uint8_t> datagram) {
            if (const auto self = weak.lock()) self->handleControlPacket(datagram);
        });
    controlConn_->start(queue_);
    setState({Case::invitingControl, {}});
}

void RTPMIDISession::stop() {
    const std::lock_guard lock(mutex_);
    heldControlAcceptance_.reset();
    heldDataAcceptance_.reset();
    if (ckTimer_) std::exchange(ckTimer_, nullptr)->cancel();
    if (controlToken_ != 0 && controlConn_) send({AppleMIDIPacket::Bye{controlToken_, ssrc_}}, *controlConn_);
    if (dataToken_ != 0 && dataConn_) send({AppleMIDIPacket::Bye{dataToken_, ssrc_}}, *dataConn_);
    if (controlConn_) { // the other one exists only beside it
        platform_.network.backgroundQueue().postAfter(
            cancellationDelay,
            [control = std::exchange(controlConn_, nullptr), data = std::exchange(dataConn_, nullptr)] {
                control->cancel();
                if (data) data->cancel();
            });
    }
    setState({Case::idle, {}});
}

void RTPMIDISession::endedByPeer(std::string reason) {
    {
        const std::lock_guard lock(mutex_);
        setState(State::failed(std::move(reason)));
    }
    stop();
}

void RTPMIDISession::reportSilence() {
    const std::lock_guard lock(mutex_);
    const bool isControl = state_.which == Case::invitingControl;
    if ((!isControl && state_.which != Case::invitingData) || isConnFailed_) return;
    if (platform_.clock.now() - startedAt_ < silenceTimeout) return;

    const std::string peer = peerName_ + " at " + remoteHost_.text();
    std::string line =
        "[RTPMIDI] no answer from " + peer +
        ": its app is closed, or a firewall or the access point keeps UDP 51204 and 51205 from "
        "reaching it; after mending that, choose Reconnect Now";
    if ((isControl ? controlToken_ : dataToken_) == 0)
        line = "[RTPMIDI] no way to " + peer + ": no network of this computer leads there";
    else if (!isControl)
        line = "[RTPMIDI] no answer from " + peer + " on its second port, UDP " +
               std::to_string(dataRemotePort_) +
               ": a firewall keeps UDP 51205 from reaching it; after mending that, choose Reconnect Now";
    if (line == reportedSilence_) return;
    platform_.log.line(line);
    reportedSilence_ = std::move(line);
}

// Connections

std::shared_ptr<UDPConnection>
RTPMIDISession::makeUDPConnection(std::uint16_t localPort, std::uint16_t remotePort,
                                  std::function<void(const UDPConnection&)> onReady,
                                  std::function<void(std::span<const std::uint8_t>)> onReceive) {
    auto connection = platform_.network.makeConnection(localPort, remoteHost_, remotePort);
    UDPHandlers handlers;
    handlers.stateDidChange = [weak = weak_from_this(), weakConnection = std::weak_ptr(connection),
                               onReady = std::move(onReady),
                               &log = platform_.log](ConnectionState state, std::error_code error) {
        if (const auto self = weak.lock()) {
            const std::lock_guard lock(self->mutex_);
            self->isConnFailed_ = state == ConnectionState::failed;
        }
        if (state == ConnectionState::ready) {
            if (const auto existing = weakConnection.lock()) onReady(*existing);
        } else if (state == ConnectionState::failed) {
            log.line("[RTPMIDI] conn failed: " + error.message());
            if (error == std::errc::address_in_use)
                log.line(
                    "[RTPMIDI] another program holds UDP 51204 or 51205 (`ss -lpun` names it); the device "
                    "connects within 5 seconds after that program has ended");
        }
    };
    handlers.sendFailed = [&log = platform_.log](std::error_code error) {
        log.line("[RTPMIDI] send error: " + error.message());
    };
    connection->setHandlers(receiveLoop(std::move(handlers), std::move(onReceive)));
    return connection;
}

UDPHandlers RTPMIDISession::receiveLoop(UDPHandlers handlers,
                                        std::function<void(std::span<const std::uint8_t>)> handler) {
    handlers.received = [weak = weak_from_this(), handler = std::move(handler)](
                            std::span<const std::uint8_t> datagram, std::error_code error) {
        if (!datagram.empty()) handler(datagram);
        return error || weak.expired() ? Receive::stop : Receive::again;
    };
    return handlers;
}

void RTPMIDISession::send(const AppleMIDIPacket& packet, UDPConnection& on) {
    on.send(packet.encode());
}

// Invitations. A connection that `stop` has taken may still report ready: it sends no invitation any more.

void RTPMIDISession::controlConnReady(const UDPConnection& connection) {
    const std::lock_guard lock(mutex_);
    if (controlConn_.get() != &connection) return;
    controlToken_ = platform_.random.nonzero();
    send({AppleMIDIPacket::Invitation{controlToken_, ssrc_, localName_}}, *controlConn_);
    platform_.log.line("[RTPMIDI] sent control IN to " + peerName_ +
                       " token=" + std::to_string(controlToken_));
}

void RTPMIDISession::dataConnReady(const UDPConnection& connection) {
    const std::lock_guard lock(mutex_);
    if (dataConn_.get() != &connection) return;
    dataToken_ = platform_.random.nonzero();
    send({AppleMIDIPacket::Invitation{dataToken_, ssrc_, localName_}}, *dataConn_);
    platform_.log.line("[RTPMIDI] sent data IN to " + peerName_ + " token=" + std::to_string(dataToken_));
}

void RTPMIDISession::startDataConnection() {
    dataConn_ = makeUDPConnection(
        dataLocalPort, dataRemotePort_,
        [weak = weak_from_this()](const UDPConnection& connection) {
            if (const auto self = weak.lock()) self->dataConnReady(connection);
        },
        [weak = weak_from_this()](std::span<const std::uint8_t> datagram) {
            if (const auto self = weak.lock()) self->handleDataDatagram(datagram);
        });
    dataConn_->start(queue_);
}

// What arrives

void RTPMIDISession::handleControlPacket(std::span<const std::uint8_t> datagram) {
    const auto packet = AppleMIDIPacket::decode(datagram);
    if (!packet) return;
    if (std::holds_alternative<AppleMIDIPacket::Reject>(packet->value)) {
        endedByPeer("control invitation rejected");
    } else if (std::holds_alternative<AppleMIDIPacket::Bye>(packet->value)) {
        endedByPeer("peer sent BYE");
    } else if (const auto* accept = std::get_if<AppleMIDIPacket::Accept>(&packet->value)) {
        acceptanceArrived(Port::control, accept->token);
    }
}

void RTPMIDISession::handleDataDatagram(std::span<const std::uint8_t> datagram) {
    const bool isSessionPacket = datagram.size() >= 4 && datagram[0] == 0xFF && datagram[1] == 0xFF;
    if (!isSessionPacket) {
        if (midiPacketReceived) midiPacketReceived(datagram);
        return;
    }
    if (const auto packet = AppleMIDIPacket::decode(datagram)) handleDataControlPacket(*packet);
}

void RTPMIDISession::handleDataControlPacket(const AppleMIDIPacket& packet) {
    if (const auto* clockSync = std::get_if<AppleMIDIPacket::ClockSync>(&packet.value)) {
        handleClockSync(*clockSync);
    } else if (std::holds_alternative<AppleMIDIPacket::Bye>(packet.value)) {
        endedByPeer("peer BYE on data port");
    } else if (std::holds_alternative<AppleMIDIPacket::Reject>(packet.value)) {
        endedByPeer("data invitation rejected");
    } else if (const auto* accept = std::get_if<AppleMIDIPacket::Accept>(&packet.value)) {
        acceptanceArrived(Port::data, accept->token);
    }
}

// Acceptances. They are compared with the state that the main thread stores, possibly late. An acceptance
// that arrives earlier is held until then; otherwise the session would wait forever.

void RTPMIDISession::acceptanceArrived(Port port, std::uint32_t token) {
    const std::lock_guard lock(mutex_);
    if (statesOnTheirWay_ == 0) {
        port == Port::control ? controlAccepted(token) : dataAccepted(token);
    } else if (port == Port::control && controlConn_ && token == controlToken_) {
        heldControlAcceptance_ = token;
    } else if (port == Port::data && dataConn_ && token == dataToken_) {
        heldDataAcceptance_ = token;
    }
}

void RTPMIDISession::decideHeldAcceptances() {
    const std::lock_guard lock(mutex_);
    if (statesOnTheirWay_ != 0) return; // the last of them decides
    if (const auto token = std::exchange(heldControlAcceptance_, std::nullopt)) controlAccepted(*token);
    if (statesOnTheirWay_ != 0) return;
    if (const auto token = std::exchange(heldDataAcceptance_, std::nullopt)) dataAccepted(*token);
}

void RTPMIDISession::controlAccepted(std::uint32_t token) {
    if (token != controlToken_ || state_.which != Case::invitingControl || !controlConn_) return;
    platform_.log.line("[RTPMIDI] control OK from " + peerName_);
    setState({Case::invitingData, {}});
    startDataConnection();
}

void RTPMIDISession::dataAccepted(std::uint32_t token) {
    if (token != dataToken_ || state_.which != Case::invitingData || !dataConn_) return;
    platform_.log.line("[RTPMIDI] data OK from " + peerName_ + " \u2014 beginning clock sync");
    setState({Case::syncing, {}});
    sendInitialClockSync();
}

// Clock synchronisation

std::uint64_t RTPMIDISession::timestamp() const {
    const std::chrono::duration<double> elapsed = platform_.clock.now() - startedAt_;
    const double units = elapsed.count() * timestampUnitsPerSecond;
    return units > 0 ? static_cast<std::uint64_t>(units) : 0; // the calendar may have been set back
}

void RTPMIDISession::sendInitialClockSync() {
    if (!dataConn_) return;
    send({AppleMIDIPacket::ClockSync{.ssrc = ssrc_, .count = 0, .t1 = timestamp()}}, *dataConn_);
}

void RTPMIDISession::handleClockSync(const AppleMIDIPacket::ClockSync& packet) {
    const std::lock_guard lock(mutex_);
    if (!dataConn_) return;
    if (packet.count == 0) {
        send({AppleMIDIPacket::ClockSync{.ssrc = ssrc_, .count = 1, .t1 = packet.t1, .t2 = timestamp()}},
             *dataConn_);
    } else if (packet.count == 1) {
        send({AppleMIDIPacket::ClockSync{
                 .ssrc = ssrc_, .count = 2, .t1 = packet.t1, .t2 = packet.t2, .t3 = timestamp()}},
             *dataConn_);
        // A busy main thread may store it late: one post is enough.
        if (state_.which == Case::running || std::exchange(isRunningSaid_, true)) return;
        setState({Case::running, {}});
        platform_.log.line("[RTPMIDI] running with " + peerName_);
        startCKHeartbeat();
    }
}

void RTPMIDISession::startCKHeartbeat() {
    if (ckTimer_) ckTimer_->cancel();
    ckTimer_ = queue_->makeTimer([weak = weak_from_this(), ticks = 0](Timer& timer) mutable {
        if (const auto self = weak.lock()) self->heartbeatTick(timer, ticks);
    });
    ckTimer_->schedule(denseHeartbeat, denseHeartbeat);
}

void RTPMIDISession::heartbeatTick(Timer& timer, int& ticks) {
    const std::lock_guard lock(mutex_);
    if (!dataConn_ || state_.which != Case::running) return;
    send({AppleMIDIPacket::ClockSync{.ssrc = ssrc_, .count = 0, .t1 = timestamp()}}, *dataConn_);
    if (++ticks == denseHeartbeats) timer.schedule(sparseHeartbeat, sparseHeartbeat);
}

} // namespace tessary
