// The machine's clocks.
#pragma once

#include "Platform/Clock.h"

namespace tessary {

class SystemClock : public Clock {
  public:
    std::chrono::system_clock::time_point now() const override { return std::chrono::system_clock::now(); }

    std::uint64_t hostTime() const override {
        return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
};

} // namespace tessary
