// Discovery by its own process, on real links: each test has a network namespace of its own, joined to that
// of a simulated device.
#include "Platform/discovery/DiscoveryClient.h"

#include "Confinement.h"
#include "Loop.h"
#include "Platform/discovery/Messages.h"
#include "Platform/network/EventLoop.h"
#include "ServiceBrowse.h"
#include "support/Fakes.h"

#include <avahi-client/client.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <avahi-core/publish.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <net/if.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

using namespace tessary;
using namespace tessary::test;
using namespace std::chrono_literals;

namespace {

using Names = std::set<std::string>;
using Texts = std::vector<std::string>;

constexpr const char* appleMIDI = "_apple-midi._udp";
constexpr const char* marker = "_tessarylink._tcp";

bool run(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

/// The main thread's loop, which runs while the test waits for something.
class MainQueue : public Queue {
  public:
    void post(std::function<void()> work) override { loop.post(std::move(work)); }

    template <typename Condition>
    bool runUntil(Condition isMet) {
        const auto end = std::chrono::steady_clock::now() + 15s;
        while (!isMet() && std::chrono::steady_clock::now() < end)
            loop.serveOne(100);
        return isMet();
    }

    EventLoop loop;
};

/// A responder in a namespace of its own, at the other end of links "near0", "near1" … of the test's.
class Device {
  public:
    explicit Device(int links) {
        std::promise<pid_t> isApart;
        thread_ = std::thread([&] {
            isApart.set_value(unshare(CLONE_NEWNET) == 0 ? gettid() : 0);
            loop_.run();
        });
        const std::string process = std::to_string(isApart.get_future().get());
        for (int index = 0; index < links; ++index) {
            const std::string near = "near" + std::to_string(index), far = "far" + std::to_string(index);
            const std::string subnet = "10.5" + std::to_string(index) + ".0.";
            EXPECT_TRUE(run("ip link add " + near + " type veth peer name " + far + " netns " + process));
            EXPECT_TRUE(
                run("ip addr add " + subnet + "1/24 dev " + near + " && ip link set " + near + " up"));
            call([&] {
                EXPECT_TRUE(
                    run("ip addr add " + subnet + "2/24 dev " + far + " && ip link set " + far + " up"));
            });
        }
        call([&] { startServer(); });
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device() {
        avahi_threaded_poll_stop(poll_);
        avahi_server_free(server_);
        avahi_threaded_poll_free(poll_);
        loop_.stop();
        thread_.join();
    }

    AvahiSEntryGroup* addAddress(const std::string& host, const std::string& text, int linkIndex) {
        return publish([=](AvahiServer* server, AvahiSEntryGroup* group) {
            AvahiAddress address;
            avahi_address_parse(text.c_str(), AVAHI_PROTO_UNSPEC, &address);
            const auto interface =
                static_cast<int>(if_nametoindex(("far" + std::to_string(linkIndex)).c_str()));
            return avahi_server_add_address(server, group, interface, AVAHI_PROTO_UNSPEC,
                                            AVAHI_PUBLISH_NO_REVERSE, host.c_str(), &address);
        });
    }

    AvahiSEntryGroup* addService(const std::string& name, const std::string& type, const std::string& host,
                                 std::uint16_t port) {
        return publish([=](AvahiServer* server, AvahiSEntryGroup* group) {
            return avahi_server_add_service(server, group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                            AvahiPublishFlags{}, name.c_str(), type.c_str(), nullptr,
                                            host.c_str(), port, nullptr);
        });
    }

    /// Lists a service without saying where it is.
    AvahiSEntryGroup* addName(const std::string& name, const std::string& type) {
        return publish([=](AvahiServer* server, AvahiSEntryGroup* group) {
            AvahiRecord* const pointer =
                avahi_record_new_full((type + ".local").c_str(), AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_PTR, 120);
            pointer->data.ptr.name = avahi_strdup((name + "." + type + ".local").c_str());
            const int error = avahi_server_add(server, group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                               AvahiPublishFlags{}, pointer);
            avahi_record_unref(pointer);
            return error;
        });
    }

    void withdraw(AvahiSEntryGroup* group) {
        avahi_threaded_poll_lock(poll_);
        avahi_s_entry_group_free(group);
        avahi_threaded_poll_unlock(poll_);
    }

  private:
    void startServer() {
        avahi_set_log_function([](AvahiLogLevel, const char*) {});
        AvahiServerConfig config;
        avahi_server_config_init(&config);
        config.publish_hinfo = config.publish_addresses = config.publish_workstation = config.publish_domain =
            0;
        poll_ = avahi_threaded_poll_new();
        server_ = avahi_server_new(
            avahi_threaded_poll_get(poll_), &config, [](AvahiServer*, AvahiServerState, void*) {}, nullptr,
            nullptr);
        avahi_server_config_free(&config);
        ASSERT_NE(server_, nullptr);
        avahi_threaded_poll_start(poll_);
    }

    AvahiSEntryGroup* publish(const std::function<int(AvahiServer*, AvahiSEntryGroup*)>& add) {
        AvahiSEntryGroup* group = nullptr;
        call([&] {
            avahi_threaded_poll_lock(poll_);
            group = avahi_s_entry_group_new(server_, nullptr, nullptr);
            EXPECT_EQ(add(server_, group), AVAHI_OK);
            avahi_s_entry_group_commit(group);
            avahi_threaded_poll_unlock(poll_);
        });
        return group;
    }

    /// In the device's namespace.
    void call(const std::function<void()>& work) {
        std::promise<void> done;
        loop_.post([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    EventLoop loop_;
    AvahiThreadedPoll* poll_ = nullptr;
    AvahiServer* server_ = nullptr;
    std::thread thread_;
};

/// A program that the test starts; it ends with the test at the latest.
class Process {
  public:
    explicit Process(const std::string& command) {
        if ((process_ = fork()) != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = open("/dev/null", O_RDWR);
        for (int descriptor = 0; descriptor <= 2; ++descriptor)
            dup2(null, descriptor);
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
    }

  private:
    pid_t process_;
};

class DiscoveryTest : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0 || !run("command -v ip >/dev/null") || unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "needs root and iproute2, for network namespaces";
        ASSERT_TRUE(run("ip link set lo up"));
        // Nobody listens there but where a test starts a bus.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (folder_ / "bus").string()).c_str(), 1);
        std::filesystem::create_directories(folder_);
    }
    void TearDown() override {
        discovery_.reset();
        setns(home_, CLONE_NEWNET);
        close(home_);
        std::filesystem::remove_all(folder_);
    }

    DiscoveryClient& discovery() {
        if (!discovery_)
            discovery_ = std::make_unique<DiscoveryClient>(mainQueue_.loop, mainQueue_, log_, executable_);
        return *discovery_;
    }

    struct Browsed {
        std::shared_ptr<std::deque<Names>> sets = std::make_shared<std::deque<Names>>();
        std::unique_ptr<ServiceBrowser> browser;
    };
    Browsed browse(const char* type) {
        Browsed browsed;
        browsed.browser = discovery().makeBrowser(type);
        const auto changed = [sets = browsed.sets](const std::vector<BrowseResult>& results) {
            Names names;
            for (const BrowseResult& result : results)
                names.insert(result.name);
            sets->push_back(names);
        };
        browsed.browser->start(discovery().makeQueue("test"), {.resultsChanged = changed, .failed = {}});
        return browsed;
    }
    /// Takes reports up to the one of exactly these names; all of them name `always`.
    bool reach(const Browsed& browsed, const Names& names, const std::string& always = {}) {
        while (mainQueue_.runUntil([&] { return !browsed.sets->empty(); })) {
            const Names set = browsed.sets->front();
            browsed.sets->pop_front();
            EXPECT_TRUE(always.empty() || set.contains(always));
            if (set == names) return true;
        }
        return false;
    }

    /// The outcome of a resolution: "10.50.0.2:5004" and so on for each address, or the error.
    struct Resolved {
        std::shared_ptr<ServiceResolver> resolver;
        std::optional<Texts> outcome;
    };
    std::shared_ptr<Resolved> resolve(const std::string& name, const std::string& type,
                                      std::chrono::milliseconds timeout = 5s) {
        auto resolved = std::make_shared<Resolved>();
        resolved->resolver = discovery().makeResolver("local.", type + ".", name);
        const auto didResolve = [outcome = &resolved->outcome](ServiceResolver& resolver) {
            outcome->emplace();
            for (const IPv4Host& host : *resolver.addresses())
                (*outcome)->push_back(host.text() + ":" + std::to_string(resolver.port()));
        };
        const auto didNotResolve = [outcome = &resolved->outcome](
                                       ServiceResolver&, const std::string& error) { *outcome = {error}; };
        resolved->resolver->resolve(timeout, {.didResolve = didResolve, .didNotResolve = didNotResolve});
        return resolved;
    }
    Texts outcome(const std::shared_ptr<Resolved>& resolved) {
        mainQueue_.runUntil([&] { return resolved->outcome.has_value(); });
        return resolved->outcome.value_or(Texts{"no outcome"});
    }

    const std::filesystem::path executable_ = TESSARY_DISCOVERY;
    const std::filesystem::path folder_ = "/tmp/tessary-discovery-test-" + std::to_string(getpid());
    const int home_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    MainQueue mainQueue_;
    FakeLog log_;
    std::unique_ptr<DiscoveryClient> discovery_;
};

TEST_F(DiscoveryTest, WithoutADaemonServicesAreFoundResolvedAndMissed) {
    const Browsed peers = browse(appleMIDI); // before there is any network
    Device device(1);
    device.addAddress("pad.local", "10.50.0.2", 0);
    AvahiSEntryGroup* const service = device.addService("Pad", appleMIDI, "pad.local", 5004);
    ASSERT_TRUE(reach(peers, {"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});
    device.withdraw(service);
    EXPECT_TRUE(reach(peers, {}));
}

TEST_F(DiscoveryTest, ServicesOfADeviceOnTwoLinksGetTheSameFirstAddress) {
    Device device(2);
    const Browsed peers = browse(appleMIDI), markers = browse(marker);
    Names all;
    for (int index = 0; index < 20; ++index) {
        const std::string name = "pad" + std::to_string(index),
                          host = "Pad" + std::to_string(index) + ".local";
        // The address that would come first in order appears after the first service was resolved.
        device.addAddress(host, "10.51.0.2", 1);
        device.addService(name, appleMIDI, host, 5004);
        device.addService(name, marker, host, 9);
        all.insert(name);
    }
    ASSERT_TRUE(reach(peers, all) && reach(markers, all));
    std::vector<std::shared_ptr<Resolved>> resolved;
    for (const std::string& name : all)
        resolved.push_back(resolve(name, appleMIDI));
    for (const auto& one : resolved)
        EXPECT_EQ(outcome(one), Texts{"10.51.0.2:5004"});
    for (int index = 0; index < 20; ++index)
        device.addAddress("pad" + std::to_string(index) + ".local", "10.50.0.2", 0);
    resolved.clear();
    // Both addresses are there for sure when a host name that was announced later is.
    device.addAddress("last.local", "10.50.0.2", 0);
    device.addService("last", marker, "last.local", 9);
    Names withLast = all;
    withLast.insert("last");
    ASSERT_TRUE(reach(markers, withLast));
    EXPECT_EQ(outcome(resolve("last", marker)), Texts{"10.50.0.2:9"});
    for (const std::string& name : all)
        resolved.push_back(resolve(name, marker));
    for (const auto& one : resolved)
        EXPECT_EQ(outcome(one).front(), "10.51.0.2:9");
}

TEST_F(DiscoveryTest, AHostOfIPv6AddressesResolvesAndASilentOneTimesOut) {
    Device device(1);
    device.addAddress("six.local", "2001:db8::6", 0);
    device.addService("Six", appleMIDI, "six.local", 5004);
    ASSERT_TRUE(reach(browse(appleMIDI), {"Six"}));
    const auto silent = resolve("Nobody", appleMIDI, 1s);
    EXPECT_EQ(outcome(resolve("Six", appleMIDI)), Texts{});
    EXPECT_EQ(outcome(silent), Texts{"Timeout reached"});
    EXPECT_EQ(silent->resolver->port(), -1);
    EXPECT_FALSE(silent->resolver->addresses());
}

TEST_F(DiscoveryTest, WhatWasStoppedOrDroppedReportsNoMore) {
    Device device(1);
    Browsed dropped = browse(appleMIDI);
    const Browsed kept = browse(appleMIDI);
    const auto stopped = resolve("Nobody", appleMIDI, 200ms), waited = resolve("No one", appleMIDI, 300ms);
    dropped.browser.reset();
    stopped->resolver->stop();
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    EXPECT_TRUE(reach(kept, {"Pad"}));
    EXPECT_EQ(outcome(waited), Texts{"Timeout reached"});
    EXPECT_TRUE(dropped.sets->empty());
    EXPECT_FALSE(stopped->outcome);
}

TEST_F(DiscoveryTest, ThousandsOfDeadNamesHoldUpNobody) {
    Device device(1);
    device.addAddress("pad.local", "10.50.0.2", 0);
    const auto resolveDead = [&](int first, int last, std::chrono::milliseconds timeout) {
        std::vector<std::shared_ptr<Resolved>> dead;
        for (int index = first; index < last; ++index)
            dead.push_back(resolve("Nobody " + std::to_string(index), appleMIDI, timeout));
        return dead;
    };
    const auto expectFoundBefore = [&](const std::string& name, const auto& dead) {
        EXPECT_EQ(outcome(resolve(name, appleMIDI)), Texts{"10.50.0.2:5004"});
        for (const auto& one : dead)
            EXPECT_FALSE(one->outcome);
    };
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    expectFoundBefore("Pad", resolveDead(0, 1000, 10s));

    // Those that nobody has answered for are asked for again with every change of the list.
    Names listed{"Pad", "Piano"};
    for (int index = 1000; index < 1400; ++index)
        device.addName(*listed.insert("Nobody " + std::to_string(index)).first, appleMIDI);
    device.addService("Piano", appleMIDI, "pad.local", 5004);
    const Browsed peers = browse(appleMIDI);
    ASSERT_TRUE(reach(peers, listed));
    for (const auto& one : resolveDead(1000, 1400, 300ms))
        EXPECT_EQ(outcome(one), Texts{"Timeout reached"});
    auto dead = resolveDead(1000, 1200, 10s);
    const auto piano = resolve("Piano", appleMIDI);
    for (auto& one : resolveDead(1200, 1400, 10s))
        dead.push_back(one);
    EXPECT_EQ(outcome(piano), Texts{"10.50.0.2:5004"});
    for (const auto& one : dead)
        EXPECT_FALSE(one->outcome);
}

TEST_F(DiscoveryTest, WhatIsListedNoMoreIsLookedForNoMore) {
    Device device(1);
    const Browsed peers = browse(appleMIDI);
    AvahiSEntryGroup* const listed = device.addName("Pad", appleMIDI);
    ASSERT_TRUE(reach(peers, {"Pad"}));
    const auto resolved = resolve("Pad", appleMIDI, 20s);
    device.withdraw(listed);
    ASSERT_TRUE(reach(peers, {}));
    EXPECT_EQ(outcome(resolved), Texts{"Not found"});
}

TEST_F(DiscoveryTest, WhatWasNotFoundIsListedAnewOnceItIsThere) {
    Device device(1);
    const Browsed peers = browse(appleMIDI);
    device.addName("Pad", appleMIDI);
    ASSERT_TRUE(reach(peers, {"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI, 1s)), Texts{"Timeout reached"});
    EXPECT_TRUE(peers.sets->empty());
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    EXPECT_TRUE(reach(peers, {}));
    EXPECT_TRUE(reach(peers, {"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});
}

TEST_F(DiscoveryTest, WhatMovesWhileItIsResolvedIsFoundWhereItWent) {
    Device device(1);
    const Browsed peers = browse(appleMIDI);
    AvahiSEntryGroup* const service = device.addService("Pad", appleMIDI, "nowhere.local", 5004);
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Other", appleMIDI, "pad.local", 5004);
    ASSERT_TRUE(reach(peers, {"Pad", "Other"}));
    const auto resolved = resolve("Pad", appleMIDI);
    EXPECT_EQ(outcome(resolve("Other", appleMIDI)), Texts{"10.50.0.2:5004"}); // so the first is as far
    device.withdraw(service);
    device.addService("Pad", appleMIDI, "pad.local", 6000);
    EXPECT_EQ(outcome(resolved), Texts{"10.50.0.2:6000"});
}

TEST_F(DiscoveryTest, AnotherAddressUnderTheSameNameAndPortIsFound) {
    Device device(1);
    const Browsed peers = browse(appleMIDI), markers = browse(marker);
    AvahiSEntryGroup* const former = device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    device.addService("Pad", marker, "pad.local", 9);
    ASSERT_TRUE(reach(peers, {"Pad"}) && reach(markers, {"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});
    EXPECT_EQ(outcome(resolve("Pad", marker)), Texts{"10.50.0.2:9"});
    device.withdraw(former);
    device.addAddress("pad.local", "10.50.0.9", 0);
    for (const auto& [browsed, type, place] :
         {std::tuple(&peers, appleMIDI, "10.50.0.9:5004"), std::tuple(&markers, marker, "10.50.0.9:9")}) {
        EXPECT_TRUE(reach(*browsed, {}) && reach(*browsed, {"Pad"}));
        EXPECT_EQ(outcome(resolve("Pad", type)), Texts{place});
    }
}

TEST_F(DiscoveryTest, ANewProcessFindsWhatTheFormerOneHadFoundAndNobodyNotices) {
    Device device(2);
    const Browsed peers = browse(appleMIDI);
    device.addAddress("pad.local", "10.51.0.2", 1);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    AvahiSEntryGroup* const leaving = device.addService("Gone", appleMIDI, "pad.local", 5006);
    ASSERT_TRUE(reach(peers, {"Pad", "Gone"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.51.0.2:5004"});
    device.addAddress("pad.local", "10.50.0.2",
                      0); // which comes first in order, but Pad is known by the other
    const auto waiting = resolve("Late", appleMIDI, 10s);

    ASSERT_TRUE(run("pkill -KILL -P " + std::to_string(getpid()) + " tessary-discov"));
    device.withdraw(leaving);
    device.addService("Late", appleMIDI, "pad.local", 5008);
    EXPECT_TRUE(reach(peers, {"Pad", "Late"}, "Pad"));
    outcome(waiting);
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)).front(), "10.51.0.2:5004");
    ASSERT_EQ(log_.lines.size(), 1u);
    EXPECT_EQ(log_.lines[0], "[Discovery] discovery process was ended by Killed; what was found stays");
}

TEST(DiscoveryBrowseTest, AFailureIsToldOnceAndTriedAgain) {
    struct FailingBackend : discovery::Backend {
        bool isReady() const override { return true; }
        bool isExhausted() const override { return false; }
        bool mayRecover(int) const override { return false; }
        std::size_t lookups() const override { return 0; }
        discovery::Lookup
        browseServices(const std::string&,
                       std::function<void(const discovery::ServiceEvent&)> handler) override {
            const bool fails = ++attempts < 3;
            loop.post([=] {
                handler({fails ? AVAHI_BROWSER_FAILURE : AVAHI_BROWSER_NEW, 1, 0, "Pad", "local",
                         fails ? AVAHI_ERR_DBUS_ERROR : AVAHI_OK});
            });
            return std::make_shared<int>();
        }
        discovery::Lookup resolveService(const std::string&, const std::string&, const std::string&,
                                         std::function<void(const discovery::HostEvent&)>) override {
            return nullptr;
        }
        discovery::Lookup browseAddresses(const std::string&, std::uint16_t,
                                          std::function<void(const discovery::AddressEvent&)>) override {
            return nullptr;
        }
        discovery::Loop loop;
        int attempts = 0;
    } backend;
    Texts reports;
    const auto browse = std::make_shared<discovery::ServiceBrowse>(
        backend.loop, discovery::Browse{1, appleMIDI}, [&](const discovery::Report& report) {
            if (const auto* failed = std::get_if<discovery::BrowseFailed>(&report))
                reports.push_back(failed->reason);
            if (const auto* listed = std::get_if<discovery::Listed>(&report)) reports.push_back(listed->name);
            if (std::holds_alternative<discovery::Changed>(report)) backend.loop.stop();
        });
    browse->begin(backend);
    backend.loop.run();
    EXPECT_EQ(reports, (Texts{avahi_strerror(AVAHI_ERR_DBUS_ERROR), "Pad"}));
}

/// What a confined process may not do; each would succeed without the confinement.
TEST(ConfinementTest, ForbidsProgramsTracingFilesAndOtherSockets) {
    const auto refusals = [] {
        const std::uint8_t refused = discovery::confine();
        const auto isForbidden = [](long result) { return result < 0 && errno == EPERM; };
        char* const arguments[] = {nullptr};
        unsigned allowed = refused;
        const std::array results{isForbidden(execve("/bin/true", arguments, arguments)),
                                 isForbidden(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)),
                                 isForbidden(open("/dev/null", O_RDONLY)),
                                 isForbidden(open("/tmp", O_TMPFILE | O_RDWR, 0600)),
                                 isForbidden(socket(AF_INET, SOCK_STREAM, 0)),
                                 isForbidden(socket(AF_PACKET, SOCK_RAW, 0)),
                                 isForbidden(fork()),
                                 isForbidden(kill(getppid(), 0)),
                                 isForbidden(unlink("/tmp/tessary-no-such-file")),
                                 mmap(nullptr, 2 * discovery::maxAddressSpace, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED};
        for (std::size_t i = 0; i < results.size(); ++i)
            if (!results[i] && allowed == 0) allowed = static_cast<unsigned>(100 + i);
        const bool mayListen = socket(AF_INET, SOCK_DGRAM, 0) >= 0;
        _exit(allowed != 0 ? static_cast<int>(allowed) : mayListen ? 0 : 99);
    };
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs what is forbidden";
#endif
    EXPECT_EXIT(refusals(), testing::ExitedWithCode(0),
                ""); // 1 to 15: a part is refused; 100 + n: call n is allowed
}

/// A system bus and an Avahi daemon, both this test's own.
class DiscoveryDaemonTest : public DiscoveryTest {
  protected:
    void SetUp() override {
        DiscoveryTest::SetUp();
        if (IsSkipped()) return;
        if (!run("test -x /usr/sbin/avahi-daemon -a -x /usr/bin/dbus-daemon"))
            GTEST_SKIP() << "needs avahi-daemon and dbus-daemon";
        std::ofstream(folder_ / "bus.conf")
            << "<busconfig><listen>unix:path=" << (folder_ / "bus").string()
            << "</listen><policy context='default'>"
            << "<allow user='*'/><allow own='*'/><allow send_destination='*'/><allow "
               "receive_sender='*'/></policy></busconfig>";
        std::ofstream(folder_ / "avahi.conf") << "[publish]\npublish-workstation=no\npublish-hinfo=no\n";
        bus_.emplace("exec dbus-daemon --nofork --nopidfile --config-file=" +
                     (folder_ / "bus.conf").string());
    }
    void TearDown() override {
        daemon_.reset();
        DiscoveryTest::TearDown();
        bus_.reset();
    }

    void startDaemon() {
        daemon_.emplace(
            "exec unshare -m sh -c 'mount -t tmpfs none /run && mkdir /run/avahi-daemon && exec avahi-daemon "
            "--no-drop-root --no-chroot --no-rlimits -f " +
            (folder_ / "avahi.conf").string() + "'");
    }

    /// Waits until the daemon serves clients.
    bool daemonAnswers() {
        discovery::Loop loop;
        for (const auto end = std::chrono::steady_clock::now() + 20s;
             std::chrono::steady_clock::now() < end;) {
            AvahiClient* const probe = avahi_client_new(
                loop.poll(), AvahiClientFlags{}, [](AvahiClient*, AvahiClientState, void*) {}, nullptr,
                nullptr);
            if (probe) avahi_client_free(probe);
            if (probe) return true;
            std::this_thread::sleep_for(20ms); // a bus that is not there tells nobody when it comes
        }
        return false;
    }

    std::optional<Process> bus_;
    std::optional<Process> daemon_;
};

TEST_F(DiscoveryDaemonTest, ARestartOfTheDaemonKeepsWhatWasFoundAndFindsWhatIsNew) {
    Device device(1);
    startDaemon();
    ASSERT_TRUE(daemonAnswers());
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    AvahiSEntryGroup* const leaving = device.addService("Gone", appleMIDI, "pad.local", 5006);
    const Browsed peers = browse(appleMIDI);
    ASSERT_TRUE(reach(peers, {"Pad", "Gone"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});

    daemon_.reset();
    const auto early = resolve("Pad", appleMIDI); // it waits for the next daemon
    device.withdraw(leaving);
    device.addService("New", appleMIDI, "pad.local", 5008);
    startDaemon();
    EXPECT_TRUE(reach(peers, {"Pad", "New"}, "Pad"));
    EXPECT_EQ(outcome(early), Texts{"10.50.0.2:5004"});
}

} // namespace
