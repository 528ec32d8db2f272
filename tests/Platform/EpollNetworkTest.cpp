#include "Platform/network/EpollNetwork.h"

#include "support/Await.h"
#include "support/PeerSocket.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <netinet/udp.h>
#include <sched.h>
#include <string>
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
    Listened(EpollNetwork& network, std::optional<std::uint16_t> localPort, IPv4Host host, std::uint16_t port)
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

/// Keeps the network thread busy until it is released.
class Hold {
  public:
    explicit Hold(EpollNetwork& network) {
        network.backgroundQueue().post([state = state_] {
            state->isHeld = true;
            while (!state->isReleased)
                std::this_thread::yield();
        });
        while (!state_->isHeld)
            std::this_thread::yield();
    }
    ~Hold() { state_->isReleased = true; }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

  private:
    struct State {
        std::atomic<bool> isHeld = false, isReleased = false;
    };
    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

bool configure(const std::string& arguments) {
    return std::system(("ip " + arguments).c_str()) == 0;
}

/// Runs the body where this machine has the address 10.77.0.1 and no other but the loopback's; answers
/// whether that can be had.
bool inNetworkOfItsOwn(const std::function<void()>& body) {
    bool isApart = false;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) != 0) return;
        isApart = configure("link set lo up") && configure("link add lan type veth peer name far") &&
                  configure("link set lan up") && configure("link set far up") &&
                  configure("addr add 10.77.0.1/24 dev lan");
        if (isApart) body();
    }).join();
    return isApart;
}
constexpr const char* needsRoot = "making a network needs root";

/// Pretends that the network answers a datagram from 127.0.0.1 to the peer (RFC 792).
void answer(std::uint8_t type, std::uint8_t code, std::uint16_t fromPort, const IPv4Host& peer,
            std::uint16_t peerPort) {
    struct {
        icmphdr answer{};
        iphdr ip{};
        udphdr udp{};
    } packet;
    packet.answer.type = type;
    packet.answer.code = code;
    packet.answer.un.frag.mtu = htons(1400);
    packet.ip.version = 4;
    packet.ip.ihl = 5;
    packet.ip.ttl = 64;
    packet.ip.protocol = IPPROTO_UDP;
    packet.ip.tot_len = htons(sizeof packet.ip + sizeof packet.udp);
    packet.ip.saddr = htonl(INADDR_LOOPBACK);
    std::memcpy(&packet.ip.daddr, peer.bytes.data(), 4);
    packet.udp.source = htons(fromPort);
    packet.udp.dest = htons(peerPort);
    packet.udp.len = htons(sizeof packet.udp);
    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(&packet), sizeof packet);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 2)
        sum += static_cast<std::uint32_t>(bytes[i] | bytes[i + 1] << 8);
    sum = (sum & 0xFFFF) + (sum >> 16);
    packet.answer.checksum = static_cast<std::uint16_t>(~(sum + (sum >> 16)));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int file = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    EXPECT_EQ(sendto(file, &packet, sizeof packet, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(sizeof packet));
    close(file);
}

} // namespace

