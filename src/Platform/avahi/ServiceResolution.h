// One resolution of a service instance. On the Avahi thread.
#pragma once

#include "Platform/ServiceDiscovery.h"
#include "Platform/avahi/AvahiBackend.h"
#include "Platform/avahi/PreferredAddresses.h"

#include <chrono>
#include <compare>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace tessary {

struct ResolutionOutcome {
    std::vector<SocketAddressRecord> addresses; // none: it failed
    int port = -1;
    std::string error;
};

/// Finds a service's host and port, then the host's addresses, then decides which address comes first.
class ServiceResolution : public std::enable_shared_from_this<ServiceResolution> {
  public:
    struct Request {
        std::string name;
        std::string type;
        std::string domain;
        std::chrono::nanoseconds timeout{};
        /// Called once, unless the owner gives the resolution up before.
        std::function<void(const ResolutionOutcome&)> done;
    };

    /// What it has found when it ends by itself.
    enum class Found { nothing, hostOnly, addresses };

    ServiceResolution(AvahiThread& thread, PreferredAddresses& preferred, Request request);

    const Request& request() const { return request_; }

    /// Goes to the network, from the start; the time counts from here. `left` is called once it has left it
    /// by itself, never inside this call, and told what it has found.
    void begin(AvahiBackend& backend, std::function<void(Found)> left);

    /// Whether it has been on the network for that long without hearing of the service.
    bool isUnanswered(std::chrono::nanoseconds time) const;

    /// Leaves the network and forgets what it has learnt.
    void interrupt();

    /// @param error  one of AVAHI_ERR_*
    void fail(int error);

  private:
    struct Address {
        int interface = 0;
        int protocol = 0;
        std::string bytes; // 4 of IPv4 or 16 of IPv6
        friend auto operator<=>(const Address&, const Address&) = default;
    };
    using SteadyClock = std::chrono::steady_clock;

    void handleHost(const HostEvent& event);
    void browseAddresses(std::uint16_t recordType);
    void handleAddress(const AddressEvent& event);
    void handleError(int error);
    void handleHalfTime();
    void handleTimeout();
    void decide();
    std::chrono::milliseconds settleTime();
    std::vector<IPv4Host> hosts() const;
    void succeed();
    void finish(const ResolutionOutcome& outcome);
    void after(std::chrono::nanoseconds delay, void (ServiceResolution::*step)());

    AvahiThread& thread_;
    PreferredAddresses& preferred_;
    const Request request_;

    AvahiBackend* backend_ = nullptr; // present while on the network
    std::function<void(Found)> left_;
    std::uint64_t attempt_ = 0;
    Lookup service_;
    std::vector<Lookup> records_;
    std::string host_; // in lower case
    std::uint16_t port_ = 0;
    std::set<Address> addresses_;
    SteadyClock::time_point begun_;
    SteadyClock::time_point lastChange_;
    bool isLate_ = false;
};

} // namespace tessary
