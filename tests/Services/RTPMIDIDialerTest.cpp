#include "Services/RTPMIDIDialer.h"

#include "support/Fakes.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

using Status = DialerStatus::Case;
using Invitation = AppleMIDIPacket::Invitation;
using Bye = AppleMIDIPacket::Bye;

class RTPMIDIDialerTest : public testing::Test {
  protected:
    std::shared_ptr<PeerDiscovery> makeDiscovery() {
        auto made = std::make_shared<PeerDiscovery>(machine.platform());
        made->start();
        return made;
    }

    /// A peer appears, or shows itself with another name or port.
    void appear(const std::string& ip, const std::string& name = "iPad", int port = 5004) {
        for (const std::string type : {"_apple-midi._udp", "_tessarylink._tcp"}) {
            auto& listed = names[type];
            listed.erase(name);
            machine.serviceDiscovery.browser(type).see({listed.begin(), listed.end()});
            machine.time.run();
            listed.insert(name);
            machine.serviceDiscovery.browser(type).see({listed.begin(), listed.end()});
            machine.time.run();
            machine.serviceDiscovery.resolver(type, name)->succeed({ip}, port);
        }
        machine.time.run();
    }
    void disappear(const std::string& name = "iPad") {
        names["_apple-midi._udp"].erase(name);
        const auto& listed = names["_apple-midi._udp"];
        machine.serviceDiscovery.browser("_apple-midi._udp").see({listed.begin(), listed.end()});
        machine.time.run();
    }

    /// The newest connection to an address from a local port.
    std::shared_ptr<FakeConnection> connection(const std::string& ip, std::uint16_t localPort) const {
        for (auto weak = machine.network.made.rbegin(); weak != machine.network.made.rend(); ++weak)
            if (const auto made = weak->lock();
                made && made->localPort == localPort && made->host.text() == ip)
                return made;
        return nullptr;
    }
    void acceptAll(const std::string& ip) {
        const auto control = connection(ip, 51204);
        control->deliver({AppleMIDIPacket::Accept{control->sentOf<Invitation>().back().token, 1, ""}});
        machine.time.run();
        const auto data = connection(ip, 51205);
        data->deliver({AppleMIDIPacket::Accept{data->sentOf<Invitation>().back().token, 1, ""}});
        data->deliver({AppleMIDIPacket::ClockSync{1, 1, 0, 0, 0}});
        machine.time.run();
    }
    std::vector<std::string> dialerLines() const {
        std::vector<std::string> lines;
        for (const auto& line : machine.log.lines)
            if (line.starts_with("[Dialer] ")) lines.push_back(line.substr(9));
        return lines;
    }
    DialerStatus status() const { return *dialer->status(); }
    using Lines = std::vector<std::string>;

    FakeMachine machine;
    std::map<std::string, std::set<std::string>> names;
    std::shared_ptr<PeerDiscovery> discovery = makeDiscovery();
    std::shared_ptr<CoreMIDIBridge> bridge = std::make_shared<CoreMIDIBridge>(machine.platform());
    std::shared_ptr<RTPMIDIDialer> dialer =
        RTPMIDIDialer::make(machine.platform(), discovery, bridge, "Tessary Link");
};

const std::string dialing = "dialing iPad [10.0.0.2] → 10.0.0.2:5004";

} // namespace

TEST_F(RTPMIDIDialerTest, DialsAPeerAtOnceAndPlaysIt) {
    machine.time.advance(1s);
    EXPECT_EQ(status(), (DialerStatus{Status::idle, ""}));
    appear("10.0.0.2");
    EXPECT_EQ(dialerLines(), Lines{dialing}); // at once, and once
    EXPECT_EQ(status(), (DialerStatus{Status::connecting, "10.0.0.2"}));

    acceptAll("10.0.0.2");
    EXPECT_EQ(status(), (DialerStatus{Status::connected, "10.0.0.2"}));
    EXPECT_EQ(*dialer->connectedPeerIPs(), Lines{"10.0.0.2"});
    EXPECT_EQ(*dialer->lastEvent(), "2026-11-16T21:08:04Z 10.0.0.2 running");
    EXPECT_TRUE(discovery->trustedIPs->contains("10.0.0.2"));

    connection("10.0.0.2", 51205)->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    machine.time.run();
    EXPECT_EQ(machine.midiOutput.messages, std::vector<Bytes>{"903C64"_packet});
}

