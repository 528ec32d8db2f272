#include "Services/PeerDiscovery.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace tessary;
using namespace tessary::test;

namespace {

const std::string midi = "_apple-midi._udp";
const std::string marker = "_tessarylink._tcp";

using Texts = std::vector<std::string>;

struct PeerDiscoveryTest : testing::Test, FakeMachine {
    void restart() {
        serviceDiscovery.browsers.clear();
        discovery = std::make_shared<PeerDiscovery>(platform());
        discovery->peersDidChange = std::function<void()>([this] { ++changes; });
        discovery->start();
    }
    void SetUp() override { restart(); }

    void see(const std::string& type, const Texts& names) {
        serviceDiscovery.browser(type).see(names);
        time.run();
    }
    /// The browser sees these services, "name host port, …" at 10.0.0.host; those that are new are resolved.
    void find(const std::string& type, const std::string& services) {
        std::istringstream fields(services);
        std::map<std::string, std::pair<std::string, int>> found;
        Texts names;
        std::string name, host;
        for (int port = 0; fields >> name >> host >> port; fields.ignore(1)) {
            names.push_back(name);
            found[name] = {"10.0.0." + host, port};
        }
        see(type, names);
        for (const auto& [each, endpoint] : found)
            if (const auto resolver = serviceDiscovery.resolver(type, each); !resolver->isStopped)
                resolver->succeed({endpoint.first}, endpoint.second);
    }
    /// The peers in the same form.
    std::string peers() const {
        std::set<std::string> sorted;
        for (const PeerHost& each : *discovery->tessaryPeers)
            sorted.insert(each.displayName + " " + each.ip.substr(7) + " " + std::to_string(each.port));
        std::string all;
        for (const std::string& each : sorted)
            all += (all.empty() ? "" : ", ") + each;
        return all;
    }

    int changes = 0;
    std::shared_ptr<PeerDiscovery> discovery;
};

} // namespace

TEST_F(PeerDiscoveryTest, JoinsAServiceWithTheMarkerAtItsAddress) {
    struct Case {
        std::string rule, services, markers, peers;
    };
    const std::vector<Case> cases{
        {"the address decides, not the name", "B 2 5006, A 3 5004", "A 2 1", "B 2 5006"},
        {"a port is 1 to 65535", "A 1 -1, B 2 0, C 3 1, D 4 65535, E 5 65536",
         "A 1 1, B 2 1, C 3 1, D 4 1, E 5 1", "C 3 1, D 4 65535"},
        {"of several at an address the one with the marker's name counts", "A 2 5006, B 2 5004, C 2 5008",
         "B 2 1", "B 2 5004"},
        {"a marker of that name at another address does not count", "A 2 5006, B 2 5004", "A 2 1, B 3 1",
         "A 2 5006"},
        {"of two marked services the second counts", "A 2 5006, B 2 5004", "A 2 1, B 2 1", "B 2 5004"},
    };
    for (const auto& [rule, services, markers, expected] : cases) {
        restart();
        find(midi, services);
        EXPECT_EQ(peers(), "") << rule;
        find(marker, markers);
        EXPECT_EQ(peers(), expected) << rule;
    }
}

TEST_F(PeerDiscoveryTest, TakesTheFirstAddress) {
    find(marker, "m 2 1");
    see(midi, {"IPv6 alone", "A"});
    serviceDiscovery.resolver(midi, "IPv6 alone")->succeed({}, 5004);
    serviceDiscovery.resolver(midi, "A")->succeed({"10.0.0.2", "10.0.0.1"}, 5004);
    EXPECT_EQ(peers(), "A 2 5004");
    EXPECT_EQ(discovery->appleMidiResolved->size(), 1u);
}

TEST_F(PeerDiscoveryTest, StartsBothBrowsersOnceOnItsQueue) {
    discovery->start();
    EXPECT_EQ(serviceDiscovery.browsers.size(), 2u);
    EXPECT_EQ(serviceDiscovery.browser(midi).queue, serviceDiscovery.queue);
    serviceDiscovery.browser(marker).handlers.failed("Access denied");
    EXPECT_EQ(log.lines, Texts{"[Discovery] browser _tessarylink._tcp failed: Access denied"});
}

