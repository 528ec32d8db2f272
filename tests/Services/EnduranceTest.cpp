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
    const std::vector<std::function<void()>> endings{[&] { world.arrive(51204, World::bye); },
                                                     [&] { world.arrive(51205, World::reject); },
                                                     [&] { world.reconnect(); }, [&] { world.disappear(); }};
    Use before;
    constexpr std::size_t connects = 10'000, warmUp = 100;
    for (std::size_t i = 0; i < warmUp + connects; ++i) {
        if (i == warmUp) before = Use();
        world.appear("10.0.0.2");
        world.time.advance(1s);
        world.accept("10.0.0.2");
        world.time.advance(16s); // heartbeats
        world.arrive(51205, World::midi);
        world.arrive(51205, "8061 0002 00000000 00000007 03 F001F0"_packet); // never completed
        ASSERT_EQ(*world.dialer->connectedPeerIPs(), std::vector<std::string>{"10.0.0.2"}) << i;
        endings[i % 4]();
        world.time.advance(200ms);
        ASSERT_EQ(world.wrongNow(), "") << i;
        world.forgetThePast();
    }
    expectSame(before, Use());
}
