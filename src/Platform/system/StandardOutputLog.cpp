#include "Platform/system/StandardOutputLog.h"

#include "Models/UTF8.h"
#include "Platform/system/Thread.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

/// Hours of ordinary lines, a second or two of heavy logging.
constexpr std::size_t mostWaiting = std::size_t{256} * 1024;

constexpr auto flushTimeout = std::chrono::milliseconds(200);

/// Returns whether all of it was written; blocks while the reader does not read.
bool writeAll(int fileDescriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fileDescriptor, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) { // another process made it non-blocking
            pollfd room{.fd = fileDescriptor, .events = POLLOUT, .revents = 0};
            poll(&room, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

struct StandardOutputLog::Lines {
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable drained;
    std::string waiting;
    bool isWriting = false;
    bool isBroken = false;
    bool isEnding = false;

    void write(int fileDescriptor) {
        std::string batch;
        std::unique_lock lock(mutex);
        while (true) {
            wake.wait(lock, [&] { return isEnding || !waiting.empty(); });
            if (waiting.empty()) return;
            batch.clear();
            std::swap(batch, waiting);
            isWriting = true;
            lock.unlock();
            const bool isWritten = writeAll(fileDescriptor, batch);
            lock.lock();
            isWriting = false;
            if (!isWritten) {
                isBroken = true;
                waiting.clear();
            }
            drained.notify_all();
        }
    }
};

StandardOutputLog::StandardOutputLog(int fileDescriptor)
    : lines_(std::make_shared<Lines>()) {
    startThread("tessary-log", [lines = lines_, fileDescriptor] { lines->write(fileDescriptor); }).detach();
}

StandardOutputLog::~StandardOutputLog() {
    flush();
    const std::lock_guard lock(lines_->mutex);
    lines_->isEnding = true;
    lines_->wake.notify_one();
}

void StandardOutputLog::flush() {
    std::unique_lock lock(lines_->mutex);
    lines_->drained.wait_for(lock, flushTimeout,
                             [&] { return lines_->waiting.empty() && !lines_->isWriting; });
}

void StandardOutputLog::line(std::string_view text) {
    const std::string shown = escapedControls(text) + "\n";
    {
        const std::lock_guard lock(lines_->mutex);
        if (lines_->isBroken || lines_->waiting.size() + shown.size() > mostWaiting) return;
        lines_->waiting += shown;
    }
    lines_->wake.notify_one();
}

} // namespace tessary
