#include "Host.h"

#include "Platform/discovery/Messages.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>
#include <utility>

namespace tessary::discovery {

namespace {

using namespace std::chrono_literals;

/// A host's addresses on several links arrive one by one. They count as complete this long after the last.
constexpr auto newHostSettleTime = 100ms;

/// How long the preferred address may be missing before another one replaces it.
constexpr auto preferredAddressTimeout = 1000ms;

/// If a host has two addresses on one link, one may be outdated: caches keep it for one second after the host
/// has announced the new one with the cache-flush bit (RFC 6762, section 10.2).
constexpr auto flushedAddressTime = 1100ms;

/// Ascending, but link-local addresses come after all others, and loopback addresses last.
bool comesBefore(const IPv4Host& first, const IPv4Host& second) {
    const auto rank = [](const IPv4Host& host) {
        const auto& bytes = host.bytes;
        const int reach = bytes[0] == 127 ? 2 : bytes[0] == 169 && bytes[1] == 254 ? 1 : 0;
        return std::tuple(reach, bytes);
    };
    return rank(first) < rank(second);
}

} // namespace

Host::Host(Loop& loop, std::string name, std::function<void(const Host&)> changed)
    : loop_(loop)
    , name_(std::move(name))
    , changed_(std::move(changed)) {}

void Host::begin(Backend& backend) {
    backend_ = &backend;
    browse(AVAHI_DNS_TYPE_A);
    if (isAskedForIPv6_) browse(AVAHI_DNS_TYPE_AAAA);
}

void Host::browse(std::uint16_t recordType) {
    lookups_.push_back(
        backend_->browseAddresses(name_, recordType, [this](const AddressEvent& event) { handle(event); }));
}

void Host::interrupt() {
    backend_ = nullptr;
    lookups_.clear();
    addresses_.clear();
    hasIPv6_ = false;
}

/// Finds the addresses for which there was no room.
void Host::browseAgain() {
    isTruncated_ = false;
    Backend& backend = *backend_;
    interrupt();
    begin(backend);
}

void Host::prefer(IPv4Host address) {
    if (!address.isUnicast() || std::exchange(isKnown_, true)) return;
    preferred_ = address;
    decide();
}

void Host::hurry() {
    if (!addresses_.empty() || hasIPv6_) return settle();
    if (!backend_ || std::exchange(isAskedForIPv6_, true)) return;
    browse(AVAHI_DNS_TYPE_AAAA);
}

void Host::handle(const AddressEvent& event) {
    const bool isNew = event.event == AVAHI_BROWSER_NEW;
    if (!isNew && event.event != AVAHI_BROWSER_REMOVE) return;
    Address address{event.interface, event.protocol, {}};
    if (event.bytes.size() == address.bytes.size()) {
        std::memcpy(address.bytes.data(), event.bytes.data(), address.bytes.size());
        if (!IPv4Host{address.bytes}.isUnicast()) return;
        if (!isNew)
            addresses_.erase(address);
        else if (addresses_.size() < maxAddresses)
            addresses_.insert(address);
        else
            isTruncated_ = true;
        if (isTruncated_ && addresses_.size() < maxAddresses) return browseAgain();
    } else if (isNew) {
        hasIPv6_ = true;
    }
    lastChange_ = Loop::Clock::now();
    decide();
}

void Host::decide() {
    if (addresses_.empty() && !(hasIPv6_ && !settled_)) return; // the settled addresses stay
    const auto wait = lastChange_ + settleTime() - Loop::Clock::now();
    if (wait <= 0s) return settle();
    if (std::exchange(isDecisionDue_, true)) return;
    loop_.after(wait, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->isDecisionDue_ = false;
        self->decide();
    });
}

/// How long the addresses must have been unchanged before one of them is chosen.
std::chrono::milliseconds Host::settleTime() const {
    std::map<int, std::set<std::array<std::uint8_t, 4>>> links;
    for (const auto& [interface, protocol, bytes] : addresses_)
        links[interface].insert(bytes);
    if (std::ranges::any_of(links, [](const auto& link) { return link.second.size() > 1; }))
        return flushedAddressTime;
    if (!preferred_ || links.empty()) return newHostSettleTime;
    const auto isPreferred = [this](const Address& address) { return address.bytes == preferred_->bytes; };
    return std::ranges::any_of(addresses_, isPreferred) ? 0ms : preferredAddressTimeout;
}

void Host::settle() {
    auto addresses = inOrder();
    if (!addresses.empty()) preferred_ = addresses.front();
    if (settled_ == addresses) return;
    settled_ = std::move(addresses);
    changed_(*this);
}

std::vector<IPv4Host> Host::inOrder() const {
    std::vector<IPv4Host> hosts;
    for (const auto& [interface, protocol, bytes] : addresses_)
        hosts.push_back({bytes});
    std::ranges::sort(hosts, comesBefore);
    hosts.erase(std::unique(hosts.begin(), hosts.end()), hosts.end());
    if (!preferred_) return hosts;
    const auto found = std::ranges::find(hosts, *preferred_);
    if (found != hosts.end()) std::rotate(hosts.begin(), found, found + 1);
    return hosts;
}

} // namespace tessary::discovery
