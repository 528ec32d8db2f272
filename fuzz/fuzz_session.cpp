// The dialer, its sessions and the discovery on a machine of fakes: peers come, go, answer, play and lie, the
// main thread is busy or not, and somebody plays with the menu.
#include "Reader.h"
#include "Require.h"
#include "support/ObservedMachine.h"

#include <array>

using namespace tessary;
using namespace tessary::test;
using fuzz::Reader;
using fuzz::require;

namespace {

constexpr std::array<const char*, 2> types{"_apple-midi._udp", "_tessarylink._tcp"};
const std::array<std::string, 4> names{"iPad", "] → [10.0.0.9", "a\nb", ""};
const std::array<std::string, 4> addresses{"10.0.0.2", "10.0.0.12", "10.0.0.3", "0.0.0.0"};

struct World : ObservedMachine {
    std::shared_ptr<PeerDiscovery> discovery = std::make_shared<PeerDiscovery>(platform());
    std::shared_ptr<CoreMIDIBridge> bridge = std::make_shared<CoreMIDIBridge>(platform());
    std::shared_ptr<RTPMIDIDialer> dialer;
    Bytes arriving; ///< the datagram of a data port that is being handled
    bool isSumStale = false;
    std::size_t messagesSeen = 0;

    World() {
        discovery->start();
        dialer = RTPMIDIDialer::make(platform(), discovery, bridge, "Tessary Link");
        midiOutput.duringPublish = [this] { checkPublished(midiOutput.messages.back()); };
    }

    /// Every message stands in the list, but for a status byte that still runs and the joints of System
    /// Exclusive.
    void checkPublished(const Bytes& message) const {
        const auto holds = [&](auto begin, auto end) {
            return std::search(arriving.begin(), arriving.end(), begin, end) != arriving.end();
        };
        require(message.at(0) >= 0x80, "a message starts with a status byte");
        if (message[0] == 0xF0) {
            const auto inner = [](std::uint8_t byte) { return byte < 0x80; };
            require(message.size() >= 2 && message.back() == 0xF7, "System Exclusive is whole");
            require(std::all_of(message.begin() + 1, message.end() - 1, inner), "and holds data alone");
            return;
        }
        require(message.size() <= 3 && holds(message.begin() + 1, message.end()),
                "its data stand in the list");
    }

    std::shared_ptr<JournaledConnection> connection(std::uint8_t index) const {
        std::vector<std::shared_ptr<JournaledConnection>> open;
        for (const auto& journal : journaled.journals)
            if (const auto each = journal->connection.lock(); each && !journal->isCancelled)
                open.push_back(std::static_pointer_cast<JournaledConnection>(each));
        return open.empty() ? nullptr : open[index % open.size()];
    }

    void deliver(const std::shared_ptr<JournaledConnection>& to, const Bytes& datagram) {
        if (!to) return;
        to->journal->queue->post([this, datagram] { arriving = datagram; });
        to->deliver(datagram);
    }

    static Bytes sessionPacket(std::uint8_t kind, std::uint32_t token, Reader& input) {
        using P = AppleMIDIPacket;
        switch (kind % 6) {
        case 0:
            return P{P::Accept{token, 7, "iPad"}}.encode();
        case 1:
            return P{P::ClockSync{7, 1, 2, 3, 4}}.encode();
        case 2:
            return P{P::Bye{token, 7}}.encode();
        case 3:
            return P{P::Reject{token, 7, ""}}.encode();
        case 4:
            return P{P::ClockSync{7, input.byte(), 2, 3, 4}}.encode();
        default:
            return P{P::Invitation{token, 7, "iPad"}}.encode();
        }
    }

    void peerActs(Reader& input) {
        const auto to = connection(input.byte());
        const std::uint8_t kind = input.byte();
        if (!to) return;
        const auto& tokens = to->journal->invitations;
        if (kind < 96) {
            deliver(to, sessionPacket(kind, tokens.empty() ? 0 : tokens.back(), input));
        } else if (kind < 128) {
            Bytes packet = sessionPacket(kind, tokens.empty() ? 0 : tokens.front(), input);
            packet.resize(input.byte() % 64);
            const std::size_t at = input.byte();
            if (at < packet.size()) packet[at] = input.byte();
            deliver(to, packet);
        } else if (kind < 192) {
            Bytes midi{0x80, 0x61, 0, input.byte(), 0, 0, 0, 0, 0, 0, 0, 7};
            const Bytes list = input.bytes();
            midi.insert(midi.end(), {static_cast<std::uint8_t>(0x80 | (kind & 0x30)),
                                     static_cast<std::uint8_t>(list.size())});
            midi.insert(midi.end(), list.begin(), list.end());
            deliver(to, midi);
        } else {
            deliver(to, input.bytes());
        }
    }

