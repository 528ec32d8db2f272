#include "Platform/avahi/AvahiEngine.h"

namespace tessary {

namespace {

/// The daemon gives one client 1024 objects; a resolution takes up to three, and browsers need theirs.
constexpr std::size_t resolutionsInFlight = 200;

/// Names come and go as fast as somebody on the network likes; a resolution takes up to five seconds.
constexpr std::size_t mostWaiting = 4096;

} // namespace

void AvahiEngine::run() {
    open();
    thread_.run();
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
    beginResolutions();
}

/// What was in flight goes back to those that wait: its time starts anew with the new daemon.
void AvahiEngine::lost() {
    for (const auto& browse : browses_)
        browse->daemonLost();
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
        resolution->begin(*backend_, [this, weak = std::weak_ptr(resolution)] {
            if (const auto finished = weak.lock()) remove(finished);
        });
    }
}

} // namespace tessary
