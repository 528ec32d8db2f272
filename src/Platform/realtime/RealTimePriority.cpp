#include "Platform/realtime/RealTimePriority.h"

#include "Platform/realtime/RealtimeKit.h"
#include "Platform/system/Thread.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sched.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <system_error>
#include <unistd.h>

namespace tessary {

namespace {

/// The first delay before a demoted thread asks again; it doubles each time. The kernel resets a thread's run
/// time only when it waits at real-time priority, so a thread that never waits would be killed after about
/// twenty requests. With doubling delays that takes years.
constexpr time_t firstPause = 10;

/// Set in a thread that may ask for the priority again.
constinit thread_local int alarmOfThread = -1;
constinit thread_local time_t pauseOfThread = firstPause;

/// Only what is safe in a signal's handler: calls that go straight to the kernel.
void stepDown(int) {
    const int before = errno;
    const sched_param ordinary{};
    sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &ordinary); // of the calling thread
    limitRealTimeRun(); // the kernel has just raised it by a second
    if (alarmOfThread >= 0) {
        const itimerspec alarm{.it_interval = {}, .it_value = {.tv_sec = pauseOfThread, .tv_nsec = 0}};
        timerfd_settime(alarmOfThread, 0, &alarm, nullptr);
        pauseOfThread *= 2;
    }
    errno = before;
}

bool raisePriority() {
    for (sched_param wanted{.sched_priority = RealTimePriority::priority}; wanted.sched_priority > 0;
         --wanted.sched_priority) { // the user's limit may be lower
        if (sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &wanted) == 0) return true;
    }
    return false;
}

} // namespace

bool limitRealTimeRun(std::chrono::microseconds longest) {
    rlimit limit{};
    if (getrlimit(RLIMIT_RTTIME, &limit) != 0) return false;
    limit.rlim_max = std::min(limit.rlim_max, static_cast<rlim_t>(longest.count()));
    limit.rlim_cur = limit.rlim_max / 2;
    return setrlimit(RLIMIT_RTTIME, &limit) == 0;
}

// The kernel sends the signal to the thread that overran if that thread does not block it, otherwise to
// another one.
void stepDownWhenTold() {
    struct sigaction action {};
    action.sa_handler = stepDown;
    action.sa_flags = SA_RESTART;
    sigaction(SIGXCPU, &action, nullptr);
    sigset_t signal;
    sigemptyset(&signal);
    sigaddset(&signal, SIGXCPU);
    pthread_sigmask(SIG_UNBLOCK, &signal, nullptr);
}

RealTimePriority::RealTimePriority()
    : alarm_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    alarmOfThread = alarm_.file();
    stepDownWhenTold();
}

RealTimePriority::~RealTimePriority() {
    alarmOfThread = -1;
}

void RealTimePriority::ask() {
    if (raisePriority()) {
        if (!limitRealTimeRun()) stepDown(SIGXCPU);
        return;
    }
    startDetachedThread("tessary-rtkit", [thread = gettid()] {
        askRealtimeKit(thread, priority, [](std::chrono::microseconds longest) {
            return limitRealTimeRun(std::min<std::chrono::microseconds>(longest, longestRealTimeRun));
        });
    });
}

void RealTimePriority::askAgain() {
    const itimerspec none{};
    timerfd_settime(alarm_.file(), 0, &none, nullptr);
    ask();
}

} // namespace tessary
