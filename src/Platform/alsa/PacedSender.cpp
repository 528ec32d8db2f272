#include "Platform/alsa/PacedSender.h"

#include "Platform/system/Thread.h"

#include <algorithm>
#include <memory>
#include <string>
#include <utility>

namespace tessary {

namespace {

/// Whether the message can be published: a complete System Exclusive (F0 … F7), or any other status but F7.
bool isWhole(std::span<const std::uint8_t> message) {
    if (message.empty() || message[0] < 0x80 || message[0] == 0xF7) return false;
    return message[0] != 0xF0 || message.back() == 0xF7;
}

/// The sequencer stores an event in one cell of its pool and the bytes of a System Exclusive event in further
/// cells of this size.
constexpr std::size_t bytesOfACell = 28;

/// How often the subscribers' free room is queried while a piece waits.
constexpr auto roomInterval = std::chrono::milliseconds(1);
/// A subscriber without room for this long is taken to have stopped reading.
constexpr auto stallTime = std::chrono::milliseconds(100);

/// Whether the subscriber has room for `size` bytes: half of its queue must stay free for the notes that may
/// arrive meanwhile, unless the queue is empty.
bool hasRoom(const Subscriber& subscriber, std::size_t size) {
    const auto cells = static_cast<int>(1 + (size + bytesOfACell - 1) / bytesOfACell);
    return subscriber.room - cells >= subscriber.size / 2 || subscriber.room == subscriber.size;
}

} // namespace

PacedSender::PacedSender(Send send, Subscribers subscribers, Log& log)
    : send_(std::move(send))
    , subscribers_(std::move(subscribers))
    , log_(log) {
    sem_init(&messages_, 0, 0);
    thread_ = startThread("tessary-alsa", [this] { run(); });
}

PacedSender::~PacedSender() {
    isClosing_ = true;
    sem_post(&messages_);
    thread_.join();
    sem_destroy(&messages_);
}

void PacedSender::publish(std::uint64_t hostTime, std::span<const std::uint8_t> message) {
    if (!isWhole(message)) return;
    if (message[0] >= 0xF8) {
        send_(hostTime, message);
        return;
    }
    const bool isExclusive = message[0] == 0xF0;
    const std::size_t waiting = waiting_.load(std::memory_order_acquire);
    if (waiting == 0 && !isExclusive) {
        send_(hostTime, message);
        return;
    }
    if (waiting == 0 && message.size() <= pieceSize) {
        const auto now = Clock::now();
        if (pace_.nextTime(message.size(), now) <= now) {
            pace_.sent(message.size(), now);
            send_(hostTime, message);
            return;
        }
    }
    const bool isTooMuch = isExclusive && waiting + message.size() > maxWaiting;
    waiting_.fetch_add(message.size(), std::memory_order_relaxed);
    if (!isTooMuch && ring_.push(hostTime, message)) {
        sem_post(&messages_);
        return;
    }
    waiting_.fetch_sub(message.size(), std::memory_order_relaxed);
    if (!isExclusive) return;
    overflown_ = message.size();
    sem_post(&messages_); // the thread writes the log line
}

void PacedSender::run() {
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(maxWaiting);
    std::size_t group = 0;
    for (;;) {
        while (sem_wait(&messages_) != 0)
            continue; // interrupted by a signal
        if (isClosing_) return;
        if (const std::size_t size = overflown_.exchange(0); size != 0) reportDropped(size);
        const auto head = ring_.front();
        if (!head) continue;
        const std::span message(buffer.get(), head->length);
        ring_.copyFront(*head, message.data());
        ring_.pop(*head);
        if (message[0] == 0xF0) {
            sendExclusive(head->time, message);
            group = 0;
        } else {
            send_(head->time, message);
            if (++group % groupSize == 0) std::this_thread::sleep_for(groupPause);
        }
        waiting_.fetch_sub(message.size(), std::memory_order_release);
    }
}

void PacedSender::sendExclusive(std::uint64_t hostTime, std::span<const std::uint8_t> message) {
    const Clock::time_point deadline = Clock::time_point(std::chrono::nanoseconds(hostTime)) + maxDelay;
    if (!fits(message.size(), deadline)) return reportDropped(message.size());
    isDropping_ = false;
    while (!message.empty() && !isClosing_) {
        const auto piece = message.first(std::min(message.size(), pieceSize));
        awaitRoom(piece.size(), deadline);
        pace_.sent(piece.size(), Clock::now());
        send_(hostTime, piece);
        message = message.subspan(piece.size());
    }
}

/// Whether `size` bytes can be sent by `deadline`.
bool PacedSender::fits(std::size_t size, Clock::time_point deadline) {
    const auto now = Clock::now();
    if (now >= deadline) return false;
    return std::ranges::all_of(subscribers_(), &Subscriber::tellsRoom) ||
           pace_.nextTime(size, now) <= deadline;
}

void PacedSender::awaitRoom(std::size_t size, Clock::time_point deadline) {
    const auto began = Clock::now();
    for (auto now = began; now < deadline && !isClosing_; now = Clock::now()) {
        bool isFull = false;
        for (const Subscriber& subscriber : subscribers_()) {
            if (!subscriber.tellsRoom) {
                isFull |= pace_.nextTime(size, now) > now;
            } else if (hasRoom(subscriber, size)) {
                stalled_.erase(subscriber.client);
            } else {
                if (now - began >= stallTime) stalled_.insert(subscriber.client);
                isFull |= !stalled_.contains(subscriber.client);
            }
        }
        if (!isFull) return;
        std::this_thread::sleep_for(roomInterval);
    }
}

void PacedSender::reportDropped(std::size_t size) {
    if (std::exchange(isDropping_, true)) return;
    log_.line("[CoreMIDI] dropped a System Exclusive of " + std::to_string(size) +
              " bytes, which would have held up other messages for more than a second");
}

} // namespace tessary
