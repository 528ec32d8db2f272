// Sends the messages of a source in order and at a pace at which no subscriber's queue overflows. On the
// packet path.
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

/// How much System Exclusive may be sent to a MIDI cable now. A cable carries 3,125 bytes a second.
///
/// The kernel buffers 4,096 bytes for a hardware port and drops what does not fit. At most 2,048 bytes are
/// sent ahead of the cable.
class CablePace {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds byteTime{320};
    static constexpr std::size_t bytesAhead = 2'048;

    /// When `size` more bytes may be sent.
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

    Clock::time_point cableFree_{}; ///< when a cable will have transmitted everything sent so far
};

/// Sends short messages, and System Exclusive of up to 256 bytes, at once while the queue is empty. Longer
/// System Exclusive, and bursts of it, go through a bounded queue. A thread of this object's own takes them
/// from it and sends them in pieces, as fast as all subscribers have room. Later messages of the source wait
/// behind them, except for real-time messages, which may occur anywhere.
///
/// No message waits for more than a second behind System Exclusive: one that cannot be sent within a second
/// of its arrival is dropped whole, with a log line for the first of a series. A subscriber that has stopped
/// reading is waited for once, for 100 ms, and then not again until it has read. It loses pieces; the other
/// subscribers lose none.
///
/// The thread does not wake up while the queue is empty.
class PacedSender {
  public:
    /// Longer System Exclusive is sent in pieces of this size, the size in which the sequencer splits what it
    /// receives from hardware.
    static constexpr std::size_t pieceSize = 256;
    /// The longest time from a System Exclusive's arrival to its last byte.
    static constexpr std::chrono::seconds maxDelay{1};
    /// In bytes: room for two System Exclusives of the longest size that a session can deliver.
    static constexpr std::size_t maxWaiting = 1 << 16;
    /// Room for `maxWaiting` bytes of System Exclusive and, behind them, for 24,000 short messages of 3
    /// bytes. A power of two.
    static constexpr std::size_t queueCapacity = 1 << 19;
    /// Short messages that had to wait are sent in groups of this size, with a pause after each: 10,000
    /// messages a second, so that the queue of a subscriber that reads every 20 milliseconds does not
    /// overflow.
    static constexpr std::size_t groupSize = 50;
    static constexpr std::chrono::milliseconds groupPause{5};

    /// Sends a whole short message, or a piece of System Exclusive of at most `pieceSize` bytes.
    ///
    /// Runs on: the publishing thread for real-time messages; the publishing thread or this object's own for
    /// all others, never both at a time.
    using Send = std::function<void(std::uint64_t hostTime, std::span<const std::uint8_t> bytes)>;
    /// Returns the current subscribers. Runs on: this object's thread.
    using Subscribers = std::function<std::vector<Subscriber>()>;

    /// Errors: throws `std::system_error` if no thread can be created.
    PacedSender(Send send, Subscribers subscribers, Log& log);
    PacedSender(const PacedSender&) = delete;
    PacedSender& operator=(const PacedSender&) = delete;
    /// Drops the messages in the queue. A System Exclusive that is being sent stays without its F7, so that
    /// no subscriber takes it for complete.
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
    /// Bytes of the messages in the queue and of the one being sent.
    std::atomic<std::size_t> waiting_{0};
    /// The size of a System Exclusive that did not fit into the queue, until the thread has reported it; or
    /// 0.
    std::atomic<std::size_t> overflown_{0};
    /// Used by the thread while `waiting_` is not 0, otherwise by the publishing thread.
    CablePace pace_;
    /// Clients that are not waited for. Used by the thread alone.
    std::set<int> stalled_;
    /// The last System Exclusive was dropped. Used by the thread alone.
    bool isDropping_ = false;
    /// Wakes the thread: one post for each message in the queue, for each drop to report, and for the end.
    sem_t messages_;
    std::atomic<bool> isClosing_{false};
    std::thread thread_;
};

} // namespace tessary
