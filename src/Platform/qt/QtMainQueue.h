// The main thread's queue on Qt's event loop.
#pragma once

#include "Platform/Queue.h"
#include "Platform/epoll/EventLoop.h"

#include <deque>
#include <memory>
#include <mutex>

class QObject;

namespace tessary {

/// Made and destroyed on the main thread, while there is an application object.
///
/// Work waits in a queue of our own and Qt is only woken: one wake-up serves whatever is waiting, and the
/// hand-over from thread to thread is one that ThreadSanitizer can see.
class QtMainQueue : public TimerQueue {
  public:
    QtMainQueue();
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;
    ~QtMainQueue() override;

    void post(std::function<void()> work) override;
    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) override;
    void postAfter(std::chrono::nanoseconds delay, std::function<void()> work) override;

    /// Another way to the main thread's loop, for what waits for files.
    EventLoop& loop() { return loop_; }

  private:
    EventLoop loop_;
    std::unique_ptr<QObject> loopNotifier_;
    void runPosted();
    std::function<void()> takePosted();

    std::mutex mutex_;
    std::deque<std::function<void()>> posted_;
    const int wakeFile_; ///< an event file, readable while work is waiting
    std::unique_ptr<QObject> context_;
};

} // namespace tessary
