// Discovers services by mDNS for its parent process. Requests and reports pass over the socket that it
// inherits.
//
// It parses datagrams from any host on the network with a library that some datagrams crash. It is therefore
// a separate, confined process, and holds no state that its successor could not restore.

#include "Aliases.h"
#include "Confinement.h"
#include "Engine.h"
#include "Loop.h"
#include "Platform/discovery/Messages.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <span>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace tessary::discovery {

namespace {

/// The cache is full at 16,384 records, and one datagram carries a few hundred at most, so checking after
/// this many datagrams is often enough.
constexpr unsigned manyDatagrams = 32;
constexpr auto exhaustionDelay = std::chrono::seconds(5);

/// The connection to the parent process.
class Program {
  public:
    Program(Loop& loop, std::uint8_t refused)
        : loop_(loop)
        , refused_(refused) {
        const auto readable = [](AvahiWatch*, int, AvahiWatchEvent, void* self) {
            static_cast<Program*>(self)->read();
        };
        loop.poll()->watch_new(loop.poll(), socketDescriptor, AVAHI_WATCH_IN, readable, this);
    }

    /// A datagram has arrived. After `manyDatagrams` of them, checks whether the cache is full.
    void noteDatagram() {
        if (++datagrams_ == manyDatagrams) loop_.after(exhaustionDelay, [this] { endIfExhausted(); });
    }

  private:
    void read() {
        std::array<std::uint8_t, 8'192> bytes;
        const ssize_t size = recv(socketDescriptor, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
        if (size <= 0) return loop_.stop();
        requests_.append({bytes.data(), static_cast<std::size_t>(size)});
        while (const auto request = requests_.next())
            std::visit([this](const auto& each) { handle(each); }, *request);
        if (requests_.isBroken()) loop_.stop();
    }

    void handle(const Start& request) {
        if (engine_) return;
        engine_.emplace(loop_, request.responder, [this](const Report& report) { send(report); });
        send(Started{protocolVersion, engine_->responder(), refused_});
    }
    void handle(const Browse& request) {
        if (engine_) engine_->browse(request);
    }
    void handle(const EndBrowse& request) {
        if (engine_) engine_->endBrowse(request.browse);
    }
    void handle(const Resolve& request) {
        if (engine_) engine_->resolve(request);
    }
    void handle(const EndResolve& request) {
        if (engine_) engine_->endResolve(request.resolution);
    }
    void handle(const Ping&) { send(Pong{}); }

    /// Ends the process if its cache is full; the next process starts with an empty one.
    void endIfExhausted() {
        datagrams_ = 0;
        if (engine_ && engine_->isExhausted()) std::_Exit(exhaustedStatus);
    }

    /// Combines all reports of one turn of the loop into one write.
    void send(const Report& report) {
        if (out_.empty()) loop_.post([this] { flush(); });
        encode(report, out_);
    }

    /// Blocks while the socket is full, until the parent process reads.
    void flush() {
        for (std::span<const std::uint8_t> rest = out_; !rest.empty();) {
            const ssize_t size = ::send(socketDescriptor, rest.data(), rest.size(), MSG_NOSIGNAL);
            if (size < 0 && errno != EINTR) return loop_.stop();
            if (size > 0) rest = rest.subspan(static_cast<std::size_t>(size));
        }
        out_.clear();
    }

    Loop& loop_;
    const std::uint8_t refused_;
    MessageReader<Request> requests_;
    std::vector<std::uint8_t> out_;
    std::optional<Engine> engine_;
    unsigned datagrams_ = 0; ///< since the last check of the cache
};

Program* program = nullptr;

bool isStartedByProgram() {
    int type = 0;
    socklen_t size = sizeof type;
    return getsockopt(socketDescriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

/// Redirects the standard streams to /dev/null and closes all other files except the socket.
void closeOthers() {
    const int null = open("/dev/null", O_RDWR);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(null, standard);
    close_range(socketDescriptor + 1, ~0U, 0);
}

} // namespace

} // namespace tessary::discovery

/// Replaces the C library's function, with which libavahi-core receives its datagrams. The library offers no
/// other way to change them before it parses them.
extern "C" ssize_t recvmsg(int socket, msghdr* message, int flags) {
    const ssize_t size = syscall(SYS_recvmsg, socket, message, flags);
    if (size > 0 && message->msg_name && message->msg_iovlen == 1) { // a datagram from the network
        tessary::discovery::hideAliases(
            {static_cast<std::uint8_t*>(message->msg_iov[0].iov_base), static_cast<std::size_t>(size)});
        if (tessary::discovery::program) tessary::discovery::program->noteDatagram();
    }
    return size;
}

int main() {
    using namespace tessary::discovery;
    if (!isStartedByProgram()) {
        std::fputs("tessary-discovery is a part of Tessary Link, which starts it by itself\n", stderr);
        return EXIT_FAILURE;
    }
    closeOthers();
    try {
        Loop loop;
        Program onlyProgram(loop, confine());
        program = &onlyProgram;
        loop.run();
    } catch (const std::exception&) {
        return EXIT_FAILURE;
    }
    std::_Exit(EXIT_SUCCESS); // the parent process has ended: no cleanup is needed
}