    void connectionActs(Reader& input) {
        const auto of = connection(input.byte());
        const std::uint8_t kind = input.byte();
        if (!of) return;
        if (kind % 4 == 3) return of->deliver(Bytes{}, std::make_error_code(std::errc::io_error));
        of->journal->queue->post([weak = std::weak_ptr(of), kind] {
            const auto still = weak.lock();
            if (!still) return;
            if (kind % 4 == 0) still->becomeReady();
            if (kind % 4 == 1) still->fail(std::errc::address_in_use);
            if (kind % 4 == 2) still->failSend(std::errc::network_unreachable);
        });
    }

    void browserSees(Reader& input) {
        const std::uint8_t seen = input.byte();
        std::vector<std::string> listed;
        for (std::size_t i = 0; i < names.size(); ++i)
            if (seen >> i & 1) listed.push_back(names[i]);
        serviceDiscovery.browser(types[seen >> 7]).see(listed);
    }

    void resolverEnds(Reader& input) {
        const std::uint8_t index = input.byte(), kind = input.byte();
        std::vector<std::shared_ptr<FakeResolver>> waiting;
        for (const auto& resolver : serviceDiscovery.resolvers)
            if (!resolver->isStopped) waiting.push_back(resolver);
        if (waiting.empty()) return;
        const auto resolver = waiting[index % waiting.size()];
        constexpr std::array<int, 8> ports{5004, 5004, 5004, 5006, 65535, 0, -1, 70'000};
        const int port = ports[kind / 4 % 8];
        if (kind < 160)
            resolver->succeed({addresses[kind % 4]}, port);
        else if (kind < 192)
            resolver->fail("timed out");
        else
            resolver->succeed({}, port);
    }

    void menuActs(std::uint8_t kind) {
        switch (kind % 4) {
        case 0:
            dialer->reconnectNow();
            isSumStale = isSumStale || !*dialer->autoConnectEnabled();
            break;
        case 1:
            dialerLog.mayDial = false;
            dialer->setAutoConnectEnabled(false);
            break;
        case 2:
            dialer->shutdownAll();
            dialerLog.sessions.clear();
            isSumStale = true;
            break;
        default:
            dialerLog.mayDial = true;
            dialer->setAutoConnectEnabled(true);
            isSumStale = false;
        }
    }

    void act(Reader& input) {
        switch (input.byte() % 16) {
        case 0:
            return mainQueue->holdBack();
        case 1:
            return mainQueue->release();
        case 2:
            mainQueue->runOne();
            return;
        case 3:
            return menuActs(input.byte());
        case 4:
            return browserSees(input);
        case 5:
            return resolverEnds(input);
        case 6:
            return connectionActs(input);
        case 7:
            if (const auto of = connection(input.byte())) queueOf(*of).holdBack();
            return;
        case 8:
            if (const auto of = connection(input.byte())) queueOf(*of).release();
            return;
        case 9:
            return time.advance(std::chrono::milliseconds(10 * input.byte()));
        case 10:
            return comeToRest();
        case 11:
            time.calendar -= std::chrono::minutes(input.byte());
            return;
        case 12:
            journaled.isReadyByItself = input.byte() % 4 != 0;
            return;
        default:
            peerActs(input);
            return time.run();
        }
    }
    static VirtualTime::VirtualQueue& queueOf(const JournaledConnection& connection) {
        return static_cast<VirtualTime::VirtualQueue&>(*connection.journal->queue);
    }

    void releaseAll() {
        mainQueue->release();
        for (const auto& journal : journaled.journals)
            static_cast<VirtualTime::VirtualQueue&>(*journal->queue).release();
    }
    void comeToRest() {
        releaseAll();
        time.advance(1500ms);
        if (*dialer->autoConnectEnabled()) isSumStale = false;
        const std::string wrong = wrongAtRest(*dialer, *discovery);
        require(wrong.empty(), wrong);
    }
    void check() const {
        std::string wrong = wrongNow();
        if (wrong.empty() && !isSumStale) wrong = wrongSum(*dialer, *discovery);
        require(wrong.empty(), wrong);
    }

    /// Everything is said, closed and silent once the dialer is let go.
    void end() {
        comeToRest();
        dialer.reset();
        const std::size_t lines = dialerLog.lines.size(), messages = midiOutput.messages.size();
        for (const auto& journal : journaled.journals) {
            if (const auto last = journal->connection.lock()) {
                last->becomeReady();
                last->deliver(AppleMIDIPacket{AppleMIDIPacket::Bye{1, 7}});
                last->deliver(Bytes{0x80, 0x61, 0, 1, 0, 0, 0, 0, 0, 0, 0, 7, 3, 0x90, 0x3C, 0x64});
            }
        }
        time.advance(1500ms);
        for (const auto& journal : journaled.journals)
            require(!journal->isOpen() && journal->isInvited() == journal->isEnded(),
                    "every session has ended");
        require(wrongNow().empty(), wrongNow());
        require(dialerLog.lines.size() == lines, "no report after release");
        require(midiOutput.messages.size() == messages, "no message after release");
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    World world;
    Reader input(data, size);
    while (!input.isEmpty()) {
        world.act(input);
        world.check();
    }
    world.end();
    return 0;
}
