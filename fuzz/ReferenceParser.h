// A second parser of RTP-MIDI datagrams: slow, with a vector for everything, and nothing of the program's
// own.
#pragma once

#include <cstdint>
#include <list>
#include <vector>

namespace tessary::fuzz {

using Bytes = std::vector<std::uint8_t>;

class ReferenceParser {
  public:
    /// The messages of one datagram, in order.
    std::vector<Bytes> parse(const Bytes& datagram) {
        published_.clear();
        if (datagram.size() < 13) return {};
        const std::size_t header = 12 + 4 * (datagram[0] % 16);
        if (datagram.size() <= header) return {};
        const std::uint8_t flags = datagram[header];
        std::size_t length = flags % 16, start = header + 1;
        if (flags & 0x80) {
            if (datagram.size() <= start) return {};
            length = length * 256 + datagram[start++];
        }
        if (start + length > datagram.size()) return {};
        list_.assign(datagram.begin() + static_cast<std::ptrdiff_t>(start),
                     datagram.begin() + static_cast<std::ptrdiff_t>(start + length));
        at_ = 0;

        ssrc_ = 0;
        for (std::size_t i = 8; i < 12; ++i)
            ssrc_ = ssrc_ * 256 + datagram[i];
        sequence_ = datagram[2] * 256 + datagram[3];
        arrive();
        if (!(flags & 0x10)) running_ = 0;
        parseList((flags & 0x20) != 0);
        return published_;
    }

  private:
    static constexpr std::size_t longest = 32'000, mostSenders = 64;

    /// The beginning of a System Exclusive message whose end has not come yet.
    struct Unfinished {
        std::uint32_t ssrc = 0;
        int sequence = 0;
        bool isSpoiled = false;
        Bytes bytes;
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
        isLate_ = false;
        Unfinished* message = mine();
        if (!message) return;
        const int ahead = (sequence_ - message->sequence + 65536) % 65536;
        isLate_ = ahead == 0 || ahead > 65536 - 100;
        if (isLate_) return;
        if (ahead != 1) message->isSpoiled = true;
        message->sequence = sequence_;
        Unfinished latest = *message;
        forgetMine();
        unfinished_.push_back(latest); // the front one has been silent longest
    }

    void parseList(bool timeFirst) {
        bool isTimeNext = timeFirst;
        while (at_ < list_.size()) {
            if (isTimeNext) {
                while (at_ < list_.size() && list_[at_] > 127)
                    ++at_;
                ++at_; // its last byte
                if (at_ >= list_.size()) return;
            }
            isTimeNext = true;
            const bool hasStatus = list_[at_] > 127;
            if (hasStatus) running_ = list_[at_++];
            if (running_ == 0) return;
            if (hasStatus && (running_ == 0xF0 || (mine() && (running_ == 0xF7 || running_ == 0xF4)))) {
                isTimeNext = systemExclusive() != End::cut;
                continue;
            }
            if (hasStatus && running_ < 0xF8) forgetMine();
            Bytes message{running_};
            for (int left = dataBytes(running_); left > 0; --left) {
                if (at_ >= list_.size()) return;
                message.push_back(list_[at_++]);
            }
            published_.push_back(message);
        }
    }

    static int dataBytes(int status) {
        if (status < 0xC0 || (status >= 0xE0 && status < 0xF0) || status == 0xF2) return 2;
        if (status < 0xE0 || status == 0xF1 || status == 0xF3) return 1;
        return 0;
    }

    End systemExclusive() {
        const std::uint8_t head = running_;
        running_ = 0;
        if (head == 0xF4) {
            forgetMine();
            return End::cancelled;
        }
        if (head == 0xF0) forgetMine();
        Bytes data;
        const End end = segment(data);
        if (head == 0xF0)
            first(data, end);
        else
            next(data, end);
        return end;
    }

    End segment(Bytes& data) {
        while (at_ < list_.size()) {
            const std::uint8_t byte = list_[at_++];
            if (byte < 0x80)
                data.push_back(byte);
            else if (byte >= 0xF8)
                published_.push_back({byte});
            else if (byte == 0xF7)
                return End::whole;
            else if (byte == 0xF0)
                return End::more;
            else if (byte == 0xF4)
                return End::cancelled;
            else {
                --at_; // a command
                return End::cut;
            }
        }
        return End::missing;
    }

    void first(const Bytes& data, End end) {
        Unfinished message{ssrc_, sequence_, data.size() + 2 > longest, {0xF0}};
        message.bytes.insert(message.bytes.end(), data.begin(), data.end());
        if (end == End::whole) publishWhole(message);
        if (end != End::more || isLate_) return;
        if (unfinished_.size() == mostSenders) unfinished_.pop_front();
        unfinished_.push_back(message);
    }

    void next(const Bytes& data, End end) {
        if (isLate_) return;
        Unfinished& message = *mine();
        message.bytes.insert(message.bytes.end(), data.begin(), data.end());
        if (message.bytes.size() + 1 > longest) message.isSpoiled = true;
        if (end == End::whole) publishWhole(message);
        if (end != End::more) forgetMine();
    }

    void publishWhole(const Unfinished& message) {
        if (message.isSpoiled) return;
        Bytes whole = message.bytes;
        whole.push_back(0xF7);
        published_.push_back(whole);
    }

    std::vector<Bytes> published_;
    Bytes list_;
    std::size_t at_ = 0;
    std::uint8_t running_ = 0;
    std::uint32_t ssrc_ = 0;
    int sequence_ = 0;
    bool isLate_ = false;
    std::list<Unfinished> unfinished_;
};

} // namespace tessary::fuzz
