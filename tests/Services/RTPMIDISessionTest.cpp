// What holds in every order of events (reports, reasons, BY) is in OrderTest.
#include "support/World.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

using Case = RTPMIDISession::Case;
using States = std::vector<Case>;
using Accept = AppleMIDIPacket::Accept;
using Bye = AppleMIDIPacket::Bye;
using ClockSync = AppleMIDIPacket::ClockSync;
using Invitation = AppleMIDIPacket::Invitation;

struct RTPMIDISessionTest : testing::Test, World {
    static constexpr std::uint32_t peerSSRC = 0xCAFE;

    RTPMIDISessionTest() { renew(); }
    void TearDown() override { EXPECT_EQ(wrongNow(), ""); }

    void renew(std::uint16_t port = 5004) {
        session = makeSession(port);
        states.clear();
        session->stateDidChange = [this](const RTPMIDISession::State& state) {
            states.push_back(state.which);
        };
        session->midiPacketReceived = [this](std::span<const std::uint8_t> datagram) {
            received.emplace_back(datagram.begin(), datagram.end());
        };
    }
    std::shared_ptr<FakeConnection> control() const { return network.newest(51204); }
    std::shared_ptr<FakeConnection> data() const { return network.newest(51205); }

    void deliver(const std::shared_ptr<FakeConnection>& to, const AppleMIDIPacket& packet) {
        to->deliver(packet);
        time.run();
    }
    void inviteControl() {
        session->start();
        time.run();
    }
    void inviteData() {
        inviteControl();
        control()->accept();
        time.run();
    }
    void runSession() {
        inviteControl();
        accept("10.0.0.2");
    }

    std::shared_ptr<RTPMIDISession> session;
    States states;
    std::vector<Bytes> received;
};

} // namespace

TEST_F(RTPMIDISessionTest, InvitesOnBothPortsAndRunsAfterTheClockExchange) {
    runSession();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData, Case::syncing, Case::running}));
    EXPECT_EQ(control()->remotePort, 5004);
    EXPECT_EQ(data()->remotePort, 5005);
    EXPECT_EQ(control()->sentOf<Invitation>(), (std::vector{Invitation{2, 1, "Tessary Link"}}));
    EXPECT_EQ(data()->sentOf<Invitation>(), (std::vector{Invitation{3, 1, "Tessary Link"}}));
    EXPECT_EQ(data()->sentOf<ClockSync>(), (std::vector{ClockSync{1, 0, 0, 0, 0}, ClockSync{1, 2, 0, 0, 0}}));
    EXPECT_EQ(log.lines, (std::vector<std::string>{"[RTPMIDI] sent control IN to iPad token=2",
                                                   "[RTPMIDI] control OK from iPad",
                                                   "[RTPMIDI] sent data IN to iPad token=3",
                                                   "[RTPMIDI] data OK from iPad — beginning clock sync",
                                                   "[RTPMIDI] running with iPad"}));
}

TEST_F(RTPMIDISessionTest, APeerAtTheLastPortHasOnePortOnly) {
    renew(65535);
    inviteData();
    EXPECT_EQ(data()->remotePort, 65535);
}

TEST_F(RTPMIDISessionTest, AnAcceptanceMustFitTheLastInvitationAndTheState) {
    inviteControl();
    const auto& tokens = control()->invitations;
    control()->becomeReady(); // again, which invites again
    EXPECT_NE(tokens.at(0), tokens.at(1));
    deliver(control(), {Accept{tokens[0], peerSSRC, ""}});
    EXPECT_EQ(data(), nullptr);
    control()->accept();
    time.run();
    control()->accept(); // the acceptance arrives twice
    deliver(data(), {Accept{tokens[1], peerSSRC, ""}});
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData}));
    EXPECT_EQ(network.connections.size(), 2u);
}

TEST_F(RTPMIDISessionTest, AnAcceptanceThatOvertakesTheMainThreadIsHeldOnlyIfItFits) {
    const auto overtake = [&](const std::shared_ptr<FakeConnection>& on, std::uint32_t tokenError) {
        deliver(on, {Accept{on->invitations.back() + tokenError, peerSSRC, ""}});
    };
    const auto storeStates = [&] {
        mainQueue->isHeldBack = false;
        time.run();
        mainQueue->isHeldBack = true;
    };
    mainQueue->isHeldBack = true; // the menu is open
    inviteControl();
    overtake(control(), 1);
    storeStates();
    EXPECT_EQ(data(), nullptr);
    overtake(control(), 0); // is decided at once; `invitingData` is still to be stored
    overtake(data(), 1);
    storeStates();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData}));
    const auto controlPort = control(), dataPort = data();
    session->stop();
    overtake(controlPort, 0);
    overtake(dataPort, 0);
    storeStates();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData, Case::idle}));
}

