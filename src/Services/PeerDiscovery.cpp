#include "Services/PeerDiscovery.h"

#include "Platform/Log.h"
#include "Platform/Preferences.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace tessary {

namespace {

using namespace std::chrono_literals;

constexpr const char* trustedKey = "TessaryLink.trustedPeerIPs.v1";
constexpr const char* appleMidiType = "_apple-midi._udp";
constexpr const char* linkType = "_tessarylink._tcp";
constexpr auto resolutionTimeout = 5s;
constexpr auto searchTimeout = 60s; // until the log says what may keep devices from being found

/// One element that is not a text invalidates the whole list.
std::set<std::string> loadTrustedIPs(const Preferences& preferences) {
    const auto stored = preferences.array(trustedKey);
    if (!stored) return {};
    std::set<std::string> ips;
    for (const auto& element : *stored) {
        if (!element) return {};
        ips.insert(*element);
    }
    return ips;
}

/// Drops the entries whose names are no longer listed.
template <typename Map>
void removeStale(Published<Map>& map, const std::set<std::string>& names) {
    map.modify([&](Map& entries) {
        return std::erase_if(entries, [&](const auto& entry) { return !names.contains(entry.first); }) != 0;
    });
}

template <typename Map>
void assign(Published<Map>& map, const std::string& name, typename Map::mapped_type value) {
    map.modify([&](Map& entries) {
        entries.insert_or_assign(name, std::move(value));
        return true;
    });
}

} // namespace

PeerDiscovery::PeerDiscovery(const Platform& platform)
    : trustedIPs(loadTrustedIPs(platform.preferences))
    , platform_(platform)
    , queue_(platform.serviceDiscovery.makeQueue("tessary.link-discovery")) {}

// Browsing

void PeerDiscovery::start() {
    if (*appleMidiBrowser) return;
    appleMidiBrowser = makeBrowser(appleMidiType);
    linkBrowser = makeBrowser(linkType);
    (*appleMidiBrowser)->start(queue_, handlersFor(appleMidiType, &PeerDiscovery::handleAppleMidiResults));
    (*linkBrowser)->start(queue_, handlersFor(linkType, &PeerDiscovery::handleLinkResults));
    platform_.mainQueue.postAfter(searchTimeout, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->reportSilence();
    });
}

void PeerDiscovery::reportSilence() {
    if (hasFoundServices_) return;
    platform_.log.line(
        "[Discovery] nothing found yet: no Tessary app is open on this network, or a firewall or the "
        "access point keeps multicast DNS (UDP 5353) from passing");
}

std::shared_ptr<ServiceBrowser> PeerDiscovery::makeBrowser(const std::string& type) {
    return platform_.serviceDiscovery.makeBrowser(type);
}

BrowserHandlers
PeerDiscovery::handlersFor(const std::string& type,
                           std::function<void(PeerDiscovery&, const std::vector<BrowseResult>&)> onResults) {
    BrowserHandlers handlers;
    handlers.resultsChanged = [weak = weak_from_this(),
                               onResults = std::move(onResults)](const std::vector<BrowseResult>& results) {
        if (const auto self = weak.lock()) onResults(*self, results);
    };
    handlers.failed = [&log = platform_.log, type](const std::string& error) {
        log.line("[Discovery] browser " + type + " failed: " + error);
    };
    return handlers;
}

std::set<std::string> PeerDiscovery::serviceNames(const std::vector<BrowseResult>& results) {
    std::set<std::string> names;
    for (const BrowseResult& result : results)
        names.insert(result.name);
    return names;
}

void PeerDiscovery::handleAppleMidiResults(const std::vector<BrowseResult>& results) {
    platform_.mainQueue.post([self = shared_from_this(), names = serviceNames(results)] {
        removeStale(self->appleMidiResolved, names);
        self->syncResolvers(appleMidiType, names);
        self->recompute();
    });
}

void PeerDiscovery::handleLinkResults(const std::vector<BrowseResult>& results) {
    platform_.mainQueue.post([self = shared_from_this(), names = serviceNames(results)] {
        removeStale(self->markerIPByName, names);
        self->syncResolvers(linkType, names);
        self->recompute();
    });
}

// Resolving

void PeerDiscovery::syncResolvers(const std::string& type, const std::set<std::string>& names) {
    const auto isKnown = [&](const std::string& name) {
        return type == appleMidiType ? appleMidiResolved->contains(name) : markerIPByName->contains(name);
    };
    hasFoundServices_ |= !names.empty();
    for (const std::string& name : names) {
        if (isKnown(name)) continue;
        const std::string key = type + "|" + name;
        if (resolvers->contains(key)) continue;
        const auto resolver = std::make_shared<PeerResolver>(
            platform_.serviceDiscovery.makeResolver("local.", type + ".", name), platform_.log,
            [weak = weak_from_this(), key, type, name](const ServiceResolver* service) {
                const auto self = weak.lock();
                if (!self) return;
                self->resolvers.modify([&](auto& entries) { return entries.erase(key) != 0; });
                self->handleResolved(type, name, service);
            });
        resolvers.modify([&](auto& entries) { return entries.emplace(key, resolver).second; });
        resolver->resolve(resolutionTimeout);
    }
}

void PeerDiscovery::handleResolved(const std::string& type, const std::string& name,
                                   const ServiceResolver* service) {
    if (!service) return;
    const auto address = firstIPv4(*service);
    if (!address) return;
    if (type == appleMidiType) {
        const int port = service->port();
        if (port < 1 || port > 65535) return;
        assign(appleMidiResolved, name,
               PeerHost{address->ip, name, address->host, static_cast<std::uint16_t>(port)});
    } else {
        assign(markerIPByName, name, address->ip);
    }
    recompute();
}

std::optional<PeerDiscovery::ResolvedAddress> PeerDiscovery::firstIPv4(const ServiceResolver& service) {
    const auto& addresses = service.addresses();
    if (!addresses || addresses->empty()) return std::nullopt;
    return ResolvedAddress{addresses->front().text(), addresses->front()};
}

// The merged set

void PeerDiscovery::recompute() {
    std::set<std::string> allowed = *trustedIPs;
    for (const auto& [name, ip] : *markerIPByName)
        allowed.insert(ip);

    std::unordered_map<std::string, PeerHost> byAddress;
    // If two services share an address, because the tablet runs another RTP-MIDI app too, the one named like
    // the marker belongs to the companion app.
    const auto isMarked = [this](const PeerHost& peer) {
        const auto marker = markerIPByName->find(peer.displayName);
        return marker != markerIPByName->end() && marker->second == peer.ip;
    };
    for (const auto& [name, peer] : *appleMidiResolved) {
        if (!allowed.contains(peer.ip)) continue;
        const auto [present, isFirst] = byAddress.try_emplace(peer.ip, peer);
        if (!isFirst && isMarked(peer) >= isMarked(present->second)) present->second = peer;
    }

    PeerSet peers;
    for (auto& [ip, peer] : byAddress)
        peers.insert(std::move(peer));
    const bool changed = peers != *tessaryPeers;
    tessaryPeers = std::move(peers);
    if (changed && *peersDidChange) (*peersDidChange)();
}

// Trust

void PeerDiscovery::markIPTrusted(const std::string& ip) {
    if (trustedIPs->contains(ip)) return;
    trustedIPs.modify([&](auto& ips) { return ips.insert(ip).second; });
    platform_.preferences.setTexts(trustedKey, {trustedIPs->begin(), trustedIPs->end()});
    platform_.mainQueue.post([self = shared_from_this()] { self->recompute(); });
}

} // namespace tessary
