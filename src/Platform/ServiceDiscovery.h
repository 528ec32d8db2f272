// What the services need from the machine: DNS-SD (RFC 6763), browsing and resolving.
#pragma once

#include "Models/IPv4Host.h"
#include "Platform/Queue.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tessary {

/// One service instance as one network interface sees it.
struct BrowseResult {
    std::string name;
    std::string type;
    std::string domain;
    int interface = 0;
};

struct BrowserHandlers {
    /// The full set of results that the browser sees now, each time that it has changed.
    std::function<void(const std::vector<BrowseResult>&)> resultsChanged;
    /// The browser cannot work; the text says why.
    std::function<void(const std::string&)> failed;
};

/// Browses one service type. Dropping it ends it; no handler is entered afterwards.
class ServiceBrowser {
  public:
    virtual ~ServiceBrowser() = default;

    /// Begins browsing; every handler runs on `queue`.
    virtual void start(const std::shared_ptr<Queue>& queue, BrowserHandlers handlers) = 0;
};

class ServiceResolver;

struct ResolverHandlers {
    std::function<void(ServiceResolver&)> didResolve;
    /// The resolution failed or timed out; the text says why.
    std::function<void(ServiceResolver&, const std::string&)> didNotResolve;
};

/// Resolves one service instance. Used on the main thread alone; its handlers run there.
class ServiceResolver {
  public:
    virtual ~ServiceResolver() = default;

    virtual const std::string& name() const = 0;

    /// Starts the resolution. It fails after `timeout`, counted from the moment it is on the network.
    virtual void resolve(std::chrono::nanoseconds timeout, ResolverHandlers handlers) = 0;

    /// Ends the resolution; no handler is entered afterwards.
    virtual void stop() = 0;

    /// The IPv4 addresses that the service resolved to; absent before it has, empty if its host has IPv6
    /// addresses alone. The addresses of a host come in the same order for each of its services.
    virtual const std::optional<std::vector<IPv4Host>>& addresses() const = 0;

    /// The resolved port; -1 when it is not known.
    virtual int port() const = 0;
};

class ServiceDiscovery {
  public:
    virtual ~ServiceDiscovery() = default;

    /// A serial queue for the browsers' handlers; the label is for debugging.
    virtual std::shared_ptr<Queue> makeQueue(std::string label) = 0;

    /// A browser for a service type such as "_apple-midi._udp" in the default domains; not started.
    virtual std::unique_ptr<ServiceBrowser> makeBrowser(const std::string& type) = 0;

    /// A resolver for one instance; `domain` and `type` end with a full stop; not started.
    virtual std::shared_ptr<ServiceResolver> makeResolver(const std::string& domain, const std::string& type,
                                                          const std::string& name) = 0;
};

} // namespace tessary
