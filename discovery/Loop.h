// The event loop of the discovery process: Avahi's own, with posted work.
#pragma once

#include <avahi-common/simple-watch.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>

namespace tessary::discovery {

/// One thread runs it and calls everything.
class Loop {
  public:
    using Clock = std::chrono::steady_clock;

    /// Errors: throws std::bad_alloc.
    Loop();

    /// The loop as Avahi's objects want it.
    const AvahiPoll* poll() const { return avahi_simple_poll_get(poll_.get()); }

    /// Runs `work` soon, never inside this call.
    void post(std::function<void()> work) { posted_.push_back(std::move(work)); }

    /// Runs `work` once, `delay` from now.
    void after(std::chrono::nanoseconds delay, std::function<void()> work) {
        timed_.emplace(Clock::now() + delay, std::move(work));
    }

    /// Serves Avahi and the work until `stop`.
    void run();
    void stop() { isStopped_ = true; }

  private:
    void runPosted();
    void runTimed();
    int millisecondsToNext() const;

    const std::unique_ptr<AvahiSimplePoll, void (*)(AvahiSimplePoll*)> poll_;
    std::deque<std::function<void()>> posted_;
    std::multimap<Clock::time_point, std::function<void()>> timed_;
    bool isStopped_ = false;
};

} // namespace tessary::discovery
