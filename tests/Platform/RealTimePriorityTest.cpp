// Real-time priority as the kernel shows it. Each test is a process of its own: the limit that comes with the
// priority stays with its process. The network thread's is tested in tests/system/test_realtime.py.

#include "Platform/realtime/RealTimePriority.h"

#include "Platform/system/Thread.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <thread>
#include <unistd.h>

using namespace tessary;
using namespace std::chrono_literals;

namespace {

constexpr int good = 0, bad = 1;

int policy() {
    return sched_getscheduler(0) & ~SCHED_RESET_ON_FORK;
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
        check(sched_getscheduler(0) == (SCHED_FIFO | SCHED_RESET_ON_FORK));
        check(given.sched_priority == expectedPriority);
        rlimit run{}; // without the limit a flood would stop the machine
        getrlimit(RLIMIT_RTTIME, &run);
        check(run.rlim_cur <= 100'000 && run.rlim_max <= 200'000);
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
