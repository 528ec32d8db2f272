// Real-time priority for one thread, for as long as it behaves.
#pragma once

#include "Platform/system/OpenFile.h"

#include <chrono>

namespace tessary {

/// Ordinary work on a busy machine keeps a thread with real-time priority waiting for microseconds, not
/// milliseconds. It is had from the kernel where the user's limits allow it (RLIMIT_RTPRIO), else from
/// RealtimeKit on the system bus, else not at all, and nobody is told.
///
/// A thread that has it and never waits would shut ordinary work out. So a limit is set with it
/// (RLIMIT_RTTIME): whoever of this process runs for that long without waiting is sent SIGXCPU by the kernel,
/// and steps down to ordinary scheduling in the signal's handler, whatever other threads are doing. Without
/// the handler that would end the process. Some time later the thread asks again, each time after twice as
/// long.
///
/// Belongs to one thread, which constructs it and calls everything.
class RealTimePriority {
  public:
    /// Below the audio threads of JACK (5 and 10) and PipeWire (20 and more): they have a deadline to keep,
    /// and need far less than a core. Above all ordinary work.
    static constexpr int priority = 4;

    RealTimePriority();
    RealTimePriority(const RealTimePriority&) = delete;
    RealTimePriority& operator=(const RealTimePriority&) = delete;
    ~RealTimePriority();

    /// Asks for the priority. Returns at once; the bus is asked by a thread of its own.
    void ask();

    /// A file that becomes readable when the thread has stepped down and may ask again.
    int timeToAskAgain() const { return alarm_.file(); }
    void askAgain();

  private:
    const OpenFile alarm_;
};

/// What RealtimeKit demands; enough for any burst, and a machine that hangs for that long is not noticed.
constexpr std::chrono::milliseconds longestRealTimeRun{200};

/// Limits how long a thread of this process may run with real-time priority without ever waiting: half of
/// `longest` until it is told, `longest` until the process is killed.
bool limitRealTimeRun(std::chrono::microseconds longest = longestRealTimeRun);

/// Makes the calling thread, and those that it will start, step down when they are told, whoever gave them
/// their priority. To be called where a library is going to start such threads.
void stepDownWhenTold();

} // namespace tessary
