// Finds the peers: browses both service types, resolves their instances, and keeps the merged set.
#pragma once

#include "Models/PeerHost.h"
#include "Models/Published.h"
#include "Platform/Platform.h"
#include "Platform/ServiceDiscovery.h"
#include "Services/PeerResolver.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tessary {

/// A device is a peer if it offers an RTP-MIDI session service and, at the same IPv4 address, either offers
/// the companion app's marker service or is trusted: a session with that address has run before.
///
/// Observable. Runs on: the main thread, but for the browsers' callbacks, which only extract names on `queue`
/// and post the rest; posted work keeps the discovery alive until it has run.
class PeerDiscovery : public std::enable_shared_from_this<PeerDiscovery> {
  public:
    /// Loads the trusted addresses; starts nothing.
    explicit PeerDiscovery(const Platform& platform);

    PeerDiscovery(const PeerDiscovery&) = delete;
    PeerDiscovery& operator=(const PeerDiscovery&) = delete;
    ~PeerDiscovery() = default;

    /// Starts both browsers; a second call does nothing.
    void start();

    /// Remembers, across runs, that this address held a running session. `recompute` follows later, never
    /// inside this call.
    void markIPTrusted(const std::string& ip);

    Published<std::map<std::string, PeerHost>> appleMidiResolved; ///< by instance name
    Published<std::map<std::string, std::string>> markerIPByName;
    Published<std::set<std::string>> trustedIPs;
    Published<PeerSet> tessaryPeers; ///< written by `recompute` alone
    /// Called when an address has entered or left `tessaryPeers`, inside `recompute`.
    Published<std::function<void()>> peersDidChange;
    Published<std::shared_ptr<ServiceBrowser>> appleMidiBrowser;
    Published<std::shared_ptr<ServiceBrowser>> linkBrowser;
    Published<std::map<std::string, std::shared_ptr<PeerResolver>>> resolvers; ///< by "type|name"

    /// The first IPv4 address of a resolved service, as text and as host.
    struct ResolvedAddress {
        std::string ip;
        IPv4Host host;
    };
    static std::optional<ResolvedAddress> firstIPv4(const ServiceResolver& service);

    static std::set<std::string> serviceNames(const std::vector<BrowseResult>& results);

  private:
    std::shared_ptr<ServiceBrowser> makeBrowser(const std::string& type);
    BrowserHandlers
    handlersFor(const std::string& type,
                std::function<void(PeerDiscovery&, const std::vector<BrowseResult>&)> onResults);
    void handleAppleMidiResults(const std::vector<BrowseResult>& results);
    void handleLinkResults(const std::vector<BrowseResult>& results);
    void syncResolvers(const std::string& type, const std::set<std::string>& names);
    void handleResolved(const std::string& type, const std::string& name, const ServiceResolver* service);
    void recompute();
    void reportSilence();

    const Platform platform_;
    const std::shared_ptr<Queue> queue_;
    bool hasFoundServices_ = false;
};

} // namespace tessary
