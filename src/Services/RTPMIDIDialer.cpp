#include "Services/RTPMIDIDialer.h"

#include "Platform/Clock.h"
#include "Platform/Log.h"

#include <array>
#include <ctime>
#include <utility>

namespace tessary {

namespace {

using namespace std::chrono_literals;

constexpr auto pollInterval = 1s;

/// Internet date and time in UTC to the second (RFC 3339), as in 2026-11-16T21:08:03Z.
std::string iso8601(std::chrono::system_clock::time_point time) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 64> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return {text.data(), length};
}

} // namespace

std::shared_ptr<RTPMIDIDialer> RTPMIDIDialer::make(const Platform& platform,
                                                   std::shared_ptr<PeerDiscovery> discovery,
                                                   std::shared_ptr<CoreMIDIBridge> coreMIDI,
                                                   std::string localName) {
    std::shared_ptr<RTPMIDIDialer> dialer(
        new RTPMIDIDialer(platform, std::move(discovery), std::move(coreMIDI), std::move(localName)));
    dialer->startWorking(); // the callbacks need weak references, which exist only now
    return dialer;
}

RTPMIDIDialer::RTPMIDIDialer(const Platform& platform, std::shared_ptr<PeerDiscovery> discovery,
                             std::shared_ptr<CoreMIDIBridge> coreMIDI, std::string localName)
    : platform_(platform)
    , discovery_(std::move(discovery))
    , localName_(std::move(localName))
    , coreMIDI_(std::move(coreMIDI)) {}

RTPMIDIDialer::~RTPMIDIDialer() {
    pollTimer_->cancel();
    stopAll();
}

void RTPMIDIDialer::startWorking() {
    discovery_->peersDidChange = [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->reconcile();
    };
    startPolling();
    reconcile();
}

void RTPMIDIDialer::startPolling() {
    pollTimer_ = platform_.mainQueue.makeTimer([weak = weak_from_this()](Timer&) {
        if (const auto self = weak.lock()) self->reconcile();
    });
    pollTimer_->schedule(pollInterval, pollInterval);
}

void RTPMIDIDialer::setAutoConnectEnabled(bool enabled) {
    autoConnectEnabled_ = enabled;
    if (enabled) reconcile();
}

void RTPMIDIDialer::reconcile() {
    if (!*autoConnectEnabled_) return;
    const PeerSet peers = *discovery_->tessaryPeers;

    std::erase_if(sessions_, [&](const auto& entry) {
        const auto& [ip, session] = entry;
        if (peers.contains(PeerHost{.ip = ip, .displayName = {}, .host = {}, .port = 0})) return false;
        log("peer " + ip + " gone \u2014 stopping session");
        session->stop();
        return true;
    });
    for (const PeerHost& peer : peers)
        if (!sessions_.contains(peer.ip)) startSession(peer);
    for (const auto& [ip, session] : sessions_)
        session->reportSilence();
    refreshStatus();
}

void RTPMIDIDialer::startSession(const PeerHost& peer) {
    log("dialing " + peer.displayName + " [" + peer.ip + "] \u2192 " + peer.host.text() + ":" +
        std::to_string(peer.port));
    const auto session =
        std::make_shared<RTPMIDISession>(platform_, peer.displayName, peer.host, peer.port, localName_);

    // A running handler may keep a session alive past its removal from the map: its late report must not
    // affect the next session at the same address.
    session->stateDidChange = [weak = weak_from_this(), peer,
                               reporter = std::weak_ptr(session)](const RTPMIDISession::State& state) {
        const auto self = weak.lock();
        if (!self) return;
        const auto current = self->sessions_.find(peer.ip);
        if (current == self->sessions_.end() || current->second != reporter.lock()) return;
        self->handleSessionState(peer.ip, state);
    };
    session->midiPacketReceived = [weak = weak_from_this()](std::span<const std::uint8_t> packet) {
        if (const auto self = weak.lock()) self->coreMIDI_->handleRTPMIDIPacket(packet);
    };
    sessions_[peer.ip] = session;
    session->start();
}

void RTPMIDIDialer::handleSessionState(const std::string& ip, const RTPMIDISession::State& state) {
    switch (state.which) {
    case RTPMIDISession::Case::invitingControl:
    case RTPMIDISession::Case::invitingData:
    case RTPMIDISession::Case::syncing:
        break;
    case RTPMIDISession::Case::running:
        log(ip + " running");
        discovery_->markIPTrusted(ip);
        break;
    case RTPMIDISession::Case::failed:
        log(ip + " failed: " + state.reason);
        [[fallthrough]];
    case RTPMIDISession::Case::idle:
        sessions_.erase(ip);
        break;
    }
    refreshStatus();
}

void RTPMIDIDialer::reconnectNow() {
    log("manual reconnect: tearing down all sessions");
    stopAll();
    reconcile();
}

void RTPMIDIDialer::shutdownAll() {
    stopAll();
}

void RTPMIDIDialer::stopAll() {
    for (const auto& [ip, session] : sessions_)
        session->stop();
    sessions_.clear();
}

void RTPMIDIDialer::refreshStatus() {
    std::vector<std::string> running;
    for (const auto& [ip, session] : sessions_) // the map is sorted by address text, so the list is too
        if (session->state().which == RTPMIDISession::Case::running) running.push_back(ip);
    connectedPeerIPs_ = running;

    if (!running.empty())
        status_ = DialerStatus{DialerStatus::Case::connected, running.front()};
    else if (!sessions_.empty())
        status_ = DialerStatus{DialerStatus::Case::connecting, sessions_.begin()->first};
    else if (discovery_->tessaryPeers->empty())
        status_ = DialerStatus{DialerStatus::Case::idle, {}};
    else
        status_ = DialerStatus{DialerStatus::Case::searching, {}};
}

void RTPMIDIDialer::log(const std::string& message) {
    lastEvent_ = iso8601(platform_.clock.now()) + " " + message;
    platform_.log.line("[Dialer] " + message);
}

} // namespace tessary
