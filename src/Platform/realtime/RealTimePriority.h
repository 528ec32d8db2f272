// Real-time priority for one thread, until it overruns.
#pragma once

#include "Platform/system/OpenFile.h"

#include <chrono>

namespace tessary {

/// On a busy machine a thread with real-time priority waits for microseconds, not milliseconds. The kernel
/// grants it where the user's limits allow it (RLIMIT_RTPRIO), otherwise RealtimeKit on the system bus does;
/// if neither does, nothing is reported.
///
/// A real-time thread that never waits would starve ordinary work. So RLIMIT_RTTIME is set too: the kernel
/// sends SIGXCPU to a thread of this process that runs for that long without waiting, and the signal handler
/// returns that thread to ordinary scheduling, independent of all other threads. Without the handler the
/// process would end. The thread asks for the priority again later, after a delay that doubles each time.
///
/// Belongs to one thread, which constructs it and calls everything.
class RealTimePriority {
  public:
    /// Below the audio threads of JACK (5 and 10) and PipeWire (20 and more): they have deadlines, and need
    /// far less than a core. Above all ordinary work.
    static constexpr int priority = 4;

    RealTimePriority();
    RealTimePriority(const RealTimePriority&) = delete;
    RealTimePriority& operator=(const RealTimePriority&) = delete;
    ~RealTimePriority();

    /// Asks for the priority. Returns at once; a separate thread calls the bus.
    void ask();

    /// A file that becomes readable when the thread was demoted and may ask again.
    int timeToAskAgain() const { return alarm_.file(); }
    void askAgain();

  private:
    const OpenFile alarm_;
};

/// The limit that RealtimeKit requires; enough for any burst.
constexpr std::chrono::milliseconds longestRealTimeRun{200};

/// Limits how long a thread of this process may run at real-time priority without waiting. The soft limit
/// (SIGXCPU) is half of `longest`, the hard limit (SIGKILL) is `longest`.
bool limitRealTimeRun(std::chrono::microseconds longest = longestRealTimeRun);

/// Demotes the calling thread, and threads that it starts later, on SIGXCPU, whatever gave them their
/// priority. To be called before a library starts real-time threads.
void stepDownWhenTold();

} // namespace tessary
