// Discovery by its own process, on real links: the test and a simulated device each have a network namespace.
#include "Platform/discovery/DiscoveryClient.h"

#include "Confinement.h"
#include "Platform/discovery/Messages.h"
#include "Platform/network/LoopQueue.h"
#include "support/Fakes.h"
#include "support/TemporaryFolder.h"

#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <avahi-core/publish.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>

using namespace tessary;
using namespace tessary::test;
using namespace std::chrono_literals;

namespace {

using Names = std::set<std::string>;
using Texts = std::vector<std::string>;

constexpr const char* appleMIDI = "_apple-midi._udp";
constexpr const char* marker = "_tessarylink._tcp";

bool run(const std::string& command) {
    return std::system(("exec >/dev/null 2>&1; " + command).c_str()) == 0;
}

/// A program that ends with the test at the latest.
pid_t start(const std::string& command) {
    const pid_t process = fork();
    if (process != 0) return process;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    execl("/bin/sh", "sh", "-c", ("exec >/dev/null 2>&1; " + command).c_str(), nullptr);
    _exit(127);
}

void end(pid_t& process) {
    if (process == 0) return;
    kill(process, SIGKILL);
    waitpid(std::exchange(process, 0), nullptr, 0);
}

OpenFile currentNetwork() {
    return OpenFile(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
}

/// An mDNS responder in a network namespace of its own, at the other end of the test's links near0, near1 …
class Device {
  public:
    using Records = AvahiSEntryGroup*;

    explicit Device(int links = 1) {
        const OpenFile home = currentNetwork();
        EXPECT_EQ(unshare(CLONE_NEWNET), 0);
        EXPECT_TRUE(run(
            "home=/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(home.file()) +
            "; set -e; for n in $(seq 0 " + std::to_string(links - 1) +
            "); do ip link add far$n type veth peer name near$n netns $home; "
            "ip addr add 10.5$n.0.2/24 dev far$n; nsenter --net=$home ip addr add 10.5$n.0.1/24 dev near$n; "
            "ip link set far$n up; nsenter --net=$home ip link set near$n up; done"));
        for (int link = 0; link < links; ++link)
            interfaces_.push_back(static_cast<int>(if_nametoindex(("far" + std::to_string(link)).c_str())));
        avahi_set_log_function([](AvahiLogLevel, const char*) {});
        AvahiServerConfig config;
        avahi_server_config_init(&config);
        config.publish_hinfo = config.publish_addresses = config.publish_workstation = config.publish_domain =
            0;
        const auto stateChanged = [](AvahiServer*, AvahiServerState, void*) {};
        server_ = avahi_server_new(avahi_threaded_poll_get(poll_), &config, stateChanged, nullptr, nullptr);
        EXPECT_NE(server_, nullptr);
        avahi_server_config_free(&config);
        avahi_threaded_poll_start(poll_); // its thread stays in the namespace that it was made in
        setns(home.file(), CLONE_NEWNET);
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device() {
        avahi_threaded_poll_stop(poll_);
        avahi_server_free(server_);
        avahi_threaded_poll_free(poll_);
    }

    Records addAddress(const std::string& host, const std::string& text, std::size_t link = 0) {
        AvahiAddress address;
        avahi_address_parse(text.c_str(), AVAHI_PROTO_UNSPEC, &address);
        return publish([&](Records records) {
            return avahi_server_add_address(server_, records, interfaces_[link], AVAHI_PROTO_UNSPEC,
                                            AVAHI_PUBLISH_NO_REVERSE, host.c_str(), &address);
        });
    }
    Records addService(const std::string& name, const std::string& type, const std::string& host,
                       std::uint16_t port) {
        return publish([&](Records records) {
            return avahi_server_add_service(server_, records, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                            AvahiPublishFlags{}, name.c_str(), type.c_str(), nullptr,
                                            host.c_str(), port, nullptr);
        });
    }
    /// Lists a service without its host and port.
    Records addName(const std::string& name, const std::string& type) {
        return publish([&](Records records) {
            AvahiRecord* const pointer =
                avahi_record_new_full((type + ".local").c_str(), AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_PTR, 120);
            pointer->data.ptr.name = avahi_strdup((name + "." + type + ".local").c_str());
            const int error = avahi_server_add(server_, records, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                               AvahiPublishFlags{}, pointer);
            avahi_record_unref(pointer);
            return error;
        });
    }
    void withdraw(Records records) {
        avahi_threaded_poll_lock(poll_);
        avahi_s_entry_group_free(records);
        avahi_threaded_poll_unlock(poll_);
    }

  private:
    Records publish(const std::function<int(Records)>& add) {
        avahi_threaded_poll_lock(poll_);
        const Records records = avahi_s_entry_group_new(server_, nullptr, nullptr);
        EXPECT_EQ(add(records), AVAHI_OK);
        avahi_s_entry_group_commit(records);
        avahi_threaded_poll_unlock(poll_);
        return records;
    }

    std::vector<int> interfaces_;
    AvahiThreadedPoll* const poll_ = avahi_threaded_poll_new();
    AvahiServer* server_ = nullptr;
};

class DiscoveryTest : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0 || !run("command -v ip avahi-daemon dbus-daemon gdbus") ||
            unshare(CLONE_NEWNET) != 0)
            GTEST_SKIP() << "needs root, network namespaces, iproute2, avahi-daemon, dbus-daemon and gdbus";
        ASSERT_TRUE(run("ip link set lo up"));
        // Nothing listens there unless the test starts a bus.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + (folder_ / "bus").string()).c_str(), 1);
        discovery_.emplace(loop_, mainQueue_, log_, TESSARY_DISCOVERY);
    }
    void TearDown() override {
        discovery_.reset();
        end(daemon_);
        end(bus_);
        setns(home_.file(), CLONE_NEWNET);
    }

