#include "Platform/avahi/ServiceResolution.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <netinet/in.h>
#include <tuple>
#include <utility>

namespace tessary {

namespace {

using namespace std::chrono_literals;

/// More than any device has; a host that claims thousands is not to keep us busy.
constexpr std::size_t mostAddresses = 64;

constexpr std::size_t ipv4Size = 4;
constexpr std::size_t ipv6Size = 16;

/// A host's addresses on several links come one by one; within this time after the last of them they are
/// taken to be all.
constexpr auto newHostSettleTime = 100ms;

/// How long the address that a host is known by may stay away before another takes its place.
constexpr auto preferredAddressPatience = 1000ms;

/// Of two addresses on one link one may be a host's former one: it stays visible for a second after the host
/// has announced its successor (RFC 6762, section 10.2).
constexpr auto flushedAddressTime = 1100ms;

std::string lowerCase(std::string text) {
    for (char& character : text)
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    return text;
}

/// Ascending, but addresses of small reach come last: those of the machine itself, then link-local ones.
bool comesBefore(const IPv4Host& first, const IPv4Host& second) {
    const auto rank = [](const IPv4Host& host) {
        const auto& bytes = host.bytes;
        const int reach = bytes[0] == 127 ? 2 : bytes[0] == 169 && bytes[1] == 254 ? 1 : 0;
        return std::tuple(reach, bytes);
    };
    return rank(first) < rank(second);
}

template <typename Address>
SocketAddressRecord recordOf(const Address& address) {
    SocketAddressRecord record(sizeof address);
    std::memcpy(record.data(), &address, sizeof address);
    return record;
}

} // namespace

ServiceResolution::ServiceResolution(AvahiThread& thread, PreferredAddresses& preferred, Request request)
    : thread_(thread)
    , preferred_(preferred)
    , request_(std::move(request)) {}

void ServiceResolution::begin(AvahiBackend& backend, std::function<void(Found)> left) {
    backend_ = &backend;
    left_ = std::move(left);
    ++attempt_;
    begun_ = SteadyClock::now();
    after(request_.timeout, &ServiceResolution::handleTimeout);
    after(request_.timeout / 2, &ServiceResolution::handleHalfTime);
    service_ = backend.resolveService(request_.name, request_.type, request_.domain,
                                      [this](const HostEvent& event) { handleHost(event); });
}

bool ServiceResolution::isUnanswered(std::chrono::nanoseconds time) const {
    return host_.empty() && SteadyClock::now() - begun_ >= time;
}

void ServiceResolution::interrupt() {
    backend_ = nullptr;
    left_ = nullptr;
    service_.reset();
    records_.clear();
    host_.clear();
    addresses_.clear();
    isLate_ = false;
}

void ServiceResolution::handleHost(const HostEvent& event) {
    if (event.error != AVAHI_OK) return handleError(event.error);
    port_ = event.port; // it may come a second time: the device has moved meanwhile
    if (host_ == lowerCase(event.host)) return;
    records_.clear();
    addresses_.clear();
    host_ = lowerCase(event.host);
    browseAddresses(AVAHI_DNS_TYPE_A);
    if (isLate_) browseAddresses(AVAHI_DNS_TYPE_AAAA);
}

void ServiceResolution::browseAddresses(std::uint16_t recordType) {
    records_.push_back(backend_->browseAddresses(
        host_, recordType, [this](const AddressEvent& event) { handleAddress(event); }));
}

void ServiceResolution::handleAddress(const AddressEvent& event) {
    if (event.event == AVAHI_BROWSER_FAILURE) return handleError(event.error);
    if (event.bytes.size() != ipv4Size && event.bytes.size() != ipv6Size) return;
    const Address address{event.interface, event.protocol, event.bytes};
    if (event.event != AVAHI_BROWSER_NEW)
        addresses_.erase(address);
    else if (addresses_.size() < mostAddresses)
        addresses_.insert(address);
    else
        return;
    lastChange_ = SteadyClock::now();
    decide();
}

void ServiceResolution::handleError(int error) {
    // The time is kept here, and a daemon that went takes this resolution off the network anyway.
    if (error == AVAHI_ERR_TIMEOUT || backend_->mayRecover(error)) return;
    fail(error);
}

/// A host that has not shown an IPv4 address by now may have IPv6 ones only.
void ServiceResolution::handleHalfTime() {
    isLate_ = true;
    if (!addresses_.empty()) return succeed();
    if (!host_.empty()) browseAddresses(AVAHI_DNS_TYPE_AAAA);
}

void ServiceResolution::handleTimeout() {
    if (!addresses_.empty()) return succeed();
    fail(AVAHI_ERR_TIMEOUT);
}

void ServiceResolution::decide() {
    if (addresses_.empty()) return;
    const auto wait = lastChange_ + settleTime() - SteadyClock::now();
    if (wait > 0s) return after(wait, &ServiceResolution::decide);
    succeed();
}

/// How long the addresses must have stayed as they are before one of them is chosen.
std::chrono::milliseconds ServiceResolution::settleTime() {
    std::map<int, std::set<std::string>> links;
    for (const auto& [interface, protocol, bytes] : addresses_)
        if (bytes.size() == ipv4Size) links[interface].insert(bytes);
    const auto showsTwo = [](const auto& link) { return link.second.size() > 1; };
    if (std::any_of(links.begin(), links.end(), showsTwo)) return flushedAddressTime;

    const auto preferred = preferred_.find(host_);
    if (!preferred || links.empty()) return newHostSettleTime;
    const auto shown = hosts();
    return std::find(shown.begin(), shown.end(), *preferred) != shown.end() ? 0ms : preferredAddressPatience;
}

/// The IPv4 addresses in their order.
std::vector<IPv4Host> ServiceResolution::hosts() const {
    std::vector<IPv4Host> hosts;
    for (const auto& [interface, protocol, bytes] : addresses_) {
        if (bytes.size() != ipv4Size) continue;
        IPv4Host host;
        std::memcpy(host.bytes.data(), bytes.data(), ipv4Size);
        hosts.push_back(host);
    }
    std::sort(hosts.begin(), hosts.end(), comesBefore);
    hosts.erase(std::unique(hosts.begin(), hosts.end()), hosts.end());
    if (const auto preferred = preferred_.find(host_)) {
        const auto found = std::find(hosts.begin(), hosts.end(), *preferred);
        if (found != hosts.end()) std::rotate(hosts.begin(), found, found + 1);
    }
    return hosts;
}

void ServiceResolution::succeed() {
    ResolutionOutcome outcome;
    outcome.port = port_;
    const auto ipv4 = hosts();
    if (!ipv4.empty()) preferred_.store(host_, ipv4.front());
    for (const IPv4Host& host : ipv4) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port_);
        std::memcpy(&address.sin_addr, host.bytes.data(), ipv4Size);
        outcome.addresses.push_back(recordOf(address));
    }
    for (const auto& [interface, protocol, bytes] : addresses_) {
        if (bytes.size() != ipv6Size) continue;
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port_);
        std::memcpy(&address.sin6_addr, bytes.data(), ipv6Size);
        if (IN6_IS_ADDR_LINKLOCAL(&address.sin6_addr))
            address.sin6_scope_id = static_cast<std::uint32_t>(interface);
        const SocketAddressRecord record = recordOf(address);
        if (std::find(outcome.addresses.begin(), outcome.addresses.end(), record) == outcome.addresses.end())
            outcome.addresses.push_back(record);
    }
    finish(outcome);
}

void ServiceResolution::fail(int error) {
    finish({.addresses = {}, .port = -1, .error = avahi_strerror(error)});
}

void ServiceResolution::finish(const ResolutionOutcome& outcome) {
    const auto self = shared_from_this(); // whoever holds it lets it go now
    const auto left = std::exchange(left_, nullptr);
    const Found found = !outcome.addresses.empty() ? Found::addresses
                        : host_.empty()            ? Found::nothing
                                                   : Found::hostOnly;
    interrupt();
    if (left) left(found);
    request_.done(outcome);
}

/// Runs a step of this attempt later.
void ServiceResolution::after(std::chrono::nanoseconds delay, void (ServiceResolution::*step)()) {
    thread_.postAfter(delay, [weak = weak_from_this(), attempt = attempt_, step] {
        const auto self = weak.lock();
        if (self && self->backend_ && self->attempt_ == attempt) (self.get()->*step)();
    });
}

} // namespace tessary
