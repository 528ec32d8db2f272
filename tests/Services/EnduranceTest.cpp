// Weeks of running in seconds: memory and files in use do not grow.
#include "support/World.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <malloc.h>

using namespace tessary;
using namespace tessary::test;

namespace {

struct Use {
    /// Allocated; 0 under a sanitizer, which looks for leaks itself.
    double bytes = static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd);
    std::ptrdiff_t files = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
};

/// The same, but for the spare capacity of the test's own containers.
void expectSame(const Use& before, const Use& after) {
    EXPECT_NEAR(after.bytes, before.bytes, 4096);
    EXPECT_EQ(after.files, before.files);
}

} // namespace

TEST(EnduranceTest, TenThousandConnectsAndDisconnects) {
    World world;
    world.startDialer();
    Use before;
    constexpr int connects = 10'000, warmUp = 100;
    for (int i = 0; i < warmUp + connects; ++i) {
        if (i == warmUp) before = Use();
        world.appear("10.0.0.2");
        world.time.advance(1s);
        world.accept("10.0.0.2");
        world.arrive(51205, World::midi);
        world.arrive(51205, "8061 0002 00000000 00000007 03 F001F0"_packet); // never completed
        ASSERT_EQ(*world.dialer->connectedPeerIPs(), std::vector<std::string>{"10.0.0.2"}) << i;
        switch (i % 4) { // each way in which a session ends
        case 0:
            world.arrive(51204, World::bye);
            break;
        case 1:
            world.arrive(51205, World::reject);
            break;
        case 2:
            world.reconnect();
            break;
        default:
            world.disappear();
        }
        world.time.advance(200ms);
        ASSERT_EQ(world.wrongNow(), "") << i;
        world.forgetThePast();
    }
    expectSame(before, Use());
}

TEST(EnduranceTest, AMillionHeartbeats) {
    World world;
    const auto session = world.makeSession();
    session->start();
    world.time.run();
    world.accept("10.0.0.2");
    const auto data = world.network.newest(51205);
    world.time.advance(5s); // the dense ones

    Use before;
    constexpr int heartbeats = 1'000'000, warmUp = 1000;
    std::uint64_t last = 0;
    for (int i = 0; i < warmUp + heartbeats; ++i) {
        if (i == warmUp) before = Use();
        data->sent.clear();
        world.time.advance(10s);
        ASSERT_EQ(data->sent.size(), 1u) << i;
        const auto beat = AppleMIDIPacket::decode(data->sent[0]);
        ASSERT_TRUE(beat);
        const auto t1 = std::get<AppleMIDIPacket::ClockSync>(beat->value).t1;
        ASSERT_GT(t1, last) << i;
        last = t1;
        data->deliver({AppleMIDIPacket::ClockSync{7, 1, t1, t1, 0}}); // the peer answers
        world.time.run();
        ASSERT_EQ(data->sent.size(), 2u) << i;
    }
    data->sent.clear();
    expectSame(before, Use());
    EXPECT_EQ(session->state().which, RTPMIDISession::Case::running);
    // A third of a year, to the tenth of a millisecond.
    EXPECT_EQ(last, static_cast<std::uint64_t>(5 + 10LL * (warmUp + heartbeats)) * 10'000);
}
