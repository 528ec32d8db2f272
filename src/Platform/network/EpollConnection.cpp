#include "Platform/network/EpollConnection.h"

#include "Platform/network/UDPSocket.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace tessary {

namespace {

/// An app that is starting opens its port within seconds; the invitation is repeated at this interval.
constexpr auto retryPause = std::chrono::seconds(1);

/// A socket that could not be opened is tried again after this time: files run out while there are many
/// devices, and another user's program may hold the port.
constexpr auto reopenDelay = std::chrono::seconds(5);

/// There is no route now. `AddressMonitor` reports when that changes.
bool isNoRoute(int error) {
    return error == ENETUNREACH || error == EHOSTUNREACH || error == ENETDOWN || error == EADDRNOTAVAIL;
}

/// An ICMP error in answer to an earlier datagram. The next call on the socket reports it once; the socket
/// stays usable. ICMP can be forged, so such an error must not end anything.
bool isAnswer(int error) {
    switch (error) {
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EHOSTDOWN:
    case ENONET:
    case ENOPROTOOPT:
    case EOPNOTSUPP:
    case EMSGSIZE:
    case EPROTO:
        return true;
    default:
        return false;
    }
}

} // namespace

EpollConnection::EpollConnection(EventLoop& loop, std::span<std::uint8_t> buffer,
                                 std::optional<std::uint16_t> localPort, IPv4Host host,
                                 std::uint16_t remotePort)
    : loop_(loop)
    , buffer_(buffer)
    , localPort_(localPort)
    , host_(host)
    , remotePort_(remotePort) {}

void EpollConnection::open() {
    if (isSilent_ || isSuperseded_) return;
    auto [opened, error] = openConnected(localPort_, host_, remotePort_);
    isWaitingForRoute_ = error && isNoRoute(error.value());
    const bool isNews = std::exchange(openError_, error) != error;
    if (isWaitingForRoute_) return;
    if (error) {
        if (isNews) report(ConnectionState::failed, error);
        return openLater();
    }
    isHeard_ = false;
    setSocket(std::move(opened));
    loop_.watch(socket_.file(), *this);
    report(ConnectionState::ready);
}

void EpollConnection::openLater() {
    loop_.at(EventLoop::Clock::now() + reopenDelay, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self && self->openError_) self->open(); // a change of addresses may have opened it already
    });
}

void EpollConnection::setSocket(OpenFile socket) {
    const std::lock_guard lock(socketMutex_);
    std::swap(socket_, socket); // closing the old one also takes it from the loop
}

void EpollConnection::close() {
    handlers_ = {};
    setSocket({});
}

void EpollConnection::cancel() {
    report(ConnectionState::cancelled);
    silence();
    close();
}

void EpollConnection::report(ConnectionState state, std::error_code error) {
    if (!isSilent_ && handlers_.stateDidChange) handlers_.stateDidChange(state, error);
}

void EpollConnection::anotherStarts(const EpollConnection& other) {
    isSuperseded_ |= localPort_ && localPort_ == other.localPort_ && host_ == other.host_ &&
                     remotePort_ == other.remotePort_;
}

void EpollConnection::addressesChanged(const std::vector<IPv4Host>& own) {
    if (isSuperseded_) return;
    const bool isStranded =
        socket_ && std::find(own.begin(), own.end(), localAddress(socket_.file())) == own.end();
    // Until there is another way to the peer the old socket stays: its address may return.
    if (isWaitingForRoute_ || (isStranded && !openConnected(localPort_, host_, remotePort_).error)) open();
}

// Receiving

void EpollConnection::readable() {
    const ssize_t size = ::recv(socket_.file(), buffer_.data(), buffer_.size(), 0);
    if (isSilent_) return loop_.ignore(socket_.file());
    if (size >= 0) {
        isHeard_ = true;
        handOn(buffer_.first(static_cast<std::size_t>(size)), {});
    } else if (errno == ECONNREFUSED) {
        refused();
    } else if (errno != EAGAIN && !isAnswer(errno) && !isNoRoute(errno)) {
        handOn({}, {errno, std::system_category()}); // EAGAIN: a send has taken the pending error
    }
}

void EpollConnection::handOn(std::span<const std::uint8_t> datagram, std::error_code error) {
    if (!handlers_.received || handlers_.received(datagram, error) == Receive::stop)
        loop_.ignore(socket_.file());
}

void EpollConnection::refused() {
    if (isHeard_ || std::exchange(isRetrying_, true)) return;
    loop_.at(EventLoop::Clock::now() + retryPause, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->isRetrying_ = false;
        if (!self->isHeard_) self->report(ConnectionState::ready);
    });
}

// Sending

void EpollConnection::send(std::span<const std::uint8_t> datagram) {
    int error = 0;
    bool wasRefused = false;
    {
        const std::lock_guard lock(socketMutex_);
        const auto attempt = [&] {
            const bool isSent =
                ::send(socket_.file(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
            error = isSent ? 0 : errno;
        };
        attempt();
        if (isAnswer(error)) { // reported in place of sending this one
            wasRefused = error == ECONNREFUSED;
            attempt();
        }
    }
    if (wasRefused) loop_.post([self = shared_from_this()] { self->refused(); });
    if (error == 0) return;
    loop_.post([self = shared_from_this(), error] {
        if (!self->isSilent_ && self->handlers_.sendFailed)
            self->handlers_.sendFailed({error, std::system_category()});
    });
}

} // namespace tessary
