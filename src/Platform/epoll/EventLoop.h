// One thread's event loop: files that become readable, posted work, timers. On the road of a MIDI message.
#pragma once

#include "Platform/posix/OpenFile.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace tessary {

/// Between the kernel's answer that a file is readable and its reader stands one virtual call. Files take
/// turns, one read each, however much waits at one of them.
class EventLoop {
  public:
    using Clock = std::chrono::steady_clock;
    using TimerID = std::pair<Clock::time_point, std::uint64_t>;

    /// Called when its file has something to read, which it does without waiting.
    class Reader {
      public:
        virtual ~Reader() = default;
        virtual void readable() = 0;
    };

    /// Errors: throws std::system_error when the machine is out of files.
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    /// Drops what was posted and has not run. No thread runs the loop any more.
    ~EventLoop();

    /// Serves files, work and timers until `stop`. The thread that calls this is the loop's.
    void run();

    /// Serves one file, waiting at most `timeout` milliseconds for it (-1: without end); answers whether
    /// there was one. For a loop that is served from within another one. The thread that calls this is the
    /// loop's.
    bool serveOne(int timeout);

    /// Readable while something is ready, for a loop around this one.
    int file() const { return epoll_.file(); }

    /// Runs on: any thread, or in a signal handler.
    void stop();

    /// Runs `work` on the loop's thread, never inside this call.
    ///
    /// Runs on: any thread. Allocates: yes.
    void post(std::function<void()> work);

    /// Runs `work` at once on the loop's thread, and posts it from any other.
    void dispatch(std::function<void()> work);

    // From here on: the loop's thread, or any before it runs.

    /// `reader` stays where it is until the file is ignored or closed; the latter it may do in its call too.
    void watch(int file, Reader& reader);
    void ignore(int file);

    /// Runs `work` once, at `due`.
    TimerID at(Clock::time_point due, std::function<void()> work);
    /// Does nothing if it has run.
    void cancel(const TimerID& timer);

  private:
    void add(int file, std::uint32_t events, void* reader);
    void wake();
    void runPosted();
    void runTimers();
    void setAlarm();

    const OpenFile epoll_;
    const OpenFile wakeUp_;
    const OpenFile alarm_; ///< of the earliest timer
    std::atomic<bool> isStopping_ = false;
    std::atomic<std::thread::id> thread_;

    std::mutex mutex_;
    std::vector<std::function<void()>> posted_; ///< guarded by the mutex

    std::map<TimerID, std::function<void()>> timers_;
    Clock::time_point alarmTime_ = Clock::time_point::max();
    std::uint64_t timersMade_ = 0;
};

} // namespace tessary
