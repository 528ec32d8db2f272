// A second parser of RTP-MIDI datagrams: slow, with a vector for everything, and none of the program's code.
#pragma once

#include <cstdint>
#include <list>
#include <utility>
#include <vector>

namespace tessary::fuzz {

using Bytes = std::vector<std::uint8_t>;

class ReferenceParser {
  public:
    /// The messages of one datagram, in order.
    std::vector<Bytes> parse(const Bytes& datagram) {
        published_.clear();
        const std::size_t header = datagram.empty() ? 0 : 12 + 4 * (datagram[0] % 16);
        if (datagram.size() <= header || datagram.size() < 13) return {};
        const std::uint8_t flags = datagram[header];
        std::size_t length = flags % 16, start = header + 1;
        if (flags & 0x80) {
            if (datagram.size() <= start) return {};
            length = length * 256 + datagram[start++];
        }
        if (start + length > datagram.size()) return {};
        const auto list = datagram.begin() + static_cast<std::ptrdiff_t>(start);
        list_.assign(list, list + static_cast<std::ptrdiff_t>(length));

        ssrc_.assign(datagram.begin() + 8, datagram.begin() + 12);
        sequence_ = datagram[2] * 256 + datagram[3];
        arrive();
        if (!(flags & 0x10)) running_ = 0;
        parseList((flags & 0x20) != 0);
        return published_;
    }

  private:
    static constexpr std::size_t maxMessage = 32'000, maxSenders = 64;

    /// The beginning of a System Exclusive message whose end has not come yet.
    struct Unfinished {
        Bytes ssrc;
        int sequence = 0;
        Bytes bytes;
        bool isSpoiled = false;
    };
    enum class End { whole, more, cancelled, cut, missing };

    Unfinished* mine() {
        for (Unfinished& each : unfinished_)
            if (each.ssrc == ssrc_) return &each;
        return nullptr;
    }
    void forgetMine() {
        if (!isLate_) unfinished_.remove_if([&](const Unfinished& each) { return each.ssrc == ssrc_; });
    }

    /// A repeated or late datagram leaves the unfinished message alone; a gap spoils it.
    void arrive() {
        const Unfinished* const message = mine();
        const int ahead = message ? (sequence_ - message->sequence + 65536) % 65536 : 1;
        isLate_ = ahead == 0 || ahead > 65536 - 100;
        if (!message || isLate_) return;
        Unfinished latest{ssrc_, sequence_, message->bytes, message->isSpoiled || ahead != 1};
        forgetMine();
        unfinished_.push_back(std::move(latest)); // the front one has been silent longest
    }

    void parseList(bool isTimeNext) {
        for (std::size_t at = 0; at < list_.size();) {
            if (isTimeNext) {
                while (at < list_.size() && list_[at] > 127)
                    ++at;
                if (++at >= list_.size()) return;
            }
            isTimeNext = true;
            const bool hasStatus = list_[at] > 127;
            if (hasStatus) running_ = list_[at++];
            if (running_ == 0) return;
            if (hasStatus && (running_ == 0xF0 || (mine() && (running_ == 0xF7 || running_ == 0xF4)))) {
                isTimeNext = systemExclusive(at) != End::cut;
                continue;
            }
            if (hasStatus && running_ < 0xF8) forgetMine();
            Bytes message{running_};
            for (int left = dataBytes(running_); left > 0; --left) {
                if (at >= list_.size()) return;
                message.push_back(list_[at++]);
            }
            published_.push_back(message);
        }
    }

    static int dataBytes(int status) {
        if (status < 0xC0 || (status >= 0xE0 && status < 0xF0) || status == 0xF2) return 2;
        return status < 0xE0 || status == 0xF1 || status == 0xF3 ? 1 : 0;
    }

    /// A whole message, or a segment of one, from behind its first byte on.
    End systemExclusive(std::size_t& at) {
        const std::uint8_t head = std::exchange(running_, std::uint8_t{0});
        Unfinished message = head == 0xF0 ? Unfinished{ssrc_, sequence_, {0xF0}} : *mine();
        const End end = head == 0xF4 ? End::cancelled : segment(at, message.bytes);
        if (head != 0xF0 && isLate_) return end;
        forgetMine();
        message.isSpoiled |= message.bytes.size() + 1 > maxMessage;
        if (end == End::more && !isLate_) {
            if (unfinished_.size() == maxSenders) unfinished_.pop_front();
            unfinished_.push_back(message);
        }
        if (end == End::whole && !message.isSpoiled) {
            message.bytes.push_back(0xF7);
            published_.push_back(message.bytes);
        }
        return end;
    }

    End segment(std::size_t& at, Bytes& bytes) {
        while (at < list_.size()) {
            const std::uint8_t byte = list_[at++];
            if (byte < 0x80)
                bytes.push_back(byte);
            else if (byte >= 0xF8)
                published_.push_back({byte});
            else if (byte == 0xF7)
                return End::whole;
            else if (byte == 0xF0)
                return End::more;
            else if (byte == 0xF4)
                return End::cancelled;
            else
                return --at, End::cut; // a command
        }
        return End::missing;
    }

    std::vector<Bytes> published_;
    Bytes list_, ssrc_;
    std::uint8_t running_ = 0;
    int sequence_ = 0;
    bool isLate_ = false;
    std::list<Unfinished> unfinished_;
};

} // namespace tessary::fuzz