TEST_F(RTPMIDISessionTest, SendsByeOnBothPortsAndClosesThemATenthOfASecondLater) {
    inviteData();
    const auto controlPort = control(), dataPort = data();
    states.clear();
    session->stop();
    session->stop(); // sends nothing
    time.run();
    EXPECT_EQ(states, (States{Case::idle, Case::idle}));
    EXPECT_EQ(controlPort->sentOf<Bye>(), (std::vector{Bye{2, 1}}));
    EXPECT_EQ(dataPort->sentOf<Bye>(), (std::vector{Bye{3, 1}}));
    session.reset(); // the connections outlive it
    time.advance(99ms);
    EXPECT_TRUE(controlPort->isOpen && dataPort->isOpen);
    time.advance(1ms);
    EXPECT_FALSE(controlPort->isOpen || dataPort->isOpen);
}

TEST_F(RTPMIDISessionTest, HandlersThatRunWhileItEndsHaveNoEffect) {
    runSession();
    const std::vector connections{control(), data()};
    const auto ticks = network.lastQueue->ticksOnTheirWay();
    session->stop();
    time.run();
    const auto lines = log.lines;
    const auto reported = states;
    for (const bool isReleased : {false, false, true}) { // the second time the connections are gone
        if (isReleased) session.reset();
        for (const auto& each : connections) {
            each->handlers.stateDidChange(ConnectionState::ready, {});
            each->handlers.stateDidChange(ConnectionState::cancelled, {});
            for (const AppleMIDIPacket& packet :
                 {AppleMIDIPacket{Accept{1, peerSSRC, ""}}, AppleMIDIPacket{ClockSync{peerSSRC, 0, 1, 0, 0}}})
                EXPECT_EQ(each->handlers.received(packet.encode(), {}),
                          isReleased ? Receive::stop : Receive::again);
        }
        for (const auto& tick : ticks)
            tick();
        time.advance(1s);
    }
    EXPECT_EQ(log.lines, lines); // that nothing is sent after BY is what wrongNow says
    EXPECT_EQ(states, reported);
}

TEST_F(RTPMIDISessionTest, StartsAnewOnlyFromIdle) {
    session->stop();
    EXPECT_TRUE(network.connections.empty());
    time.run();
    runSession();
    session->start();
    time.run();
    EXPECT_EQ(network.connections.size(), 2u);
    const auto oldToken = control()->invitations.back();

    session->stop();
    time.advance(1500ms);
    runSession();
    EXPECT_EQ(states.back(), Case::running);
    EXPECT_GT(control()->invitations.back(), oldToken);
    EXPECT_EQ(data()->sentOf<ClockSync>().at(0).t1, 0u); // a new origin of time
}

TEST_F(RTPMIDISessionTest, HandsOnTheMIDIOfTheDataPortAndAnswersNothingButClocks) {
    runSession();
    const auto sent = control()->sent.size() + data()->sent.size();
    const auto lines = log.lines;
    const Bytes invitation = AppleMIDIPacket{Invitation{77, peerSSRC, "iPad"}}.encode();
    const Bytes clockRequest = AppleMIDIPacket{ClockSync{peerSSRC, 0, 1, 0, 0}}.encode();
    for (const Bytes& datagram :
         {""_packet, "FFFF 'X'"_packet, "FFFF 'XX' 00000002"_packet, "FF00 0001"_packet, midi, invitation})
        data()->deliver(datagram);
    for (const Bytes& datagram : {midi, invitation, clockRequest})
        control()->deliver(datagram);
    time.run();
    EXPECT_EQ(received, (std::vector<Bytes>{"FFFF 'X'"_packet, "FF00 0001"_packet, midi}));
    EXPECT_EQ(control()->sent.size() + data()->sent.size(), sent);
    EXPECT_EQ(log.lines, lines);
    EXPECT_EQ(session->state().which, Case::running);

    session->midiPacketReceived = {};
    arrive(51205, midi);
}

