#include "Services/RTPMIDISession.h"

#include "support/Fakes.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

using State = RTPMIDISession::State;
using Case = RTPMIDISession::Case;
using ClockSync = AppleMIDIPacket::ClockSync;
using Invitation = AppleMIDIPacket::Invitation;
using Bye = AppleMIDIPacket::Bye;

class RTPMIDISessionTest : public testing::Test {
  protected:
    static constexpr std::uint32_t peerSSRC = 0xCAFE;

    std::shared_ptr<RTPMIDISession> makeSession(std::uint16_t port = 5004) {
        auto made = std::make_shared<RTPMIDISession>(machine.platform(), "iPad", IPv4Host{{10, 0, 0, 2}},
                                                     port, "Tessary Link");
        made->stateDidChange = [this](const State& state) {
            states.push_back(state.which);
            if (state.which == Case::failed) reasons.push_back(state.reason);
        };
        made->midiPacketReceived = [this](std::span<const std::uint8_t> datagram) {
            midi.emplace_back(datagram.begin(), datagram.end());
        };
        queue = machine.network.lastQueue;
        return made;
    }

    std::shared_ptr<FakeConnection> control() const { return machine.network.newest(51204); }
    std::shared_ptr<FakeConnection> data() const { return machine.network.newest(51205); }
    std::uint32_t lastToken(const std::shared_ptr<FakeConnection>& connection) const {
        return connection->sentOf<Invitation>().back().token;
    }

    void acceptOn(const std::shared_ptr<FakeConnection>& connection) {
        connection->deliver({AppleMIDIPacket::Accept{lastToken(connection), peerSSRC, "iPad"}});
    }
    void answerClock(std::uint64_t t1 = 10, std::uint64_t t2 = 20) {
        data()->deliver({ClockSync{peerSSRC, 1, t1, t2, 0}});
    }
    /// Takes the session to the state in which the data invitation is out.
    void inviteData() {
        session->start();
        machine.time.run();
        acceptOn(control());
        machine.time.run();
    }
    void runSession() {
        inviteData();
        acceptOn(data());
        machine.time.run();
        answerClock();
        machine.time.run();
    }

    FakeMachine machine;
    std::vector<Case> states;
    std::vector<std::string> reasons;
    std::vector<Bytes> midi;
    std::shared_ptr<VirtualTime::VirtualQueue> queue;
    std::shared_ptr<RTPMIDISession> session = makeSession();
    using States = std::vector<Case>;
};

} // namespace

TEST_F(RTPMIDISessionTest, InvitesOnBothPortsAndRunsAfterTheClockExchange) {
    runSession();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData, Case::syncing, Case::running}));
    EXPECT_EQ(control()->remotePort, 5004);
    EXPECT_EQ(data()->remotePort, 5005);

    const auto controlInvitation = control()->sentOf<Invitation>().at(0);
    const auto dataInvitation = data()->sentOf<Invitation>().at(0);
    EXPECT_NE(controlInvitation.token, dataInvitation.token);
    EXPECT_EQ(controlInvitation.name, "Tessary Link");
    EXPECT_EQ(controlInvitation.ssrc, dataInvitation.ssrc);

    const auto clocks = data()->sentOf<ClockSync>();
    ASSERT_EQ(clocks.size(), 2u);
    EXPECT_EQ(clocks[0].count, 0);
    EXPECT_EQ(clocks[1], (ClockSync{controlInvitation.ssrc, 2, 10, 20, 0}));

    const auto token = [](std::uint32_t value) { return " token=" + std::to_string(value); };
    EXPECT_EQ(machine.log.lines,
              (std::vector<std::string>{"[RTPMIDI] sent control IN to iPad" + token(controlInvitation.token),
                                        "[RTPMIDI] control OK from iPad",
                                        "[RTPMIDI] sent data IN to iPad" + token(dataInvitation.token),
                                        "[RTPMIDI] data OK from iPad — beginning clock sync",
                                        "[RTPMIDI] running with iPad"}));
    EXPECT_EQ(machine.network.labels, std::vector<std::string>{"tessary.rtpmidi-session"});
}