    /// Starts avahi-daemon, on a system bus of the test's own, and waits until it serves clients.
    void startDaemon() {
        if (bus_ == 0) {
            setPolicy(everything_);
            bus_ = start("exec dbus-daemon --nofork --nopidfile --config-file=" +
                         (folder_ / "bus.conf").string());
        }
        write(folder_ / "avahi.conf", "[publish]\npublish-workstation=no\npublish-hinfo=no\n");
        // avahi-daemon fails at once if the bus does not listen yet.
        daemon_ = start("until " + callBus_ +
                        "ListNames; do sleep 0.02; done; "
                        "exec unshare -m sh -c 'mount -t tmpfs none /run && mkdir /run/avahi-daemon && exec "
                        "avahi-daemon --no-drop-root --no-chroot --no-rlimits -f " +
                        (folder_ / "avahi.conf").string() + "'");
        ASSERT_TRUE(run("timeout 20 sh -c 'until gdbus wait --system --timeout 20 org.freedesktop.Avahi; "
                        "do sleep 0.02; done'"));
    }
    void setPolicy(const std::string& policy) {
        write(folder_ / "bus.conf", "<busconfig><listen>unix:path=" + (folder_ / "bus").string() +
                                        "</listen><policy context='default'>" + policy +
                                        "</policy></busconfig>");
        if (bus_ != 0) run(callBus_ + "ReloadConfig");
    }