TEST_F(RTPMIDISessionTest, ConnectionAndSendErrorsAreOneLineEachAndAReceiveErrorEndsThatLoopAlone) {
    runSession();
    log.lines.clear();
    control()->fail(std::errc::address_in_use);
    control()->failSend(std::errc::network_unreachable);
    data()->deliver({}, std::make_error_code(std::errc::io_error));
    arrive(51205, midi);
    EXPECT_EQ(received, std::vector<Bytes>{});
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0], "[RTPMIDI] conn failed: Address already in use");
    EXPECT_TRUE(log.lines[1].starts_with("[RTPMIDI] another program holds UDP 51204"));
    EXPECT_EQ(log.lines[2], "[RTPMIDI] send error: Network is unreachable");
    EXPECT_EQ(states.back(), Case::running);
    arrive(51204, bye);
    time.run();
    EXPECT_EQ(states.back(), Case::idle);
}

TEST_F(RTPMIDISessionTest, AnswersClockExchangesInAnyStateAndRunsOnce) {
    inviteData();
    time.advance(1500ms);
    deliver(data(), {ClockSync{peerSSRC, 0, 777, 5, 6}});
    deliver(data(), {ClockSync{peerSSRC, 2, 1, 2, 3}});
    deliver(data(), {ClockSync{peerSSRC, 3, 1, 2, 3}});
    EXPECT_EQ(session->state().which, Case::invitingData);
    mainQueue->isHeldBack = true; // `running` is reported once, even if storing it takes long
    deliver(data(), {ClockSync{peerSSRC, 1, 1, 4, 0}});
    deliver(data(), {ClockSync{peerSSRC, 1, 2, 4, 0}});
    mainQueue->isHeldBack = false;
    time.run();
    deliver(data(), {ClockSync{peerSSRC, 1, 3, 4, 0}});
    time.calendar -= 1h; // the clock is set back behind the session's start
    deliver(data(), {ClockSync{peerSSRC, 0, 778, 0, 0}});
    EXPECT_EQ(data()->sentOf<ClockSync>(),
              (std::vector{ClockSync{1, 1, 777, 15000, 0}, ClockSync{1, 2, 1, 4, 15000},
                           ClockSync{1, 2, 2, 4, 15000}, ClockSync{1, 2, 3, 4, 15000},
                           ClockSync{1, 1, 778, 0, 0}}));
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData, Case::running}));
}

TEST_F(RTPMIDISessionTest, TheHeartbeatIsDenseForFiveTicksAndThenSparse) {
    runSession();
    const auto connection = data();
    connection->sent.clear();
    time.advance(36s);
    time.calendar += 24h * 120;
    time.advance(10s);
    session->stop();
    time.advance(60s);
    std::vector<std::uint64_t> times;
    for (const auto& each : connection->sentOf<ClockSync>())
        times.push_back(each.t1);
    EXPECT_EQ(times, (std::vector<std::uint64_t>{10'000, 20'000, 30'000, 40'000, 50'000, 150'000, 250'000,
                                                 350'000, 103'680'450'000}));
    EXPECT_EQ(connection->sent.size(), times.size() + 1); // and BY
}

TEST_F(RTPMIDISessionTest, ATickBeforeRunningIsStoredSendsNothingAndDoesNotCount) {
    inviteData();
    mainQueue->isHeldBack = true;
    deliver(data(), {ClockSync{peerSSRC, 1, 0, 0, 0}});
    data()->sent.clear();
    time.advance(2500ms);
    EXPECT_EQ(data()->sent.size(), 0u);
    mainQueue->isHeldBack = false;
    time.advance(10s); // ticks at 3, 4, 5, 6, 7, then at 17
    EXPECT_EQ(data()->sent.size(), 5u);
    time.advance(5s);
    EXPECT_EQ(data()->sent.size(), 6u);
}

TEST_F(RTPMIDISessionTest, TheSSRCIsDrawnOnceAndKept) {
    constexpr const char* key = "TessaryLink.localSSRC.v1";
    EXPECT_EQ(preferences.number(key), 1u);
    renew();
    EXPECT_EQ(preferences.writes, 1);
    preferences.setNumber(key, 0); // a stored 0 stays
    renew();
    inviteControl();
    EXPECT_EQ(control()->sentOf<Invitation>().back().ssrc, 0u);
}