TEST_F(RTPMIDISessionTest, AcceptancesWithAnotherTokenOrInAnotherStateAreIgnored) {
    session->start();
    machine.time.run();
    control()->deliver({AppleMIDIPacket::Accept{lastToken(control()) + 1, peerSSRC, ""}});
    machine.time.run();
    EXPECT_EQ(session->state().which, Case::invitingControl);
    EXPECT_EQ(data(), nullptr);

    acceptOn(control());
    machine.time.run();
    acceptOn(control()); // the second of a doubled acceptance
    data()->deliver({AppleMIDIPacket::Accept{lastToken(control()), peerSSRC, ""}});
    machine.time.run();
    EXPECT_EQ(session->state().which, Case::invitingData);
    EXPECT_EQ(machine.network.made.size(), 2u);
}

TEST_F(RTPMIDISessionTest, AcceptancesThatOvertakeTheMainThreadAreNotLost) {
    machine.mainQueue->holdBack(); // the menu is busy
    session->start();
    machine.time.run();
    acceptOn(control());
    machine.time.run();
    EXPECT_EQ(data(), nullptr);
    machine.mainQueue->release();
    machine.time.run();
    ASSERT_NE(data(), nullptr);

    machine.mainQueue->holdBack();
    acceptOn(control()); // a double, now in vain
    acceptOn(data());
    machine.time.run();
    machine.mainQueue->release();
    machine.time.run();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData, Case::syncing}));
}

TEST_F(RTPMIDISessionTest, AStrangeAcceptanceThatOvertakesTheMainThreadIsNotHeld) {
    machine.mainQueue->holdBack();
    session->start();
    machine.time.run();
    control()->deliver({AppleMIDIPacket::Accept{lastToken(control()) + 1, peerSSRC, ""}});
    machine.time.run();
    machine.mainQueue->release();
    machine.time.run();
    EXPECT_EQ(data(), nullptr);

    machine.mainQueue->holdBack();
    acceptOn(control());
    machine.time.run();
    data()->deliver({AppleMIDIPacket::Accept{lastToken(data()) + 1, peerSSRC, ""}});
    machine.time.run();
    machine.mainQueue->release();
    machine.time.run();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData}));

    // The session has ended, and its end is not stored yet.
    const auto controlPort = control(), dataPort = data();
    machine.mainQueue->holdBack();
    session->stop();
    acceptOn(controlPort);
    acceptOn(dataPort);
    machine.time.run();
    machine.mainQueue->release();
    machine.time.run();
    EXPECT_EQ(states.back(), Case::idle);
}

TEST_F(RTPMIDISessionTest, ARejectionOrEndOfThePeerEndsIt) {
    const auto ending = [&](const AppleMIDIPacket& packet, bool onData) {
        session = makeSession();
        inviteData();
        const auto controlConnection = control(), dataConnection = data();
        states.clear();
        reasons.clear();
        (onData ? dataConnection : controlConnection)->deliver(packet);
        machine.time.run();
        EXPECT_EQ(states, (States{Case::failed, Case::idle}));
        // Both ports had been invited, so both hear the end, with their own tokens.
        EXPECT_EQ(controlConnection->sentOf<Bye>().at(0).token, lastToken(controlConnection));
        EXPECT_EQ(dataConnection->sentOf<Bye>().at(0).token, lastToken(dataConnection));
        return reasons.at(0);
    };
    const std::uint32_t anyToken = 0; // it is not compared
    EXPECT_EQ(ending({AppleMIDIPacket::Reject{anyToken, peerSSRC, ""}}, false),
              "control invitation rejected");
    EXPECT_EQ(ending({AppleMIDIPacket::Reject{anyToken, peerSSRC, ""}}, true), "data invitation rejected");
    EXPECT_EQ(ending({Bye{anyToken, peerSSRC}}, false), "peer sent BYE");
    EXPECT_EQ(ending({Bye{anyToken, peerSSRC}}, true), "peer BYE on data port");
}

