#include "Services/PeerDiscovery.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

const std::string midi = "_apple-midi._udp";
const std::string marker = "_tessarylink._tcp";
const std::string trustedKey = "TessaryLink.trustedPeerIPs.v1";

class PeerDiscoveryTest : public testing::Test {
  protected:
    std::shared_ptr<PeerDiscovery> makeStarted() {
        auto made = std::make_shared<PeerDiscovery>(machine.platform());
        made->peersDidChange = std::function<void()>([this] { ++changes; });
        made->start();
        return made;
    }
    void see(const std::string& type, const std::vector<std::string>& names) {
        machine.serviceDiscovery.browser(type).see(names);
        machine.time.run();
    }
    FakeResolver& resolver(const std::string& type, const std::string& name) {
        const auto found = machine.serviceDiscovery.resolver(type, name);
        if (!found) throw std::out_of_range(name);
        return *found;
    }
    /// "ip name port" of each peer.
    std::set<std::string> peers() const {
        std::set<std::string> texts;
        for (const PeerHost& peer : *discovery->tessaryPeers)
            texts.insert(peer.ip + " " + peer.displayName + " " + std::to_string(peer.port));
        return texts;
    }
    using Peers = std::set<std::string>;

    FakeMachine machine;
    int changes = 0;
    std::shared_ptr<PeerDiscovery> discovery = makeStarted();
};

} // namespace

TEST_F(PeerDiscoveryTest, StartsBothBrowsersOnceOnItsQueue) {
    discovery->start();
    EXPECT_EQ(machine.serviceDiscovery.browsers.size(), 2u);
    EXPECT_EQ(machine.serviceDiscovery.labels, std::vector<std::string>{"tessary.link-discovery"});
    EXPECT_EQ(machine.serviceDiscovery.browser(midi).queue, machine.serviceDiscovery.queue);
    machine.serviceDiscovery.browser(marker).handlers.failed("Access denied");
    EXPECT_EQ(machine.log.lines,
              std::vector<std::string>{"[Discovery] browser _tessarylink._tcp failed: Access denied"});
}

TEST_F(PeerDiscoveryTest, JoinsBothServicesByAddress) {
    see(midi, {"B", "plain"});
    see(marker, {"A"});
    resolver(midi, "plain").succeed({"192.168.1.30"}, 5004);
    resolver(midi, "B").succeed({"192.168.1.20"}, 5006);
    EXPECT_EQ(peers(), Peers{});
    EXPECT_EQ(changes, 0);
    resolver(marker, "A").succeed({"192.168.1.20"}, 1);
    EXPECT_EQ(peers(), Peers{"192.168.1.20 B 5006"});
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(resolver(midi, "B").domain, "local.");
    EXPECT_EQ(resolver(midi, "B").timeout, 5s);

    see(marker, {});
    EXPECT_EQ(peers(), Peers{});
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(discovery->appleMidiResolved->size(), 2u); // the other type's map is its own
}

TEST_F(PeerDiscoveryTest, OneResolverAKeyAndNoneForKnownNames) {
    see(midi, {"same"});
    see(midi, {"same", "same"});
    see(marker, {"same"});
    EXPECT_EQ(machine.serviceDiscovery.resolvers.size(), 2u);
    EXPECT_EQ(discovery->resolvers->size(), 2u);
    resolver(midi, "same").succeed({"10.0.0.2"}, 5004);
    resolver(marker, "same").succeed({"10.0.0.2"}, 5004);
    see(midi, {"same"});
    EXPECT_EQ(machine.serviceDiscovery.resolvers.size(), 2u);
    EXPECT_EQ(peers(), Peers{"10.0.0.2 same 5004"});

    see(midi, {});
    see(midi, {"same"});
    EXPECT_EQ(machine.serviceDiscovery.resolvers.size(), 3u);
}

TEST_F(PeerDiscoveryTest, AFailedResolutionIsALineAndIsTriedAgainAtTheNextBatch) {
    see(midi, {"iPad"});
    const auto first = machine.serviceDiscovery.resolver(midi, "iPad");
    first->fail("Timeout reached");
    EXPECT_TRUE(first->isStopped);
    EXPECT_TRUE(discovery->resolvers->empty());
    see(midi, {"iPad"});
    EXPECT_NE(machine.serviceDiscovery.resolver(midi, "iPad"), first);
    EXPECT_EQ(machine.log.lines, std::vector<std::string>{"[Resolver] didNotResolve iPad: Timeout reached"});
}

TEST_F(PeerDiscoveryTest, TheFirstCallbackOfAResolverDecidesAndEachFailureIsALine) {
    see(midi, {"iPad"});
    see(marker, {"iPad"});
    resolver(marker, "iPad").succeed({"10.0.0.2"}, 1);
    const auto held = discovery->resolvers->at(midi + "|iPad"); // as a callback in progress would hold it
    resolver(midi, "iPad").succeed({"10.0.0.2"}, 5004);
    resolver(midi, "iPad").fail("late");
    resolver(midi, "iPad").succeed({"10.0.0.3"}, 5005);
    EXPECT_EQ(peers(), Peers{"10.0.0.2 iPad 5004"});
    EXPECT_EQ(machine.log.count("[Resolver] didNotResolve iPad: late"), 1u);
}

TEST_F(PeerDiscoveryTest, ALateSuccessIsStoredUntilTheNextBatch) {
    see(marker, {"m"});
    resolver(marker, "m").succeed({"10.0.0.2"}, 1);
    see(midi, {"iPad"});
    see(midi, {});
    resolver(midi, "iPad").succeed({"10.0.0.2"}, 5004);
    EXPECT_EQ(peers(), Peers{"10.0.0.2 iPad 5004"});
    see(midi, {});
    EXPECT_EQ(peers(), Peers{});
}

