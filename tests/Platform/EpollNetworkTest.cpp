#include "Platform/network/EpollNetwork.h"

#include "Platform/system/OpenFile.h"
#include "support/Await.h"
#include "support/PeerSocket.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <netinet/ip_icmp.h>
#include <numeric>
#include <sched.h>
#include <string>
#include <string_view>
#include <thread>

using namespace tessary;
using namespace tessary::test;
using namespace std::chrono_literals;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr IPv4Host firstHost{{127, 0, 1, 1}};
constexpr IPv4Host secondHost{{127, 0, 1, 2}};
constexpr IPv4Host strangerHost{{127, 0, 1, 3}};

std::uint16_t freePort() {
    return PeerSocket(IPv4Host{}).port();
}

Bytes bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

/// Keeps the network thread busy while it lives.
class Hold {
  public:
    explicit Hold(EpollNetwork& network) {
        Reports<bool> isHeld;
        network.backgroundQueue().post([&isHeld, released = release_.get_future().share()] {
            isHeld.add(true);
            released.wait();
        });
        isHeld.next();
    }
    ~Hold() { release_.set_value(); }

  private:
    std::promise<void> release_;
};

/// While it lives, this thread and those that it starts are in a network namespace with the address 10.77.0.1
/// and the loopback.
class OwnNetwork {
  public:
    ~OwnNetwork() { setns(before_.file(), CLONE_NEWNET); }

  private:
    const OpenFile before_{::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)};

  public:
    const bool isSeparate = ///< false where that needs root
        unshare(CLONE_NEWNET) == 0 &&
        std::system("ip link set lo up && ip link add lan type veth peer far && "
                    "ip link set lan up && ip link set far up && "
                    "ip addr add 10.77.0.1/24 dev lan") == 0;
};

/// Sends the ICMP error of a router or peer for a datagram from 127.0.0.1 to 127.0.1.1 (RFC 792).
void sendICMPError(std::uint16_t typeAndCode, std::uint16_t fromPort, std::uint16_t toPort) {
    std::array<std::uint16_t, 18> packet{
        typeAndCode, 0,      0,      0x0578,                                            // the next hop's MTU
        0x4500,      0x001C, 0,      0,      0x4011, 0, 0x7F00, 0x0001, 0x7F00, 0x0101, // IP
        fromPort,    toPort, 0x0008, 0,                                                 // UDP
    };
    const auto sum = std::accumulate(packet.begin(), packet.end(), 0U);
    const auto folded = (sum & 0xFFFF) + (sum >> 16);
    packet[1] = static_cast<std::uint16_t>(~(folded + (folded >> 16)));
    std::ranges::transform(packet, packet.begin(), htons);
    const sockaddr_in to = PeerSocket::endpoint({{127, 0, 0, 1}}, 0);
    const OpenFile file(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    EXPECT_EQ(sendto(file.file(), packet.data(), sizeof packet, 0, reinterpret_cast<const sockaddr*>(&to),
                     sizeof to),
              sizeof packet);
}

class EpollNetworkTest : public testing::Test {
  protected:
    /// Starts a connection, and waits until it is ready or has failed. What its handlers are called with is
    /// reported under its name.
    std::shared_ptr<UDPConnection> open(const std::string& name, std::uint16_t localPort, IPv4Host host,
                                        std::uint16_t port, Receive answer = Receive::again,
                                        const std::string& expected = " is ready") {
        auto connection = network.makeConnection(localPort, host, port);
        connection->setHandlers(
            {.stateDidChange =
                 [=, reports = reports](ConnectionState state, std::error_code error) {
                     reports->add(name + (error                             ? " failed: " + error.message()
                                          : state == ConnectionState::ready ? " is ready"
                                                                            : " is cancelled"));
                 },
             .received =
                 [=, reports = reports](std::span<const std::uint8_t> datagram, std::error_code) {
                     reports->add(name + " received " + std::string(datagram.begin(), datagram.end()));
                     return answer;
                 },
             .sendFailed = [=, reports = reports](auto) { reports->add(name + " failed to send"); }});
        connection->start(network.makeQueue("test"));
        EXPECT_EQ(next(), name + expected);
        return connection;
    }
    std::shared_ptr<UDPConnection> open(const std::string& name, Receive answer = Receive::again) {
        return open(name, local, firstHost, peer.port(), answer);
    }

    std::string next() { return reports->next().value_or("nothing"); }

    /// Waits until the network thread has done what was posted, and read at least five datagrams, as far as
    /// there are any, at each socket that was readable before.
    void settle() {
        for (int turn = 0; turn < 6; ++turn)
            const Hold hold(network);
    }

    /// Lets that time pass for the network thread: the timers that are due by then have fired.
    void pass(std::chrono::nanoseconds time) {
        settle();
        Reports<bool> passed;
        network.backgroundQueue().postAfter(time, [&] { passed.add(true); });
        passed.next();
    }

    OwnNetwork own;
    const std::uint16_t local = freePort();
    EpollNetwork network{std::initializer_list<std::uint16_t>{local}}; // holds it, as the program does
    PeerSocket peer{firstHost};
    std::shared_ptr<Reports<std::string>> reports = std::make_shared<Reports<std::string>>();
};

} // namespace

