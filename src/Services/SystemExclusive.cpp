#include "Services/SystemExclusive.h"

#include <algorithm>

namespace tessary {

namespace {

/// A datagram this far behind is not late: its sender has restarted its count (RFC 3550, appendix A.1).
constexpr int mostMisordered = 100;

} // namespace

SystemExclusive::SystemExclusive()
    : storage_(std::make_unique_for_overwrite<std::uint8_t[]>(messages_.size() * longestMessage)) {}

std::uint8_t* SystemExclusive::bytesOf(const Message& message) {
    return storage_.get() + static_cast<std::size_t>(&message - messages_.data()) * longestMessage;
}

void SystemExclusive::release(Message& message) {
    if (&message == &scratch_) return;
    message.inUse = false;
    --pendingCount_;
    pending_ = nullptr;
}

void SystemExclusive::beginDatagram(std::uint32_t ssrc, std::uint16_t sequenceNumber) {
    ssrc_ = ssrc;
    sequenceNumber_ = sequenceNumber;
    isRepeated_ = false;
    pending_ = nullptr;
    if (pendingCount_ == 0) return;

    const auto found = std::find_if(messages_.begin(), messages_.end(),
                                    [&](const Message& m) { return m.inUse && m.ssrc == ssrc; });
    if (found == messages_.end()) return;
    pending_ = &*found;
    const auto step = static_cast<std::int16_t>(sequenceNumber - pending_->sequenceNumber);
    isRepeated_ = step <= 0 && step > -mostMisordered;
    if (isRepeated_) return;
    if (step != 1) pending_->discarded = true;
    pending_->sequenceNumber = sequenceNumber;
    pending_->lastUse = ++uses_;
}

void SystemExclusive::interrupt() {
    if (pending_ && !isRepeated_) release(*pending_);
}

void SystemExclusive::start() {
    interrupt();
    segment_ = &scratch_;
    scratch_.length = 0;
    scratch_.discarded = false;
    append(0xF0);
}

void SystemExclusive::resume() {
    segment_ = pending_;
}

void SystemExclusive::append(std::uint8_t byte) {
    if (segment_->discarded || (isRepeated_ && segment_ == pending_)) return;
    // The last byte is kept for the F7.
    if (segment_->length + 1 < longestMessage)
        bytesOf(*segment_)[segment_->length++] = byte;
    else
        segment_->discarded = true;
}

void SystemExclusive::suspend() {
    if (segment_ != &scratch_ || isRepeated_) return;
    // An unused slot, otherwise that of the sender silent for longest.
    Message& place =
        *std::min_element(messages_.begin(), messages_.end() - 1, [](const Message& a, const Message& b) {
            return a.inUse != b.inUse ? !a.inUse : a.lastUse < b.lastUse;
        });
    if (!place.inUse) ++pendingCount_;
    place = {.ssrc = ssrc_,
             .sequenceNumber = sequenceNumber_,
             .lastUse = ++uses_,
             .length = scratch_.length,
             .inUse = true,
             .discarded = scratch_.discarded};
    std::copy_n(bytesOf(scratch_), scratch_.length, bytesOf(place));
    pending_ = &place;
}

void SystemExclusive::drop() {
    if (segment_ == pending_) interrupt();
}

std::span<const std::uint8_t> SystemExclusive::finish() {
    if (isRepeated_ && segment_ == pending_) return {};
    std::uint8_t* bytes = bytesOf(*segment_);
    std::size_t length = 0;
    if (!segment_->discarded) {
        length = segment_->length;
        bytes[length++] = 0xF7;
    }
    release(*segment_);
    return {bytes, length};
}

} // namespace tessary
