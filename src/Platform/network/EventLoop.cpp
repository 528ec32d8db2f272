#include "Platform/network/EventLoop.h"

#include <cerrno>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <system_error>
#include <unistd.h>

namespace tessary {

namespace {

OpenFile checked(int file) {
    if (file < 0) throw std::system_error(errno, std::system_category(), "event loop");
    return OpenFile(file);
}

} // namespace

EventLoop::EventLoop()
    : epoll_(checked(epoll_create1(EPOLL_CLOEXEC)))
    , wakeUp_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)))
    , alarm_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))) {
    add(wakeUp_.file(), EPOLLIN | EPOLLET, &posted_); // each write to it triggers, so it never has to be read
    add(alarm_.file(), EPOLLIN, &timers_);
}

EventLoop::~EventLoop() {
    // Dropped work may cancel timers and post again.
    while (!posted_.empty() || !timers_.empty()) {
        std::exchange(posted_, {}).clear();
        std::exchange(timers_, {}).clear();
    }
}

void EventLoop::run() {
    while (!isStopping_)
        serveOne(-1);
}

bool EventLoop::serveOne(int timeout) {
    thread_ = std::this_thread::get_id();
    // One event at a time: a reader that another one has just closed is never called, and the kernel lets
    // files take turns.
    epoll_event event;
    if (epoll_wait(epoll_.file(), &event, 1, timeout) != 1) return false;
    if (event.data.ptr == &posted_)
        runPosted();
    else if (event.data.ptr == &timers_)
        runTimers();
    else
        static_cast<Reader*>(event.data.ptr)->readable();
    return true;
}

void EventLoop::stop() {
    isStopping_ = true;
    wake();
}

// Files

void EventLoop::add(int file, std::uint32_t events, void* reader) {
    epoll_event event{.events = events, .data = {.ptr = reader}};
    epoll_ctl(epoll_.file(), EPOLL_CTL_ADD, file, &event);
}

void EventLoop::watch(int file, Reader& reader) {
    add(file, EPOLLIN, &reader);
}

void EventLoop::ignore(int file) {
    epoll_ctl(epoll_.file(), EPOLL_CTL_DEL, file, nullptr);
}

// Work

void EventLoop::wake() {
    eventfd_write(wakeUp_.file(), 1);
}

void EventLoop::post(std::function<void()> work) {
    {
        const std::lock_guard lock(mutex_);
        posted_.push_back(std::move(work));
        if (posted_.size() > 1) return; // already woken
    }
    wake();
}

void EventLoop::dispatch(std::function<void()> work) {
    if (thread_.load() == std::this_thread::get_id())
        work();
    else
        post(std::move(work));
}

void EventLoop::runPosted() {
    std::vector<std::function<void()>> batch;
    {
        const std::lock_guard lock(mutex_);
        std::swap(batch, posted_);
    }
    for (auto& work : batch) {
        if (isStopping_) return;
        std::exchange(work, nullptr)(); // and releases what it owns
    }
}

// Timers

EventLoop::TimerID EventLoop::at(Clock::time_point due, std::function<void()> work) {
    const TimerID timer{due, ++timersMade_};
    timers_.emplace(timer, std::move(work));
    setAlarm();
    return timer;
}

void EventLoop::cancel(const TimerID& timer) {
    const auto dropped = timers_.extract(timer); // released once the map is consistent
    setAlarm();
}

void EventLoop::runTimers() {
    alarmTime_ = Clock::time_point::min(); // it has expired, and stays readable until it is set again
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now && !isStopping_) {
        const auto due = timers_.extract(timers_.begin());
        due.mapped()();
    }
    setAlarm();
}

void EventLoop::setAlarm() {
    const auto next = timers_.empty() ? Clock::time_point::max() : timers_.begin()->first.first;
    if (next == alarmTime_) return;
    alarmTime_ = next;
    itimerspec alarm{}; // all zero: none
    if (!timers_.empty()) {
        const auto time = next.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
        alarm.it_value = {.tv_sec = seconds.count(), .tv_nsec = (time - seconds).count()};
    }
    timerfd_settime(alarm_.file(), TFD_TIMER_ABSTIME, &alarm, nullptr);
}

} // namespace tessary
