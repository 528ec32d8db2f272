#include "Platform/avahi/AvahiEngine.h"

#include <algorithm>
#include <avahi-common/domain.h>

namespace tessary {

namespace {

/// The daemon gives one client 1024 objects; a resolution takes up to three, and browsers need theirs.
constexpr std::size_t resolutionsInFlight = 200;

/// They are the daemon's objects too. More devices than these, and the oldest are no longer watched.
constexpr std::size_t mostWatched = 256;

/// Names come and go as fast as somebody on the network likes; a resolution takes up to five seconds.
constexpr std::size_t mostWaiting = 4096;

} // namespace

void AvahiEngine::run() {
    open();
    thread_.run();
    watches_.clear();
    waiting_.clear();
    inFlight_.clear();
    browses_.clear();
    backend_.reset();
}

void AvahiEngine::open() {
    backend_ = makeClientBackend(thread_, {.ready = [this] { ready(); }, .lost = [this] { lost(); }});
    if (!backend_) backend_ = makeServerBackend(thread_, error_);
}

void AvahiEngine::add(const std::shared_ptr<ServiceBrowse>& browse) {
    if (!backend_) return browse->fail(avahi_strerror(error_));
    browses_.insert(browse);
    if (backend_->isReady()) browse->begin(*backend_);
}

void AvahiEngine::remove(const std::shared_ptr<ServiceBrowse>& browse) {
    browses_.erase(browse);
}

void AvahiEngine::add(const std::shared_ptr<ServiceResolution>& resolution) {
    if (!backend_) return resolution->fail(error_);
    waiting_.push_back(resolution);
    beginResolutions();
    if (waiting_.size() <= mostWaiting) return;
    const auto oldest = waiting_.front();
    waiting_.pop_front();
    oldest->fail(AVAHI_ERR_TOO_MANY_OBJECTS); // tried again as long as it is listed
}

void AvahiEngine::remove(const std::shared_ptr<ServiceResolution>& resolution) {
    std::erase(waiting_, resolution);
    if (inFlight_.erase(resolution) == 0) return;
    resolution->interrupt();
    beginResolutions();
}

void AvahiEngine::ready() {
    for (const auto& browse : browses_)
        browse->begin(*backend_);
    for (const auto& watch : watches_)
        begin(watch);
    beginResolutions();
}

/// What was in flight goes back to those that wait: its time starts anew with the new daemon.
void AvahiEngine::lost() {
    for (const auto& browse : browses_)
        browse->daemonLost();
    for (const auto& watch : watches_)
        watch->lookup.reset();
    for (const auto& resolution : inFlight_) {
        resolution->interrupt();
        waiting_.push_back(resolution);
    }
    inFlight_.clear();
}

/// The newest first: a device that has just come does not wait for thousands of names that nobody answers
/// for.
void AvahiEngine::beginResolutions() {
    while (backend_->isReady() && !waiting_.empty() && inFlight_.size() < resolutionsInFlight) {
        const auto resolution = waiting_.back();
        waiting_.pop_back();
        inFlight_.insert(resolution);
        resolution->begin(*backend_, [this, weak = std::weak_ptr(resolution)](bool hasSucceeded) {
            const auto finished = weak.lock();
            if (!finished) return;
            if (hasSucceeded) watch(finished->request());
            remove(finished);
        });
    }
}

// A device that returns at once, under its name but on another port or host, never leaves the list: its former
// place would be dialled for ever. So where a service was found is watched for as long as it is listed.

void AvahiEngine::watch(const ServiceResolution::Request& resolved) {
    std::erase_if(watches_, [&](const auto& watch) {
        return watch->name == resolved.name && watch->type == resolved.type && watch->domain == resolved.domain;
    });
    if (watches_.size() == mostWatched) watches_.pop_front();
    watches_.push_back(std::make_shared<Watch>(Watch{resolved.name, resolved.type, resolved.domain}));
    begin(watches_.back());
}

void AvahiEngine::begin(const std::shared_ptr<Watch>& watch) {
    watch->lookup = backend_->resolveService(watch->name, watch->type, watch->domain,
                                             [this, weak = std::weak_ptr(watch)](const HostEvent& event) {
                                                 if (const auto watched = weak.lock()) handle(watched, event);
                                             });
}

void AvahiEngine::handle(const std::shared_ptr<Watch>& watch, const HostEvent& event) {
    const auto listsIt = [&](const auto& browse) {
        return browse->type() == watch->type && browse->lists(watch->name);
    };
    const auto browse = std::find_if(browses_.begin(), browses_.end(), listsIt);
    if (event.error != AVAHI_OK) { // it cannot be found at the moment
        if (browse == browses_.end()) std::erase(watches_, watch);
        return;
    }
    if (watch->host.empty()) {
        watch->host = event.host;
        watch->port = event.port;
    } else if (!avahi_domain_equal(watch->host.c_str(), event.host.c_str()) || watch->port != event.port) {
        std::erase(watches_, watch);
        if (browse != browses_.end()) (*browse)->renew(watch->name);
    }
}

} // namespace tessary
