// Everything that is looked up through Avahi, across restarts of its daemon.
#pragma once

#include "Backend.h"
#include "Host.h"
#include "Platform/discovery/Messages.h"
#include "Service.h"
#include "ServiceBrowse.h"

#include <array>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace tessary::discovery {

class Engine {
  public:
    /// Makes the backend, which may block on the system bus.
    Engine(Loop& loop, Responder responder, std::function<void(const Report&)> report);
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// The responder in use; never `any`.
    Responder responder() const { return responder_; }

    void browse(const Browse& request);
    void endBrowse(std::uint32_t browse) { browses_.erase(browse); }
    void resolve(const Resolve& request);
    void endResolve(std::uint32_t resolution);

    /// Whether nothing new can be found any more.
    bool isExhausted() const { return backend_ && backend_->isExhausted(); }

  private:
    using Services = std::list<std::shared_ptr<Service>>;

    Services& queue(Service::State state) { return queues_[static_cast<std::size_t>(state)]; }
    void ready();
    /// Ends the process if the daemon is not stable or does not return: the program then starts a process
    /// with the embedded responder.
    void lost();
    std::shared_ptr<Host> host(const std::string& name);
    void hostChanged(const Host& host);
    void moved(Service& service, Service::State next);
    void scheduleAsking();
    void askWaiting();
    bool makeRoom(const Service& next);

    Loop& loop_;
    const std::function<void(const Report&)> report_;
    Responder responder_;
    int error_ = AVAHI_OK; // why there is no backend
    std::shared_ptr<Backend> backend_;
    Loop::Clock::time_point lostAt_; // when the daemon went last
    bool isAskingScheduled_ = false;
    std::map<std::uint32_t, std::shared_ptr<ServiceBrowse>> browses_;
    std::map<std::string, std::weak_ptr<Host>>
        hosts_;                      // by name in lower case; those that a service points to
    std::array<Services, 5> queues_; // of each state, the newest last
    std::map<std::uint32_t, std::shared_ptr<Service>> services_;
    const Service::Handlers handlers_;
};

} // namespace tessary::discovery