    /// Runs the main thread's loop.
    bool runUntil(const std::function<bool()>& isMet, std::chrono::seconds timeout = 30s) {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!isMet() && std::chrono::steady_clock::now() < end)
            loop_.serveOne(100);
        return isMet();
    }

    struct Browsed {
        std::deque<Names> sets;
        Texts failures;
        std::unique_ptr<ServiceBrowser> browser;
    };
    std::shared_ptr<Browsed> browse(const std::string& type) {
        auto browsed = std::make_shared<Browsed>();
        browsed->browser = discovery_->makeBrowser(type);
        const auto changed = [&sets = browsed->sets](const std::vector<BrowseResult>& results) {
            Names& names = sets.emplace_back();
            for (const BrowseResult& result : results)
                names.insert(result.name);
        };
        const auto failed = [&failures = browsed->failures](const auto& reason) {
            failures.push_back(reason);
        };
        browsed->browser->start(discovery_->makeQueue("test"), {.resultsChanged = changed, .failed = failed});
        return browsed;
    }
    /// Takes reports up to the one of exactly these names; all of them name `always`.
    bool reach(const std::shared_ptr<Browsed>& browsed, const Names& names, const std::string& always = {}) {
        while (runUntil([&] { return !browsed->sets.empty(); })) {
            const Names set = browsed->sets.front();
            browsed->sets.pop_front();
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
    std::shared_ptr<Resolved> resolve(const std::string& name, const std::string& type = appleMIDI,
                                      std::chrono::milliseconds timeout = 5s) {
        auto resolved = std::make_shared<Resolved>();
        resolved->resolver = discovery_->makeResolver("local.", type + ".", name);
        const auto didResolve = [&outcome = resolved->outcome](ServiceResolver& resolver) {
            outcome.emplace();
            for (const IPv4Host& host : *resolver.addresses())
                outcome->push_back(host.text() + ":" + std::to_string(resolver.port()));
        };
        const auto didNotResolve = [&outcome = resolved->outcome](auto&, const auto& error) {
            outcome = {error};
        };
        resolved->resolver->resolve(timeout, {.didResolve = didResolve, .didNotResolve = didNotResolve});
        return resolved;
    }
    Texts outcome(const std::shared_ptr<Resolved>& resolved) {
        runUntil([&] { return resolved->outcome.has_value(); });
        return resolved->outcome.value_or(Texts{"no outcome"});
    }

    const std::string everything_ =
        "<allow user='*'/><allow own='*'/><allow send_destination='*'/><allow receive_sender='*'/>";
    const std::string callBus_ =
        "gdbus call --system --dest org.freedesktop.DBus --object-path / --method org.freedesktop.DBus.";
    const TemporaryFolder folder_;
    const OpenFile home_ = currentNetwork();
    pid_t bus_ = 0, daemon_ = 0;
    EventLoop loop_;
    LoopQueue mainQueue_{loop_};
    FakeLog log_;
    std::optional<DiscoveryClient> discovery_;
};

/// Without a daemon (false) and with one (true).
class ResponderTest : public DiscoveryTest, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Discovery, ResponderTest, testing::Bool(), [](const auto& parameter) {
    return parameter.param ? "WithDaemon" : "WithoutDaemon";
});

TEST_P(ResponderTest, FindsAServiceFollowsItsHostAndReportsItsEnd) {
    if (GetParam()) startDaemon();
    const auto peers = browse(appleMIDI), markers = browse(marker); // before there is any network
    Device device;
    const auto address = device.addAddress("pad.local", "10.50.0.2");
    device.addAddress("six.local", "2001:db8::6");
    const auto service = device.addService("Pad", appleMIDI, "pad.local", 5004);
    device.addService("Pad", marker, "pad.local", 9);
    device.addService("Six", marker, "six.local", 9);
    ASSERT_TRUE(reach(peers, {"Pad"}) && reach(markers, {"Pad", "Six"}));
    EXPECT_EQ(outcome(resolve("Pad")), Texts{"10.50.0.2:5004"});
    EXPECT_EQ(outcome(resolve("Pad", marker)), Texts{"10.50.0.2:9"});
    EXPECT_EQ(outcome(resolve("Six", marker, 1s)), Texts{}); // a host of IPv6 addresses alone

    // Another address under the same host name and port, as after a new lease. A service that has changed is
    // reported as gone and then as found, so that it is resolved again.
    device.withdraw(address);
    device.addAddress("pad.local", "10.50.0.9");
    EXPECT_TRUE(reach(peers, {}) && reach(peers, {"Pad"}));
    EXPECT_TRUE(reach(markers, {"Six"}) && reach(markers, {"Pad", "Six"}));
    EXPECT_EQ(outcome(resolve("Pad")), Texts{"10.50.0.9:5004"});
    EXPECT_EQ(outcome(resolve("Pad", marker)), Texts{"10.50.0.9:9"});

    device.withdraw(service);
    EXPECT_TRUE(reach(peers, {}));
}