TEST_F(RTPMIDISessionTest, StopSaysGoodbyeOnceAndCancelsATenthOfASecondLater) {
    runSession();
    const auto controlConnection = control(), dataConnection = data();
    session->stop();
    session->stop();
    EXPECT_EQ(controlConnection->sentOf<Bye>(), (std::vector{Bye{lastToken(controlConnection), 1}}));
    EXPECT_EQ(dataConnection->sentOf<Bye>(), (std::vector{Bye{lastToken(dataConnection), 1}}));
    session.reset(); // the connections outlive it
    machine.time.advance(99ms);
    EXPECT_FALSE(controlConnection->isCancelled);
    machine.time.advance(1ms);
    EXPECT_TRUE(controlConnection->isCancelled);
    EXPECT_TRUE(dataConnection->isCancelled);
    EXPECT_EQ(states.back(), Case::running); // a session that was let go reports nothing more
}

TEST_F(RTPMIDISessionTest, NothingLeavesAfterTheGoodbye) {
    session->stop();
    EXPECT_TRUE(machine.network.made.empty());
    machine.time.run();

    inviteData();
    const auto controlConnection = control(), dataConnection = data();
    session->stop();
    const auto sentOnControl = controlConnection->sent.size(), sentOnData = dataConnection->sent.size();
    controlConnection->becomeReady();
    dataConnection->becomeReady();
    dataConnection->deliver({ClockSync{peerSSRC, 0, 1, 0, 0}});
    machine.time.advance(30s);
    EXPECT_EQ(controlConnection->sent.size(), sentOnControl);
    EXPECT_EQ(dataConnection->sent.size(), sentOnData);
}

TEST_F(RTPMIDISessionTest, StartsAnewOnlyFromIdle) {
    runSession();
    session->start();
    machine.time.run();
    EXPECT_EQ(machine.network.made.size(), 2u);
    const auto oldToken = lastToken(control());

    session->stop();
    machine.time.advance(1500ms);
    states.clear();
    runSession();
    EXPECT_EQ(states.back(), Case::running);
    EXPECT_GT(lastToken(control()), oldToken);
    EXPECT_EQ(data()->sentOf<ClockSync>().at(0).t1, 0u); // a new origin of time
}

TEST_F(RTPMIDISessionTest, InvitesAnewWithANewTokenEachTimeAConnectionIsReady) {
    session->start();
    machine.time.run();
    const auto first = lastToken(control());
    control()->becomeReady();
    EXPECT_NE(lastToken(control()), first);
    control()->deliver({AppleMIDIPacket::Accept{first, peerSSRC, ""}});
    machine.time.run();
    EXPECT_EQ(session->state().which, Case::invitingControl);
    acceptOn(control());
    machine.time.run();
    EXPECT_EQ(session->state().which, Case::invitingData);
}

TEST_F(RTPMIDISessionTest, HandsOnEveryDatagramOfTheDataPortThatIsNoSessionPacket) {
    runSession();
    data()->deliver(Bytes{});
    data()->deliver("FFFF 'X'"_packet);
    data()->deliver("FFFF 'XX' 00000002"_packet);
    data()->deliver("FF00 0001"_packet);
    data()->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    control()->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    machine.time.run();
    EXPECT_EQ(midi, (std::vector<Bytes>{"FFFF 'X'"_packet, "FF00 0001"_packet,
                                        "8061 0001 00000000 000000AA 03 903C64"_packet}));

    session->midiPacketReceived = {}; // nobody listens
    data()->deliver("8061 0001 00000000 000000AA 03 903C64"_packet);
    machine.time.run();
    EXPECT_EQ(midi.size(), 3u);
}

