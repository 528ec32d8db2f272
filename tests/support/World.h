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
        const auto on = newestOpen(port, false);
        if (on) on->accept();
        return handled(on);
    }
    /// Late: on a connection that has sent BY, but is not closed yet.
    bool arrive(std::uint16_t port, const Bytes& datagram, bool isLate = false) {
        const auto on = newestOpen(port, isLate);
        if (on) on->deliver(datagram);
        return handled(on);
    }
    inline static const Bytes reject = AppleMIDIPacket{AppleMIDIPacket::Reject{0, 7, ""}}.encode();
    inline static const Bytes bye = AppleMIDIPacket{AppleMIDIPacket::Bye{0, 7}}.encode();
    inline static const Bytes clock = AppleMIDIPacket{AppleMIDIPacket::ClockSync{7, 1, 0, 0, 0}}.encode();
    inline static const Bytes midi = "8061 0001 00000000 00000007 03 903C64"_packet;

    // What must hold

    /// At any time, between two pieces of work: what does not hold; empty if all does.
    std::string wrongNow() const {
        if (!contradiction.empty()) return contradiction;
        for (const auto& journal : network.journals)
            if (const auto wrong = wrongOn(*journal); !wrong.empty())
                return journal->ip + " port " + std::to_string(journal->localPort) + ": " + wrong;
        return dialer && !isSumStale ? wrongSum() : "";
    }

    /// A moment after the last event: each session has its connections, and each peer a session.
    std::string wrongAtRest() {
        time.releaseAll();
        time.advance(1500ms);
        if (*dialer->autoConnectEnabled()) isSumStale = false;
        std::map<std::string, int> controls;
        for (const auto& journal : network.journals) {
            if (!journal->isOpen()) continue;
            if (journal->isEnded()) return journal->ip + ": open long after BY";
            if (!sessions.contains(journal->ip)) return journal->ip + ": a connection of no session";
            controls[journal->ip] += journal->localPort == 51204;
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
        const std::size_t lines = log.lines.size(), messages = midiOutput.messages.size();
        for (const auto& journal : network.journals) {
            const auto connection = journal->connection.lock();
            if (!connection) continue;
            connection->becomeReady();
            connection->deliver(bye);
            connection->deliver(midi);
        }
        for (const auto& tick : ticks)
            tick();
        (*discovery->peersDidChange)();
        time.advance(1500ms);
        for (const auto& journal : network.journals)
            if (journal->isOpen() || journal->isInvited() != journal->isEnded())
                return "a session has not ended";
        if (log.lines.size() != lines) return "a report after release";
        if (midiOutput.messages.size() != messages) return "a message after release";
        return wrongNow();
    }

    /// For long runs: drops the records of what has ended.
    void forgetThePast() {
        std::erase_if(network.journals, [](const auto& journal) { return journal->connection.expired(); });
        std::erase_if(network.made, [](const auto& connection) { return connection.expired(); });
        std::erase_if(serviceDiscovery.resolvers, [](const auto& resolver) { return resolver->isStopped; });
        network.labels.clear();
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
    std::shared_ptr<FakeConnection> newestOpen(std::uint16_t port, bool isEnded) const {
        for (auto each = network.journals.rbegin(); each != network.journals.rend(); ++each)
            if ((*each)->localPort == port && (*each)->isInvited() && (*each)->isEnded() == isEnded)
                if ((*each)->isOpen()) return (*each)->connection.lock();
        return nullptr;
    }
    /// Its session handles what waits for it.
    static bool handled(const std::shared_ptr<FakeConnection>& on) {
        if (!on) return false;
        const auto queue = on->journal->queue;
        for (auto pieces = queue->waiting(); pieces > 0; --pieces)
            queue->runOne();
        return true;
    }

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

    std::string wrongOn(const Journal& journal) const {
        if (journal.isSentAfterBye) return "sent after BY";
        if (journal.isInvited() && !journal.isOpen() && !journal.isEnded()) return "closed without BY";
        if (!journal.isEnded()) return {};
        std::uint32_t token =
            0; // of the session's last invitation on this port, if need be on a connection before
        for (const auto& other : network.journals) {
            if (other->queue != journal.queue) continue;
            if (other->localPort == journal.localPort && other->number <= journal.number &&
                other->isInvited())
                token = other->invitations.back();
            if (other->number < journal.numberAtBye && other->isInvited() && !other->isEnded())
                return "BY on this port, not on the other";
        }
        return journal.byes.front() == token ? "" : "BY with another token than the last invitation's";
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
    bool isSumStale =
        false; ///< from a reconnect without auto-connect, or a shutdown, to the next look at the peers
};

} // namespace tessary::test
