#include "Platform/avahi/AvahiEngine.h"

#include <algorithm>
#include <avahi-common/domain.h>
#include <vector>

namespace tessary {

namespace {

/// The daemon gives one client 1024 objects; a resolution takes up to three, and browsers need theirs.
constexpr std::size_t resolutionsInFlight = 200;

/// Who is there answers within this time, the second time that he is asked if need be (RFC 6762,
/// section 5.2).
constexpr auto answerTime = std::chrono::milliseconds(1500);

/// They are the daemon's objects too. More devices than these, and the oldest are no longer watched.
constexpr std::size_t mostWatched = 350;
constexpr std::size_t mostMissing = 64;

/// Names come and go as fast as somebody on the network likes; a resolution takes up to five seconds.
constexpr std::size_t mostWaiting = 4096;

} // namespace

void AvahiEngine::run() {
    open();
    thread_.run();
    watches_.clear();
    missing_.clear();
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
    browse->whenGone([this, type = browse->type()](const auto& names) { drop(type, names); });
    if (backend_->isReady()) browse->begin(*backend_);
}

void AvahiEngine::remove(const std::shared_ptr<ServiceBrowse>& browse) {
    browses_.erase(browse);
}

void AvahiEngine::add(const std::shared_ptr<ServiceResolution>& resolution) {
    if (!backend_) return resolution->fail(error_);
    if (hasFailed(*resolution))
        waiting_.push_front(resolution);
    else
        waiting_.push_back(resolution);
    beginResolutions();
    if (waiting_.size() <= mostWaiting) return;
    const auto oldest = waiting_.front();
    waiting_.pop_front();
    oldest->fail(AVAHI_ERR_TOO_MANY_OBJECTS); // tried again as long as it is listed
}

void AvahiEngine::remove(const std::shared_ptr<ServiceResolution>& resolution) {
    std::erase(waiting_, resolution);
    if (std::erase(inFlight_, resolution) == 0) return;
    resolution->interrupt();
    beginResolutions();
}

void AvahiEngine::ready() {
    for (const auto& browse : browses_)
        browse->begin(*backend_);
    for (const auto* watches : {&watches_, &missing_})
        for (const auto& watch : *watches)
            begin(watch);
    beginResolutions();
}

/// What was in flight goes back to those that wait: its time starts anew with the new daemon.
void AvahiEngine::lost() {
    for (const auto& browse : browses_)
        browse->daemonLost();
    for (const auto* watches : {&watches_, &missing_})
        for (const auto& watch : *watches)
            watch->lookup.reset();
    for (const auto& resolution : inFlight_) {
        resolution->interrupt();
        waiting_.push_back(resolution);
    }
    inFlight_.clear();
}

/// The newest first, and those that nobody has answered for before last: a device that has just come does not
/// wait for thousands of dead names, which are tried again with every change of the list.
void AvahiEngine::beginResolutions() {
    while (backend_->isReady() && !waiting_.empty() &&
           (inFlight_.size() < resolutionsInFlight || makeRoom())) {
        const auto resolution = waiting_.back();
        waiting_.pop_back();
        inFlight_.push_back(resolution);
        resolution->begin(*backend_, [this, weak = std::weak_ptr(resolution)](auto found) {
            const auto finished = weak.lock();
            if (!finished) return;
            noteOutcome(*finished, found);
            remove(finished);
        });
        thread_.postAfter(answerTime, [this] { beginResolutions(); });
    }
}

/// One that nobody has answered for goes back to those that wait, in favour of one that has not been tried.
bool AvahiEngine::makeRoom() {
    if (hasFailed(*waiting_.back())) return false;
    const auto isSilent = [](const auto& resolution) { return resolution->isUnanswered(answerTime); };
    const auto found = std::find_if(inFlight_.begin(), inFlight_.end(), isSilent);
    if (found == inFlight_.end()) return false;
    const auto silent = *found;
    inFlight_.erase(found);
    silent->interrupt();
    noteFailure(*silent);
    waiting_.push_front(silent);
    return true;
}

/// What nobody offers any more is not looked for any longer: it holds up what is.
void AvahiEngine::drop(const std::string& type, const std::set<std::string>& names) {
    std::vector<std::shared_ptr<ServiceResolution>> dropped;
    const auto isDropped = [&](const auto& resolution) {
        const auto& request = resolution->request();
        if (request.type != type || !names.contains(request.name)) return false;
        dropped.push_back(resolution);
        return true;
    };
    std::erase_if(waiting_, isDropped);
    std::erase_if(inFlight_, isDropped);
    for (const auto& name : names)
        failed_.erase({type, name});
    for (const auto& resolution : dropped) {
        resolution->interrupt();
        resolution->fail(AVAHI_ERR_NOT_FOUND);
    }
    beginResolutions();
}

bool AvahiEngine::hasFailed(const ServiceResolution& resolution) const {
    return failed_.contains({resolution.request().type, resolution.request().name});
}

void AvahiEngine::noteFailure(const ServiceResolution& resolution) {
    if (failed_.size() == mostWaiting) failed_.clear();
    failed_.insert({resolution.request().type, resolution.request().name});
}

void AvahiEngine::noteOutcome(const ServiceResolution& resolution, ServiceResolution::Found found) {
    using Found = ServiceResolution::Found;
    const auto& request = resolution.request();
    if (found == Found::addresses)
        failed_.erase({request.type, request.name});
    else
        noteFailure(resolution);
    if (found != Found::hostOnly) watch(request, found == Found::nothing);
}

// A device that returns at once, under its name but on another port or host, never leaves the list: its
// former place would be dialled for ever. So where a service was found is watched for as long as it is
// listed. And one that is listed but cannot be found, because it has just gone, is found when it returns.

void AvahiEngine::watch(const ServiceResolution::Request& request, bool isMissing) {
    const auto isIt = [&](const auto& watch) {
        return watch->name == request.name && watch->type == request.type && watch->domain == request.domain;
    };
    std::erase_if(watches_, isIt);
    std::erase_if(missing_, isIt);
    auto& watches = isMissing ? missing_ : watches_;
    if (watches.size() == (isMissing ? mostMissing : mostWatched)) watches.pop_front();
    watches.push_back(std::make_shared<Watch>(Watch{request.name, request.type, request.domain, isMissing}));
    begin(watches.back());
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
    const bool isListed = browse != browses_.end();
    const bool isFound = event.error == AVAHI_OK;
    const bool isNews =
        isFound && (watch->isMissing ||
                    (!watch->host.empty() && (watch->port != event.port ||
                                              !avahi_domain_equal(watch->host.c_str(), event.host.c_str()))));
    if (isFound) {
        watch->host = event.host;
        watch->port = event.port;
    }
    if (isListed && !isNews) return;
    failed_.erase({watch->type, watch->name});
    std::erase(watches_, watch);
    std::erase(missing_, watch);
    if (isListed) (*browse)->renew(watch->name);
}

} // namespace tessary
