#include "Platform/alsa/PacedSender.h"

#include "Platform/posix/Thread.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace tessary {

namespace {

/// Whether it can be published: System Exclusive from its F0 to its F7, or any other status but F7.
bool isWhole(std::span<const std::uint8_t> message) {
    if (message.empty() || message[0] < 0x80 || message[0] == 0xF7) return false;
    return message[0] != 0xF0 || message.back() == 0xF7;
}

} // namespace

PacedSender::PacedSender(Send send)
    : send_(std::move(send)) {
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
        const auto now = ExclusivePace::Clock::now();
        if (pace_.nextTime(message.size()) <= now) {
            pace_.sent(message.size(), now);
            send_(hostTime, message);
            return;
        }
    }
    if (isExclusive && waiting + message.size() > mostExclusive) return;
    waiting_.fetch_add(message.size(), std::memory_order_relaxed);
    if (ring_.push(hostTime, message))
        sem_post(&messages_);
    else
        waiting_.fetch_sub(message.size(), std::memory_order_relaxed);
}

void PacedSender::run() {
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(mostExclusive);
    std::size_t group = 0;
    for (;;) {
        while (sem_wait(&messages_) != 0)
            continue; // interrupted
        if (isClosing_) return;
        const auto head = ring_.front();
        if (!head) continue;
        const std::span message(buffer.get(), head->length);
        ring_.copyFront(*head, message.data());
        ring_.pop(*head);
        if (message[0] == 0xF0) {
            sendInPieces(head->time, message);
            group = 0;
        } else {
            send_(head->time, message);
            if (++group % groupSize == 0) std::this_thread::sleep_for(groupPause);
        }
        waiting_.fetch_sub(message.size(), std::memory_order_release);
    }
}

void PacedSender::sendInPieces(std::uint64_t hostTime, std::span<const std::uint8_t> message) {
    while (!message.empty()) {
        const auto piece = message.first(std::min(message.size(), pieceSize));
        std::this_thread::sleep_until(pace_.nextTime(piece.size()));
        if (isClosing_) return;
        pace_.sent(piece.size(), ExclusivePace::Clock::now());
        send_(hostTime, piece);
        message = message.subspan(piece.size());
    }
}

} // namespace tessary
