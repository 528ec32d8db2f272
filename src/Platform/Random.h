// What the services need from the machine: unpredictable numbers.
#pragma once

#include <cstdint>

namespace tessary {

class Random {
  public:
    virtual ~Random() = default;

    /// A value drawn uniformly from 1 to 4294967295, never 0, from the system's random source.
    ///
    /// Runs on: any thread.
    virtual std::uint32_t nonzero() = 0;
};

} // namespace tessary
