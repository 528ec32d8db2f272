// The main thread's queue on Qt's event loop.
#pragma once

#include "Platform/Queue.h"

#include <memory>

class QObject;

namespace tessary {

/// Made on the main thread, after the application object.
class QtMainQueue : public TimerQueue {
  public:
    QtMainQueue();
    ~QtMainQueue() override;

    void post(std::function<void()> work) override;
    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) override;
    void postAfter(std::chrono::nanoseconds delay, std::function<void()> work) override;

  private:
    std::unique_ptr<QObject> context_;
};

} // namespace tessary
