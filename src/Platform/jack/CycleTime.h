// When in JACK's present cycle a message is due.
#pragma once

#include <cstdint>
#include <optional>

namespace tessary {

/// One call of a JACK client's process function.
struct CycleTime {
    std::int64_t start = 0;   ///< in microseconds of JACK's clock
    double period = 0;        ///< in microseconds, as the server measures it; 0: not known
    std::uint32_t frames = 0; ///< in one period

    /// The frame at which a message of the given moment is due: one period after it, so that messages keep
    /// their distances. Absent if that is a later cycle's.
    ///
    /// A message that waits is of the past. One that seems far ahead of the cycle shows a server that was
    /// held up and has not caught up with its clock: it is due now, or it would wait until then.
    ///
    /// @param moment  in microseconds of JACK's clock
    std::optional<std::uint32_t> frameOf(std::int64_t moment) const {
        constexpr double mostAhead = 100'000; // microseconds
        const auto ahead = static_cast<double>(moment - start);
        if (period <= 0 || ahead < -period || ahead >= period + mostAhead) return 0;
        if (ahead >= 0) return std::nullopt;
        return static_cast<std::uint32_t>((ahead / period + 1) * frames);
    }
};

} // namespace tessary
