#include "Platform/asio/AsioNetwork.h"

#include "support/Await.h"
#include "support/PeerSocket.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace tessary;
using namespace tessary::test;
using namespace std::chrono_literals;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr IPv4Host firstHost{{127, 0, 1, 1}};
constexpr IPv4Host secondHost{{127, 0, 1, 2}};

/// A connection whose reports the test can wait for.
struct Listened {
    Listened(AsioNetwork& network, std::optional<std::uint16_t> localPort, IPv4Host host, std::uint16_t port)
        : connection(network.makeConnection(localPort, host, port)) {
        connection->setHandlers(
            {.stateDidChange =
                 [reports = reports](ConnectionState state, std::error_code error) {
                     reports->states.add({state, error});
                 },
             .received =
                 [reports = reports](std::span<const std::uint8_t> datagram, std::error_code) {
                     reports->datagrams.add(Bytes(datagram.begin(), datagram.end()));
                     return Receive::again;
                 },
             .sendFailed = [reports = reports](std::error_code error) { reports->errors.add(error); }});
        connection->start(network.makeQueue("test"));
    }

    std::optional<ConnectionState> nextState(std::chrono::milliseconds patience = 10s) {
        const auto report = reports->states.next(patience);
        return report ? std::optional(report->first) : std::nullopt;
    }

    struct All {
        Reports<std::pair<ConnectionState, std::error_code>> states;
        Reports<Bytes> datagrams;
        Reports<std::error_code> errors;
    };
    std::shared_ptr<All> reports = std::make_shared<All>();
    std::shared_ptr<UDPConnection> connection;
};

std::uint16_t freePort() {
    return PeerSocket(IPv4Host{}).port();
}

} // namespace

TEST(AsioNetworkTest, ConnectionsShareALocalPortAndHearTheirOwnPeerAlone) {
    AsioNetwork network({});
    const std::uint16_t local = freePort();
    PeerSocket first(firstHost), second(secondHost), stranger(IPv4Host{{127, 0, 1, 3}});
    Listened toFirst(network, local, firstHost, first.port()),
        toSecond(network, local, secondHost, second.port());
    ASSERT_EQ(toFirst.nextState(), ConnectionState::ready);
    ASSERT_EQ(toSecond.nextState(), ConnectionState::ready);

    toFirst.connection->send(Bytes{1});
    toSecond.connection->send(Bytes{2});
    EXPECT_EQ(first.receive().fromPort, local);
    EXPECT_EQ(second.receive().bytes, Bytes{2});
    stranger.sendTo(local, Bytes{9});
    second.sendTo(local, Bytes{});
    second.sendTo(local, Bytes{22});
    first.sendTo(local, Bytes{11});
    EXPECT_EQ(toFirst.reports->datagrams.next(), Bytes{11});
    EXPECT_EQ(toSecond.reports->datagrams.next(), Bytes{}); // a datagram of no bytes is one too
    EXPECT_EQ(toSecond.reports->datagrams.next(), Bytes{22});
    EXPECT_TRUE(toFirst.reports->datagrams.isEmpty());
}

TEST(AsioNetworkTest, NothingOfTheMomentBeforeConnectingIsHeard) {
    AsioNetwork network({});
    const std::uint16_t local = freePort();
    std::atomic<bool> isEnding = false;
    std::thread flood([&] {
        PeerSocket stranger(IPv4Host{{127, 0, 1, 3}});
        while (!isEnding)
            stranger.sendTo(local, Bytes{9});
    });
    PeerSocket peer(firstHost);
    std::vector<std::unique_ptr<Listened>> all;
    for (int i = 0; i < 200; ++i) {
        all.push_back(std::make_unique<Listened>(network, local, firstHost, peer.port()));
        ASSERT_EQ(all.back()->nextState(), ConnectionState::ready);
    }
    isEnding = true;
    flood.join();
    peer.sendTo(local, Bytes{1}); // the newest of equal ones receives it
    EXPECT_EQ(all.back()->reports->datagrams.next(), Bytes{1});
    for (const auto& each : all)
        EXPECT_TRUE(each->reports->datagrams.isEmpty());
}

TEST(AsioNetworkTest, AClosedPortMeansReadyAgainASecondLaterUntilThePeerIsHeard) {
    AsioNetwork network({});
    const std::uint16_t local = freePort(), remote = freePort();
    Listened late(network, local, firstHost, remote);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(late.nextState(), ConnectionState::ready);
        const auto before = std::chrono::steady_clock::now();
        late.connection->send(Bytes{1}); // refused
        if (i == 0) continue;
        PeerSocket peer(firstHost, remote); // the app opens its port
        ASSERT_EQ(late.nextState(), ConnectionState::ready);
        EXPECT_GE(std::chrono::steady_clock::now() - before, 900ms);
        late.connection->send(Bytes{2});
        EXPECT_EQ(peer.receive().bytes, Bytes{2});
        peer.sendTo(local, Bytes{3});
        EXPECT_EQ(late.reports->datagrams.next(), Bytes{3}); // the receive went on
    }
    late.connection->send(Bytes{4}); // closed again, but it was heard
    EXPECT_EQ(late.nextState(1500ms), std::nullopt);
    EXPECT_TRUE(late.reports->errors.isEmpty());
}

