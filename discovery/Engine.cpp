#include "Engine.h"

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

namespace tessary::discovery {

namespace {

using State = Service::State;

/// avahi-daemon allows a client 1,024 objects (objects-per-client-max). With more devices, the oldest are no
/// longer watched.
constexpr std::size_t maxLookups = 1000;

/// A service needs one lookup, its host up to two.
constexpr std::size_t lookupsOfAService = 3;

/// Avahi repeats unanswered queries on the network, so their number is limited.
constexpr std::size_t maxAsked = 200;
constexpr std::size_t maxMissing = 64;

/// A live responder answers within this time even if the first query is lost (RFC 6762, section 5.2).
constexpr auto answerTime = std::chrono::milliseconds(1500);

/// A daemon that ends twice within this time is not just being restarted: something on the network crashes
/// it.
constexpr auto stableTime = std::chrono::minutes(1);

/// A daemon that is only being restarted returns within this time.
constexpr auto daemonTimeout = std::chrono::seconds(30);

std::string lowerCase(std::string text) {
    for (char& character : text)
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    return text;
}

} // namespace

Engine::Engine(Loop& loop, Responder responder, std::function<void(const Report&)> report)
    : loop_(loop)
    , report_(std::move(report))
    , responder_(Responder::daemon)
    , handlers_{.host = [this](const std::string& name) { return host(name); },
                .report = report_,
                .moved = [this](Service& service, State next) { moved(service, next); }} {
    if (responder != Responder::embedded)
        backend_ = makeClientBackend(loop, {.ready = [this] { ready(); }, .lost = [this] { lost(); }},
                                     responder == Responder::daemon);
    if (backend_) return;
    responder_ = Responder::embedded;
    backend_ = makeServerBackend(loop, error_);
}

void Engine::browse(const Browse& request) {
    if (!backend_) return report_(BrowseFailed{request.browse, avahi_strerror(error_)});
    const auto browse = std::make_shared<ServiceBrowse>(loop_, request, report_);
    browses_.insert_or_assign(request.browse, browse);
    if (backend_->isReady()) browse->begin(*backend_);
}

void Engine::resolve(const Resolve& request) {
    if (!backend_) return report_(Unresolved{request.resolution, avahi_strerror(error_)});
    const auto known = services_.find(request.resolution);
    if (known != services_.end()) return known->second->want(request);
    const auto service = std::make_shared<Service>(loop_, request, handlers_);
    services_.emplace(request.resolution, service);
    Services& waiting = queue(State::waiting);
    service->position = waiting.insert(waiting.end(), service);
    scheduleAsking();
}

void Engine::endResolve(std::uint32_t resolution) {
    const auto found = services_.find(resolution);
    if (found == services_.end()) return;
    queue(found->second->state()).erase(found->second->position);
    services_.erase(found);
    scheduleAsking();
}

// The daemon

void Engine::ready() {
    for (const auto& [number, browse] : browses_)
        browse->begin(*backend_);
    for (const auto& [name, known] : hosts_)
        if (const auto host = known.lock()) host->begin(*backend_);
    for (const State state : {State::found, State::missing})
        for (const auto& service : queue(state))
            service->watch(*backend_);
    scheduleAsking();
}

void Engine::lost() {
    const auto now = Loop::Clock::now();
    if (now - std::exchange(lostAt_, now) < stableTime) std::_Exit(unstableDaemonStatus);
    loop_.after(daemonTimeout, [this] {
        if (!backend_->isReady()) std::_Exit(unstableDaemonStatus);
    });
    for (const auto& [number, browse] : browses_)
        browse->interrupt();
    for (const auto& [number, service] : services_)
        service->interrupt();
    for (const auto& [name, known] : hosts_)
        if (const auto host = known.lock()) host->interrupt();
}

// Hosts

std::shared_ptr<Host> Engine::host(const std::string& name) {
    const std::string key = lowerCase(name);
    auto& known = hosts_[key];
    if (auto existing = known.lock()) return existing;
    const auto forget = [this](const Host* host) {
        hosts_.erase(host->name());
        delete host;
    };
    std::shared_ptr<Host> host(new Host(loop_, key, [this](const Host& changed) { hostChanged(changed); }),
                               forget);
    known = host;
    host->begin(*backend_);
    return host;
}

void Engine::hostChanged(const Host& host) {
    for (const auto& [number, service] : services_)
        if (service->host() == &host) service->hostChanged();
}

// Order of the queries

void Engine::moved(Service& service, State next) {
    Services& to = queue(next);
    // Thousands of dead names must not delay a device that has just appeared: services that have failed wait
    // behind those that have not been looked up yet.
    const auto place = next == State::waiting && service.hasFailed() ? to.begin() : to.end();
    to.splice(place, queue(service.state()), service.position);
    if (next == State::missing && to.size() > maxMissing) to.front()->leave(State::idle, true);
    scheduleAsking();
}

void Engine::scheduleAsking() {
    if (std::exchange(isAskingScheduled_, true)) return;
    loop_.post([this] {
        isAskingScheduled_ = false;
        askWaiting();
    });
}

void Engine::askWaiting() {
    Services& waiting = queue(State::waiting);
    while (backend_->isReady() && !waiting.empty() && makeRoom(*waiting.back())) {
        waiting.back()->ask(*backend_);
        loop_.after(answerTime, [this] { scheduleAsking(); });
    }
}

/// Returns whether `next` can be looked up now. To make room, returns unanswered services to the waiting
/// queue or stops watching services.
bool Engine::makeRoom(const Service& next) {
    Services& asked = queue(State::asked);
    if (asked.size() >= maxAsked) {
        if (next.hasFailed()) return false;
        const auto silent = std::ranges::find_if(
            asked, [](const auto& service) { return service->isUnanswered(answerTime); });
        if (silent == asked.end()) return false;
        (*silent)->leave(State::waiting, true);
    }
    while (backend_->lookups() + lookupsOfAService > maxLookups) {
        Services& missing = queue(State::missing);
        Services& found = queue(State::found);
        Services& watched = missing.empty() ? found : missing;
        if (watched.empty() || (&watched == &found && !asked.empty())) return false;
        watched.front()->leave(State::idle, missing.empty() ? false : true);
    }
    return true;
}

} // namespace tessary::discovery
