#include "Platform/epoll/LoopTimer.h"

#include "Platform/TimerHandle.h"

#include <atomic>
#include <optional>
#include <utility>

namespace tessary {

namespace {

/// What the loop holds of a timer, next to its owner's handle.
class TimerState : public Timer, public std::enable_shared_from_this<TimerState> {
  public:
    TimerState(EventLoop& loop, std::function<void(Timer&)> handler)
        : loop_(loop)
        , handler_(std::move(handler)) {}

    void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
        loop_.dispatch([self = shared_from_this(), first, every] {
            self->due_ = EventLoop::Clock::now() + first;
            self->every_ = every;
            self->wait();
        });
    }

    void cancel() override {
        isCancelled_ = true;
        loop_.post([self = shared_from_this()] { self->forget(); });
    }

  private:
    void wait() {
        forget();
        if (isCancelled_) return;
        waiting_ = loop_.at(due_, [self = shared_from_this()] {
            self->waiting_.reset();
            if (!self->isCancelled_) self->fire();
        });
    }

    void forget() {
        if (waiting_) loop_.cancel(*std::exchange(waiting_, std::nullopt));
    }

    void fire() {
        handler_(*this);
        if (waiting_) return; // rescheduled
        const auto now = EventLoop::Clock::now();
        do
            due_ += every_;
        while (due_ <= now); // a tick that was missed is not made up for
        wait();
    }

    EventLoop& loop_;
    const std::function<void(Timer&)> handler_;
    std::atomic<bool> isCancelled_ = false;
    EventLoop::Clock::time_point due_;
    std::chrono::nanoseconds every_{};
    std::optional<EventLoop::TimerID> waiting_;
};

} // namespace

std::shared_ptr<Timer> makeLoopTimer(EventLoop& loop, std::function<void(Timer&)> handler) {
    return std::make_shared<TimerHandle>(std::make_shared<TimerState>(loop, std::move(handler)));
}

} // namespace tessary
