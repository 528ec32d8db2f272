// The discovery process, from its parent's side.
#pragma once

#include "Platform/Log.h"
#include "Platform/discovery/Messages.h"
#include "Platform/network/EventLoop.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace tessary::discovery {

/// Starts the process, exchanges messages with it, and replaces a process that has ended, does not answer, or
/// sends an invalid message: at once, then after 1, 2, 4 … 30 s, and at once again when it has run for a
/// minute.
///
/// Runs on: the loop's thread. Never waits for the process.
class DiscoveryProcess final : private EventLoop::Reader {
  public:
    struct Handlers {
        /// A new process has started. It has received no requests yet.
        std::function<void()> started;
        /// Handles a report and returns whether it is valid. An invalid report ends the process.
        std::function<bool(const Report&)> reported;
    };

    /// Starts the process later, never inside this call.
    ///
    /// @param executable  of the discovery process
    DiscoveryProcess(EventLoop& loop, Log& log, std::filesystem::path executable, Handlers handlers);
    DiscoveryProcess(const DiscoveryProcess&) = delete;
    DiscoveryProcess& operator=(const DiscoveryProcess&) = delete;
    /// Ends the process.
    ~DiscoveryProcess() override;

    /// Sends a request and expects a message from the process within ten seconds. A request is dropped while
    /// there is no process; `started` is called for the next process before it receives any other request.
    void send(const Request& request);

  private:
    using Clock = EventLoop::Clock;

    void start();
    bool spawn();
    void readable() override;
    bool handle(const Report& report);
    void flush();
    void ask();
    void schedulePing();
    void end(const std::string& reason);
    std::string reap();
    void after(std::optional<EventLoop::TimerID>& timer, std::chrono::milliseconds delay,
               void (DiscoveryProcess::*step)());
    void cancel(std::optional<EventLoop::TimerID>& timer);

    EventLoop& loop_;
    Log& log_;
    const std::filesystem::path executable_;
    const Handlers handlers_;

    pid_t process_ = 0;
    OpenFile socket_;
    MessageReader<Report> reports_;
    std::vector<std::uint8_t> out_; ///< requests not written yet
    std::size_t received_ = 0;      ///< bytes since the last ping
    Responder responder_ = Responder::any;
    bool hasAnswered_ = false; ///< `Started` has arrived
    bool isRefusalSaid_ = false;

    Clock::time_point startedAt_;
    std::chrono::seconds restartDelay_{0};
    std::optional<EventLoop::TimerID> restart_;
    std::optional<EventLoop::TimerID> ping_;
    std::optional<EventLoop::TimerID> answer_; ///< the timeout for an answer
    std::optional<EventLoop::TimerID> retry_;  ///< the next write
};

} // namespace tessary::discovery
