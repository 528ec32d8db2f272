#include "Platform/avahi/AvahiThread.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tessary {

AvahiThread::AvahiThread()
    : poll_(avahi_simple_poll_new())
    , wakeUps_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!poll_ || wakeUps_ < 0) throw std::system_error(errno, std::generic_category(), "discovery");
    const auto drain = [](AvahiWatch*, int file, AvahiWatchEvent, void*) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t size = read(file, &count, sizeof count);
    };
    watch_ = poll()->watch_new(poll(), wakeUps_, AVAHI_WATCH_IN, drain, nullptr);
}

AvahiThread::~AvahiThread() {
    poll()->watch_free(watch_);
    avahi_simple_poll_free(poll_);
    close(wakeUps_);
}

void AvahiThread::post(std::function<void()> work) {
    bool wasEmpty = false;
    {
        const std::lock_guard lock(mutex_);
        if (isStopped_) return;
        wasEmpty = posted_.empty();
        posted_.push_back(std::move(work));
    }
    if (wasEmpty) wake();
}

void AvahiThread::postAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
    timed_.emplace(SteadyClock::now() + delay, std::move(work));
}

void AvahiThread::run() {
    while (!isStopped_) {
        runPosted();
        runTimed();
        if (!isStopped_) avahi_simple_poll_iterate(poll_, millisecondsToNext());
    }
    timed_.clear();
    // What the waiting work holds may post as it goes: it goes after the lock.
    std::deque<std::function<void()>> dropped;
    const std::lock_guard lock(mutex_);
    dropped.swap(posted_);
}

void AvahiThread::stop() {
    isStopped_ = true;
    wake();
}

void AvahiThread::runPosted() {
    std::deque<std::function<void()>> work;
    {
        const std::lock_guard lock(mutex_);
        work.swap(posted_);
    }
    for (; !work.empty() && !isStopped_; work.pop_front())
        work.front()();
}

void AvahiThread::runTimed() {
    while (!isStopped_ && !timed_.empty() && timed_.begin()->first <= SteadyClock::now())
        timed_.extract(timed_.begin()).mapped()();
}

int AvahiThread::millisecondsToNext() const {
    if (timed_.empty()) return -1;
    const auto wait =
        std::chrono::ceil<std::chrono::milliseconds>(timed_.begin()->first - SteadyClock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(wait.count(), 0, 60'000));
}

void AvahiThread::wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = write(wakeUps_, &one, sizeof one);
}

} // namespace tessary
