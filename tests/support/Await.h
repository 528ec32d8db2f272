// Waiting for what another thread reports.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace tessary::test {

/// What handlers on another thread report, in order.
template <typename T>
class Reports {
  public:
    void add(T report) {
        const std::lock_guard lock(mutex_);
        reports_.push_back(std::move(report));
        // With the lock held: the reader may destroy this object as soon as it has the report.
        arrived_.notify_all();
    }

    /// The next report, or none if it does not come within `timeout`.
    std::optional<T> next(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, timeout, [&] { return !reports_.empty(); })) return std::nullopt;
        std::optional<T> report = std::move(reports_.front());
        reports_.pop_front();
        return report;
    }

    bool isEmpty() {
        const std::lock_guard lock(mutex_);
        return reports_.empty();
    }

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<T> reports_;
};

} // namespace tessary::test
