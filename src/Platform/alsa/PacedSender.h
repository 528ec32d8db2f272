// Sends the messages of a source in an order and at a pace that every listener can follow. On the road of a
// MIDI message.
#pragma once

#include "Platform/Log.h"
#include "Platform/alsa/Subscribers.h"
#include "Platform/jack/MIDIRing.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <semaphore.h>
#include <set>
#include <span>
#include <thread>
#include <vector>

namespace tessary {

/// How much System Exclusive may go to a MIDI cable now, which carries 3,125 bytes a second.
///
/// Behind a hardware port the kernel keeps 4,096 bytes, and throws away what does not fit. At most 2,048
/// bytes go ahead of the cable.
class CablePace {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds byteTime{320};
    static constexpr std::size_t bytesAhead = 2'048;

    /// When the last of `size` more bytes may go.
    Clock::time_point nextTime(std::size_t size, Clock::time_point now) const {
        return std::max(now, freeAfter(size, now) - timeOf(bytesAhead));
    }
    void sent(std::size_t size, Clock::time_point now) { cableFree_ = freeAfter(size, now); }

  private:
    static std::chrono::microseconds timeOf(std::size_t bytes) {
        return byteTime * static_cast<std::chrono::microseconds::rep>(bytes);
    }
    Clock::time_point freeAfter(std::size_t size, Clock::time_point now) const {
        return std::max(cableFree_, now) + timeOf(size);
    }

    Clock::time_point cableFree_{}; ///< when a cable would have carried all that was sent
};

/// Sends short messages, and System Exclusive of up to 256 bytes, at once, unless something waits. Longer
/// System Exclusive, and bursts of it, go through a bounded queue and a thread of this object's own, which
/// cuts them into pieces, as fast as all subscribers have room. What follows on the source waits behind,
/// except for real-time messages, which may stand anywhere.
///
/// Nothing waits for more than a second behind System Exclusive: one that cannot be out a second after it has
/// arrived is dropped whole, with a line for the first of a series. A subscriber that has stopped reading is
/// waited for only briefly, and then not again until it has read; it loses pieces, the others none.
///
/// The thread sleeps without waking up while nothing waits.
class PacedSender {
  public:
    /// Longer System Exclusive goes in pieces of this size, as the sequencer itself cuts what hardware sends.
    static constexpr std::size_t pieceSize = 256;
    /// How long a System Exclusive may take from its arrival to its last byte.
    static constexpr std::chrono::seconds maxDelay{1};
    /// Two of the longest messages that a session can deliver.
    static constexpr std::size_t maxWaiting = 1 << 16;
    /// Room for as many bytes of System Exclusive and, behind them, for 24,000 short messages of 3 bytes. A
    /// power of two.
    static constexpr std::size_t queueCapacity = 1 << 19;
    /// Short messages that had to wait go in groups of this size, with a pause after each: 10,000 a second,
    /// of which the queue of a subscriber that reads once in 20 milliseconds holds all.
    static constexpr std::size_t groupSize = 50;
    static constexpr std::chrono::milliseconds groupPause{5};

    /// Sends a whole short message, or a piece of System Exclusive of at most `pieceSize` bytes. Entered on
    /// the publishing thread and on this object's own; with real-time messages on the former alone, with all
    /// others never on both at a time.
    using Send = std::function<void(std::uint64_t hostTime, std::span<const std::uint8_t> bytes)>;
    /// The present subscribers. Entered on this object's thread.
    using Subscribers = std::function<std::vector<Subscriber>()>;

    /// Errors: throws `std::system_error` if there can be no thread.
    PacedSender(Send send, Subscribers subscribers, Log& log);
    PacedSender(const PacedSender&) = delete;
    PacedSender& operator=(const PacedSender&) = delete;
    /// What waits is dropped. A System Exclusive that is being sent stays unfinished, so that no listener
    /// takes it for whole.
    ~PacedSender();

    /// Runs on: one thread at a time. Allocates: never. Waits: never.
    ///
    /// @param hostTime  when the message arrived, in nanoseconds of the monotonic clock
    void publish(std::uint64_t hostTime, std::span<const std::uint8_t> message);

  private:
    using Clock = CablePace::Clock;

    void run();
    void sendExclusive(std::uint64_t hostTime, std::span<const std::uint8_t> message);
    bool fits(std::size_t size, Clock::time_point deadline);
    void awaitRoom(std::size_t size, Clock::time_point deadline);
    void reportDropped(std::size_t size);

    const Send send_;
    const Subscribers subscribers_;
    Log& log_;
    MIDIRing ring_{queueCapacity};
    std::atomic<std::size_t> waiting_{0};   ///< bytes of the messages in the queue and of the one being sent
    std::atomic<std::size_t> overflown_{0}; ///< the size of a System Exclusive that the queue had no room for
    CablePace pace_;          ///< the thread's while something waits, else the publishing thread's
    std::set<int> stalled_;   ///< clients that are not waited for; the thread's
    bool isDropping_ = false; ///< the last System Exclusive did not fit; the thread's
    sem_t messages_;          ///< in the queue, and one more at the end
    std::atomic<bool> isClosing_{false};
    std::thread thread_;
};

} // namespace tessary
