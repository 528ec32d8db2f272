// The location of one service instance that the program has asked for, and its changes.
#pragma once

#include "Backend.h"
#include "Host.h"
#include "Platform/discovery/Messages.h"

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>

namespace tessary::discovery {

/// Its lookup finds the host and the port, and stays open to report changes; the host supplies the addresses.
class Service : public std::enable_shared_from_this<Service> {
  public:
    enum class State {
        waiting, ///< for a free query
        asked,   ///< being queried, the timeout running
        found,   ///< and watched
        missing, ///< timed out; it may still answer
        idle,    ///< found or missing, but no longer watched
    };

    /// What the service asks of the engine.
    struct Handlers {
        std::function<std::shared_ptr<Host>(const std::string& name)> host;
        std::function<void(const Report&)> report;
        /// The state is about to change.
        std::function<void(Service&, State)> moved;
    };

    Service(Loop& loop, const Resolve& request, const Handlers& handlers);

    State state() const { return state_; }
    bool hasFailed() const { return hasFailed_; }
    const Host* host() const { return host_.get(); }

    /// An answer is wanted again; it is reported at once if known.
    void want(const Resolve& request);

    /// Queries the network; the timeout starts here.
    void ask(Backend& backend);

    /// Goes on watching, with a new daemon.
    void watch(Backend& backend);
    /// The daemon has ended: what was found stays known until the next daemon reports otherwise.
    void interrupt();

    /// Whether its query has been open for that long without an answer.
    bool isUnanswered(std::chrono::nanoseconds time) const;

    /// Closes the lookup and releases the host.
    ///
    /// @param hasFailed  whether its query failed: it then waits behind services that have not been queried
    ///                   yet
    void leave(State next, bool hasFailed);

    /// Its host's addresses have settled.
    void hostChanged();

    /// Where it stands in its state's queue; the engine's.
    std::list<std::shared_ptr<Service>>::iterator position;

  private:
    void handle(const HostEvent& event);
    void handleHalfTime();
    void handleTimeout();
    void fail(int error);
    void after(std::chrono::milliseconds delay, void (Service::*step)());
    void moveTo(State next);

    Loop& loop_;
    const Handlers& handlers_;
    Resolve request_;
    State state_ = State::waiting;
    bool isWanted_ = true; // the program waits for an answer
    bool hasFailed_ = false;
    std::uint64_t attempt_ = 0;
    Loop::Clock::time_point askedAt_;
    Backend* backend_ = nullptr; // of the lookup
    Lookup lookup_;
    std::shared_ptr<Host> host_;
    std::uint16_t port_ = 0;
    std::optional<Resolved> reported_;
};

} // namespace tessary::discovery
