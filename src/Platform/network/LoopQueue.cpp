#include "Platform/network/LoopQueue.h"

#include "Platform/network/TimerHandle.h"

#include <atomic>
#include <optional>
#include <utility>

namespace tessary {

namespace {

/// The loop's part of a timer, beside its owner's handle.
class TimerState : public Timer, public std::enable_shared_from_this<TimerState> {
  public:
    TimerState(EventLoop& loop, TimerAlignment alignment, std::function<void(Timer&)> handler)
        : loop_(loop)
        , alignment_(alignment)
        , handler_(std::move(handler)) {}

    void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
        loop_.dispatch([self = shared_from_this(), first, every] {
            self->due_ = EventLoop::Clock::now() + first;
            if (self->alignment_ == TimerAlignment::wholeSeconds && every >= std::chrono::seconds(1))
                self->due_ = std::chrono::floor<std::chrono::seconds>(self->due_);
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
        while (due_ <= now); // missed ticks are skipped
        wait();
    }

    EventLoop& loop_;
    const TimerAlignment alignment_;
    const std::function<void(Timer&)> handler_;
    std::atomic<bool> isCancelled_ = false;
    EventLoop::Clock::time_point due_;
    std::chrono::nanoseconds every_{};
    std::optional<EventLoop::TimerID> waiting_;
};

} // namespace

std::shared_ptr<Timer> LoopQueue::makeTimer(std::function<void(Timer&)> handler) {
    return std::make_shared<TimerHandle>(std::make_shared<TimerState>(loop_, alignment_, std::move(handler)));
}

void LoopQueue::postAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
    post([&loop = loop_, due = EventLoop::Clock::now() + delay, work = std::move(work)]() mutable {
        loop.at(due, std::move(work));
    });
}

} // namespace tessary
