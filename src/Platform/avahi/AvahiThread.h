// The one thread that everything of Avahi's lives on, as a queue.
#pragma once

#include "Platform/Queue.h"

#include <avahi-common/simple-watch.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>

namespace tessary {

/// Made anywhere; whoever calls `run` is the Avahi thread.
class AvahiThread : public Queue {
  public:
    AvahiThread();
    AvahiThread(const AvahiThread&) = delete;
    AvahiThread& operator=(const AvahiThread&) = delete;
    ~AvahiThread() override;

    /// The event loop as Avahi's objects want it.
    const AvahiPoll* poll() const { return avahi_simple_poll_get(poll_); }

    /// Runs on: any thread. After `stop` the work is dropped.
    void post(std::function<void()> work) override;

    /// Runs `work` here once, `delay` from now.
    ///
    /// Runs on: the Avahi thread.
    void postAfter(std::chrono::nanoseconds delay, std::function<void()> work);

    /// Serves the queue and Avahi until `stop`.
    void run();

    /// Lets `run` return as soon as it can; no piece of work is begun afterwards.
    ///
    /// Runs on: any thread. Never waits.
    void stop();

  private:
    using SteadyClock = std::chrono::steady_clock;

    void runPosted();
    void runTimed();
    int millisecondsToNext() const;
    void wake() const;

    AvahiSimplePoll* const poll_;
    // The loop's own wake-up is cleared before each wait, and a post of that moment with it; this one counts.
    const int wakeUps_;
    AvahiWatch* watch_ = nullptr;

    std::mutex mutex_;
    std::deque<std::function<void()>> posted_;
    std::multimap<SteadyClock::time_point, std::function<void()>> timed_; // the thread's own
    std::atomic<bool> isStopped_ = false;
};

} // namespace tessary