TEST_F(RTPMIDIDialerTest, KeepsASessionWhosePeerChangesNameOrPort) {
    appear("10.0.0.2");
    acceptAll("10.0.0.2");
    appear("10.0.0.2", "renamed", 6000);
    disappear("iPad");
    machine.time.advance(2s);
    EXPECT_EQ(dialerLines(), (Lines{dialing, "10.0.0.2 running"}));
    connection("10.0.0.2", 51204)->deliver({Bye{0, 1}});
    machine.time.advance(1s);
    EXPECT_EQ(dialerLines().back(), "dialing renamed [10.0.0.2] → 10.0.0.2:6000");
}

TEST_F(RTPMIDIDialerTest, StopsTheSessionOfAPeerThatLeft) {
    appear("10.0.0.2");
    acceptAll("10.0.0.2");
    const auto control = connection("10.0.0.2", 51204);
    disappear();
    EXPECT_EQ(dialerLines(), (Lines{dialing, "10.0.0.2 running", "peer 10.0.0.2 gone — stopping session"}));
    EXPECT_EQ(control->sentOf<Bye>().size(), 1u);
    EXPECT_EQ(status(), (DialerStatus{Status::idle, ""}));
    EXPECT_TRUE(dialer->connectedPeerIPs()->empty());
}

TEST_F(RTPMIDIDialerTest, DialsAFailedPeerAgainAboutOnceASecond) {
    appear("10.0.0.2");
    for (int i = 0; i < 3; ++i) {
        connection("10.0.0.2", 51204)->deliver({AppleMIDIPacket::Reject{0, 1, ""}});
        machine.time.run();
        EXPECT_EQ(status(), (DialerStatus{Status::searching, ""}));
        machine.time.advance(1s);
    }
    const std::string failed = "10.0.0.2 failed: control invitation rejected";
    EXPECT_EQ(dialerLines(), (Lines{dialing, failed, dialing, failed, dialing, failed, dialing}));
}

TEST_F(RTPMIDIDialerTest, ASilentPeerIsLeftConnecting) {
    appear("10.0.0.2");
    machine.time.advance(60s);
    EXPECT_EQ(dialerLines(), Lines{dialing});
    EXPECT_EQ(connection("10.0.0.2", 51204)->sentOf<Invitation>().size(), 1u);
    EXPECT_EQ(status(), (DialerStatus{Status::connecting, "10.0.0.2"}));
}

TEST_F(RTPMIDIDialerTest, WithoutAutoConnectTheSessionsAreFrozen) {
    appear("10.0.0.2");
    dialer->setAutoConnectEnabled(false);
    appear("10.0.0.3", "other");
    disappear("iPad");
    machine.time.advance(3s);
    EXPECT_EQ(dialerLines(), Lines{dialing});
    connection("10.0.0.2", 51204)->deliver({Bye{0, 1}}); // reports still count
    machine.time.run();
    EXPECT_EQ(status(), (DialerStatus{Status::searching, ""}));
    dialer->reconnectNow();
    EXPECT_EQ(dialerLines().back(), "manual reconnect: tearing down all sessions");

    dialer->setAutoConnectEnabled(true);
    EXPECT_EQ(dialerLines().back(), "dialing other [10.0.0.3] → 10.0.0.3:5004");
    connection("10.0.0.3", 51204)->deliver({Bye{0, 1}});
    machine.time.run();
    dialer->setAutoConnectEnabled(true); // each assignment of true looks at once
    EXPECT_EQ(dialerLines().back(), "dialing other [10.0.0.3] → 10.0.0.3:5004");
}

