#include "Platform/avahi/ServiceBrowse.h"

#include <utility>
#include <vector>

namespace tessary {

namespace {

using namespace std::chrono_literals;

/// Services come in bursts: a whole packet's worth makes one report, and thousands of names, whose full set
/// takes a while to copy, are not copied for each of them.
constexpr auto reportDelay = 10ms;
constexpr auto largeReportDelay = 100ms;
constexpr std::size_t largeReport = 256;

/// A new daemon has asked once when it calls its first set complete. It asks again one and three seconds
/// later; only who then has not answered either has gone.
constexpr auto rediscoveryTime = 3s;

/// How long the end of the daemon may take to become known after a lookup failed because of it.
constexpr auto farewellTime = 1s;

} // namespace

ServiceBrowse::ServiceBrowse(AvahiThread& thread, std::string type, std::shared_ptr<Queue> queue,
                             BrowserHandlers handlers)
    : thread_(thread)
    , type_(std::move(type))
    , queue_(std::move(queue))
    , handlers_(std::move(handlers)) {}

void ServiceBrowse::begin(AvahiBackend& backend) {
    if (hasFailed_) return;
    lookup_ = backend.browseServices(type_,
                                     [this, &backend](const ServiceEvent& event) { handle(backend, event); });
}

bool ServiceBrowse::lists(const std::string& name) const {
    const auto first = reported_.lower_bound({name, {}, 0});
    return first != reported_.end() && std::get<0>(*first) == name;
}

void ServiceBrowse::renew(const std::string& name) {
    renewed_.insert(name);
    scheduleReport();
}

void ServiceBrowse::daemonLost() {
    lookup_.reset();
    kept_ = visible();
    seen_.clear();
}

void ServiceBrowse::handle(AvahiBackend& backend, const ServiceEvent& event) {
    const std::pair service(Result(event.name, event.domain, event.interface), event.protocol);
    switch (event.event) {
    case AVAHI_BROWSER_NEW:
        seen_.insert(service);
        return scheduleReport();
    case AVAHI_BROWSER_REMOVE:
        seen_.erase(service);
        return scheduleReport();
    case AVAHI_BROWSER_ALL_FOR_NOW:
        if (kept_.empty()) return;
        return thread_.postAfter(rediscoveryTime, [weak = weak_from_this(), lookup = std::weak_ptr(lookup_)] {
            const auto self = weak.lock();
            if (!self || lookup.expired()) return;
            self->kept_.clear();
            self->scheduleReport();
        });
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        return;
    case AVAHI_BROWSER_FAILURE:
        return handleFailure(backend, event.error);
    }
}

void ServiceBrowse::handleFailure(AvahiBackend& backend, int error) {
    if (!backend.mayRecover(error)) return fail(avahi_strerror(error));
    thread_.postAfter(farewellTime, [weak = weak_from_this(), lookup = std::weak_ptr(lookup_), error] {
        const auto self = weak.lock();
        if (self && !lookup.expired()) self->fail(avahi_strerror(error)); // the daemon is still there
    });
}

void ServiceBrowse::fail(const std::string& error) {
    if (std::exchange(hasFailed_, true)) return;
    lookup_.reset();
    queue_->post([self = shared_from_this(), error] {
        if (!self->isSilent_ && self->handlers_.failed) self->handlers_.failed(error);
    });
}

void ServiceBrowse::scheduleReport() {
    if (std::exchange(isReportScheduled_, true)) return;
    const auto delay = seen_.size() > largeReport ? largeReportDelay : reportDelay;
    thread_.postAfter(delay, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->report();
    });
}

void ServiceBrowse::report() {
    isReportScheduled_ = false;
    const std::set<Result> now = visible();
    const std::set<Result> before = reported_;
    const auto renewed = std::exchange(renewed_, {});
    if (!renewed.empty()) {
        std::set<Result> without = now;
        std::erase_if(without, [&](const Result& result) { return renewed.contains(std::get<0>(result)); });
        report(std::move(without));
    }
    report(now);

    std::set<std::string> gone;
    for (const auto& [name, domain, interface] : before)
        if (!lists(name)) gone.insert(name);
    if (!gone.empty() && goneHandler_) goneHandler_(gone);
}

void ServiceBrowse::report(std::set<Result> now) {
    if (now == reported_) return;
    reported_ = std::move(now);
    std::vector<BrowseResult> results;
    results.reserve(reported_.size());
    for (const auto& [name, domain, interface] : reported_)
        results.push_back({name, type_, domain, interface});
    queue_->post([self = shared_from_this(), results = std::move(results)] {
        if (!self->isSilent_ && self->handlers_.resultsChanged) self->handlers_.resultsChanged(results);
    });
}

std::set<ServiceBrowse::Result> ServiceBrowse::visible() const {
    std::set<Result> results = kept_;
    for (const auto& [result, protocol] : seen_)
        results.insert(result);
    return results;
}

} // namespace tessary
