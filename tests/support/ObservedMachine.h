// A machine of fakes that watches what the program does with it, for tests that do not know the order of
// events.
#pragma once

#include "Services/PeerDiscovery.h"
#include "Services/RTPMIDIDialer.h"
#include "support/Fakes.h"

#include <algorithm>
#include <functional>

namespace tessary::test {

/// What happened on one connection; outlives it.
struct Journal {
    std::string ip;
    std::uint16_t localPort = 0;
    std::shared_ptr<TimerQueue> queue; ///< its session's
    std::weak_ptr<FakeConnection> connection;
    std::size_t number = 0;                       ///< of the connection
    std::vector<std::uint32_t> invitations, byes; ///< tokens
    std::size_t madeAtBye = 0;                    ///< how many connections there had been then
    bool isSentAfterBye = false;
    bool isCancelled = false;

    bool isOpen() const { return !connection.expired() && !isCancelled; }
    bool isEnded() const { return !byes.empty(); }
    bool isInvited() const { return !invitations.empty(); }
};

class JournaledConnection : public FakeConnection {
  public:
    JournaledConnection(FakeNetwork& network, const std::size_t& made, std::optional<std::uint16_t> local,
                        IPv4Host remote, std::uint16_t port)
        : FakeConnection(network, local, remote, port)
        , made_(made) {
        journal->number = made;
        journal->ip = remote.text();
        journal->localPort = local.value_or(0);
    }
    void start(const std::shared_ptr<TimerQueue>& queue) override {
        journal->queue = queue;
        FakeConnection::start(queue);
    }
    void send(std::span<const std::uint8_t> datagram) override {
        FakeConnection::send(datagram);
        if (journal->isEnded()) journal->isSentAfterBye = true;
        const auto packet = AppleMIDIPacket::decode(datagram);
        if (!packet) return;
        if (const auto* in = std::get_if<AppleMIDIPacket::Invitation>(&packet->value))
            journal->invitations.push_back(in->token);
        if (const auto* by = std::get_if<AppleMIDIPacket::Bye>(&packet->value)) {
            journal->byes.push_back(by->token);
            journal->madeAtBye = made_;
        }
    }
    void cancel() override {
        journal->isCancelled = true;
        FakeConnection::cancel();
    }

    const std::shared_ptr<Journal> journal = std::make_shared<Journal>();

  private:
    const std::size_t& made_;
};

class JournaledNetwork : public FakeNetwork {
  public:
    using FakeNetwork::FakeNetwork;
    std::shared_ptr<UDPConnection> makeConnection(std::optional<std::uint16_t> localPort, IPv4Host host,
                                                  std::uint16_t remotePort) override {
        auto connection = std::make_shared<JournaledConnection>(*this, count_, localPort, host, remotePort);
        ++count_;
        connection->journal->connection = connection;
        made.push_back(connection);
        journals.push_back(connection->journal);
        return connection;
    }
    std::vector<std::shared_ptr<Journal>> journals;

  private:
    std::size_t count_ = 0;
};

/// Follows the dialer by what it says: which addresses have a session, and which of these run.
class DialerLog : public FakeLog {
  public:
    void line(std::string_view text) override {
        FakeLog::line(text);
        if (text.starts_with("[Dialer] ")) follow(text.substr(9));
    }

    std::map<std::string, bool> sessions; ///< whether it runs, by address
    bool mayDial = true;                  ///< as the menu says
    std::vector<std::string> contradictions;

  private:
    void follow(std::string_view message) {
        constexpr std::string_view gone = " gone — stopping session";
        if (message.starts_with("dialing ")) {
            const auto end = message.rfind("] → "), begin = message.rfind('[', end) + 1;
            expect(mayDial, message);
            expect(sessions.emplace(message.substr(begin, end - begin), false).second, message);
        } else if (message.starts_with("manual reconnect")) {
            sessions.clear();
        } else if (message.starts_with("peer ") && message.ends_with(gone)) {
            const std::string ip(message.substr(5, message.size() - 5 - gone.size()));
            expect(mayDial && sessions.erase(ip) == 1, message);
        } else {
            const std::string ip(message.substr(0, message.find(' ')));
            const auto session = sessions.find(ip);
            expect(session != sessions.end(), message);
            if (session == sessions.end()) return;
            if (message.ends_with(" running"))
                session->second = true;
            else
                sessions.erase(session); // failed
        }
    }
    void expect(bool holds, std::string_view message) {
        if (!holds) contradictions.emplace_back(message);
    }
};

/// The machine, and what must hold of a dialer on it at any time.
struct ObservedMachine : FakeMachine {
    JournaledNetwork journaled{time};
    DialerLog dialerLog;

