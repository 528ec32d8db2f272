// Sends the messages of a source in an order and at a pace that every listener can follow. On the road of a
// MIDI message.
#pragma once

#include "Platform/MIDIRing.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <semaphore.h>
#include <span>
#include <thread>

namespace tessary {

/// How much System Exclusive may go now.
///
/// It goes out as fast as a MIDI cable carries it, 3,125 bytes a second, for a cable may well be behind the
/// subscriber: the kernel keeps 4,096 bytes for a hardware port and throws away what does not fit. Ahead of
/// that go at most 2,048 bytes at once. They take 88 of the 200 cells of a subscriber's queue, which leaves
/// room for the notes of the same moment; then a subscriber that reads only once in 700 milliseconds keeps
/// up.
class ExclusivePace {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds byteTime{320};
    static constexpr std::size_t bytesAhead = 2'048;

    /// When `size` more bytes may go.
    Clock::time_point nextTime(std::size_t size) const {
        return cableFree_ - byteTime * (bytesAhead - std::min(size, bytesAhead));
    }
    void sent(std::size_t size, Clock::time_point now) {
        cableFree_ = std::max(cableFree_, now) + byteTime * size;
    }

  private:
    Clock::time_point cableFree_{}; ///< when a cable would have carried all that was sent
};

/// Sends short messages, and System Exclusive of up to 256 bytes, at once, unless something waits. Longer
/// System Exclusive, and what exceeds its pace, goes through a bounded queue and a thread of this object's
/// own, which cuts it into pieces. What follows on the source waits behind it, except for real-time messages,
/// which may stand anywhere. A message that the queue has no room for is dropped whole.
///
/// The thread sleeps without waking up while nothing waits.
class PacedSender {
  public:
    /// Longer System Exclusive goes in pieces of this size, as the sequencer itself cuts what hardware sends.
    static constexpr std::size_t pieceSize = 256;
    /// Two of the longest messages that a session can deliver: 21 seconds at the pace they go.
    static constexpr std::size_t mostExclusive = 1 << 16;
    /// Room for as many bytes of System Exclusive and, behind them, for 24,000 short messages of 3 bytes:
    /// a thousand notes a second for as long as it takes to send the former. A power of two.
    static constexpr std::size_t queueCapacity = 1 << 19;
    /// Short messages that had to wait go in groups of this size, with a pause after each: 10,000 a second,
    /// of which the queue of a subscriber that reads once in 20 milliseconds holds all.
    static constexpr std::size_t groupSize = 50;
    static constexpr std::chrono::milliseconds groupPause{5};

    /// Sends a whole short message, or a piece of System Exclusive of at most `pieceSize` bytes. Entered on
    /// the publishing thread and on this object's own; with System Exclusive never on both at a time.
    using Send = std::function<void(std::uint64_t hostTime, std::span<const std::uint8_t> bytes)>;

    /// Errors: throws `std::system_error` if there can be no thread.
    explicit PacedSender(Send send);
    PacedSender(const PacedSender&) = delete;
    PacedSender& operator=(const PacedSender&) = delete;
    /// Takes 82 milliseconds at most; what waits is dropped. A System Exclusive that is being sent stays
    /// unfinished, so that no listener takes it for whole.
    ~PacedSender();

    /// Runs on: one thread at a time. Allocates: never. Waits: never.
    void publish(std::uint64_t hostTime, std::span<const std::uint8_t> message);

  private:
    void run();
    void sendInPieces(std::uint64_t hostTime, std::span<const std::uint8_t> message);

    const Send send_;
    MIDIRing ring_{queueCapacity};
    std::atomic<std::size_t> waiting_{0}; ///< bytes of the messages in the queue and of the one being sent
    ExclusivePace pace_; ///< the thread's while something waits, else the publishing thread's
    sem_t messages_;     ///< in the queue, and one more at the end
    std::atomic<bool> isClosing_{false};
    std::thread thread_;
};

} // namespace tessary
