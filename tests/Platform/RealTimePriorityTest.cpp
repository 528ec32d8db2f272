// Real-time priority as the kernel shows it. Each test is a process of its own: the limit that comes with the
// priority stays with the process that it was put on.

#include "Platform/realtime/RealTimePriority.h"
#include "Platform/network/EpollNetwork.h"
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

using Bytes = std::vector<std::uint8_t>;

constexpr IPv4Host host{{127, 0, 1, 4}};
constexpr int good = 0, bad = 1;

int policy(pid_t thread = 0) {
    return sched_getscheduler(thread) & ~SCHED_RESET_ON_FORK;
}

bool isRealTime(pid_t thread = 0) {
    return policy(thread) == SCHED_FIFO || policy(thread) == SCHED_RR;
}

bool maySetPriority() {
    bool result = false;
    std::thread([&] {
        const sched_param wanted{.sched_priority = 1};
        result = sched_setscheduler(0, SCHED_FIFO, &wanted) == 0;
    }).join();
    return result;
}

/// Runs without waiting until the kernel has stepped in, or has had time enough to.
void runUntilOrdinary() {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (isRealTime() && std::chrono::steady_clock::now() < end) {
    }
}

/// What is left on the alarm, in seconds; 0: it is not set.
long secondsUntil(int alarm) {
    itimerspec left{};
    timerfd_gettime(alarm, &left);
    return left.it_value.tv_sec + (left.it_value.tv_nsec > 0 ? 1 : 0);
}

/// Threads of this process by the kernel's account: those that are real-time, and whether the first one is.
struct Threads {
    int realTime = 0;
    bool isMainRealTime = false;
};
Threads threads() {
    Threads result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t thread = std::atoi(entry.path().filename().c_str());
        if (!isRealTime(thread)) continue;
        ++result.realTime;
        if (thread == getpid()) result.isMainRealTime = true;
    }
    return result;
}

/// Runs `body` in a process of its own.
void expectGood(int (*body)()) {
    if (!maySetPriority()) GTEST_SKIP() << "no real-time priority to be had here";
    EXPECT_EXIT(std::_Exit(body()), testing::ExitedWithCode(good), "");
}

} // namespace

TEST(RealTimePriorityDeathTest, AThreadThatNeverWaitsStepsDownAndMayAskAgain) {
    expectGood([] {
        int status = good;
        std::thread thread([&] {
            RealTimePriority priority;
            priority.ask();
            if (policy() != SCHED_FIFO || secondsUntil(priority.timeToAskAgain()) != 0) status = bad;
            for (const long pause : {10, 20}) { // a pause that does not grow would end in a kill some day
                runUntilOrdinary();
                if (isRealTime() || secondsUntil(priority.timeToAskAgain()) != pause) status = bad;
                priority.askAgain();
                if (!isRealTime() || secondsUntil(priority.timeToAskAgain()) != 0) status = bad;
                std::this_thread::sleep_for(1ms);
            }
        });
        thread.join(); // all that time nobody else could serve the signal
        return status;
    });
}

TEST(RealTimePriorityDeathTest, AFloodTakesThePriorityAndNotTheProgram) {
    expectGood([] {
        EpollNetwork network({}, Scheduling::realTime);
        PeerSocket peer(host);
        const std::uint16_t local = PeerSocket(IPv4Host{}).port();
        std::atomic<bool> isReady = false, wasRealTime = false, hasSteppedDown = false;
        std::atomic<int> heardAfterwards = 0;
        const auto connection = network.makeConnection(local, host, peer.port());
        connection->setHandlers({.stateDidChange = [&](ConnectionState, std::error_code) { isReady = true; },
                                 .received =
                                     [&](std::span<const std::uint8_t>, std::error_code) {
                                         if (isRealTime())
                                             wasRealTime = true;
                                         else if (wasRealTime)
                                             hasSteppedDown = true;
                                         if (hasSteppedDown) ++heardAfterwards;
                                         const auto end = std::chrono::steady_clock::now() + 1ms;
                                         while (std::chrono::steady_clock::now() < end) {
                                         }
                                         return Receive::again;
                                     },
                                 .sendFailed = {}});
        connection->start(network.makeQueue("test"));
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (heardAfterwards < 300 &&
               std::chrono::steady_clock::now() < end) { // longer than the kernel waits
            if (isReady) peer.sendTo(local, Bytes{1});
            std::this_thread::sleep_for(100us);
        }
        network.stop();
        return wasRealTime && heardAfterwards >= 300 ? good : bad;
    });
}

TEST(RealTimePriorityDeathTest, TheNetworkThreadAloneHasIt) {
    expectGood([] {
        EpollNetwork ordinary({}), urgent({}, Scheduling::realTime);
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (threads().realTime == 0 && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        int child = -1; // what the thread starts is ordinary again
        std::atomic<bool> isDone = false;
        urgent.backgroundQueue().post([&] {
            std::thread([&] { child = policy(); }).join();
            isDone = true;
        });
        while (!isDone && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        rlimit limit{};
        getrlimit(RLIMIT_RTTIME, &limit);
        const bool isLimited = limit.rlim_cur <= 100'000 && limit.rlim_max <= 200'000;
        return threads().realTime == 1 && !threads().isMainRealTime && child == SCHED_OTHER && isLimited
                   ? good
                   : bad;
    });
}

TEST(RealTimePriorityDeathTest, TheUsersLimitAloneIsEnough) {
    const rlimit limit{.rlim_cur = 2, .rlim_max = 2}; // lower than what is asked for first
    if (geteuid() != 0 || setrlimit(RLIMIT_RTPRIO, &limit) != 0)
        GTEST_SKIP() << "may not raise the limit here";
    const auto status = [] {
        if (setresuid(65534, 65534, 65534) != 0) return bad;
        int result = bad;
        std::thread([&] {
            RealTimePriority priority;
            priority.ask();
            sched_param given{};
            sched_getparam(0, &given);
            if (policy() != SCHED_FIFO || given.sched_priority != 2) return;
            runUntilOrdinary(); // without a privilege to step down with
            if (!isRealTime()) result = good;
        }).join();
        return result;
    };
    EXPECT_EXIT(std::_Exit(status()), testing::ExitedWithCode(good), "");
}
