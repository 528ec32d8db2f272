#include "Loop.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tessary::discovery {

Loop::Loop()
    : poll_(avahi_simple_poll_new(), avahi_simple_poll_free) {
    if (!poll_) throw std::bad_alloc();
}

void Loop::run() {
    while (!isStopped_) {
        runPosted();
        runTimed();
        if (!isStopped_) avahi_simple_poll_iterate(poll_.get(), posted_.empty() ? millisecondsToNext() : 0);
    }
    posted_.clear();
    timed_.clear();
}

void Loop::runPosted() {
    for (auto work = std::exchange(posted_, {}); !work.empty() && !isStopped_; work.pop_front())
        work.front()();
}

void Loop::runTimed() {
    while (!isStopped_ && !timed_.empty() && timed_.begin()->first <= Clock::now())
        timed_.extract(timed_.begin()).mapped()();
}

int Loop::millisecondsToNext() const {
    if (timed_.empty()) return -1;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(timed_.begin()->first - Clock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(wait.count(), 0, 60'000));
}

} // namespace tessary::discovery
