// The two Avahi libraries, the daemon's client and the embedded core, behind one interface.
#pragma once

#include "Loop.h"

#include <avahi-common/defs.h>
#include <avahi-common/error.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace tessary::discovery {

/// An Avahi browser or resolver; dropping the last reference ends it.
using Lookup = std::shared_ptr<void>;

/// A change in what a browser sees, or its failure: `error` is AVAHI_OK or one of AVAHI_ERR_*.
struct ServiceEvent {
    AvahiBrowserEvent event = AVAHI_BROWSER_FAILURE;
    int interface = 0;
    int protocol = 0;
    std::string name;
    std::string domain;
    int error = AVAHI_OK;
};

/// The host and port that a service was found at, or why it was not.
struct HostEvent {
    std::string host;
    std::uint16_t port = 0;
    int error = AVAHI_OK;
};

/// An address record (A: 4 bytes, AAAA: 16) that has come or gone, or a failure.
struct AddressEvent {
    AvahiBrowserEvent event = AVAHI_BROWSER_FAILURE;
    int interface = 0;
    int protocol = 0;
    std::string bytes;
    int error = AVAHI_OK;
};

/// Handlers never run inside a call from or into Avahi, so they may drop any lookup, their own included; none
/// is entered once its lookup was dropped. A lookup that cannot be made at all reports its failure as one
/// that breaks down later does.
class Backend {
  public:
    virtual ~Backend() = default;

    /// Whether lookups can be made now.
    virtual bool isReady() const = 0;

    /// Whether the backend can take in nothing new, and never will again.
    virtual bool isExhausted() const = 0;

    /// Whether such an error of a lookup may only mean that the daemon is going away.
    virtual bool mayRecover(int error) const = 0;

    /// The number of lookups that live.
    virtual std::size_t lookups() const = 0;

    virtual Lookup browseServices(const std::string& type,
                                  std::function<void(const ServiceEvent&)> handler) = 0;

    /// Finds the host and the port of a service, on any interface, and reports each change of them. Its
    /// addresses are not asked for.
    virtual Lookup resolveService(const std::string& name, const std::string& type, const std::string& domain,
                                  std::function<void(const HostEvent&)> handler) = 0;

    /// Collects the addresses of a host on all interfaces.
    ///
    /// @param recordType  AVAHI_DNS_TYPE_A or AVAHI_DNS_TYPE_AAAA
    virtual Lookup browseAddresses(const std::string& host, std::uint16_t recordType,
                                   std::function<void(const AddressEvent&)> handler) = 0;
};

/// What a backend reports to its owner.
struct BackendHandlers {
    /// Lookups can be made from now on.
    std::function<void()> ready;
    /// Every lookup is dead; `ready` comes again.
    std::function<void()> lost;
};

/// The daemon's client. Reports `ready` later, never inside this call.
///
/// @param waits  whether to wait for a daemon; otherwise there is a backend only if a process owns
///               org.freedesktop.Avahi on the system bus, or the bus can start its owner
/// Blocks until the bus answers.
std::shared_ptr<Backend> makeClientBackend(Loop& loop, BackendHandlers handlers, bool waits);

/// The embedded core, which is ready at once; or none and the error.
std::shared_ptr<Backend> makeServerBackend(Loop& loop, int& error);

} // namespace tessary::discovery
