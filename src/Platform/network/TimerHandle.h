// The owner's part of a timer, independent of the event loop.
#pragma once

#include "Platform/Queue.h"

#include <memory>
#include <utility>

namespace tessary {

/// The loop shares the timer's state and may outlive this; the owner's last reference cancels it.
class TimerHandle : public Timer {
  public:
    explicit TimerHandle(std::shared_ptr<Timer> state)
        : state_(std::move(state)) {}
    TimerHandle(const TimerHandle&) = delete;
    TimerHandle& operator=(const TimerHandle&) = delete;
    ~TimerHandle() override { state_->cancel(); }

    void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
        state_->schedule(first, every);
    }
    void cancel() override { state_->cancel(); }

  private:
    const std::shared_ptr<Timer> state_;
};

} // namespace tessary
