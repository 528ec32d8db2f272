// Real-time priority as the kernel shows it. Each test is a process of its own: the limit that comes with the
// priority stays with its process.

#include "Platform/posix/RealTimePriority.h"
#include "Platform/epoll/EpollNetwork.h"
#include "Platform/posix/Thread.h"
#include "support/PeerSocket.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tessary;
using namespace tessary::test;
using namespace std::chrono_literals;

namespace {

constexpr int good = 0, bad = 1;

int policy(pid_t thread = 0) {
    return sched_getscheduler(thread) & ~SCHED_RESET_ON_FORK;
}

/// The real-time threads of this process.
std::vector<pid_t> realTimeThreads() {
    std::vector<pid_t> threads;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::atoi(entry.path().filename().c_str());
        if (policy(thread) == SCHED_FIFO) threads.push_back(thread);
    }
    return threads;
}

/// What is left on the alarm, in seconds; 0: it is not set.
long secondsUntil(int alarm) {
    itimerspec left{};
    timerfd_gettime(alarm, &left);
    return left.it_value.tv_sec + (left.it_value.tv_nsec > 0 ? 1 : 0);
}

/// A thread that blocks all signals asks for the priority, runs without waiting until it has lost it, and
/// asks again.
int loseItAndAskAgain(int expectedPriority) {
    std::atomic<int> status = good;
    startThread("test", [&] {
        const auto check = [&](bool condition) {
            if (!condition) status = bad;
        };
        RealTimePriority priority;
        priority.ask();
        sched_param given{};
        sched_getparam(0, &given);
        check(policy() == SCHED_FIFO && given.sched_priority == expectedPriority);
        check(secondsUntil(priority.timeToAskAgain()) == 0);
        for (const long pause : {10, 20}) { // a pause that does not grow ends in a kill some day
            const auto end = std::chrono::steady_clock::now() + 20s;
            while (policy() == SCHED_FIFO && std::chrono::steady_clock::now() < end) {
            }
            check(policy() == SCHED_OTHER && secondsUntil(priority.timeToAskAgain()) == pause);
            priority.askAgain();
            check(policy() == SCHED_FIFO && secondsUntil(priority.timeToAskAgain()) == 0);
            std::this_thread::sleep_for(1ms); // the kernel counts anew
        }
    }).join(); // meanwhile no other thread takes the signal
    return status;
}

class RealTimePriorityDeathTest : public testing::Test {
    void SetUp() override {
        bool maySetPriority = false;
        std::thread([&] {
            const sched_param wanted{.sched_priority = 1};
            maySetPriority = sched_setscheduler(0, SCHED_FIFO, &wanted) == 0;
        }).join();
        if (!maySetPriority) GTEST_SKIP() << "no right to real-time priority";
    }
};

} // namespace

TEST_F(RealTimePriorityDeathTest, AThreadThatNeverWaitsStepsDownAndMayAskAgain) {
    EXPECT_EXIT(std::_Exit(loseItAndAskAgain(RealTimePriority::priority)), testing::ExitedWithCode(good), "");
}

// Without the privilege the kernel grants no more than the limit, and no more once the thread has lost it to
// RLIMIT_RTTIME of the process.
TEST_F(RealTimePriorityDeathTest, TheUsersLimitIsEnoughToAskAndToStepDown) {
    const rlimit limit{.rlim_cur = 2, .rlim_max = 2}; // lower than what is asked for first
    if (geteuid() != 0 || setrlimit(RLIMIT_RTPRIO, &limit) != 0)
        GTEST_SKIP() << "may not raise the limit here";
    const auto asUser = [] { return setresuid(65534, 65534, 65534) == 0 ? loseItAndAskAgain(2) : bad; };
    EXPECT_EXIT(std::_Exit(asUser()), testing::ExitedWithCode(good), "");
}

// A kernel without the limit would let a flood stop the machine; with the limit and no handler it would kill
// the program.
TEST_F(RealTimePriorityDeathTest, TheNetworkThreadAloneHasItAndLosesItInAFlood) {
    const auto status = [] {
        EpollNetwork ordinary({}), urgent({}, Scheduling::realTime);
        constexpr IPv4Host host{{127, 0, 1, 4}};
        PeerSocket peer(host);
        const std::uint16_t local = PeerSocket(IPv4Host{}).port();
        std::atomic<int> isAsExpected = -1; // not known yet
        std::atomic<int> receivedAfterwards = 0;
        const auto connection = urgent.makeConnection(local, host, peer.port());
        connection->setHandlers({.stateDidChange =
                                     [&](ConnectionState, std::error_code) {
                                         int child = -1;
                                         std::thread([&] { child = policy(); }).join();
                                         rlimit limit{};
                                         getrlimit(RLIMIT_RTTIME, &limit);
                                         isAsExpected = realTimeThreads() == std::vector<pid_t>{gettid()} &&
                                                        child == SCHED_OTHER && limit.rlim_cur <= 100'000 &&
                                                        limit.rlim_max <= 200'000;
                                         isAsExpected.notify_all();
                                     },
                                 .received =
                                     [&](std::span<const std::uint8_t>, std::error_code) {
                                         if (policy() == SCHED_OTHER) ++receivedAfterwards;
                                         const auto end = std::chrono::steady_clock::now() + 1ms;
                                         while (std::chrono::steady_clock::now() < end) {
                                         }
                                         return Receive::again;
                                     },
                                 .sendFailed = {}});
        connection->start(urgent.makeQueue("test"));
        isAsExpected.wait(-1);
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (receivedAfterwards < 300 &&
               std::chrono::steady_clock::now() < end) { // past the kernel's limit
            peer.sendTo(local, std::vector<std::uint8_t>{1});
            std::this_thread::sleep_for(100us);
        }
        urgent.stop();
        return isAsExpected == 1 && receivedAfterwards >= 300 ? good : bad;
    };
    EXPECT_EXIT(std::_Exit(status()), testing::ExitedWithCode(good), "");
}
