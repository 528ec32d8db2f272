// Takes an input apart from its front on, so that seeds can be written by hand.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

namespace tessary::fuzz {

class Reader {
  public:
    Reader(const std::uint8_t* data, std::size_t size)
        : rest_(data, size) {}

    bool isEmpty() const { return rest_.empty(); }

    /// The next byte; 0 behind the end.
    std::uint8_t byte() {
        if (rest_.empty()) return 0;
        const std::uint8_t first = rest_.front();
        rest_ = rest_.subspan(1);
        return first;
    }
    std::uint16_t word() {
        const int high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    /// As many bytes as the next byte says, or as there are.
    std::vector<std::uint8_t> bytes() {
        const std::size_t wanted = byte();
        const auto taken = rest_.first(std::min(wanted, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }

  private:
    std::span<const std::uint8_t> rest_;
};

} // namespace tessary::fuzz
