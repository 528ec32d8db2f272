// Passes MIDI messages from one thread to another. On the packet path: no lock, no heap allocation, no system
// call, no waiting on either side.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>

namespace tessary {

/// A queue of whole messages for one writing and one reading thread. Memory is taken at construction, and its
/// pages are touched only as messages first reach them.
class MIDIRing {
  public:
    /// What stands before the bytes of each message.
    struct Head {
        std::uint64_t time;   ///< whatever clock the writer stamps with
        std::uint64_t length; ///< in bytes
    };

    /// @param capacity  in bytes, heads included; a power of two
    explicit MIDIRing(std::size_t capacity)
        : capacity_(capacity)
        , bytes_(std::make_unique_for_overwrite<std::uint8_t[]>(capacity)) {}

    /// Appends a message, or nothing and answers false if it does not fit now.
    ///
    /// Runs on: the writing thread. Allocates: never.
    bool push(std::uint64_t time, std::span<const std::uint8_t> message) {
        const std::size_t end = end_.load(std::memory_order_relaxed);
        const std::size_t free = capacity_ - (end - begin_.load(std::memory_order_acquire));
        if (message.size() > free || free - message.size() < sizeof(Head)) return false;
        const Head head{time, message.size()};
        write(end, &head, sizeof head);
        write(end + sizeof head, message.data(), message.size());
        end_.store(end + sizeof head + message.size(), std::memory_order_release);
        return true;
    }

    /// The head of the oldest message; absent if there is none.
    ///
    /// Runs on: the reading thread. Allocates: never.
    std::optional<Head> front() const {
        const std::size_t begin = begin_.load(std::memory_order_relaxed);
        if (begin == end_.load(std::memory_order_acquire)) return std::nullopt;
        Head head;
        read(begin, &head, sizeof head);
        return head;
    }

    /// Copies the bytes of the oldest message, of which there must be one, to `to`.
    ///
    /// Runs on: the reading thread. Allocates: never.
    void copyFront(const Head& head, std::uint8_t* to) const {
        read(begin_.load(std::memory_order_relaxed) + sizeof head, to, head.length);
    }

    /// Removes the oldest message, whose head is given.
    ///
    /// Runs on: the reading thread. Allocates: never.
    void pop(const Head& head) {
        const std::size_t begin = begin_.load(std::memory_order_relaxed);
        begin_.store(begin + sizeof head + head.length, std::memory_order_release);
    }

    /// Drops everything that was pushed until now.
    ///
    /// Runs on: the reading thread, or any other while there is none. Allocates: never.
    void clear() { begin_.store(end_.load(std::memory_order_acquire), std::memory_order_release); }

  private:
    void write(std::size_t position, const void* from, std::size_t size) {
        if (size == 0) return;
        const std::size_t start = position & (capacity_ - 1);
        const std::size_t first = std::min(size, capacity_ - start);
        std::memcpy(&bytes_[start], from, first);
        std::memcpy(&bytes_[0], static_cast<const std::uint8_t*>(from) + first, size - first);
    }

    void read(std::size_t position, void* to, std::size_t size) const {
        if (size == 0) return;
        const std::size_t start = position & (capacity_ - 1);
        const std::size_t first = std::min(size, capacity_ - start);
        std::memcpy(to, &bytes_[start], first);
        std::memcpy(static_cast<std::uint8_t*>(to) + first, &bytes_[0], size - first);
    }

    const std::size_t capacity_;
    const std::unique_ptr<std::uint8_t[]> bytes_;
    // Counts of all bytes ever read and written: they only grow, and their difference is what waits. Each has
    // a cache line of its own, so that the two threads do not slow each other down.
    alignas(64) std::atomic<std::size_t> begin_{0};
    alignas(64) std::atomic<std::size_t> end_{0};
};

} // namespace tessary
