// Reports changes of this machine's IPv4 addresses or routes.
#pragma once

#include "Models/IPv4Host.h"
#include "Platform/network/EventLoop.h"

#include <functional>
#include <vector>

namespace tessary {

/// Runs on: the network thread; construction before it runs, destruction after. Costs nothing while nothing
/// changes.
class AddressMonitor final : private EventLoop::Reader {
  public:
    /// @param changed  called shortly after a change, once for a burst of them
    AddressMonitor(EventLoop& loop, std::function<void()> changed);
    AddressMonitor(const AddressMonitor&) = delete;
    AddressMonitor& operator=(const AddressMonitor&) = delete;

  private:
    void readable() override;

    EventLoop& loop_;
    const OpenFile netlink_;
    const std::function<void()> changed_;
    bool isSettling_ = false;
};

/// The IPv4 addresses that this machine has now.
std::vector<IPv4Host> ownAddresses();

} // namespace tessary
