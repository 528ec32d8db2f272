// Real-time priority as the kernel shows it. Each test is a process of its own: the limit that comes with the
// priority stays with its process.

#include "Platform/realtime/RealTimePriority.h"
#include "Platform/network/EpollNetwork.h"
#include "Platform/system/Thread.h"
#include "support/Await.h"

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
bool loseItAndAskAgain(int expectedPriority) {
    std::atomic<bool> isAsExpected = true;
    startThread("test", [&] {
        const auto check = [&](bool condition) { isAsExpected = isAsExpected && condition; };
        RealTimePriority priority;
        priority.ask();
        sched_param given{};
        sched_getparam(0, &given);
        check(policy() == SCHED_FIFO && given.sched_priority == expectedPriority);
        check(secondsUntil(priority.timeToAskAgain()) == 0);
        std::thread([&] { check(policy() == SCHED_OTHER); }).join(); // not inherited
        // Without a limit a flood would stop the machine.
        rlimit limit{};
        getrlimit(RLIMIT_RTTIME, &limit);
        check(limit.rlim_cur <= 100'000 && limit.rlim_max <= 200'000);
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
    return isAsExpected;
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
    EXPECT_EXIT(std::_Exit(!loseItAndAskAgain(RealTimePriority::priority)), testing::ExitedWithCode(0), "");
}

// Without the privilege the kernel grants no more than the limit, and no more once the thread has lost it to
// RLIMIT_RTTIME of the process.
TEST_F(RealTimePriorityDeathTest, TheUsersLimitIsEnoughToAskAndToStepDown) {
    const rlimit limit{.rlim_cur = 2, .rlim_max = 2}; // lower than what is asked for first
    if (geteuid() != 0 || setrlimit(RLIMIT_RTPRIO, &limit) != 0)
        GTEST_SKIP() << "may not raise the limit here";
    const auto asUser = [] { return setresuid(65534, 65534, 65534) == 0 && loseItAndAskAgain(2); };
    EXPECT_EXIT(std::_Exit(!asUser()), testing::ExitedWithCode(0), "");
}

TEST_F(RealTimePriorityDeathTest, OnlyANetworkThatWantsItHasIt) {
    const auto isAsExpected = [] {
        const auto threadOf = [](EpollNetwork& network) {
            Reports<pid_t> thread;
            network.backgroundQueue().post([&] { thread.add(gettid()); });
            return thread.next();
        };
        EpollNetwork ordinary({}), urgent({}, Scheduling::realTime);
        threadOf(ordinary); // has asked by now, if it does
        const auto expected = threadOf(urgent);
        return realTimeThreads() == std::vector{expected.value()};
    };
    EXPECT_EXIT(std::_Exit(!isAsExpected()), testing::ExitedWithCode(0), "");
}
