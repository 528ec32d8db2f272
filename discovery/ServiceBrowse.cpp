#include "ServiceBrowse.h"

#include "Models/UTF8.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace tessary::discovery {

namespace {

using namespace std::chrono_literals;

/// Services arrive in bursts. These delays combine the services of a datagram into one report, and limit how
/// often a large set is compared.
constexpr auto reportDelay = 10ms;
constexpr auto largeReportDelay = 100ms;
constexpr std::size_t largeReport = 256;

/// After the first query, which ALL_FOR_NOW follows, Avahi repeats it after 1, 3, 7 and 15 s. The list is
/// complete once it has not changed for this time: others on the network may keep discovery too busy to hear
/// answers.
constexpr auto rediscoveryTime = 20s;

/// How long after a failed lookup the end of the daemon may be reported.
constexpr auto disconnectTime = 1s;

constexpr auto maxRetryDelay = 60s;

} // namespace

ServiceBrowse::ServiceBrowse(Loop& loop, const Browse& request, std::function<void(const Report&)> report)
    : loop_(loop)
    , number_(request.browse)
    , type_(request.type)
    , report_(std::move(report)) {}

void ServiceBrowse::begin(Backend& backend) {
    backend_ = &backend;
    lookup_ = backend.browseServices(type_, [this](const ServiceEvent& event) { handle(event); });
}

void ServiceBrowse::interrupt() {
    backend_ = nullptr;
    lookup_.reset();
    seen_.clear();
    reported_.clear();
    report_(Restarted{number_});
}

void ServiceBrowse::handle(const ServiceEvent& event) {
    const std::pair service(Result(event.name, event.domain, event.interface), event.protocol);
    lastChange_ = Loop::Clock::now();
    switch (event.event) {
    case AVAHI_BROWSER_NEW:
        if (seen_.size() >= 2 * maxListed || event.name.size() > maxTextSize || !isUTF8(event.name)) return;
        seen_.insert(service);
        return scheduleReport();
    case AVAHI_BROWSER_REMOVE:
        seen_.erase(service);
        return scheduleReport();
    case AVAHI_BROWSER_ALL_FOR_NOW:
        retryDelay_ = 1s;
        return reportCompleteLater();
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        return;
    case AVAHI_BROWSER_FAILURE:
        return handleFailure(event.error);
    }
}

void ServiceBrowse::reportCompleteLater() {
    const auto wait = lastChange_ + rediscoveryTime - Loop::Clock::now();
    loop_.after(wait, [weak = weak_from_this(), lookup = std::weak_ptr(lookup_)] {
        const auto self = weak.lock();
        if (!self || lookup.expired()) return;
        if (Loop::Clock::now() - self->lastChange_ < rediscoveryTime) return self->reportCompleteLater();
        self->reportChanges();
        self->report_(Complete{self->number_});
    });
}

/// If the daemon has not ended, retries the browse with growing delays.
void ServiceBrowse::handleFailure(int error) {
    const auto delay = backend_->mayRecover(error) ? disconnectTime : 0s;
    loop_.after(delay, [weak = weak_from_this(), lookup = std::weak_ptr(lookup_), error] {
        const auto self = weak.lock();
        if (!self || lookup.expired()) return; // the daemon has ended
        if (!std::exchange(self->hasFailed_, true))
            self->report_(BrowseFailed{self->number_, avahi_strerror(error)});
        self->retry();
    });
}

void ServiceBrowse::retry() {
    loop_.after(retryDelay_, [weak = weak_from_this(), lookup = std::weak_ptr(lookup_)] {
        const auto self = weak.lock();
        if (!self || lookup.expired()) return;
        Backend& backend = *self->backend_;
        self->interrupt();
        self->begin(backend);
    });
    retryDelay_ = std::min<std::chrono::seconds>(2 * retryDelay_, maxRetryDelay);
}

void ServiceBrowse::scheduleReport() {
    if (std::exchange(isReportScheduled_, true)) return;
    loop_.after(seen_.size() > largeReport ? largeReportDelay : reportDelay, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->isReportScheduled_ = false;
        self->reportChanges();
    });
}

void ServiceBrowse::reportChanges() {
    std::set<Result> now;
    for (const auto& [result, protocol] : seen_)
        if (now.size() < maxListed) now.insert(result);
    if (now == reported_) return;
    const auto difference = [](const std::set<Result>& from, const std::set<Result>& without) {
        std::vector<Result> results;
        std::ranges::set_difference(from, without, std::back_inserter(results));
        return results;
    };
    for (const auto& [name, domain, interface] : difference(reported_, now))
        report_(Unlisted{number_, name, domain, static_cast<std::uint32_t>(interface)});
    for (const auto& [name, domain, interface] : difference(now, reported_))
        report_(Listed{number_, name, domain, static_cast<std::uint32_t>(interface)});
    report_(Changed{number_});
    reported_ = std::move(now);
}

} // namespace tessary::discovery
