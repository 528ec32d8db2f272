#include "Aliases.h"

#include <cstddef>
#include <optional>

namespace tessary::discovery {

namespace {

constexpr std::size_t headerSize = 12;
constexpr std::size_t questionTailSize = 4; // type and class
constexpr std::size_t recordTailSize = 10;  // type, class, time to live, and length of the data
constexpr std::size_t lengthOffset = 8;     // of the data's length in a record's tail
constexpr std::uint16_t cname = 5;
constexpr std::uint8_t privateUse = 0xFF; // the high byte of private-use types

/// Reads a DNS message sequentially.
class Reader {
  public:
    explicit Reader(std::span<std::uint8_t> message)
        : message_(message) {}

    std::uint16_t number(std::size_t position) const {
        return static_cast<std::uint16_t>(message_[position] << 8 | message_[position + 1]);
    }

    /// Skips `size` bytes and returns their position; absent if there are fewer.
    std::optional<std::size_t> take(std::size_t size) {
        if (message_.size() - position_ < size) return std::nullopt;
        const std::size_t begin = position_;
        position_ += size;
        return begin;
    }

    /// Skips labels up to the root label or a compression pointer; false if the name is malformed.
    bool skipName() {
        while (const auto label = take(1)) {
            const std::uint8_t length = message_[*label];
            if (length == 0) return true;
            if (length >= 0xC0) return take(1).has_value();
            if (length >= 0x40 || !take(length)) return false;
        }
        return false;
    }

  private:
    const std::span<std::uint8_t> message_;
    std::size_t position_ = 0;
};

} // namespace

void hideAliases(std::span<std::uint8_t> datagram) {
    Reader reader(datagram);
    if (!reader.take(headerSize)) return;
    for (int questions = reader.number(4); questions > 0; --questions)
        if (!reader.skipName() || !reader.take(questionTailSize)) return;
    for (int records = reader.number(6) + reader.number(8) + reader.number(10); records > 0; --records) {
        if (!reader.skipName()) return;
        const auto tail = reader.take(recordTailSize);
        if (!tail) return;
        if (reader.number(*tail) == cname) datagram[*tail] = privateUse;
        if (!reader.take(reader.number(*tail + lengthOffset))) return;
    }
}

} // namespace tessary::discovery
