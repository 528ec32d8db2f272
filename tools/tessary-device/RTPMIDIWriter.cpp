#include "RTPMIDIWriter.h"

#include <algorithm>

namespace tessary::device {

namespace {

/// The longest list that the one-byte header can announce.
constexpr std::size_t maxShortListSize = 15;

template <typename Integer>
void append(std::vector<std::uint8_t>& bytes, Integer value) {
    for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

} // namespace

void RTPMIDIWriter::write(std::span<const MIDIMessage> messages, std::uint32_t timestamp, const Send& send) {
    for (const MIDIMessage& message : messages) {
        if (message.empty()) continue;
        if (message.size() > maxListSize) {
            flush(timestamp, send);
            writeSegments(message, timestamp, send);
            continue;
        }
        if (list_.size() + 1 + message.size() > maxListSize) flush(timestamp, send);
        if (!list_.empty()) list_.push_back(0);
        list_.insert(list_.end(), message.begin(), message.end());
    }
    flush(timestamp, send);
}

void RTPMIDIWriter::writeSegments(const MIDIMessage& sysex, std::uint32_t timestamp, const Send& send) {
    // What lies between F0 and F7; each segment puts a byte of its own before and after its share.
    const auto content = std::span(sysex).subspan(1, sysex.size() - 2);
    constexpr std::size_t share = maxListSize - 2;
    for (std::size_t start = 0; start < content.size(); start += share) {
        const auto piece = content.subspan(start, std::min(share, content.size() - start));
        const bool last = start + piece.size() == content.size();
        list_.push_back(start == 0 ? 0xF0 : 0xF7);
        list_.insert(list_.end(), piece.begin(), piece.end());
        list_.push_back(last ? 0xF7 : 0xF0);
        flush(timestamp, send);
    }
}

void RTPMIDIWriter::flush(std::uint32_t timestamp, const Send& send) {
    if (list_.empty()) return;
    datagram_.assign({0x80, 0x61});
    append(datagram_, sequenceNumber_++);
    append(datagram_, timestamp);
    append(datagram_, ssrc_);
    if (list_.size() > maxShortListSize)
        datagram_.push_back(static_cast<std::uint8_t>(0x80 | list_.size() >> 8));
    datagram_.push_back(static_cast<std::uint8_t>(list_.size()));
    datagram_.insert(datagram_.end(), list_.begin(), list_.end());
    send(datagram_);
    list_.clear();
}

} // namespace tessary::device
