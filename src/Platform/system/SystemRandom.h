// The machine's random source.
#pragma once

#include "Platform/Random.h"

#include <limits>
#include <random>

namespace tessary {

class SystemRandom : public Random {
  public:
    std::uint32_t nonzero() override {
        std::random_device device; // one a call: a shared one would need a lock
        return std::uniform_int_distribution<std::uint32_t>(1, std::numeric_limits<std::uint32_t>::max())(
            device);
    }
};

} // namespace tessary
