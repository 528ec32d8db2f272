// What fuzz targets share: reading an input, and reporting that a property does not hold.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace tessary::fuzz {

/// Throws unless `holds`. In the fuzzer nothing catches it, so the process aborts and the fuzzer records a
/// finding; where the corpus is replayed, the test of this input fails.
inline void require(bool holds, const std::string& what) {
    if (!holds) throw std::logic_error("does not hold: " + what);
}

/// Takes an input apart from its front on, so that seeds can be written by hand.
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
