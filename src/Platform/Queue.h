// What the services need from the machine: work that runs later, in order, on one thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace tessary {

/// A serial queue: work posted to it runs one piece at a time, in the order posted.
class Queue {
  public:
    virtual ~Queue() = default;

    /// Runs `work` on this queue as soon as it can, never inside this call.
    ///
    /// Runs on: any thread. Allocates: yes, so it is never called on the packet path.
    virtual void post(std::function<void()> work) = 0;
};

/// A timer of one queue. Its handler runs on that queue; dropping the last reference cancels it.
class Timer {
  public:
    virtual ~Timer() = default;

    /// (Re)schedules the timer: first in `first` from now, then every `every`, against absolute times, so
    /// that late ticks do not add up.
    ///
    /// Runs on: the timer's queue, or any thread before the first call.
    virtual void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) = 0;

    /// Ends the timer for good. A handler that is running finishes; it is not entered again.
    ///
    /// Runs on: any thread.
    virtual void cancel() = 0;
};

/// A serial queue that also keeps time.
class TimerQueue : public Queue {
  public:
    /// Makes a timer that is not scheduled yet. The handler is given the timer that it belongs to.
    ///
    /// Runs on: any thread.
    virtual std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) = 0;

    /// Runs `work` on this queue once, `delay` from now.
    ///
    /// Runs on: any thread.
    virtual void postAfter(std::chrono::nanoseconds delay, std::function<void()> work) = 0;
};

} // namespace tessary
