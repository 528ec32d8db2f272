// One thread's event loop: files that become readable, posted work, timers. On the packet path.
#pragma once

#include "Platform/system/OpenFile.h"

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

/// One virtual call leads from the kernel's event to the file's reader. Files take turns, one read each,
/// however much is pending on one of them.
class EventLoop {
  public:
    using Clock = std::chrono::steady_clock;
    using TimerID = std::pair<Clock::time_point, std::uint64_t>;

    /// Called when its file is readable; reads without blocking.
    class Reader {
      public:
        virtual ~Reader() = default;
        virtual void readable() = 0;
    };

    /// Errors: throws std::system_error when the machine is out of files.
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    /// Drops posted work that has not run. No thread may be running the loop.
    ~EventLoop();

    /// Serves files, work and timers until `stop`. The thread that calls this is the loop's.
    void run();

    /// Serves one file, waiting at most `timeout` milliseconds for it (-1: no timeout); returns whether there
    /// was one. For a loop inside another one. The thread that calls this is the loop's.
    bool serveOne(int timeout);

    /// Readable while an event is pending, for an enclosing loop.
    int file() const { return epoll_.file(); }

    /// Runs on: any thread, or in a signal handler.
    void stop();

    /// Runs `work` on the loop's thread, never inside this call.
    ///
    /// Runs on: any thread. Allocates: yes.
    void post(std::function<void()> work);

    /// Runs `work` at once if called on the loop's thread, otherwise posts it.
    void dispatch(std::function<void()> work);

    // The following run on the loop's thread, or on any thread before the loop runs.

    /// `reader` must stay valid until the file is ignored or closed; it may close its file while it is
    /// called.
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
