// A queue with timers, served by an event loop.
#pragma once

#include "Platform/Queue.h"
#include "Platform/network/EventLoop.h"

namespace tessary {

/// When a periodic timer fires.
enum class TimerAlignment {
    exact,
    /// A timer whose period is a second or more fires at whole seconds of the monotonic clock, up to a second
    /// early the first time: all such timers of a process share one wake-up.
    wholeSeconds,
};

/// All queues of a loop share its one thread, which makes each of them serial. Outlived by the loop.
class LoopQueue : public TimerQueue {
  public:
    explicit LoopQueue(EventLoop& loop, TimerAlignment alignment = TimerAlignment::exact)
        : loop_(loop)
        , alignment_(alignment) {}

    void post(std::function<void()> work) override { loop_.post(std::move(work)); }
    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) override;
    void postAfter(std::chrono::nanoseconds delay, std::function<void()> work) override;

  private:
    EventLoop& loop_;
    const TimerAlignment alignment_;
};

} // namespace tessary