TEST_F(RTPMIDISessionTest, ThePeerInvitesInVainAndHasTheClockOnOnePortAlone) {
    runSession();
    const auto sent = control()->sent.size() + data()->sent.size();
    const auto lines = machine.log.lines;
    for (const auto& connection : {control(), data()})
        connection->deliver({Invitation{77, peerSSRC, "iPad"}});
    control()->deliver({ClockSync{peerSSRC, 0, 1, 0, 0}});
    machine.time.run();
    EXPECT_EQ(control()->sent.size() + data()->sent.size(), sent);
    EXPECT_EQ(machine.log.lines, lines);
    EXPECT_EQ(states.back(), Case::running);
}

TEST_F(RTPMIDISessionTest, WhatIsOnItsWayWhenItEndsDoesNothing) {
    for (const bool isReleased : {false, true}) {
        SCOPED_TRACE(isReleased);
        states.clear();
        session = makeSession();
        runSession();
        const auto controlPort = control(), dataPort = data();
        const auto controlHandlers = controlPort->handlers(), dataHandlers = dataPort->handlers();
        const auto ticks = queue->ticksOnTheirWay();
        session->stop();
        if (isReleased) session.reset();
        machine.time.advance(1s);
        const auto sent = controlPort->sent.size() + dataPort->sent.size();
        const auto lines = machine.log.lines;
        const auto reported = states;
        for (const auto& handlers : {controlHandlers, dataHandlers}) {
            handlers.stateDidChange(ConnectionState::ready, {});
            handlers.stateDidChange(ConnectionState::cancelled, {});
        }
        for (const auto& tick : ticks)
            tick();
        const auto acceptance = AppleMIDIPacket{AppleMIDIPacket::Accept{1, peerSSRC, ""}}.encode();
        EXPECT_EQ(controlHandlers.received(acceptance, {}), isReleased ? Receive::stop : Receive::again);
        EXPECT_EQ(dataHandlers.received(acceptance, {}), isReleased ? Receive::stop : Receive::again);
        machine.time.advance(1s);
        EXPECT_EQ(controlPort->sent.size() + dataPort->sent.size(), sent);
        EXPECT_EQ(machine.log.lines, lines);
        EXPECT_EQ(states, reported);
    }
    // A connection that has gone itself.
    session = makeSession();
    session->start();
    const auto stateDidChange = control()->handlers().stateDidChange;
    session->stop();
    session.reset();
    machine.time.advance(1s);
    EXPECT_EQ(control(), nullptr);
    stateDidChange(ConnectionState::ready, {});
}

TEST_F(RTPMIDISessionTest, AReceiveErrorEndsThatReceiveLoopAlone) {
    runSession();
    const auto lines = machine.log.lines;
    data()->deliver({}, std::make_error_code(std::errc::io_error));
    data()->deliver("80 61"_packet);
    machine.time.run();
    EXPECT_TRUE(midi.empty());
    EXPECT_EQ(machine.log.lines, lines);
    EXPECT_EQ(session->state().which, Case::running);
    control()->deliver({Bye{1, peerSSRC}});
    machine.time.run();
    EXPECT_EQ(reasons, std::vector<std::string>{"peer sent BYE"});
}

TEST_F(RTPMIDISessionTest, ConnectionAndSendErrorsAreOneLineEachAndChangeNothing) {
    machine.network.isReadyByItself = false;
    session->start();
    machine.time.run();
    control()->fail(std::errc::address_in_use);
    control()->failSend(std::errc::network_unreachable);
    machine.time.run();
    EXPECT_EQ(machine.log.lines, (std::vector<std::string>{"[RTPMIDI] conn failed: Address already in use",
                                                           "[RTPMIDI] send error: Network is unreachable"}));
    EXPECT_EQ(session->state().which, Case::invitingControl);
}

TEST_F(RTPMIDISessionTest, AnswersClockExchangesOfThePeer) {
    inviteData();
    machine.time.advance(1500ms);
    data()->deliver({ClockSync{peerSSRC, 0, 777, 5, 6}});
    data()->deliver({ClockSync{peerSSRC, 2, 1, 2, 3}});
    data()->deliver({ClockSync{peerSSRC, 3, 1, 2, 3}});
    machine.time.run();
    EXPECT_EQ(data()->sentOf<ClockSync>(), (std::vector{ClockSync{1, 1, 777, 15000, 0}}));
    EXPECT_EQ(session->state().which, Case::invitingData);

    machine.time.calendar -= 1h; // set back: time below zero
    data()->deliver({ClockSync{peerSSRC, 0, 778, 0, 0}});
    machine.time.run();
    EXPECT_EQ(data()->sentOf<ClockSync>().back(), (ClockSync{1, 1, 778, 0, 0}));
}

