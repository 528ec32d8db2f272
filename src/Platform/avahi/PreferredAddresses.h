// Which of its addresses a host is known by.
#pragma once

#include "Models/IPv4Host.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace tessary {

/// The address last handed out first for each host. The services of a device are told apart from those of
/// its neighbours by that address, so all of them have to get the same one. Host names come from the network:
/// the table is bounded, and forgets the host that was asked for least recently.
class PreferredAddresses {
  public:
    static constexpr std::size_t capacity = 4096;

    std::optional<IPv4Host> find(const std::string& host);
    void store(const std::string& host, IPv4Host address);

  private:
    struct Entry {
        IPv4Host address;
        std::uint64_t lastUse = 0;
    };
    std::unordered_map<std::string, Entry> entries_;
    std::uint64_t uses_ = 0;
};

} // namespace tessary
