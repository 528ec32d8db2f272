#include "Platform/discovery/DiscoveryProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tessary::discovery {

namespace {

using namespace std::chrono_literals;

constexpr auto answerTimeout = 10s;
/// Detects a process that hangs while no requests are sent.
constexpr auto pingInterval = 60s;
constexpr auto maxRestartDelay = 30s;
/// A process that has run for this long is restarted without a delay.
constexpr auto quietTime = 60s;
/// The delay before the next attempt to write to a full socket.
constexpr auto sendRetryDelay = 10ms;
/// The limit of unsent requests in bytes. Requests for all names that may be listed fit into it.
constexpr std::size_t maxOut = std::size_t{4} << 20;
/// The limit of reports between two pings in bytes: several times what listing and resolving all names takes.
constexpr std::size_t maxReceived = std::size_t{16} << 20;

} // namespace

DiscoveryProcess::DiscoveryProcess(EventLoop& loop, Log& log, std::filesystem::path executable,
                                   Handlers handlers)
    : loop_(loop)
    , log_(log)
    , executable_(std::move(executable))
    , handlers_(std::move(handlers)) {
    after(restart_, 0ms, &DiscoveryProcess::start);
}

DiscoveryProcess::~DiscoveryProcess() {
    for (auto* timer : {&restart_, &ping_, &answer_, &retry_})
        cancel(*timer);
    reap();
}

// Start and end

void DiscoveryProcess::start() {
    startedAt_ = Clock::now();
    hasAnswered_ = false;
    reports_ = {};
    if (!spawn())
        return end("cannot be started: " + std::error_code(errno, std::system_category()).message());
    loop_.watch(socket_.file(), *this);
    send(Start{protocolVersion, responder_});
    schedulePing();
    handlers_.started();
}

bool DiscoveryProcess::spawn() {
    std::array<int, 2> pair{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) return false;
    socket_ = OpenFile(pair[0]);
    const OpenFile other(pair[1]);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, other.file(), socketDescriptor);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // In a process group of its own the process does not receive a terminal's Ctrl-C. The signals that the
    // program blocks stay blocked.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    std::string name = executable_.filename();
    std::array<char*, 2> arguments{name.data(), nullptr};
    errno = posix_spawn(&process_, executable_.c_str(), &files, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    if (errno != 0) process_ = 0;
    return process_ != 0;
}

void DiscoveryProcess::end(const std::string& reason) {
    const std::string status = reap();
    log_.line("[Discovery] discovery process " + (reason.empty() ? status : reason) +
              "; what was found stays");
    // The daemon or the bus has not answered. The embedded responder needs neither.
    if (!hasAnswered_ && Clock::now() - startedAt_ >= answerTimeout) responder_ = Responder::embedded;
    for (auto* timer : {&ping_, &answer_, &retry_})
        cancel(*timer);
    out_.clear();
    if (Clock::now() - startedAt_ >= quietTime) restartDelay_ = 0s;
    after(restart_, restartDelay_, &DiscoveryProcess::start);
    restartDelay_ = std::clamp<std::chrono::seconds>(2 * restartDelay_, 1s, maxRestartDelay);
}

/// Kills the process, waits for it, and returns how it ended.
std::string DiscoveryProcess::reap() {
    socket_ = {};
    if (process_ == 0) return {};
    kill(process_, SIGKILL); // no effect if it has already ended
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR)
        continue;
    process_ = 0;
    if (WIFEXITED(status) && WEXITSTATUS(status) == exhaustedStatus) return "had no room for more records";
    if (WIFEXITED(status) && WEXITSTATUS(status) == unstableDaemonStatus) {
        responder_ = Responder::embedded;
        return "has given up an Avahi daemon that keeps ending or does not return";
    }
    if (WIFEXITED(status)) return "has ended with status " + std::to_string(WEXITSTATUS(status));
    return std::string("was ended by ") + strsignal(WTERMSIG(status));
}

// Messages

void DiscoveryProcess::send(const Request& request) {
    if (process_ == 0) return;
    encode(request, out_);
    if (!answer_) ask();
    if (!retry_) after(retry_, 0ms, &DiscoveryProcess::flush); // one write for all requests of this turn
}

void DiscoveryProcess::flush() {
    const ssize_t size = ::send(socket_.file(), out_.data(), out_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size > 0) out_.erase(out_.begin(), out_.begin() + size);
    if (out_.size() > maxOut) return end("does not read");
    // Also after an error, which the next read reports.
    if (!out_.empty()) after(retry_, sendRetryDelay, &DiscoveryProcess::flush);
}

/// Sends a ping and starts the timeout, because not every request has an answer of its own.
void DiscoveryProcess::ask() {
    encode(Ping{}, out_);
    answer_ = loop_.at(Clock::now() + answerTimeout, [this] {
        answer_.reset();
        end("does not answer");
    });
}

void DiscoveryProcess::schedulePing() {
    received_ = 0;
    after(ping_, pingInterval, &DiscoveryProcess::schedulePing);
    if (answer_ || !hasAnswered_) return;
    ask();
    flush();
}

void DiscoveryProcess::readable() {
    std::array<std::uint8_t, 8'192> bytes;
    const ssize_t size = recv(socket_.file(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) return end({});
    cancel(answer_);
    received_ += static_cast<std::size_t>(size);
    if (received_ > maxReceived) return end("says too much");
    reports_.append({bytes.data(), static_cast<std::size_t>(size)});
    while (const auto report = reports_.next())
        if (!handle(*report)) return end("says what cannot be");
    if (reports_.isBroken()) end("says what is no message");
}

bool DiscoveryProcess::handle(const Report& report) {
    const auto* started = std::get_if<Started>(&report);
    if (!started) return hasAnswered_ && (std::holds_alternative<Pong>(report) || handlers_.reported(report));
    if (hasAnswered_ || started->version != protocolVersion || started->responder == Responder::any)
        return false;
    hasAnswered_ = true;
    responder_ = started->responder;
    if (started->refused != 0 && !std::exchange(isRefusalSaid_, true))
        log_.line("[Discovery] this kernel refuses a part of the confinement (" +
                  std::to_string(started->refused) + ")");
    return true;
}

// Timers

void DiscoveryProcess::after(std::optional<EventLoop::TimerID>& timer, std::chrono::milliseconds delay,
                             void (DiscoveryProcess::*step)()) {
    cancel(timer);
    timer = loop_.at(Clock::now() + delay, [this, &timer, step] {
        timer.reset();
        (this->*step)();
    });
}

void DiscoveryProcess::cancel(std::optional<EventLoop::TimerID>& timer) {
    if (timer) loop_.cancel(*std::exchange(timer, std::nullopt));
}

} // namespace tessary::discovery
