// The dialer, or one session without it, on a machine of fakes, for tests that do not fix the order of
// events: what can happen, and what must hold in every order.
#pragma once

#include "Services/PeerDiscovery.h"
#include "Services/RTPMIDIDialer.h"
#include "support/Fakes.h"
#include "support/Packet.h"

namespace tessary::test {

struct World : FakeMachine {
    World() {
        log.observer = [this](std::string_view line) { follow(line); };
        discovery->start();
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void startDialer() { dialer = RTPMIDIDialer::make(platform(), discovery, bridge, "Tessary Link"); }

    /// A session to 10.0.0.2 that the dialer knows nothing of.
    std::shared_ptr<RTPMIDISession> makeSession(std::uint16_t port = 5004) {
        return std::make_shared<RTPMIDISession>(platform(), "iPad", IPv4Host{{10, 0, 0, 2}}, port,
                                                "Tessary Link");
    }

    // The user

    void reconnect() {
        dialer->reconnectNow();
        isSumStale = isSumStale || !*dialer->autoConnectEnabled();
    }
    void setAutoConnect(bool isEnabled) {
        mayDial = isEnabled;
        dialer->setAutoConnectEnabled(isEnabled);
        if (isEnabled) isSumStale = false;
    }
    void shutDown() {
        dialer->shutdownAll();
        sessions.clear();
        isSumStale = true;
    }

    // The peer. Each returns false, and changes nothing, if it cannot happen now.

    bool acceptOn(std::uint16_t port) {
        const auto on = network.newest(port);
        return on &&
               arrive(port,
                      AppleMIDIPacket{AppleMIDIPacket::Accept{on->invitations.back(), 7, "iPad"}}.encode());
    }
    /// Late: on a connection that has sent BY, but is not closed yet.
    bool arrive(std::uint16_t port, const Bytes& datagram, bool isLate = false) {
        const auto on = network.newest(port, {}, isLate);
        if (!on) return false;
        on->deliver(datagram);
        for (auto pieces = on->queue->waiting(); pieces > 0;
             --pieces) // its session handles what waits for it
            on->queue->runOne();
        return true;
    }
    inline static const Bytes reject = AppleMIDIPacket{AppleMIDIPacket::Reject{0, 7, ""}}.encode();
    inline static const Bytes bye = AppleMIDIPacket{AppleMIDIPacket::Bye{0, 7}}.encode();
    inline static const Bytes clock = AppleMIDIPacket{AppleMIDIPacket::ClockSync{7, 1, 0, 0, 0}}.encode();
    inline static const Bytes midi = "8061 0001 00000000 00000007 03 903C64"_packet;

    // What must hold

    /// At any time, between two pieces of work: what does not hold; empty if all does.
    std::string wrongNow() const {
        if (!contradiction.empty()) return contradiction;
        for (const auto& each : network.connections)
            if (const auto wrong = wrongOn(*each); !wrong.empty())
                return each->ip + " port " + std::to_string(each->localPort) + ": " + wrong;
        return dialer && !isSumStale ? wrongSum() : "";
    }

    /// A moment after the last event: each session has its connections, and each peer a session.
    std::string wrongAtRest() {
        mainQueue->isHeldBack = false;
        for (const auto& each : network.connections)
            each->queue->isHeldBack = false;
        time.advance(1500ms);
        if (*dialer->autoConnectEnabled()) isSumStale = false;
        std::map<std::string, int> controls;
        for (const auto& each : network.connections) {
            if (!each->isOpen) continue;
            if (each->isEnded()) return each->ip + ": open long after BY";
            if (!sessions.contains(each->ip)) return each->ip + ": a connection of no session";
            controls[each->ip] += each->localPort == 51204;
        }
        for (const auto& [ip, isRunning] : sessions)
            if (controls[ip] != 1) return ip + ": a session has one control connection";
        if (*dialer->autoConnectEnabled()) {
            for (const PeerHost& peer : *discovery->tessaryPeers)
                if (!sessions.contains(peer.ip)) return peer.ip + ": a peer without a session";
            if (sessions.size() != discovery->tessaryPeers->size()) return "a session without a peer";
        }
        return wrongNow();
    }

    /// Releases the dialer: every session ends, and whatever arrives then has no effect.
    std::string wrongAfterRelease() {
        const auto ticks = mainQueue->ticksOnTheirWay();
        dialer.reset();
        const auto reports = [this] { // the discovery is not released, and its timers tick too
            return std::ranges::count_if(log.lines,
                                         [](const auto& line) { return !line.starts_with("[Discovery]"); });
        };
        const auto before = reports();
        const std::size_t messages = midiOutput.messages.size();
        for (const auto& each : network.connections) {
            each->becomeReady();
            each->deliver(bye);
            each->deliver(midi);
        }
        for (const auto& tick : ticks)
            tick();
        (*discovery->peersDidChange)();
        time.advance(1500ms);
        for (const auto& each : network.connections)
            if (each->isOpen || each->isInvited() != each->isEnded()) return "a session has not ended";
        if (reports() != before) return "a report after release";
        if (midiOutput.messages.size() != messages) return "a message after release";
        return wrongNow();
    }

    /// For long runs: drops the records of what has ended.
    void forgetThePast() {
        std::erase_if(network.connections, [](const auto& each) { return !each->isOpen; });
        std::erase_if(serviceDiscovery.resolvers, [](const auto& resolver) { return resolver->isStopped; });
        log.lines.clear();
        midiOutput.messages.clear();
        midiOutput.stamps.clear();
    }

    std::shared_ptr<PeerDiscovery> discovery = std::make_shared<PeerDiscovery>(platform());
    std::shared_ptr<CoreMIDIBridge> bridge = std::make_shared<CoreMIDIBridge>(platform());
    std::shared_ptr<RTPMIDIDialer> dialer;

    /// By the dialer's log: which addresses have a session, and whether it runs.
    std::map<std::string, bool> sessions;
    /// What was seen to be wrong while it happened.
    std::string contradiction;

  private:
    void follow(std::string_view line) {
        if (!line.starts_with("[Dialer] ")) return;
        std::string_view rest = line.substr(9);
        if (rest.starts_with("manual reconnect")) return sessions.clear();
        const bool isDialing = rest.starts_with("dialing "), isGone = rest.starts_with("peer ");
        if (isDialing) rest.remove_prefix(rest.rfind('[', rest.rfind("] → ")) + 1); // behind any name
        if (isGone) rest.remove_prefix(5);
        const std::string ip(rest.substr(0, rest.find_first_of(" ]")));
        bool fits = false;
        if (isDialing)
            fits = mayDial && sessions.emplace(ip, false).second;
        else if (rest.ends_with(" running"))
            fits = sessions.contains(ip) && (sessions[ip] = true);
        else // gone or failed
            fits = (mayDial || !isGone) && sessions.erase(ip) == 1;
        if (!fits) contradiction = "out of order: " + std::string(line);
    }

    std::string wrongOn(const FakeConnection& connection) const {
        if (connection.isSentAfterBye) return "sent after BY";
        if (!connection.isOpen && connection.isInvited() && !connection.isEnded()) return "closed without BY";
        std::uint32_t token =
            0; // of the session's last invitation on this port, even on an earlier connection
        bool hasControlEnded = false;
        for (const auto& each : network.connections) {
            if (each->queue != connection.queue) continue;
            if (each->localPort == 51204) hasControlEnded = each->isEnded();
            if (each->localPort == connection.localPort && each->isInvited())
                token = each->invitations.back();
            if (each.get() == &connection) break;
        }
        if (connection.isInvited() && connection.isEnded() != hasControlEnded) return "BY on one port alone";
        return connection.bye.value_or(token) == token ? ""
                                                       : "BY with another token than the last invitation's";
    }

    std::string wrongSum() const {
        std::vector<std::string> running;
        for (const auto& [ip, isRunning] : sessions)
            if (isRunning) running.push_back(ip);
        if (*dialer->connectedPeerIPs() != running) return "the list of connected addresses";
        // While the dialer may not dial, it does not look at the peers.
        if (!*dialer->autoConnectEnabled() && sessions.empty()) return {};
        using Case = DialerStatus::Case;
        DialerStatus expected{discovery->tessaryPeers->empty() ? Case::idle : Case::searching, {}};
        if (!running.empty())
            expected = {Case::connected, running.front()};
        else if (!sessions.empty())
            expected = {Case::connecting, sessions.begin()->first};
        return *dialer->status() == expected ? "" : "the status";
    }

    bool mayDial = true;
    /// From a reconnect without auto-connect, or a shutdown, to the next look at the peers.
    bool isSumStale = false;
};

} // namespace tessary::test
