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
    std::vector<std::uint8_t> list;
    const auto flush = [&] {
        if (!list.empty()) send(datagram(list, timestamp));
        list.clear();
    };
    for (const MIDIMessage& message : messages) {
        if (message.empty()) continue;
        if (list.size() + 1 + message.size() > maxListSize) flush();
        if (message.size() <= maxListSize) {
            if (!list.empty()) list.push_back(0);
            list.insert(list.end(), message.begin(), message.end());
            continue;
        }
        // A System Exclusive in segments: each has a byte of its own before and after its share of the
        // content.
        constexpr std::size_t maxShare = maxListSize - 2;
        for (auto rest = std::span(message).subspan(1, message.size() - 2); !rest.empty();) {
            const auto share = rest.first(std::min(maxShare, rest.size()));
            list.push_back(rest.size() + 2 == message.size() ? 0xF0 : 0xF7);
            list.insert(list.end(), share.begin(), share.end());
            rest = rest.subspan(share.size());
            list.push_back(rest.empty() ? 0xF7 : 0xF0);
            flush();
        }
    }
    flush();
}

std::vector<std::uint8_t> RTPMIDIWriter::datagram(std::span<const std::uint8_t> list,
                                                  std::uint32_t timestamp) {
    std::vector<std::uint8_t> bytes{0x80, 0x61};
    append(bytes, sequenceNumber_++);
    append(bytes, timestamp);
    append(bytes, ssrc_);
    if (list.size() > maxShortListSize) bytes.push_back(static_cast<std::uint8_t>(0x80 | list.size() >> 8));
    bytes.push_back(static_cast<std::uint8_t>(list.size()));
    bytes.insert(bytes.end(), list.begin(), list.end());
    return bytes;
}

} // namespace tessary::device
