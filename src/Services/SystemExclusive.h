// Joins the segments of long System Exclusive messages, separately for each sender. On the packet path.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace tessary {

/// A System Exclusive message that does not fit into one MIDI list arrives as segments (RFC 6295,
/// section 3.2): F0 … F0 first, F7 … F0 between, F7 … F7 last, or F7 … F4 to cancel it. A sender is known by
/// its RTP SSRC.
///
/// A message that cannot be completed (a sequence number is missing, it is too long) is discarded together
/// with its remaining segments, so that their bytes are not taken for commands.
///
/// Runs on: the network thread. Allocates: at construction alone; pages that no message needs are never
/// touched.
class SystemExclusive {
  public:
    /// The longest message, F0 and F7 included.
    static constexpr std::size_t longestMessage = 32'000;
    /// SSRCs are untrusted: at most this many partial messages are kept, and the least recently used is
    /// evicted.
    static constexpr std::size_t mostSenders = 64;

    SystemExclusive();

    /// Begins a datagram: the following calls refer to it.
    void beginDatagram(std::uint32_t ssrc, std::uint16_t sequenceNumber);

    /// Whether this sender is in the middle of a message.
    bool isPending() const { return pending_ != nullptr; }

    void start();  ///< head F0: a new message; one in progress is interrupted
    void resume(); ///< head F7 while a message is pending: its next segment
    void append(std::uint8_t byte);
    void suspend(); ///< tail F0: more segments follow
    void drop();    ///< the segment was cancelled, interrupted or never ended

    /// A command between two segments ends the pending message.
    void interrupt();

    /// Tail F7: the whole message, valid until the next call; empty if it was discarded.
    std::span<const std::uint8_t> finish();

  private:
    struct Message {
        std::uint32_t ssrc = 0;
        std::uint16_t sequenceNumber = 0; ///< of the sender's last datagram
        std::uint64_t lastUse = 0;
        std::size_t length = 0;
        bool inUse = false;
        bool discarded = false;
    };

    std::uint8_t* bytesOf(const Message& message);
    void release(Message& message);

    /// The pending messages, and one place more in which each F0 segment is gathered.
    std::array<Message, mostSenders + 1> messages_{};
    Message& scratch_ = messages_.back();
    std::unique_ptr<std::uint8_t[]> storage_; ///< `longestMessage` bytes a message
    std::size_t pendingCount_ = 0;
    std::uint64_t uses_ = 0;
    std::uint32_t ssrc_ = 0; ///< of the present datagram
    std::uint16_t sequenceNumber_ = 0;
    bool isRepeated_ =
        false; ///< the present datagram is a double or late: it leaves the pending message alone
    Message* pending_ = nullptr;   ///< of the present sender
    Message* segment_ = &scratch_; ///< where the present segment goes
};

} // namespace tessary
