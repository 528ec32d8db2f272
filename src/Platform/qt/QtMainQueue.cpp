#include "Platform/qt/QtMainQueue.h"

#include <QThread>
#include <QTimer>
#include <atomic>
#include <utility>

namespace tessary {

namespace {

std::chrono::milliseconds rounded(std::chrono::nanoseconds duration) {
    return std::chrono::ceil<std::chrono::milliseconds>(duration);
}

/// What the loop holds of a timer; the handle below is what the owner holds.
class TimerState : public Timer, public std::enable_shared_from_this<TimerState> {
  public:
    TimerState(QObject& context, std::function<void(Timer&)> handler)
        : context_(context)
        , handler_(std::move(handler)) {}

    void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
        onMainThread([self = shared_from_this(), first, every] {
            if (self->isCancelled_) return;
            if (!self->timer_) {
                self->timer_ = new QTimer(&self->context_);
                QObject::connect(self->timer_, &QTimer::timeout, &self->context_,
                                 [weak = std::weak_ptr(self)] {
                                     if (const auto state = weak.lock()) state->fire();
                                 });
            }
            self->every_ = rounded(every);
            self->timer_->start(rounded(first));
        });
    }

    void cancel() override {
        isCancelled_ = true;
        onMainThread([self = shared_from_this()] {
            if (self->timer_) std::exchange(self->timer_, nullptr)->deleteLater();
        });
    }

  private:
    void fire() {
        if (isCancelled_) return;
        if (timer_->intervalAsDuration() != every_) timer_->setInterval(every_);
        handler_(*this);
    }

    void onMainThread(std::function<void()> work) {
        if (context_.thread() == QThread::currentThread())
            work();
        else
            QMetaObject::invokeMethod(&context_, std::move(work), Qt::QueuedConnection);
    }

    QObject& context_;
    const std::function<void(Timer&)> handler_;
    std::atomic<bool> isCancelled_ = false;
    std::chrono::milliseconds every_{};
    QTimer* timer_ = nullptr; ///< its parent's
};

class TimerHandle : public Timer {
  public:
    explicit TimerHandle(std::shared_ptr<TimerState> state)
        : state_(std::move(state)) {}
    TimerHandle(const TimerHandle&) = delete;
    TimerHandle& operator=(const TimerHandle&) = delete;
    ~TimerHandle() override { state_->cancel(); }

    void schedule(std::chrono::nanoseconds first, std::chrono::nanoseconds every) override {
        state_->schedule(first, every);
    }
    void cancel() override { state_->cancel(); }

  private:
    const std::shared_ptr<TimerState> state_;
};

} // namespace

QtMainQueue::QtMainQueue()
    : context_(std::make_unique<QObject>()) {}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::post(std::function<void()> work) {
    QMetaObject::invokeMethod(context_.get(), std::move(work), Qt::QueuedConnection);
}

std::shared_ptr<Timer> QtMainQueue::makeTimer(std::function<void(Timer&)> handler) {
    return std::make_shared<TimerHandle>(std::make_shared<TimerState>(*context_, std::move(handler)));
}

void QtMainQueue::postAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
    post([this, delay, work = std::move(work)] { QTimer::singleShot(rounded(delay), context_.get(), work); });
}

} // namespace tessary
