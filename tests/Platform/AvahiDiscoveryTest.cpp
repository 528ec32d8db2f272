// Discovery on real links: each test has a network namespace of its own, joined to that of a simulated
// device.
#include "Platform/avahi/AvahiDiscovery.h"

#include "Models/IPv4Host.h"
#include "Platform/avahi/AvahiThread.h"
#include "support/Await.h"

#include <avahi-client/client.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <avahi-core/publish.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <net/if.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

using namespace tessary;
using namespace tessary::test;
using namespace std::chrono_literals;

namespace {

using Names = std::set<std::string>;

constexpr const char* appleMIDI = "_apple-midi._udp";
constexpr const char* marker = "_tessarylink._tcp";

bool run(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

/// The main thread's queue: work runs while the test waits for something.
class MainQueue : public TimerQueue {
  public:
    void post(std::function<void()> work) override { work_.add(std::move(work)); }
    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)>) override { return nullptr; }
    void postAfter(std::chrono::nanoseconds, std::function<void()>) override {}

    template <typename Condition>
    bool runUntil(Condition isMet) {
        while (!isMet()) {
            const auto work = work_.next();
            if (!work) return false;
            (*work)();
        }
        return true;
    }

  private:
    Reports<std::function<void()>> work_;
};

/// A responder in a namespace of its own, at the other end of links "near0", "near1" … of the test's.
class Device {
  public:
    explicit Device(int links) {
        std::promise<pid_t> isApart;
        thread_ = std::thread([&] {
            isApart.set_value(unshare(CLONE_NEWNET) == 0 ? gettid() : 0);
            loop_.run();
            if (server_) avahi_server_free(server_);
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
        call([&] { avahi_s_entry_group_free(group); });
    }

  private:
    void startServer() {
        avahi_set_log_function([](AvahiLogLevel, const char*) {});
        AvahiServerConfig config;
        avahi_server_config_init(&config);
        config.publish_hinfo = config.publish_addresses = config.publish_workstation = config.publish_domain =
            0;
        server_ = avahi_server_new(
            loop_.poll(), &config, [](AvahiServer*, AvahiServerState, void*) {}, nullptr, nullptr);
        avahi_server_config_free(&config);
        ASSERT_NE(server_, nullptr);
    }

    AvahiSEntryGroup* publish(const std::function<int(AvahiServer*, AvahiSEntryGroup*)>& add) {
        AvahiSEntryGroup* group = nullptr;
        call([&] {
            group = avahi_s_entry_group_new(server_, nullptr, nullptr);
            EXPECT_EQ(add(server_, group), AVAHI_OK);
            avahi_s_entry_group_commit(group);
        });
        return group;
    }

    void call(const std::function<void()>& work) {
        std::promise<void> done;
        loop_.post([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    AvahiThread loop_;
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

class AvahiDiscoveryTest : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "needs root, for network namespaces";
        ASSERT_TRUE(run("ip link set lo up"));
        // Nobody listens there but where a test starts a bus; the library reads the address once in a
        // process.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (folder_ / "bus").string()).c_str(), 1);
        std::filesystem::create_directories(folder_);
    }
    void TearDown() override {
        discovery_.reset();
        setns(home_, CLONE_NEWNET);
        close(home_);
        std::filesystem::remove_all(folder_);
    }

    AvahiDiscovery& discovery() {
        if (!discovery_) discovery_ = std::make_unique<AvahiDiscovery>(mainQueue_);
        return *discovery_;
    }

    struct Browsed {
        std::shared_ptr<Reports<Names>> sets = std::make_shared<Reports<Names>>();
        std::unique_ptr<ServiceBrowser> browser;

        /// Takes reports up to the one of exactly these names; all of them name `always`.
        bool reach(const Names& names, const std::string& always = {}) const {
            while (const auto set = sets->next()) {
                EXPECT_TRUE(always.empty() || set->contains(always));
                if (*set == names) return true;
            }
            return false;
        }
    };
    Browsed browse(const char* type) {
        Browsed browsed;
        browsed.browser = discovery().makeBrowser(type);
        const auto changed = [sets = browsed.sets](const std::vector<BrowseResult>& results) {
            Names names;
            for (const BrowseResult& result : results)
                names.insert(result.name);
            sets->add(names);
        };
        browsed.browser->start(discovery().makeQueue("test"), {.resultsChanged = changed, .failed = {}});
        return browsed;
    }

    /// The outcome of a resolution: "10.50.0.2:5004" and so on for each address, or the error.
    struct Resolved {
        std::shared_ptr<ServiceResolver> resolver;
        std::vector<std::string> outcome;
    };
    std::shared_ptr<Resolved> resolve(const std::string& name, const std::string& type,
                                      std::chrono::milliseconds timeout = 5s) {
        auto resolved = std::make_shared<Resolved>();
        resolved->resolver = discovery().makeResolver("local.", type + ".", name);
        const auto didResolve = [outcome = &resolved->outcome](ServiceResolver& resolver) {
            for (const SocketAddressRecord& record : *resolver.addresses()) {
                sa_family_t family = AF_UNSPEC;
                std::memcpy(&family, record.data(), sizeof family);
                std::array<char, INET6_ADDRSTRLEN> text{};
                inet_ntop(family, record.data() + (family == AF_INET ? 4 : 8), text.data(), text.size());
                outcome->push_back(text.data() + (":" + std::to_string(resolver.port())));
            }
        };
        const auto didNotResolve = [outcome = &resolved->outcome](ServiceResolver&,
                                                                  const std::string& error) {
            outcome->push_back(error);
        };
        resolved->resolver->resolve(timeout, {.didResolve = didResolve, .didNotResolve = didNotResolve});
        return resolved;
    }
    std::vector<std::string> outcome(const std::shared_ptr<Resolved>& resolved) {
        mainQueue_.runUntil([&] { return !resolved->outcome.empty(); });
        return resolved->outcome;
    }

    const std::filesystem::path folder_ = "/tmp/tessary-avahi-test-" + std::to_string(getpid());
    const int home_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    MainQueue mainQueue_;
    std::unique_ptr<AvahiDiscovery> discovery_;
};

using Texts = std::vector<std::string>;

TEST_F(AvahiDiscoveryTest, WithoutADaemonServicesAreFoundResolvedAndMissed) {
    const Browsed peers = browse(appleMIDI); // before there is any network
    Device device(1);
    device.addAddress("pad.local", "10.50.0.2", 0);
    AvahiSEntryGroup* const service = device.addService("Pad", appleMIDI, "pad.local", 5004);
    ASSERT_TRUE(peers.reach({"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});
    device.withdraw(service);
    EXPECT_TRUE(peers.reach({}));
}

TEST_F(AvahiDiscoveryTest, ServicesOfADeviceOnTwoLinksGetTheSameFirstAddress) {
    Device device(2);
    const Browsed markers = browse(marker);
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
    ASSERT_TRUE(markers.reach(all));
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
    ASSERT_TRUE(markers.reach(withLast));
    EXPECT_EQ(outcome(resolve("last", marker)), Texts{"10.50.0.2:9"});
    for (const std::string& name : all)
        resolved.push_back(resolve(name, marker));
    for (const auto& one : resolved)
        EXPECT_EQ(outcome(one).front(), "10.51.0.2:9");
}

TEST_F(AvahiDiscoveryTest, AHostOfIPv6AddressesResolvesAndASilentOneTimesOut) {
    Device device(1);
    device.addAddress("six.local", "2001:db8::6", 0);
    device.addService("Six", appleMIDI, "six.local", 5004);
    ASSERT_TRUE(browse(appleMIDI).reach({"Six"}));
    const auto silent = resolve("Nobody", appleMIDI, 1s);
    EXPECT_EQ(outcome(resolve("Six", appleMIDI)), Texts{"2001:db8::6:5004"});
    EXPECT_EQ(outcome(silent), Texts{"Timeout reached"});
    EXPECT_EQ(silent->resolver->port(), -1);
    EXPECT_FALSE(silent->resolver->addresses());
}

TEST_F(AvahiDiscoveryTest, WhatWasStoppedOrDroppedReportsNoMore) {
    Device device(1);
    Browsed dropped = browse(appleMIDI);
    const Browsed kept = browse(appleMIDI);
    const auto stopped = resolve("Nobody", appleMIDI, 200ms), waited = resolve("No one", appleMIDI, 300ms);
    dropped.browser.reset();
    stopped->resolver->stop();
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    EXPECT_TRUE(kept.reach({"Pad"}));
    EXPECT_EQ(outcome(waited), Texts{"Timeout reached"});
    EXPECT_TRUE(dropped.sets->isEmpty());
    EXPECT_EQ(stopped->outcome, Texts{});
}

TEST_F(AvahiDiscoveryTest, ThousandsOfDeadNamesHoldUpNobody) {
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
            EXPECT_EQ(one->outcome, Texts{});
    };
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    expectFoundBefore("Pad", resolveDead(0, 1000, 10s));

    // Those that nobody has answered for are asked for anew with every change of the list.
    for (const auto& one : resolveDead(1000, 1400, 300ms))
        EXPECT_EQ(outcome(one), Texts{"Timeout reached"});
    auto dead = resolveDead(1000, 1200, 10s);
    device.addService("Piano", appleMIDI, "pad.local", 5004);
    const auto piano = resolve("Piano", appleMIDI);
    for (auto& one : resolveDead(1200, 1400, 10s))
        dead.push_back(one);
    EXPECT_EQ(outcome(piano), Texts{"10.50.0.2:5004"});
    for (const auto& one : dead)
        EXPECT_EQ(one->outcome, Texts{});
}

TEST_F(AvahiDiscoveryTest, WhatIsListedNoMoreIsLookedForNoMore) {
    Device device(1);
    const Browsed peers = browse(appleMIDI);
    AvahiSEntryGroup* const listed = device.addName("Pad", appleMIDI);
    ASSERT_TRUE(peers.reach({"Pad"}));
    const auto resolved = resolve("Pad", appleMIDI, 20s);
    device.withdraw(listed);
    ASSERT_TRUE(peers.reach({}));
    EXPECT_EQ(outcome(resolved), Texts{"Not found"});
}

TEST_F(AvahiDiscoveryTest, WhatWasNotFoundIsListedAnewOnceItIsThere) {
    Device device(1);
    const Browsed peers = browse(appleMIDI);
    device.addName("Pad", appleMIDI);
    ASSERT_TRUE(peers.reach({"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI, 1s)), Texts{"Timeout reached"});
    EXPECT_TRUE(peers.sets->isEmpty());
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    EXPECT_TRUE(peers.reach({}));
    EXPECT_TRUE(peers.reach({"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});
}

TEST_F(AvahiDiscoveryTest, WhatMovesWhileItIsResolvedIsFoundWhereItWent) {
    Device device(1);
    const Browsed peers = browse(appleMIDI);
    AvahiSEntryGroup* const service = device.addService("Pad", appleMIDI, "nowhere.local", 5004);
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Other", appleMIDI, "pad.local", 5004);
    ASSERT_TRUE(peers.reach({"Pad", "Other"}));
    const auto resolved = resolve("Pad", appleMIDI);
    EXPECT_EQ(outcome(resolve("Other", appleMIDI)), Texts{"10.50.0.2:5004"}); // so the first is as far
    device.withdraw(service);
    device.addService("Pad", appleMIDI, "pad.local", 6000);
    EXPECT_EQ(outcome(resolved), Texts{"10.50.0.2:6000"});
}

/// A system bus and an Avahi daemon, both this test's own.
class AvahiDaemonTest : public AvahiDiscoveryTest {
  protected:
    void SetUp() override {
        AvahiDiscoveryTest::SetUp();
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
        AvahiDiscoveryTest::TearDown();
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
        AvahiThread loop;
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

TEST_F(AvahiDaemonTest, ARestartOfTheDaemonKeepsWhatWasFoundAndFindsWhatIsNew) {
    Device device(1);
    startDaemon();
    ASSERT_TRUE(daemonAnswers());
    device.addAddress("pad.local", "10.50.0.2", 0);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    AvahiSEntryGroup* const leaving = device.addService("Gone", appleMIDI, "pad.local", 5006);
    const Browsed peers = browse(appleMIDI);
    ASSERT_TRUE(peers.reach({"Pad", "Gone"}));
    EXPECT_EQ(outcome(resolve("Pad", appleMIDI)), Texts{"10.50.0.2:5004"});

    daemon_.reset();
    const auto early = resolve("Pad", appleMIDI); // it waits for the next daemon
    device.withdraw(leaving);
    device.addService("New", appleMIDI, "pad.local", 5008);
    startDaemon();
    EXPECT_TRUE(peers.reach({"Pad", "New"}, "Pad"));
    EXPECT_EQ(outcome(early), Texts{"10.50.0.2:5004"});
}

} // namespace
