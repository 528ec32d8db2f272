// Tells when this machine's own IPv4 addresses or routes have changed.
#pragma once

#include "Models/IPv4Host.h"

#include <asio/io_context.hpp>

#include <functional>
#include <memory>
#include <vector>

namespace tessary {

/// Runs on: the network thread. Costs nothing while nothing changes.
class AddressMonitor {
  public:
    /// @param changed  called shortly after a change, once for a burst of them
    AddressMonitor(asio::io_context& context, std::function<void()> changed);
    ~AddressMonitor();

  private:
    struct Parts;
    std::shared_ptr<Parts> parts_;
};

/// The IPv4 addresses that this machine has now.
std::vector<IPv4Host> ownAddresses();

} // namespace tessary
