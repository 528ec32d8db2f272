// Resolves one service instance for the discovery and reports exactly once.
#pragma once

#include "Platform/Log.h"
#include "Platform/ServiceDiscovery.h"

#include <functional>
#include <memory>
#include <string>

namespace tessary {

/// Runs on: the main thread.
class PeerResolver : public std::enable_shared_from_this<PeerResolver> {
  public:
    /// Given the resolved service, or none when the resolution failed.
    using Completion = std::function<void(const ServiceResolver*)>;

    PeerResolver(std::shared_ptr<ServiceResolver> service, Log& log, Completion completion);

    PeerResolver(const PeerResolver&) = delete;
    PeerResolver& operator=(const PeerResolver&) = delete;
    ~PeerResolver();

    void resolve(std::chrono::nanoseconds timeout);

  private:
    void didResolve(const ServiceResolver& service);
    void didNotResolve(const ServiceResolver& service, const std::string& error);
    void fire(const ServiceResolver* outcome);

    const std::shared_ptr<ServiceResolver> service_;
    Log& log_;
    const Completion completion_;
    bool fired_ = false;
};

} // namespace tessary
