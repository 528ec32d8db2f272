#include "Services/PeerResolver.h"

#include <utility>

namespace tessary {

PeerResolver::PeerResolver(std::shared_ptr<ServiceResolver> service, Log& log, Completion completion)
    : service_(std::move(service))
    , log_(log)
    , completion_(std::move(completion)) {}

PeerResolver::~PeerResolver() {
    service_->stop();
}

void PeerResolver::resolve(std::chrono::nanoseconds timeout) {
    ResolverHandlers handlers;
    handlers.didResolve = [weak = weak_from_this()](ServiceResolver& service) {
        if (const auto self = weak.lock()) self->didResolve(service);
    };
    handlers.didNotResolve = [weak = weak_from_this()](ServiceResolver& service, const std::string& error) {
        if (const auto self = weak.lock()) self->didNotResolve(service, error);
    };
    service_->resolve(timeout, std::move(handlers));
}

void PeerResolver::didResolve(const ServiceResolver& service) {
    fire(&service);
}

void PeerResolver::didNotResolve(const ServiceResolver& service, const std::string& error) {
    log_.line("[Resolver] didNotResolve " + service.name() + ": " + error);
    fire(nullptr);
}

void PeerResolver::fire(const ServiceResolver* outcome) {
    if (std::exchange(fired_, true)) return;
    service_->stop();
    completion_(outcome);
}

} // namespace tessary
