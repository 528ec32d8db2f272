// A clock that stands still until it is told to move, and queues that run on it.
#pragma once

#include "Platform/Clock.h"
#include "Platform/Queue.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

namespace tessary::test {

using namespace std::chrono_literals;

/// Everything runs on the test's thread. `run` does what is due now, queue by queue; `advance` lets time
/// pass. A queue that is held back keeps its work, so that any order of events between two queues can be
/// forced.
class VirtualTime : public Clock {
  public:
    class VirtualQueue;

    std::chrono::system_clock::time_point now() const override { return calendar + elapsed_; }
    std::uint64_t hostTime() const override { return static_cast<std::uint64_t>(elapsed_.count()); }

    std::shared_ptr<VirtualQueue> makeQueue();

    /// Runs work and timers until nothing is due that is not held back.
    void run();

    /// Lets `duration` pass, stopping at each timer on the way.
    void advance(std::chrono::nanoseconds duration);

    /// No queue is held back any more.
    void releaseAll();

    /// The calendar time at which the clock started: 16 November 2026, 21:08:03 UTC. A test may set it back.
    std::chrono::system_clock::time_point calendar{1794863283s};

  private:
    bool step();

    std::chrono::nanoseconds elapsed_{};
    std::vector<std::weak_ptr<VirtualQueue>> queues_;
};

class VirtualTime::VirtualQueue : public TimerQueue, public std::enable_shared_from_this<VirtualQueue> {
  public:
    explicit VirtualQueue(VirtualTime& time)
        : time_(time) {}

    void post(std::function<void()> work) override { posted_.push_back(std::move(work)); }

    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) override {
        std::erase_if(timers_, [](const auto& weak) { return weak.expired(); });
        auto timer = std::make_shared<VirtualTimer>(time_, std::move(handler));
        timers_.push_back(timer);
        return timer;
    }

    void postAfter(std::chrono::nanoseconds delay, std::function<void()> work) override {
        const auto timer = makeTimer([this, work = std::move(work)](Timer& due) {
            const auto keep =
                *std::find_if(once_.begin(), once_.end(), [&](const auto& t) { return t.get() == &due; });
            std::erase(once_, keep);
            work();
        });
        once_.push_back(timer);
        timer->schedule(delay, delay);
    }

    /// The thread is busy: nothing of this queue runs until it is released.
    void holdBack() { isHeld_ = true; }
    void release() { isHeld_ = false; }

    std::size_t waiting() const { return posted_.size(); }

    /// Runs the oldest piece of posted work, held back or not; false if there is none.
    bool runOne() {
        if (posted_.empty()) return false;
        const auto work = std::move(posted_.front());
        posted_.pop_front();
        work();
        return true;
    }

    /// The ticks of all timers, as a thread has taken them up in the moment before they are cancelled.
    std::vector<std::function<void()>> ticksOnTheirWay() const {
        std::vector<std::function<void()>> ticks;
        for (const auto& weak : timers_)
            if (auto timer = weak.lock()) ticks.emplace_back([timer] { timer->handle(); });
        return ticks;
    }

  private:
    friend class VirtualTime;

    class VirtualTimer : public Timer {
      public:
        VirtualTimer(VirtualTime& time, std::function<void(Timer&)> handler)
            : time_(time)
            , handler_(std::move(handler)) {}
        void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
            if (isCancelled_) return;
            due = time_.elapsed_ + first;
            every_ = every;
            ++generation_;
        }
        void cancel() override {
            isCancelled_ = true;
            due = std::chrono::nanoseconds::max();
        }
        void fire() {
            const unsigned generation = generation_;
            handle();
            if (generation == generation_ && !isCancelled_) due += every_;
        }
        void handle() { handler_(*this); }
        std::chrono::nanoseconds due = std::chrono::nanoseconds::max();

      private:
        VirtualTime& time_;
        std::function<void(Timer&)> handler_;
        std::chrono::nanoseconds every_{};
        unsigned generation_ = 0;
        bool isCancelled_ = false;
    };

    /// The timer of this queue that is due first.
    std::shared_ptr<VirtualTimer> nextTimer() {
        std::shared_ptr<VirtualTimer> next;
        for (const auto& weak : timers_)
            if (auto timer = weak.lock(); timer && (!next || timer->due < next->due)) next = timer;
        return next;
    }

    VirtualTime& time_;
    std::deque<std::function<void()>> posted_;
    std::vector<std::weak_ptr<VirtualTimer>> timers_;
    std::vector<std::shared_ptr<Timer>> once_; ///< of `postAfter`
    bool isHeld_ = false;
};

inline std::shared_ptr<VirtualTime::VirtualQueue> VirtualTime::makeQueue() {
    std::erase_if(queues_, [](const auto& weak) { return weak.expired(); });
    auto queue = std::make_shared<VirtualQueue>(*this);
    queues_.push_back(queue);
    return queue;
}

inline bool VirtualTime::step() {
    for (const auto& weak : queues_) { // which what runs may extend: nothing is read from it after that
        const auto queue = weak.lock();
        if (!queue || queue->isHeld_) continue;
        if (queue->runOne()) return true;
        if (const auto timer = queue->nextTimer(); timer && timer->due <= elapsed_) {
            timer->fire();
            return true;
        }
    }
    return false;
}

inline void VirtualTime::releaseAll() {
    for (const auto& weak : queues_)
        if (const auto queue = weak.lock()) queue->release();
}

inline void VirtualTime::run() {
    while (step()) {
    }
}

inline void VirtualTime::advance(std::chrono::nanoseconds duration) {
    const auto end = elapsed_ + duration;
    run();
    while (true) {
        auto next = std::chrono::nanoseconds::max();
        for (const auto& weak : queues_) {
            const auto queue = weak.lock();
            if (!queue || queue->isHeld_) continue;
            if (const auto timer = queue->nextTimer()) next = std::min(next, timer->due);
        }
        if (next > end) break;
        elapsed_ = std::max(elapsed_, next);
        run();
    }
    elapsed_ = end;
}

} // namespace tessary::test
