#include "Models/Published.h"

#include "Models/PeerHost.h"

#include <gtest/gtest.h>

using namespace tessary;

TEST(PublishedTest, TellsObserversOfChangesAndStoresEqualValuesInSilence) {
    Published<PeerSet> peers;
    int changes = 0;
    Observation observation = peers.observe([&] { ++changes; });
    peers = PeerSet{{"10.0.0.2", "before", {}, 1}};
    EXPECT_EQ(changes, 1);
    peers = PeerSet{{"10.0.0.2", "after", {}, 2}}; // the same address: an equal value
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(peers->begin()->displayName, "after");

    peers.modify([](PeerSet& set) { return set.erase({"10.0.0.3", "", {}, 0}) != 0; });
    EXPECT_EQ(changes, 1);
    observation.reset();
    peers = PeerSet{};
    EXPECT_EQ(changes, 1);
}

TEST(PublishedTest, AnObserverMayEndItselfAndRegisterAnother) {
    Published<int> field;
    Observation first, second;
    int calls = 0;
    first = field.observe([&] {
        second = field.observe([&] { calls += 10; });
        first.reset();
        ++calls;
    });
    field = 1;
    field = 2;
    EXPECT_EQ(calls, 11);
}