TEST_F(EpollNetworkTest, ConnectionsShareAHeldPortAndEachReceivesFromItsOwnPeerOnly) {
    EXPECT_THROW(PeerSocket(IPv4Host{}, local), std::runtime_error) << "another program";
    PeerSocket second(secondHost), stranger(strangerHost);
    const auto toFirst = open("first");
    const auto toSecond = open("second", local, secondHost, second.port());
    toFirst->send(bytes("to the first"));
    EXPECT_EQ(peer.receive().fromPort, local);
    toSecond->send(bytes("to the second"));
    EXPECT_EQ(second.receive().bytes, bytes("to the second"));

    stranger.sendTo(local, bytes("strange"));
    peer.sendTo(local, bytes("one"));
    EXPECT_EQ(next(), "first received one");
    for (const std::string text : {"", "two"}) { // an empty datagram is a datagram
        second.sendTo(local, bytes(text));
        EXPECT_EQ(next(), "second received " + text);
    }
}

// Between bind and connect a socket without a filter would accept any sender's datagrams.
TEST_F(EpollNetworkTest, DatagramsThatArriveWhileASocketIsConnectedAreFiltered) {
    std::atomic<bool> isEnding = false;
    std::atomic<int> sent = 0;
    std::thread flood([&] {
        PeerSocket stranger(strangerHost);
        for (; !isEnding; ++sent)
            stranger.sendTo(local, bytes("strange"));
    });
    std::deque<std::shared_ptr<UDPConnection>> opened;
    std::string newest;
    for (int i = 0; i < 200 || sent < 100'000; ++i) { // the flood may start late
        newest = std::to_string(i);
        opened.push_back(open(newest));
        if (opened.size() > 200) opened.pop_front();
    }
    isEnding = true;
    flood.join();
    peer.sendTo(local, bytes("one")); // to the newest of equal sockets
    EXPECT_EQ(next(), newest + " received one");
}

TEST_F(EpollNetworkTest, AClosedPortMeansReadyAgainASecondLaterUntilThePeerHasSentADatagram) {
    const std::uint16_t closed = freePort();
    const auto silent = open("silent");
    silent->send(bytes("to a peer that is silent"));
    const auto late = open("late", local, secondHost, closed);
    late->send(bytes("refused"));
    EXPECT_EQ(next(), "late is ready");
    const auto before = std::chrono::steady_clock::now();
    late->send(bytes("refused"));
    {
        PeerSocket app(secondHost, closed); // opens the port
        EXPECT_EQ(next(), "late is ready");
        EXPECT_GE(std::chrono::steady_clock::now() - before, 900ms);
        late->send(bytes("invitation"));
        EXPECT_EQ(app.receive().bytes, bytes("invitation"));
        app.sendTo(local, bytes("acceptance"));
        EXPECT_EQ(next(), "late received acceptance");
    }
    late->send(bytes("refused, but the peer has sent a datagram"));
    pass(1s);
    EXPECT_TRUE(reports->isEmpty());
}

TEST_F(EpollNetworkTest, APortThatAnotherProgramHoldsFailsOnceAndIsTriedAgainUntilItIsFree) {
    std::optional<PeerSocket> other(std::in_place, IPv4Host{});
    const auto connection =
        open("it", other->port(), firstHost, peer.port(), Receive::again, " failed: Address already in use");
    pass(5s);
    EXPECT_TRUE(reports->isEmpty()) << "a log line each five seconds";
    other.reset();
    EXPECT_EQ(next(), "it is ready");
}

// A socket that stays readable and watched would keep the thread busy.
TEST_F(EpollNetworkTest, AConnectionThatIsCancelledReleasedOrStoppedReceivesNothing) {
    const auto cancelled = open("cancelled");
    cancelled->cancel();
    EXPECT_EQ(next(), "cancelled is cancelled");
    peer.sendTo(local, bytes("one"));
    open("released").reset();
    peer.sendTo(local, bytes("two"));
    const auto stopped = open("stopped", Receive::stop);
    for (const auto* text : {"three", "four", "five"})
        peer.sendTo(local, bytes(text));
    settle();
    EXPECT_EQ(next(), "stopped received three");
    EXPECT_TRUE(reports->isEmpty());
}