    Platform platform() {
        return {application, *mainQueue,   journaled, serviceDiscovery, midiOutput, preferences,
                statusBar,   loginService, time,      random,           text,       dialerLog};
    }

    /// Forgets connections that are gone and lines, for long runs.
    void forgetThePast() {
        std::erase_if(journaled.journals, [](const auto& journal) { return journal->connection.expired(); });
        std::erase_if(journaled.made, [](const auto& weak) { return weak.expired(); });
        std::erase_if(serviceDiscovery.resolvers, [](const auto& resolver) { return resolver->isStopped; });
        dialerLog.lines.clear();
        journaled.labels.clear();
    }

    /// What is wrong now; empty if nothing is. Asked between any two pieces of work.
    std::string wrongNow() const {
        if (!dialerLog.contradictions.empty()) return "out of order: " + dialerLog.contradictions.front();
        for (const auto& journal : journaled.journals) {
            const std::string where = journal->ip + " port " + std::to_string(journal->localPort) + ": ";
            if (journal->byes.size() > 1) return where + "two ends of session";
            if (journal->isSentAfterBye) return where + "sent after the end of session";
            if (journal->isEnded() && journal->byes[0] != lastToken(*journal))
                return where + "an end of session with another token than the last invitation's";
            if (journal->isInvited() && !journal->isOpen() && !journal->isEnded())
                return where + "closed without an end of session";
            for (const auto& other : journaled.journals)
                if (other->queue == journal->queue && other->number < journal->madeAtBye &&
                    other->isInvited() && !other->isEnded())
                    return where + "the end was said on one port and not on the other";
        }
        return {};
    }

    /// The token of the last invitation on this port of its session: of a session that was started again and
    /// ended before it could invite, that of its earlier connection. 0 if there was none.
    std::uint32_t lastToken(const Journal& journal) const {
        std::uint32_t token = 0;
        for (const auto& other : journaled.journals)
            if (other->queue == journal.queue && other->localPort == journal.localPort &&
                other->number <= journal.number && other->isInvited())
                token = other->invitations.back();
        return token;
    }

    /// What is wrong with the dialer's sum. Not asked after `reconnectNow` without
    /// auto-connect, which ends the sessions and does not look at them again.
    std::string wrongSum(const RTPMIDIDialer& dialer, const PeerDiscovery& discovery) const {
        std::vector<std::string> running;
        for (const auto& [ip, runs] : dialerLog.sessions)
            if (runs) running.push_back(ip);
        if (*dialer.connectedPeerIPs() != running) return "the list of connected addresses";
        using Case = DialerStatus::Case;
        DialerStatus expected{discovery.tessaryPeers->empty() ? Case::idle : Case::searching, {}};
        if (!running.empty())
            expected = {Case::connected, running.front()};
        else if (!dialerLog.sessions.empty())
            expected = {Case::connecting, dialerLog.sessions.begin()->first};
        // While the dialer may not dial, peers come and go without a look at them.
        if (!*dialer.autoConnectEnabled() && dialerLog.sessions.empty()) return {};
        return *dialer.status() == expected ? "" : "the status";
    }

    /// What is wrong once everything is done, a second after the last event: with one session for each
    /// address there are its connections, and no others.
    std::string wrongAtRest(const RTPMIDIDialer& dialer, const PeerDiscovery& discovery) const {
        std::map<std::string, int> controls;
        for (const auto& journal : journaled.journals) {
            if (!journal->isOpen()) continue;
            if (journal->isEnded()) return journal->ip + ": still open after the end of session";
            if (!dialerLog.sessions.contains(journal->ip))
                return journal->ip + ": a connection of no session";
            if (journal->localPort == 51204 && ++controls[journal->ip] > 1)
                return journal->ip + ": two sessions";
        }
        for (const auto& [ip, runs] : dialerLog.sessions)
            if (controls[ip] != 1) return ip + ": a session without a connection";
        if (!*dialer.autoConnectEnabled()) return {};
        if (dialerLog.sessions.size() != discovery.tessaryPeers->size()) return "a session for each peer";
        for (const PeerHost& peer : *discovery.tessaryPeers)
            if (!dialerLog.sessions.contains(peer.ip)) return peer.ip + ": a peer without a session";
        return {};
    }
};

} // namespace tessary::test