TEST(AsioNetworkTest, SilenceAloneBringsNoSecondReady) {
    AsioNetwork network({});
    PeerSocket silent(firstHost);
    Listened listened(network, freePort(), firstHost, silent.port());
    ASSERT_EQ(listened.nextState(), ConnectionState::ready);
    listened.connection->send(Bytes{1});
    EXPECT_EQ(listened.nextState(1500ms), std::nullopt);
}

TEST(AsioNetworkTest, ARefusalDoesNotEatTheGoodbye) {
    AsioNetwork network({});
    const std::uint16_t local = freePort(), remote = freePort();
    for (int i = 0; i < 50; ++i) {
        Listened listened(network, local, firstHost, remote);
        ASSERT_EQ(listened.nextState(), ConnectionState::ready);
        listened.connection->send(Bytes{1}); // its refusal waits at the socket, or is just being received
        PeerSocket peer(firstHost, remote);
        listened.connection->send(Bytes{2});
        EXPECT_EQ(peer.receive().bytes, Bytes{2});
        EXPECT_TRUE(listened.reports->errors.isEmpty());
    }
}

TEST(AsioNetworkTest, APortThatAnotherProgramHoldsFails) {
    AsioNetwork network({});
    const PeerSocket other(IPv4Host{});
    Listened listened(network, other.port(), firstHost, 5004);
    const auto report = listened.reports->states.next();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->first, ConnectionState::failed);
    EXPECT_EQ(report->second.message(), "Address already in use");
}

TEST(AsioNetworkTest, HeldPortsAreClosedToOthersAndOpenToOurselves) {
    const std::uint16_t held = freePort();
    AsioNetwork network({held});
    EXPECT_THROW(PeerSocket(IPv4Host{}, held), std::runtime_error);
    PeerSocket peer(firstHost);
    Listened listened(network, held, firstHost, peer.port());
    ASSERT_EQ(listened.nextState(), ConnectionState::ready);
    peer.sendTo(held, Bytes{1});
    EXPECT_EQ(listened.reports->datagrams.next(), Bytes{1});
}

TEST(AsioNetworkTest, AfterCancelOrDestructionNoHandlerIsEntered) {
    AsioNetwork network({});
    const std::uint16_t local = freePort();
    PeerSocket peer(firstHost);
    Listened cancelled(network, local, firstHost, peer.port());
    ASSERT_EQ(cancelled.nextState(), ConnectionState::ready);
    cancelled.connection->cancel();
    EXPECT_EQ(cancelled.nextState(), ConnectionState::cancelled);
    peer.sendTo(local, Bytes{1});

    Listened dropped(network, local, firstHost, peer.port());
    ASSERT_EQ(dropped.nextState(), ConnectionState::ready);
    dropped.connection.reset();
    peer.sendTo(local, Bytes{2});
    Listened third(network, local, firstHost, peer.port());
    ASSERT_EQ(third.nextState(), ConnectionState::ready);
    peer.sendTo(local, Bytes{3});
    EXPECT_EQ(third.reports->datagrams.next(), Bytes{3});
    EXPECT_TRUE(cancelled.reports->datagrams.isEmpty());
    EXPECT_TRUE(dropped.reports->datagrams.isEmpty());
}

TEST(AsioNetworkTest, TimersRepeatFollowANewScheduleAndEnd) {
    AsioNetwork network({});
    const auto queue = network.makeQueue("test");
    Reports<int> ticks;
    const auto timer = queue->makeTimer([&, count = 0](Timer& self) mutable {
        ticks.add(++count);
        if (count == 3) self.schedule(1ms, 1h);
    });
    timer->schedule(1ms, 1ms);
    for (int expected = 1; expected <= 4; ++expected)
        EXPECT_EQ(ticks.next(), expected);
    timer->schedule(1ms, 1ms);
    EXPECT_EQ(ticks.next(), 5);
    timer->cancel();
    while (ticks.next(20ms)) { // one may have been running
    }
    EXPECT_EQ(ticks.next(20ms), std::nullopt);
    Reports<int> once;
    network.backgroundQueue().postAfter(1ms, [&] { once.add(1); });
    EXPECT_EQ(once.next(), 1);
}