TEST_F(RTPMIDIDialerTest, ReconnectTearsDownAndDialsAgain) {
    appear("10.0.0.2");
    acceptAll("10.0.0.2");
    const auto old = connection("10.0.0.2", 51204);
    dialer->reconnectNow();
    machine.time.run();
    EXPECT_EQ(old->sentOf<Bye>().size(), 1u);
    EXPECT_EQ(dialerLines(),
              (Lines{dialing, "10.0.0.2 running", "manual reconnect: tearing down all sessions", dialing}));
    // The peer's late goodbye to the old session reaches the newest connection there is, or nobody.
    old->deliver({Bye{0, 1}});
    machine.time.run();
    EXPECT_EQ(status(), (DialerStatus{Status::connecting, "10.0.0.2"}));
    acceptAll("10.0.0.2");
    EXPECT_EQ(status(), (DialerStatus{Status::connected, "10.0.0.2"}));
}

TEST_F(RTPMIDIDialerTest, ALateReportOfAnOldSessionTouchesNoNewerOne) {
    appear("10.0.0.2");
    acceptAll("10.0.0.2");
    // The network thread is inside a handler, which keeps the old session alive, while the main thread
    // replaces it and receives the old one's last report.
    machine.midiOutput.duringPublish = [&] {
        dialer->reconnectNow();
        while (machine.mainQueue->runOne()) {
        }
    };
    connection("10.0.0.2", 51205)->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    machine.time.advance(3s);
    EXPECT_EQ(dialerLines(),
              (Lines{dialing, "10.0.0.2 running", "manual reconnect: tearing down all sessions", dialing}));
    acceptAll("10.0.0.2");
    EXPECT_EQ(status(), (DialerStatus{Status::connected, "10.0.0.2"}));
}

TEST_F(RTPMIDIDialerTest, ALateReportOfASessionWithoutAPlaceMakesNone) {
    appear("10.0.0.2");
    acceptAll("10.0.0.2");
    std::size_t lines = 0;
    machine.midiOutput.duringPublish = [&] {
        machine.serviceDiscovery.browser("_apple-midi._udp").see({});
        machine.serviceDiscovery.queue->runOne();
        while (machine.mainQueue->runOne()) {
        }
        lines = machine.log.lines.size();
    };
    connection("10.0.0.2", 51205)->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    machine.time.advance(3s);
    EXPECT_EQ(dialerLines(), (Lines{dialing, "10.0.0.2 running", "peer 10.0.0.2 gone — stopping session"}));
    EXPECT_EQ(machine.log.lines.size(), lines);
    EXPECT_EQ(status(), (DialerStatus{Status::idle, ""}));
}

TEST_F(RTPMIDIDialerTest, SumsUpSeveralSessions) {
    appear("10.0.0.2", "a");
    appear("10.0.0.12", "b");
    acceptAll("10.0.0.2");
    acceptAll("10.0.0.12");
    EXPECT_EQ(*dialer->connectedPeerIPs(), (Lines{"10.0.0.12", "10.0.0.2"})); // as text
    EXPECT_EQ(status(), (DialerStatus{Status::connected, "10.0.0.12"}));
    int notifications = 0;
    const auto observation = dialer->status().observe([&] { ++notifications; });
    machine.time.advance(5s);
    EXPECT_EQ(notifications, 0);
}

TEST_F(RTPMIDIDialerTest, LettingGoSilencesEverything) {
    appear("10.0.0.2");
    acceptAll("10.0.0.2");
    const auto control = connection("10.0.0.2", 51204), data = connection("10.0.0.2", 51205);
    const auto lines = machine.log.lines;
    const auto changed = *discovery->peersDidChange;
    const auto ticks = machine.mainQueue->ticksOnTheirWay();
    const auto received = data->handlers().received;
    dialer.reset();
    changed();
    for (const auto& tick : ticks)
        tick();
    received("8061 0001 00000000 000000AA 03 903C64"_packet, {});
    data->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    machine.time.advance(5s);
    EXPECT_EQ(control->sentOf<Bye>().size(), 1u);
    EXPECT_EQ(machine.log.lines, lines);
    EXPECT_TRUE(machine.midiOutput.messages.empty());
}