TEST_F(RTPMIDISessionTest, ACountOneAnswerMakesAnyStateRunOnceHoweverBusyTheMainThreadIs) {
    inviteData();
    machine.mainQueue->holdBack();
    for (const std::uint64_t time : {1u, 2u, 3u}) {
        answerClock(time, 4);
        machine.time.run();
    }
    machine.mainQueue->release();
    machine.time.run();
    answerClock(5, 6);
    machine.time.run();
    EXPECT_EQ(states, (States{Case::invitingControl, Case::invitingData, Case::running}));
    EXPECT_EQ(machine.log.count("[RTPMIDI] running with iPad"), 1u);
    EXPECT_EQ(data()->sentOf<ClockSync>().size(), 4u);
    EXPECT_EQ(data()->sentOf<ClockSync>().back(), (ClockSync{1, 2, 5, 6, 0}));
}

TEST_F(RTPMIDISessionTest, TheHeartbeatIsDenseForFiveTicksAndThenSparse) {
    runSession();
    const std::size_t before = data()->sent.size();
    std::vector<std::uint64_t> beats;
    const auto listen = [&](std::chrono::nanoseconds duration) {
        machine.time.advance(duration);
        beats.clear();
        const auto clocks = data()->sentOf<ClockSync>();
        for (const auto& clock : clocks)
            if (clock.count == 0 && clock.t1 > 0) beats.push_back(clock.t1 / 10'000);
    };
    listen(36s);
    EXPECT_EQ(beats, (std::vector<std::uint64_t>{1, 2, 3, 4, 5, 15, 25, 35}));
    EXPECT_EQ(data()->sent.size(), before + 8);

    const auto connection = data();
    session->stop();
    machine.time.advance(60s);
    EXPECT_EQ(connection->sentOf<ClockSync>().size(), 2u + 8u);
}

TEST_F(RTPMIDISessionTest, ATickBeforeRunningIsStoredSendsNothingAndDoesNotCount) {
    inviteData();
    acceptOn(data());
    machine.time.run();
    machine.mainQueue->holdBack();
    answerClock();
    machine.time.advance(2500ms);
    EXPECT_EQ(data()->sentOf<ClockSync>().size(), 2u);
    machine.mainQueue->release();
    machine.time.advance(10s); // ticks at 3, 4, 5, 6, 7, then at 17
    EXPECT_EQ(data()->sentOf<ClockSync>().size(), 2u + 5u);
    machine.time.advance(5s);
    EXPECT_EQ(data()->sentOf<ClockSync>().size(), 2u + 6u);
}

TEST_F(RTPMIDISessionTest, TheSSRCIsDrawnOnceAndKept) {
    EXPECT_EQ(machine.preferences.number("TessaryLink.localSSRC.v1"), 1u);
    makeSession();
    EXPECT_EQ(machine.preferences.writes, 1);
    machine.preferences.setNumber("TessaryLink.localSSRC.v1", 0); // a stored 0 stays
    session = makeSession();
    session->start();
    machine.time.run();
    EXPECT_EQ(control()->sentOf<Invitation>().back().ssrc, 0u);
    machine.preferences.setTexts("TessaryLink.localSSRC.v1", {"77"});
    makeSession();
    EXPECT_TRUE(machine.preferences.number("TessaryLink.localSSRC.v1"));
}

TEST_F(RTPMIDISessionTest, APeerAtTheLastPortHasOnePortOnly) {
    session = makeSession(65535);
    inviteData();
    EXPECT_EQ(data()->remotePort, 65535);
}
