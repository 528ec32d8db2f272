#include "Platform/asio/AsioTimer.h"

#include "Platform/TimerHandle.h"

#include <asio/dispatch.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <utility>

namespace tessary {

namespace {

using SteadyTimer =
    asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>,
                               asio::io_context::executor_type>;

/// What the network thread holds of a timer, next to its owner's handle.
class TimerState : public Timer, public std::enable_shared_from_this<TimerState> {
  public:
    TimerState(asio::io_context& context, std::function<void(Timer&)> handler)
        : context_(context)
        , timer_(context)
        , handler_(std::move(handler)) {}

    void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
        asio::dispatch(context_, [self = shared_from_this(), first, every] {
            self->due_ = std::chrono::steady_clock::now() + first;
            self->every_ = every;
            self->wait();
        });
    }

    void cancel() override {
        isCancelled_ = true;
        asio::post(context_, [self = shared_from_this()] { self->timer_.cancel(); });
    }

  private:
    void wait() {
        if (isCancelled_) return;
        timer_.expires_at(due_); // ends a wait that is under way
        timer_.async_wait([self = shared_from_this(), due = due_](const std::error_code& error) {
            if (error || self->isCancelled_ || due != self->due_) return;
            self->fire();
        });
    }

    void fire() {
        const auto due = due_;
        handler_(*this);
        if (due_ != due) return; // rescheduled
        const auto now = std::chrono::steady_clock::now();
        do
            due_ += every_;
        while (due_ <= now); // a tick that was missed is not made up for
        wait();
    }

    asio::io_context& context_;
    SteadyTimer timer_;
    const std::function<void(Timer&)> handler_;
    std::atomic<bool> isCancelled_ = false;
    std::chrono::steady_clock::time_point due_;
    std::chrono::nanoseconds every_{};
};

} // namespace

std::shared_ptr<Timer> makeAsioTimer(asio::io_context& context, std::function<void(Timer&)> handler) {
    return std::make_shared<TimerHandle>(std::make_shared<TimerState>(context, std::move(handler)));
}

void asioPostAfter(asio::io_context& context, std::chrono::nanoseconds delay, std::function<void()> work) {
    auto timer = std::make_shared<SteadyTimer>(context, delay);
    timer->async_wait([timer, work = std::move(work)](const std::error_code& error) {
        if (!error) work();
    });
}

} // namespace tessary
