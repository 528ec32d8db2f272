// What the services need from the machine: a few values that outlive the program.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessary {

/// Runs on: the main thread. Errors: none reported; a value that cannot be saved still holds for this run.
class Preferences {
  public:
    virtual ~Preferences() = default;

    /// The number stored under `key`; absent if nothing is, or something that is no whole number of 32 bits
    /// (a fraction, a negative number, a larger one, a boolean, a text).
    virtual std::optional<std::uint32_t> number(std::string_view key) const = 0;

    /// The array stored under `key`, an element that is no text being absent; absent if there is no array.
    virtual std::optional<std::vector<std::optional<std::string>>> array(std::string_view key) const = 0;

    virtual void setNumber(std::string_view key, std::uint32_t value) = 0;
    virtual void setTexts(std::string_view key, const std::vector<std::string>& texts) = 0;
};

} // namespace tessary