TEST_F(DiscoveryTest, ServicesOfADeviceOnTwoLinksGetTheSameFirstAddress) {
    Device device(2);
    for (const char* host : {"both.local", "pad.local", "late.local"})
        device.addAddress(host, "10.51.0.2", 1);
    device.addAddress("both.local", "10.50.0.2");
    device.addService("Both", appleMIDI, "both.local", 5004);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    device.addService("Pad", marker, "PAD.local", 9); // host names are compared without case
    const auto peers = browse(appleMIDI), markers = browse(marker);
    ASSERT_TRUE(reach(peers, {"Both", "Pad"}) && reach(markers, {"Pad"}));
    EXPECT_EQ(outcome(resolve("Both")), (Texts{"10.50.0.2:5004", "10.51.0.2:5004"}));
    EXPECT_EQ(outcome(resolve("Pad")), Texts{"10.51.0.2:5004"});

    // The address that sorts first appears after one of the services was resolved. When a later address of
    // another host is known, that one is, too.
    device.addAddress("pad.local", "10.50.0.2");
    device.addAddress("late.local", "10.50.0.2");
    device.addService("Late", marker, "late.local", 9);
    ASSERT_TRUE(reach(markers, {"Late", "Pad"}));
    EXPECT_EQ(outcome(resolve("Late", marker)), (Texts{"10.50.0.2:9", "10.51.0.2:9"}));
    EXPECT_EQ(outcome(resolve("Pad", marker)), (Texts{"10.51.0.2:9", "10.50.0.2:9"}));
}

TEST_F(DiscoveryTest, AThousandDeadNamesDelayNoLiveOne) {
    Device device;
    device.addAddress("pad.local", "10.50.0.2");
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    Names listed{"Pad"};
    for (int index = 0; index < 400; ++index)
        device.addName(*listed.insert("Listed " + std::to_string(index)).first, appleMIDI);
    const auto peers = browse(appleMIDI);
    ASSERT_TRUE(reach(peers, listed));

    std::vector<std::shared_ptr<Resolved>> dead;
    const auto resolveDead = [&](const std::string& kind, int first, int last, std::chrono::seconds timeout) {
        for (int index = first; index < last; ++index)
            dead.push_back(resolve(kind + std::to_string(index), appleMIDI, timeout));
    };
    resolveDead("Listed ", 0, 400, 1s);
    for (const auto& one : dead)
        EXPECT_EQ(outcome(one), Texts{"Timeout reached"});
    dead.clear();
    // Names that did not resolve are resolved again with every change of the list.
    resolveDead("Unlisted ", 0, 1000, 10s);
    resolveDead("Listed ", 0, 200, 10s);
    const auto live = resolve("Pad");
    resolveDead("Listed ", 200, 400, 10s);
    EXPECT_EQ(outcome(live), Texts{"10.50.0.2:5004"});
    for (const auto& one : dead)
        EXPECT_FALSE(one->outcome);
}

