// The field of an observable class.
#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace tessary {

/// Keeps one observer registered; dropping it ends the observation.
using Observation = std::shared_ptr<void>;

/// A field that calls its observers when it changes. Assigning a value that compares equal stores it without
/// calling them.
///
/// Runs on: the main thread. Observers run there, inside the assignment, after the field holds the new value.
template <typename T>
class Published {
  public:
    Published() = default;
    explicit Published(T initial)
        : value_(std::move(initial)) {}

    const T& operator*() const { return value_; }
    const T* operator->() const { return &value_; }

    Published& operator=(T next) {
        bool changed = true; // a callback compares with nothing: each assignment is a change
        if constexpr (std::equality_comparable<T>) changed = !(value_ == next);
        value_ = std::move(next);
        if (changed) notify();
        return *this;
    }

    /// Changes the value in place, for containers too large to be copied. `change` gets the value and returns
    /// whether it changed it.
    template <typename Change>
    void modify(Change change) {
        if (change(value_)) notify();
    }

    /// Calls `observer` on each change until the returned observation is dropped.
    [[nodiscard]] Observation observe(std::function<void()> observer) const {
        auto entry = std::make_shared<std::function<void()>>(std::move(observer));
        std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
        observers_.push_back(entry);
        return entry;
    }

  private:
    void notify() {
        const auto observers = observers_; // an observer may end itself or register another
        for (const auto& weak : observers)
            if (const auto observer = weak.lock()) (*observer)();
    }

    T value_{};
    mutable std::vector<std::weak_ptr<std::function<void()>>> observers_; ///< read access suffices to observe
};

} // namespace tessary