// An ICMP error shows at the next call on the socket and can be forged: a send must be repeated, a receive
// must go on.
TEST_F(EpollNetworkTest, NoICMPErrorEndsReceivingOrLosesADatagramThatIsSent) {
    if (!own.isSeparate) GTEST_SKIP() << "sending ICMP needs root";
    const auto connection = open("it");
    std::vector<std::uint16_t> errors{ICMP_PARAMETERPROB << 8};
    for (std::uint16_t code = 0; code <= NR_ICMP_UNREACH; ++code)
        errors.push_back(ICMP_DEST_UNREACH << 8 | code);
    for (const std::uint16_t typeAndCode : errors) {
        SCOPED_TRACE(typeAndCode);
        {
            const Hold hold(network); // so that the send sees the error, not the receive
            sendICMPError(typeAndCode, local, peer.port());
            connection->send(bytes("sent"));
            EXPECT_EQ(peer.receive().bytes, bytes("sent"));
        }
        sendICMPError(typeAndCode, local, peer.port());
        peer.sendTo(local, bytes("answer"));
        ASSERT_EQ(next(), "it received answer");
    }
    settle();
    EXPECT_TRUE(reports->isEmpty());
}

// A device refuses an invitation on its data port that comes before the one on its control port. A superseded
// connection that opened anew would take its successor's datagrams.
TEST_F(EpollNetworkTest, WhenAddressesChangeConnectionsReopenInTheirOrderButNotSupersededOnes) {
    if (!own.isSeparate) GTEST_SKIP() << "making a network needs root";
    std::vector<std::shared_ptr<UDPConnection>> all;
    // Two ports of each of four devices. The first connection is superseded by the second.
    const std::vector<std::uint16_t> ports{7000, 7000, 7001, 7002, 7003, 7004, 7005, 7006, 7007};
    for (const auto port : ports) {
        const IPv4Host host{{10, 77, 0, static_cast<std::uint8_t>((port - 6996) / 2)}};
        all.push_back(open(std::to_string(port), port, host, 5004 + port % 2));
    }
    EXPECT_EQ(std::system("ip addr del 10.77.0.1/24 dev lan && ip addr add 10.77.0.9/24 dev lan"), 0);
    for (int port = 7000; port < 7008; ++port)
        EXPECT_EQ(next(), std::to_string(port) + " is ready");
    settle();
    EXPECT_TRUE(reports->isEmpty());
}

TEST_F(EpollNetworkTest, AFloodingPeerDelaysAnotherByOneDatagram) {
    PeerSocket calm(secondHost);
    const auto flooded = open("flooded"), other = open("other", local, secondHost, calm.port());
    {
        const Hold hold(network);
        for (int i = 0; i < 200; ++i)
            peer.sendTo(local, bytes("flood"));
        calm.sendTo(local, bytes("one"));
    }
    const std::string first = next(), second = next();
    EXPECT_TRUE(first == "other received one" || second == "other received one") << first << ", " << second;
}

TEST_F(EpollNetworkTest, TimersLeftAtTheEndAreDroppedEvenIfThatPostsMore) {
    int dropped = 0;
    std::shared_ptr<TimerQueue> queue;
    // What a timer owns, and whose destruction makes a timer that owns the next one.
    const std::function<std::shared_ptr<void>(int)> owned = [&](int more) {
        return std::shared_ptr<void>(nullptr, [&, more](void*) {
            ++dropped;
            if (more > 0) queue->postAfter(1h, [next = owned(more - 1)] {});
        });
    };
    {
        EpollNetwork ending({});
        queue = ending.makeQueue("test");
        queue->postAfter(1h, [last = owned(2)] {});
        { const Hold untilItIsATimer(ending); }
        ending.stop(); // as the program does, before it is destroyed
    }
    EXPECT_EQ(dropped, 3);
}

TEST_F(EpollNetworkTest, TimersRepeatFollowANewScheduleAndEnd) {
    const auto timer = network.makeQueue("test")->makeTimer([this, count = 0](Timer& self) mutable {
        reports->add(std::to_string(++count));
        if (count == 3) self.schedule(1ms, 1h);
    });
    timer->schedule(1ms, 1ms);
    for (const auto* expected : {"1", "2", "3", "4"})
        EXPECT_EQ(next(), expected);
    timer->schedule(1ms, 1ms);
    EXPECT_EQ(next(), "5");
    timer->cancel();
    settle();
    while (!reports->isEmpty()) // ticks from before
        next();
    pass(10ms);
    EXPECT_TRUE(reports->isEmpty());
}