// A browser that was dropped and a resolution that was stopped report nothing.
TEST_F(DiscoveryTest, AListedNameIsWatchedUntilItIsFoundOrUnlisted) {
    Device device;
    const auto dropped = browse(appleMIDI), peers = browse(appleMIDI);
    dropped->browser.reset();
    device.addName("Pad", appleMIDI);
    const auto listed = device.addName("Left", appleMIDI);
    const auto moving = device.addService("Moved", appleMIDI, "nowhere.local", 5004);
    ASSERT_TRUE(reach(peers, {"Left", "Moved", "Pad"}));
    const auto left = resolve("Left", appleMIDI, 20s), moved = resolve("Moved", appleMIDI, 20s);
    const auto stopped = resolve("Pad", appleMIDI, 900ms), silent = resolve("Pad", appleMIDI, 1s);
    stopped->resolver->stop();
    EXPECT_EQ(outcome(silent), Texts{"Timeout reached"});
    EXPECT_EQ(silent->resolver->port(), -1);
    EXPECT_FALSE(silent->resolver->addresses());
    EXPECT_TRUE(peers->sets.empty());

    // It is reported as gone and then as found, so that it is resolved again.
    device.addAddress("pad.local", "10.50.0.2");
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    EXPECT_TRUE(reach(peers, {"Left", "Moved"}) && reach(peers, {"Left", "Moved", "Pad"}));
    EXPECT_EQ(outcome(resolve("Pad")), Texts{"10.50.0.2:5004"});

    device.withdraw(listed);
    EXPECT_TRUE(reach(peers, {"Moved", "Pad"}));
    EXPECT_EQ(outcome(left), Texts{"Not found"});

    device.withdraw(moving);
    device.addService("Moved", appleMIDI, "pad.local", 6000);
    EXPECT_EQ(outcome(moved), Texts{"10.50.0.2:6000"});
    EXPECT_TRUE(dropped->sets.empty());
    EXPECT_FALSE(stopped->outcome);
}

TEST_P(ResponderTest, ARestartOfDaemonOrProcessKeepsWhatWasFoundAndFindsWhatIsNew) {
    const std::string process = "-P " + std::to_string(getpid()) + " tessary-discov";
    if (GetParam()) startDaemon();
    Device device(2);
    device.addAddress("pad.local", "10.51.0.2", 1);
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    const auto leaving = device.addService("Gone", appleMIDI, "pad.local", 5006);
    const auto peers = browse(appleMIDI);
    ASSERT_TRUE(reach(peers, {"Pad", "Gone"}));
    EXPECT_EQ(outcome(resolve("Pad")), Texts{"10.51.0.2:5004"});
    device.addAddress("pad.local", "10.50.0.2"); // sorts first, but Pad was reported at the other

    if (GetParam())
        end(daemon_);
    else
        ASSERT_TRUE(run("pkill -KILL " + process));
    const auto early = resolve("New", appleMIDI, 10s); // asked of the next one
    device.withdraw(leaving);
    device.addService("New", appleMIDI, "pad.local", 5008);
    if (GetParam()) startDaemon();
    EXPECT_TRUE(reach(peers, {"Pad", "New"}, "Pad"));
    EXPECT_TRUE(outcome(early).front().ends_with(":5008"));
    EXPECT_EQ(outcome(resolve("Pad")).front(), "10.51.0.2:5004");
    const std::string killed = "[Discovery] discovery process was ended by Killed; what was found stays";
    EXPECT_EQ(log_.lines, GetParam() ? Texts{} : Texts{killed});
    EXPECT_TRUE(run("grep -q 'NoNewPrivs:.1' /proc/$(pgrep " + process + ")/status")) << "it is confined";
}

TEST_F(DiscoveryTest, AFailureToBrowseIsReportedOnceAndTriedAgain) {
    Device device;
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    startDaemon();
    setPolicy(everything_ +
              "<deny send_interface='org.freedesktop.Avahi.Server' send_member='ServiceBrowserNew'/>");
    const auto peers = browse(appleMIDI);
    EXPECT_EQ(outcome(resolve("Nobody", appleMIDI, 2s)),
              Texts{"Timeout reached"}); // after the second attempt
    setPolicy(everything_);
    EXPECT_TRUE(reach(peers, {"Pad"}));
    EXPECT_EQ(peers->failures, Texts{"Access denied"});
}