TEST_F(PeerDiscoveryTest, TakesTheFirstAddressAndAPortThatIsOne) {
    see(marker, {"m"});
    resolver(marker, "m").succeed({"10.0.0.2"}, 1);
    for (const int port : {-1, 0, 65536}) {
        see(midi, {"iPad"});
        resolver(midi, "iPad").succeed({"10.0.0.2"}, port);
        EXPECT_EQ(peers(), Peers{}) << port;
    }
    see(midi, {"iPad"});
    resolver(midi, "iPad").succeed({}, 5004); // no address that can be dialled
    EXPECT_EQ(peers(), Peers{});
    see(midi, {"iPad"});
    resolver(midi, "iPad").succeed({"10.0.0.2", "10.0.0.1"}, 65535);
    EXPECT_EQ(peers(), Peers{"10.0.0.2 iPad 65535"});
}

TEST_F(PeerDiscoveryTest, AnotherRecordAtAKnownAddressReplacesTheOldInSilence) {
    see(marker, {"m"});
    resolver(marker, "m").succeed({"10.0.0.2"}, 1);
    see(midi, {"old"});
    resolver(midi, "old").succeed({"10.0.0.2"}, 5004);
    see(midi, {"old", "new"});
    resolver(midi, "new").succeed({"10.0.0.2"}, 5006);
    EXPECT_EQ(discovery->tessaryPeers->size(), 1u);
    int notifications = 0;
    const auto observation = discovery->tessaryPeers.observe([&] { ++notifications; });
    see(midi, {"new"});
    EXPECT_EQ(peers(), Peers{"10.0.0.2 new 5006"});
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(notifications, 0);
}

TEST_F(PeerDiscoveryTest, OfTwoServicesAtAnAddressTheOneWithTheMarkersNameCounts) {
    see(midi, {"Drums", "Piano", "Zither"});
    see(marker, {"Piano"});
    resolver(midi, "Drums").succeed({"10.0.0.2"}, 5006);
    resolver(midi, "Zither").succeed({"10.0.0.2"}, 5008);
    resolver(midi, "Piano").succeed({"10.0.0.2"}, 5004);
    EXPECT_EQ(peers(), Peers{});
    resolver(marker, "Piano").succeed({"10.0.0.2"}, 5004);
    EXPECT_EQ(peers(), Peers{"10.0.0.2 Piano 5004"});
    see(midi, {"Drums", "Zither"});
    EXPECT_EQ(peers().size(), 1u); // either of them
    EXPECT_EQ(changes, 1);
}

TEST_F(PeerDiscoveryTest, TrustedAddressesNeedNoMarkerAndOutliveTheProgram) {
    see(midi, {"iPad"});
    resolver(midi, "iPad").succeed({"10.0.0.2"}, 5004);
    discovery->markIPTrusted("10.0.0.9");
    discovery->markIPTrusted("10.0.0.2");
    EXPECT_EQ(peers(), Peers{}); // never inside the call
    machine.time.run();
    EXPECT_EQ(peers(), Peers{"10.0.0.2 iPad 5004"});
    const int writes = machine.preferences.writes;
    discovery->markIPTrusted("10.0.0.2");
    EXPECT_EQ(machine.preferences.writes, writes);
    EXPECT_EQ(machine.mainQueue->waiting(), 0u);

    machine.serviceDiscovery.browsers.clear();
    discovery = makeStarted();
    see(midi, {"iPad"});
    resolver(midi, "iPad").succeed({"10.0.0.2"}, 5004);
    EXPECT_EQ(peers(), Peers{"10.0.0.2 iPad 5004"});
}

TEST_F(PeerDiscoveryTest, OneElementThatIsNoTextSpoilsTheStoredAddresses) {
    machine.preferences.values[trustedKey] =
        std::vector<std::optional<std::string>>{"10.0.0.2", std::nullopt};
    EXPECT_TRUE(std::make_shared<PeerDiscovery>(machine.platform())->trustedIPs->empty());
    machine.preferences.values[trustedKey] = 5u;
    const auto fresh = std::make_shared<PeerDiscovery>(machine.platform());
    EXPECT_TRUE(fresh->trustedIPs->empty());
    fresh->markIPTrusted("10.0.0.7");
    EXPECT_EQ(machine.preferences.array(trustedKey), std::vector<std::optional<std::string>>{"10.0.0.7"});
}

TEST_F(PeerDiscoveryTest, PostedWorkHoldsTheDiscoveryAndNothingElseDoes) {
    auto& browser = machine.serviceDiscovery.browser(midi);
    const auto late = browser.handlers.resultsChanged;
    machine.mainQueue->holdBack();
    browser.see({"iPad"});
    machine.time.run();
    const std::weak_ptr<PeerDiscovery> weak = discovery;
    discovery.reset();
    EXPECT_FALSE(weak.expired());
    machine.mainQueue->release();
    machine.time.run();
    EXPECT_TRUE(weak.expired());
    late({{"late", midi, "local.", 2}});
    EXPECT_EQ(machine.mainQueue->waiting(), 0u);
    EXPECT_TRUE(resolver(midi, "iPad").isStopped);
    resolver(midi, "iPad").succeed({"10.0.0.2"}, 5004);
    resolver(midi, "iPad").fail("late");
    EXPECT_TRUE(machine.log.lines.empty());
}
