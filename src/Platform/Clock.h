// What the services need from the machine: the time.
#pragma once

#include <chrono>
#include <cstdint>

namespace tessary {

class Clock {
  public:
    virtual ~Clock() = default;

    /// The calendar time (UTC). It may be set back at any moment.
    ///
    /// Runs on: any thread. Allocates: never.
    virtual std::chrono::system_clock::time_point now() const = 0;

    /// The host time: nanoseconds of the monotonic clock that MIDI messages are stamped with.
    ///
    /// Runs on: any thread. Allocates: never.
    virtual std::uint64_t hostTime() const = 0;
};

} // namespace tessary