TEST(EpollNetworkTest, ConnectionsShareALocalPortAndHearTheirOwnPeerAlone) {
    EpollNetwork network({});
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

TEST(EpollNetworkTest, NothingOfTheMomentBeforeConnectingIsHeard) {
    EpollNetwork network({});
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

TEST(EpollNetworkTest, AClosedPortMeansReadyAgainASecondLaterUntilThePeerIsHeard) {
    EpollNetwork network({});
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

TEST(EpollNetworkTest, SilenceAloneBringsNoSecondReady) {
    EpollNetwork network({});
    PeerSocket silent(firstHost);
    Listened listened(network, freePort(), firstHost, silent.port());
    ASSERT_EQ(listened.nextState(), ConnectionState::ready);
    listened.connection->send(Bytes{1});
    EXPECT_EQ(listened.nextState(1500ms), std::nullopt);
}

TEST(EpollNetworkTest, ARefusalDoesNotEatTheGoodbye) {
    EpollNetwork network({});
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

TEST(EpollNetworkTest, APortThatAnotherProgramHoldsFailsOnceAndOpensWhenThatOneHasGone) {
    EpollNetwork network({});
    std::optional<PeerSocket> other(std::in_place, IPv4Host{});
    Listened listened(network, other->port(), firstHost, 5004);
    const auto report = listened.reports->states.next();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->first, ConnectionState::failed);
    EXPECT_EQ(report->second.message(), "Address already in use");
    EXPECT_FALSE(listened.reports->states.next(5500ms)); // it has been tried again in vain
    other.reset();
    EXPECT_EQ(listened.nextState(), ConnectionState::ready);
}

TEST(EpollNetworkTest, HeldPortsAreClosedToOthersAndOpenToOurselves) {
    const std::uint16_t held = freePort();
    EpollNetwork network({held});
    EXPECT_THROW(PeerSocket(IPv4Host{}, held), std::runtime_error);
    PeerSocket peer(firstHost);
    Listened listened(network, held, firstHost, peer.port());
    ASSERT_EQ(listened.nextState(), ConnectionState::ready);
    peer.sendTo(held, Bytes{1});
    EXPECT_EQ(listened.reports->datagrams.next(), Bytes{1});
}

TEST(EpollNetworkTest, AfterCancelOrDestructionNoHandlerIsEntered) {
    EpollNetwork network({});
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

TEST(EpollNetworkTest, NoAnswerOfTheNetworkMakesAConnectionDeafOrKeepsADatagramFromLeaving) {
    const bool isApart = inNetworkOfItsOwn([] {
        EpollNetwork network({});
        const std::uint16_t local = freePort();
        PeerSocket peer(firstHost);
        Listened listened(network, local, firstHost, peer.port());
        EXPECT_EQ(listened.nextState(), ConnectionState::ready);
        std::vector<std::pair<std::uint8_t, std::uint8_t>> answers{{ICMP_PARAMETERPROB, 0}};
        for (std::uint8_t code = 0; code <= NR_ICMP_UNREACH; ++code)
            answers.emplace_back(ICMP_DEST_UNREACH, code);
        for (const auto& [type, code] : answers) {
            SCOPED_TRACE(testing::Message() << "type " << int{type} << ", code " << int{code});
            {
                const Hold hold(network); // so that it is the sender who meets the answer
                answer(type, code, local, firstHost, peer.port());
                listened.connection->send(Bytes{code});
                EXPECT_EQ(peer.receive().bytes, Bytes{code});
            }
            answer(type, code, local, firstHost, peer.port());
            peer.sendTo(local, Bytes{code});
            ASSERT_EQ(listened.reports->datagrams.next(2s), Bytes{code});
        }
        EXPECT_TRUE(listened.reports->errors.isEmpty());
    });
    if (!isApart) GTEST_SKIP() << needsRoot;
}

TEST(EpollNetworkTest, WhenAddressesChangeTheNewestOfTwoConnectionsToAPeerHearsIt) {
    const bool isApart = inNetworkOfItsOwn([] {
        EpollNetwork network{};
        const IPv4Host peer{{10, 77, 0, 2}};
        const auto port = freePort();
        Listened ended(network, port, peer, 5004); // and not closed yet
        EXPECT_EQ(ended.nextState(), ConnectionState::ready);
        Listened present(network, port, peer, 5004);
        EXPECT_EQ(present.nextState(), ConnectionState::ready);
        ASSERT_TRUE(configure("addr del 10.77.0.1/24 dev lan") && configure("addr add 10.77.0.9/24 dev lan"));
        EXPECT_EQ(present.nextState(), ConnectionState::ready);
        const Hold untilBothHaveSeenIt(network);
        EXPECT_TRUE(ended.reports->states.isEmpty());
    });
    if (!isApart) GTEST_SKIP() << needsRoot;
}

TEST(EpollNetworkTest, WhenAddressesChangeThePortsAreOpenedAnewInTheirOrder) {
    const bool isApart = inNetworkOfItsOwn([] {
        EpollNetwork network{};
        Reports<int> ready;
        std::vector<std::shared_ptr<UDPConnection>> connections;
        for (int number = 0; number < 8; ++number) { // a control and a data port for each of four devices
            const IPv4Host peer{{10, 77, 0, static_cast<std::uint8_t>(2 + number / 2)}};
            connections.push_back(
                network.makeConnection(freePort(), peer, static_cast<std::uint16_t>(5004 + number % 2)));
            connections.back()->setHandlers(
                {.stateDidChange = [&ready, number](ConnectionState, std::error_code) { ready.add(number); },
                 .received = {},
                 .sendFailed = {}});
            connections.back()->start(network.makeQueue("test"));
            EXPECT_EQ(ready.next(), number);
        }
        ASSERT_TRUE(configure("addr del 10.77.0.1/24 dev lan") && configure("addr add 10.77.0.9/24 dev lan"));
        for (int number = 0; number < 8; ++number)
            EXPECT_EQ(ready.next(), number);
        network.stop(); // before what it reports to goes
    });
    if (!isApart) GTEST_SKIP() << needsRoot;
}

TEST(EpollNetworkTest, AFloodingPeerLeavesTheOthersTheirTurn) {
    EpollNetwork network({});
    const std::uint16_t local = freePort();
    PeerSocket flooding(firstHost), calm(secondHost);
    Reports<int> turns;
    const auto listen = [&](const PeerSocket& peer, IPv4Host host, int name) {
        auto connection = network.makeConnection(local, host, peer.port());
        connection->setHandlers({.stateDidChange = [&](ConnectionState, std::error_code) { turns.add(0); },
                                 .received =
                                     [&turns, name](std::span<const std::uint8_t>, std::error_code) {
                                         turns.add(name);
                                         return Receive::again;
                                     },
                                 .sendFailed = {}});
        connection->start(network.makeQueue("test"));
        EXPECT_EQ(turns.next(), 0);
        return connection;
    };
    const auto one = listen(flooding, firstHost, 1), two = listen(calm, secondHost, 2);
    {
        const Hold hold(network);
        for (int i = 0; i < 200; ++i)
            flooding.sendTo(local, Bytes{1});
        calm.sendTo(local, Bytes{2});
    }
    int before = 0;
    while (turns.next() == 1)
        ++before;
    EXPECT_LE(before, 1);
}

TEST(EpollNetworkTest, WhatNobodyWantsAnyMoreCostsNothing) {
    EpollNetwork network({});
    PeerSocket peer(firstHost);
    const std::uint16_t local = freePort();
    Reports<int> heard;
    const auto connection = network.makeConnection(local, firstHost, peer.port());
    connection->setHandlers({.stateDidChange = [&](ConnectionState, std::error_code) { heard.add(0); },
                             .received =
                                 [&](std::span<const std::uint8_t>, std::error_code) {
                                     heard.add(1);
                                     return Receive::stop;
                                 },
                             .sendFailed = {}});
    connection->start(network.makeQueue("test"));
    EXPECT_EQ(heard.next(), 0);
    for (int i = 0; i < 3; ++i)
        peer.sendTo(local, Bytes{1}); // two of them stay where they are
    EXPECT_EQ(heard.next(), 1);
    const std::clock_t before = std::clock();
    EXPECT_EQ(heard.next(200ms), std::nullopt);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20); // the thread sleeps
}

TEST(EpollNetworkTest, WhatIsLeftAtTheEndIsDroppedEvenIfItPostsOnceMore) {
    std::atomic<int> dropped = 0;
    struct Last {
        Last(std::shared_ptr<TimerQueue> itsQueue, std::atomic<int>& count, int itsGeneration)
            : queue(std::move(itsQueue))
            , dropped(count)
            , generation(itsGeneration) {}
        Last(const Last&) = delete;
        Last& operator=(const Last&) = delete;
        ~Last() {
            ++dropped;
            if (generation == 0) return;
            auto next = std::make_shared<Last>(queue, dropped, generation - 1);
            queue->postAfter(1h, [next] {});
        }
        const std::shared_ptr<TimerQueue> queue;
        std::atomic<int>& dropped;
        const int generation;
    };
    {
        EpollNetwork network({});
        const auto queue = network.makeQueue("test");
        queue->postAfter(1h, [last = std::make_shared<Last>(queue, dropped, 2)] {});
        const Hold hold(network); // by now it waits as a timer
    }
    EXPECT_EQ(dropped, 3);
}

TEST(EpollNetworkTest, TimersRepeatFollowANewScheduleAndEnd) {
    EpollNetwork network({});
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