/// A D-Bus call takes 25 seconds to time out. The process that makes it is replaced before, twice; then the
/// embedded responder takes over.
TEST_F(DiscoveryTest, ADaemonThatStandsStillIsReplaced) {
    Device device;
    startDaemon();
    device.addAddress("pad.local", "10.50.0.2");
    device.addService("Pad", appleMIDI, "pad.local", 5004);
    const auto peers = browse(appleMIDI);
    ASSERT_TRUE(reach(peers, {"Pad"}));
    kill(daemon_, SIGSTOP);
    const auto markers = browse(marker);
    device.addService("Pad", marker, "pad.local", 9);
    EXPECT_TRUE(reach(markers, {"Pad"}));
    EXPECT_EQ(outcome(resolve("Pad")), Texts{"10.50.0.2:5004"});
    for (const Names& set : peers->sets)
        EXPECT_EQ(set, Names{"Pad"});
    const std::string line = "[Discovery] discovery process does not answer; what was found stays";
    EXPECT_EQ(log_.lines, (Texts{line, line}));
}

/// Each partner is run in place of the discovery process: it reports a service and then fails in its way.
TEST_F(DiscoveryTest, AProcessThatFailsIsReplacedAndWhatItFoundStays) {
    const auto writeReports = [&](const std::string& name, const std::vector<discovery::Report>& reports) {
        Bytes bytes;
        for (const auto& report : reports)
            encode(report, bytes);
        write(folder_ / name, {bytes.begin(), bytes.end()});
    };
    const discovery::Listed pad{1, "Pad", "local", 1};
    const discovery::Started started{.responder = discovery::Responder::embedded};
    writeReports("found", {started, pad, discovery::Changed{1}});
    writeReports("pads", std::vector<discovery::Report>(10'000, pad));
    std::vector<discovery::Report> names;
    for (std::size_t index = 0; index <= discovery::maxListed; ++index)
        names.push_back(discovery::Listed{1, std::to_string(index), "local", 1});
    writeReports("names", names);
    const std::map<std::string, std::string> partners{
        {"printf '\\377\\377\\377\\377' >&3; cat pads >&3", "says what is no message"}, // a frame of 4 GB
        {"cat names >&3", "says what cannot be"},
        {"while cat pads >&3; do :; done", "says too much"},
        {"exit 7", "has ended with status 7"},
        {"", "does not answer"}}; // it is asked for a sign of life once a minute
    const auto partner = folder_ / "partner";
    for (const auto& [behaviour, reason] : partners) {
        write(partner, "#!/bin/sh\nexec 2>&-\ncd " + folder_.path().string() +
                           "\necho >>starts\ncat found >&3\n" + behaviour + "\nexec sleep 100\n");
        std::filesystem::permissions(partner, std::filesystem::perms::owner_all);
        discovery_.reset(); // and with it the former process, which may still write to the file
        write(folder_ / "starts", "");
        log_.lines.clear();
        discovery_.emplace(loop_, mainQueue_, log_, partner);
        const auto peers = browse(appleMIDI);
        const auto isReplaced = [&] {
            return !peers->sets.empty() && std::filesystem::file_size(folder_ / "starts") > 1;
        };
        ASSERT_TRUE(runUntil(isReplaced, 75s)) << behaviour;
        EXPECT_EQ(log_.lines.front(), "[Discovery] discovery process " + reason + "; what was found stays")
            << behaviour;
        for (const Names& set : peers->sets)
            EXPECT_TRUE(set.contains("Pad")) << behaviour;
    }
}

/// What a confined process may not do; each would succeed without the confinement.
TEST(ConfinementTest, ForbidsProgramsTracingFilesAndOtherSockets) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs what is forbidden";
#endif
    const auto confined = [] {
        if (const int refused = discovery::confine(); refused != 0) _exit(refused);
        const auto isForbidden = [](long result) { return result < 0 && errno == EPERM; };
        char* const arguments[] = {nullptr};
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
                                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED,
                                 socket(AF_INET, SOCK_DGRAM, 0) >= 0}; // which it needs
        const auto wrong = std::ranges::find(results, false);
        _exit(wrong == results.end() ? 0 : static_cast<int>(100 + (wrong - results.begin())));
    };
    // 1 to 15: a part of the confinement is refused; 100 + n: result n is wrong.
    EXPECT_EXIT(confined(), testing::ExitedWithCode(0), "");
}

} // namespace