TEST_F(PeerDiscoveryTest, ReportsAddressesThatComeAndGoAndNothingElse) {
    find(midi, "old 2 5004");
    EXPECT_EQ(changes, 0);
    find(marker, "m 2 1");
    EXPECT_EQ(changes, 1);

    find(midi, "old 2 5004, new 2 5006");
    see(midi, {"new"});
    EXPECT_EQ(peers(), "new 2 5006") << "another record at the same address is stored";
    EXPECT_EQ(changes, 1);

    see(marker, {});
    EXPECT_EQ(peers(), "");
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(discovery->appleMidiResolved->size(), 1u) << "a list removes names of its own type alone";
}

TEST_F(PeerDiscoveryTest, ResolvesEachNameOnceUntilItFailsOrLeaves) {
    const auto& resolvers = serviceDiscovery.resolvers;
    see(midi, {"same"});
    see(midi, {"same", "same"});
    see(marker, {"same"});
    ASSERT_EQ(resolvers.size(), 2u);
    EXPECT_EQ(resolvers[0]->domain, "local.");
    EXPECT_EQ(resolvers[0]->timeout, 5s);

    resolvers[0]->fail("Timeout reached");
    EXPECT_TRUE(resolvers[0]->isStopped);
    EXPECT_EQ(log.lines, Texts{"[Resolver] didNotResolve same: Timeout reached"});
    find(midi, "same 2 5004");
    find(marker, "same 2 1");
    see(midi, {"same"});
    see(marker, {"same"});
    EXPECT_EQ(resolvers.size(), 3u);
    EXPECT_TRUE(discovery->resolvers->empty());
    see(midi, {});
    see(midi, {"same"});
    EXPECT_EQ(resolvers.size(), 4u);
}

TEST_F(PeerDiscoveryTest, TheFirstCallbackOfAResolverDecidesEvenAfterItsServiceHasLeft) {
    find(marker, "m 2 1");
    see(midi, {"A"});
    see(midi, {});
    const auto held = discovery->resolvers->at(midi + "|A"); // as a callback in progress would hold it
    const auto resolver = serviceDiscovery.resolver(midi, "A");
    resolver->succeed({"10.0.0.2"}, 5004);
    resolver->fail("late");
    resolver->succeed({"10.0.0.3"}, 5005);
    EXPECT_EQ(peers(), "A 2 5004");
    EXPECT_EQ(log.lines, Texts{"[Resolver] didNotResolve A: late"});
    see(midi, {});
    EXPECT_EQ(peers(), "");
}

TEST_F(PeerDiscoveryTest, TrustedAddressesNeedNoMarkerAndOutliveTheProgram) {
    find(midi, "A 2 5004");
    discovery->markIPTrusted("10.0.0.9");
    discovery->markIPTrusted("10.0.0.2");
    EXPECT_EQ(peers(), "") << "recomputed inside the call";
    time.run();
    EXPECT_EQ(peers(), "A 2 5004");
    discovery->markIPTrusted("10.0.0.2");
    EXPECT_EQ(preferences.writes, 2);
    EXPECT_EQ(mainQueue->waiting(), 0u);
    restart();
    EXPECT_EQ(*discovery->trustedIPs, (std::set<std::string>{"10.0.0.2", "10.0.0.9"}));

    // One element that is no text spoils the list.
    preferences.arrays["TessaryLink.trustedPeerIPs.v1"] = {"10.0.0.2", std::nullopt};
    restart();
    EXPECT_TRUE(discovery->trustedIPs->empty());
}

TEST_F(PeerDiscoveryTest, PostedWorkHoldsTheDiscoveryAndNothingElseDoes) {
    const auto late = serviceDiscovery.browser(midi).handlers.resultsChanged;
    mainQueue->isHeldBack = true;
    see(midi, {"A"});
    const std::weak_ptr<PeerDiscovery> weak = discovery;
    discovery.reset();
    EXPECT_FALSE(weak.expired());
    mainQueue->isHeldBack = false;
    time.run();
    EXPECT_TRUE(weak.expired());
    late({{"late", midi, "local.", 2}});
    EXPECT_EQ(mainQueue->waiting(), 0u);
    const auto resolver = serviceDiscovery.resolver(midi, "A");
    EXPECT_TRUE(resolver->isStopped);
    resolver->succeed({"10.0.0.2"}, 5004);
    resolver->fail("late");
    EXPECT_TRUE(log.lines.empty());
}
