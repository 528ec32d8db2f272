// A clock that stands still until it is told to move, and queues that run on it.
#pragma once

#include "Platform/Clock.h"
#include "Platform/Queue.h"

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace tessary::test {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

class VirtualTimer : public Timer {
  public:
    VirtualTimer(const nanoseconds& elapsed, std::function<void(Timer&)> itsHandler)
        : handler(std::move(itsHandler))
        , elapsed_(elapsed) {}
    void schedule(nanoseconds first, nanoseconds every) override {
        if (isCancelled_) return;
        due = elapsed_ + first;
        every_ = every;
    }
    void cancel() override {
        isCancelled_ = true;
        due = nanoseconds::max();
    }
    void fire() {
        due += every_;
        handler(*this);
    }
    nanoseconds due = nanoseconds::max();
    const std::function<void(Timer&)> handler;

  private:
    const nanoseconds& elapsed_;
    nanoseconds every_{};
    bool isCancelled_ = false;
};

class VirtualQueue : public TimerQueue {
  public:
    explicit VirtualQueue(const nanoseconds& elapsed)
        : elapsed_(elapsed) {}

    void post(std::function<void()> work) override { posted_.push_back(std::move(work)); }

    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) override {
        std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
        auto timer = std::make_shared<VirtualTimer>(elapsed_, std::move(handler));
        timers_.push_back(timer);
        return timer;
    }
    void postAfter(nanoseconds delay, std::function<void()> work) override {
        const auto timer = makeTimer([this, work = std::move(work)](Timer& due) {
            work();
            once_.erase(&due);
        });
        timer->schedule(delay, delay);
        once_[timer.get()] = timer;
    }

    std::size_t waiting() const { return posted_.size(); }

    /// Runs the oldest piece of posted work, held back or not; false if there is none.
    bool runOne() {
        if (posted_.empty()) return false;
        const auto work = std::move(posted_.front());
        posted_.pop_front();
        work();
        return true;
    }

    /// Runs posted work or a timer that is due; false if there is none, or the queue is held back.
    bool step() {
        if (isHeldBack) return false;
        if (runOne()) return true;
        const auto timer = nextTimer();
        if (!timer || timer->due > elapsed_) return false;
        timer->fire();
        return true;
    }

    /// When the next timer is due.
    nanoseconds nextDue() const {
        const auto timer = nextTimer();
        return timer ? timer->due : nanoseconds::max();
    }

    /// The ticks of all timers, as a thread has taken them up in the moment before they are cancelled.
    std::vector<std::function<void()>> ticksOnTheirWay() const {
        std::vector<std::function<void()>> ticks;
        for (const auto& weak : timers_)
            if (auto timer = weak.lock()) ticks.emplace_back([timer] { timer->handler(*timer); });
        return ticks;
    }

    bool isHeldBack = false; ///< The thread is busy: nothing of this queue runs.

  private:
    std::shared_ptr<VirtualTimer> nextTimer() const {
        std::shared_ptr<VirtualTimer> next;
        for (const auto& weak : timers_)
            if (auto timer = weak.lock(); timer && (!next || timer->due < next->due)) next = timer;
        return next;
    }

    const nanoseconds& elapsed_;
    std::deque<std::function<void()>> posted_;
    std::vector<std::weak_ptr<VirtualTimer>> timers_;
    std::map<Timer*, std::shared_ptr<Timer>> once_; ///< of `postAfter`
};

/// Everything runs on the test's thread. `run` does what is due now, queue by queue; `advance` lets time
/// pass. A queue that is held back keeps its work, so that any order of events between two queues can be
/// forced.
class VirtualTime : public Clock {
  public:
    std::chrono::system_clock::time_point now() const override { return calendar + elapsed_; }
    std::uint64_t hostTime() const override { return static_cast<std::uint64_t>(elapsed_.count()); }

    std::shared_ptr<VirtualQueue> makeQueue() {
        std::erase_if(queues_, [](const auto& weak) { return weak.expired(); });
        auto queue = std::make_shared<VirtualQueue>(elapsed_);
        queues_.push_back(queue);
        return queue;
    }

    /// Runs work and timers until nothing is due that is not held back.
    void run() {
        while (step()) {
        }
    }

    /// Lets `duration` pass, stopping at each timer on the way.
    void advance(nanoseconds duration) {
        const auto end = elapsed_ + duration;
        run();
        for (auto next = nextDue(); next <= end; next = nextDue()) {
            elapsed_ = std::max(elapsed_, next);
            run();
        }
        elapsed_ = end;
    }

    /// The calendar time at which the clock started: 16 November 2026, 21:08:03 UTC. A test may set it back.
    std::chrono::system_clock::time_point calendar{1794863283s};

  private:
    bool step() {
        for (const auto& weak : queues_) // the work may add queues, so nothing is read after it has run
            if (const auto queue = weak.lock(); queue && queue->step()) return true;
        return false;
    }
    nanoseconds nextDue() const {
        auto next = nanoseconds::max();
        for (const auto& weak : queues_)
            if (const auto queue = weak.lock(); queue && !queue->isHeldBack)
                next = std::min(next, queue->nextDue());
        return next;
    }

    nanoseconds elapsed_{};
    std::vector<std::weak_ptr<VirtualQueue>> queues_;
};

} // namespace tessary::test
