// DNS-SD through Avahi, on a thread of its own.
#pragma once

#include "Platform/ServiceDiscovery.h"

#include <memory>

namespace tessary {

/// Uses the Avahi daemon where one is on the system bus at launch, or can be started by it, and else brings
/// an mDNS stack of its own; which of them, is chosen once. A daemon that goes and comes back is waited for:
/// what was found stays found meanwhile, and what was being resolved is resolved then.
///
/// Everything happens on one thread, which also serves the queues that are made here.
class AvahiDiscovery : public ServiceDiscovery {
  public:
    /// Starts the thread. Never waits for the daemon.
    ///
    /// @param mainQueue  where the resolvers are used and report; outlives the discovery
    explicit AvahiDiscovery(TimerQueue& mainQueue);

    /// Ends the thread, and waits half a second at most for it: a daemon that hangs may hold it up longer.
    /// Nothing is delivered afterwards. Browsers and resolvers may still be used, to no effect.
    ~AvahiDiscovery() override;

    std::shared_ptr<Queue> makeQueue(std::string label) override;
    std::unique_ptr<ServiceBrowser> makeBrowser(const std::string& type) override;
    std::shared_ptr<ServiceResolver> makeResolver(const std::string& domain, const std::string& type,
                                                  const std::string& name) override;

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace tessary
