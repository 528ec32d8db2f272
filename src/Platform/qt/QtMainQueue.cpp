#include "Platform/qt/QtMainQueue.h"

#include "Platform/TimerHandle.h"

#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

std::chrono::milliseconds rounded(std::chrono::nanoseconds duration) {
    return std::chrono::ceil<std::chrono::milliseconds>(duration);
}

/// What the loop holds of a timer, next to its owner's handle.
class TimerState : public Timer, public std::enable_shared_from_this<TimerState> {
  public:
    TimerState(QtMainQueue& queue, QObject& context, std::function<void(Timer&)> handler)
        : queue_(queue)
        , context_(context)
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
            queue_.post(std::move(work));
    }

    QtMainQueue& queue_;
    QObject& context_;
    const std::function<void(Timer&)> handler_;
    std::atomic<bool> isCancelled_ = false;
    std::chrono::milliseconds every_{};
    QTimer* timer_ = nullptr; ///< its parent's
};

} // namespace

QtMainQueue::QtMainQueue()
    : loopNotifier_(std::make_unique<QSocketNotifier>(loop_.file(), QSocketNotifier::Read))
    , wakeFile_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    , context_(std::make_unique<QSocketNotifier>(wakeFile_, QSocketNotifier::Read)) {
    QObject::connect(static_cast<QSocketNotifier*>(context_.get()), &QSocketNotifier::activated,
                     context_.get(), [this] { runPosted(); });
    QObject::connect(static_cast<QSocketNotifier*>(loopNotifier_.get()), &QSocketNotifier::activated,
                     loopNotifier_.get(), [this] { loop_.serveOne(0); });
}

QtMainQueue::~QtMainQueue() {
    context_.reset();
    close(wakeFile_);
}

void QtMainQueue::post(std::function<void()> work) {
    const std::lock_guard lock(mutex_);
    const bool isFirst = posted_.empty();
    posted_.push_back(std::move(work));
    if (!isFirst) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = write(wakeFile_, &one, sizeof one);
}

void QtMainQueue::runPosted() {
    // What is posted meanwhile waits for the next turn of the loop, so that timers and signals have theirs.
    // The file stays readable until nothing waits, so that a loop inside a piece of work goes on with the
    // rest.
    std::size_t turns = 0;
    {
        const std::lock_guard lock(mutex_);
        turns = posted_.size();
    }
    for (; turns > 0; --turns) {
        const std::function<void()> work = takePosted();
        if (!work) break;
        work();
    }
}

std::function<void()> QtMainQueue::takePosted() {
    const std::lock_guard lock(mutex_);
    if (posted_.empty()) return nullptr;
    std::function<void()> work = std::move(posted_.front());
    posted_.pop_front();
    if (!posted_.empty()) return work;
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = read(wakeFile_, &count, sizeof count);
    return work;
}

std::shared_ptr<Timer> QtMainQueue::makeTimer(std::function<void(Timer&)> handler) {
    return std::make_shared<TimerHandle>(std::make_shared<TimerState>(*this, *context_, std::move(handler)));
}

void QtMainQueue::postAfter(std::chrono::nanoseconds delay, std::function<void()> work) {
    post([this, delay, work = std::move(work)] { QTimer::singleShot(rounded(delay), context_.get(), work); });
}

} // namespace tessary
