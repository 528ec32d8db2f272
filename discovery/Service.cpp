#include "Service.h"

#include <utility>

namespace tessary::discovery {

Service::Service(Loop& loop, const Resolve& request, const Handlers& handlers)
    : loop_(loop)
    , handlers_(handlers)
    , request_(request) {}

void Service::want(const Resolve& request) {
    request_ = request;
    isWanted_ = true;
    if (state_ == State::found)
        hostChanged();
    else if (state_ != State::waiting)
        leave(State::waiting, hasFailed_);
}

void Service::interrupt() {
    lookup_.reset();
    if (state_ == State::asked) leave(State::waiting, hasFailed_);
}

void Service::ask(Backend& backend) {
    moveTo(State::asked);
    askedAt_ = Loop::Clock::now();
    ++attempt_;
    const std::chrono::milliseconds timeout(request_.timeout);
    after(timeout / 2, &Service::handleHalfTime);
    after(timeout, &Service::handleTimeout);
    watch(backend);
}

void Service::watch(Backend& backend) {
    backend_ = &backend;
    lookup_ = backend.resolveService(request_.name, request_.type, request_.domain,
                                     [this](const HostEvent& event) { handle(event); });
}

bool Service::isUnanswered(std::chrono::nanoseconds time) const {
    return !host_ && Loop::Clock::now() - askedAt_ >= time;
}

void Service::leave(State next, bool hasFailed) {
    hasFailed_ = hasFailed;
    lookup_.reset();
    host_.reset();
    moveTo(next);
}

void Service::handle(const HostEvent& event) {
    if (event.error != AVAHI_OK) {
        // The timeout is measured here, not by Avahi. An error that means that the daemon is ending is no
        // failure of the service: the lookup is repeated with the next daemon.
        if (state_ == State::asked && event.error != AVAHI_ERR_TIMEOUT && !backend_->mayRecover(event.error))
            fail(event.error);
        return;
    }
    port_ = event.port;
    host_ = handlers_.host(event.host);
    host_->prefer(request_.known);
    hostChanged();
}

void Service::hostChanged() {
    if (!host_ || !host_->addresses()) return;
    Resolved resolved{request_.resolution, port_, *host_->addresses()};
    const bool isNews = isWanted_ || !reported_ || reported_->fields() != resolved.fields();
    isWanted_ = false;
    hasFailed_ = false;
    reported_ = std::move(resolved);
    if (isNews) handlers_.report(*reported_);
    if (state_ != State::found) moveTo(State::found);
}

void Service::handleHalfTime() {
    if (host_) host_->hurry();
}

void Service::handleTimeout() {
    if (host_) host_->hurry();
    if (state_ == State::asked) fail(AVAHI_ERR_TIMEOUT);
}

void Service::fail(int error) {
    hasFailed_ = true;
    reported_.reset();
    if (std::exchange(isWanted_, false))
        handlers_.report(Unresolved{request_.resolution, avahi_strerror(error)});
    moveTo(State::missing);
}

void Service::after(std::chrono::milliseconds delay, void (Service::*step)()) {
    loop_.after(delay, [weak = weak_from_this(), attempt = attempt_, step] {
        const auto self = weak.lock();
        if (self && self->state_ == State::asked && self->attempt_ == attempt) (self.get()->*step)();
    });
}

void Service::moveTo(State next) {
    handlers_.moved(*this, next);
    state_ = next;
}

} // namespace tessary::discovery
