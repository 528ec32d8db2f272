// What the order of events does not change (one session for each peer, the status, reconnecting, release) is
// in OrderTest.
#include "support/World.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

using Lines = std::vector<std::string>;

struct RTPMIDIDialerTest : testing::Test, World {
    RTPMIDIDialerTest() { startDialer(); }
    void TearDown() override { EXPECT_EQ(wrongNow(), ""); }

    Lines dialerLines() const {
        Lines lines;
        for (const auto& line : log.lines)
            if (line.starts_with("[Dialer] ")) lines.push_back(line.substr(9));
        return lines;
    }
};

const std::string dialing = "dialing iPad [10.0.0.2] → 10.0.0.2:5004";

} // namespace

TEST_F(RTPMIDIDialerTest, DialsAPeerAtOnceAndOnceAndPlaysIt) {
    appear("10.0.0.2");
    EXPECT_EQ(dialerLines(), Lines{dialing});
    time.advance(60s); // a silent peer is left connecting
    EXPECT_EQ(dialerLines(), Lines{dialing});
    EXPECT_EQ(network.newest(51204)->invitations.size(), 1u);

    accept("10.0.0.2");
    EXPECT_EQ(*dialer->lastEvent(), "2026-11-16T21:09:03Z 10.0.0.2 running");
    EXPECT_TRUE(discovery->trustedIPs->contains("10.0.0.2"));
    arrive(51205, midi);
    EXPECT_EQ(midiOutput.messages, std::vector<Bytes>{"903C64"_packet});
}

TEST_F(RTPMIDIDialerTest, ReportsOnceWhatKeepsAPeerFromAnswering) {
    const auto reported = [this] {
        log.lines.clear();
        time.advance(60s);
        Lines found;
        for (const auto& line : log.lines)
            if (line.starts_with("[RTPMIDI] no ")) found.push_back(line.substr(10, 31));
        return found;
    };
    network.isReadyByItself = false;
    appear("10.0.0.2");
    EXPECT_EQ(reported(), Lines{"no way to iPad at 10.0.0.2: no "});
    const auto control = network.connections.back();
    control->fail(std::errc::too_many_files_open);
    EXPECT_EQ(reported(), Lines{}) << "the log says why";
    control->becomeReady();
    EXPECT_EQ(reported(), Lines{"no answer from iPad at 10.0.0.2"});
    control->accept();
    EXPECT_EQ(reported(), Lines{"no way to iPad at 10.0.0.2: no "});
    network.connections.back()->becomeReady();
    EXPECT_EQ(reported(), Lines{"no answer from iPad at 10.0.0.2"});
    EXPECT_NE(log.lines.back().find("on its second port, UDP 5005"), std::string::npos);
}

TEST_F(RTPMIDIDialerTest, KeepsASessionWhosePeerChangesNameOrPort) {
    appear("10.0.0.2");
    accept("10.0.0.2");
    appear("10.0.0.2", "renamed", 6000);
    disappear("iPad");
    time.advance(2s);
    EXPECT_EQ(dialerLines(), (Lines{dialing, "10.0.0.2 running"}));
    arrive(51204, bye);
    time.advance(1s);
    EXPECT_EQ(dialerLines().back(), "dialing renamed [10.0.0.2] → 10.0.0.2:6000");
}

TEST_F(RTPMIDIDialerTest, DialsAFailedPeerAgainOnceASecond) {
    appear("10.0.0.2");
    for (int i = 0; i < 3; ++i) {
        arrive(51204, reject);
        time.advance(1s);
    }
    const std::string failed = "10.0.0.2 failed: control invitation rejected";
    EXPECT_EQ(dialerLines(), (Lines{dialing, failed, dialing, failed, dialing, failed, dialing}));
}

TEST_F(RTPMIDIDialerTest, EachAssignmentOfAutoConnectLooksAtThePeersAtOnce) {
    setAutoConnect(false);
    appear("10.0.0.2");
    time.advance(3s);
    EXPECT_EQ(dialerLines(), Lines{});
    setAutoConnect(true);
    EXPECT_EQ(dialerLines(), Lines{dialing});
    time.run();
    arrive(51204, bye);
    time.run();
    setAutoConnect(true); // which it is already
    EXPECT_EQ(dialerLines(), (Lines{dialing, "10.0.0.2 failed: peer sent BYE", dialing}));
}

TEST_F(RTPMIDIDialerTest, ALateReportOfAnOldSessionIsIgnored) {
    // The network thread is inside a handler, which keeps the old session alive, while the main thread ends
    // that session and receives its last report.
    const auto endDuringPublish = [&](const std::function<void()>& end) {
        appear("10.0.0.2");
        accept("10.0.0.2");
        midiOutput.duringPublish = [&] {
            end();
            while (mainQueue->runOne()) {
            }
        };
        arrive(51205, midi);
        midiOutput.duringPublish = {};
        time.advance(3s);
        return dialerLines().back();
    };
    EXPECT_EQ(endDuringPublish([&] { reconnect(); }), dialing); // the new session has the address
    const auto leave = [&] {
        serviceDiscovery.browser("_apple-midi._udp").see({});
        serviceDiscovery.queue->runOne();
    };
    EXPECT_EQ(endDuringPublish(leave), "peer 10.0.0.2 gone — stopping session"); // no session has it
}
