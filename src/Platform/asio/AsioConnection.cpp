#include "Platform/asio/AsioConnection.h"

#include "Platform/asio/UDPSocket.h"

#include <asio/buffer.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace tessary {

namespace {

constexpr std::size_t largestDatagram = 65'536;

/// An app that is just starting opens its port within seconds; the invitation is repeated at this pace.
constexpr auto retryPause = std::chrono::seconds(1);

/// The network is not there now. It may come back, and says so by itself.
bool isNoRoute(const std::error_code& error) {
    return error == std::errc::network_unreachable || error == std::errc::host_unreachable ||
           error == std::errc::network_down || error == std::errc::address_not_available;
}

/// The library's error codes have a category of their own, which the rest of the program cannot compare.
std::error_code plain(const std::error_code& error) {
    return {error.value(), std::system_category()};
}

} // namespace

AsioConnection::AsioConnection(asio::io_context& context, std::optional<std::uint16_t> localPort,
                               IPv4Host host, std::uint16_t remotePort)
    : context_(context)
    , localPort_(localPort)
    , host_(host)
    , remotePort_(remotePort)
    , socket_(context)
    , retryTimer_(context)
    , buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(largestDatagram)) {}

void AsioConnection::open() {
    if (isSilent_) return;
    auto [opened, error] = openConnected(localPort_, host_, remotePort_);
    if (error) {
        isWaitingForRoute_ = isNoRoute(error);
        if (!isWaitingForRoute_) report(ConnectionState::failed, error);
        return;
    }
    isWaitingForRoute_ = false;
    isHeard_ = false;
    ++generation_;
    {
        const std::lock_guard lock(fileMutex_);
        std::error_code assignError;
        if (socket_.is_open()) socket_.close(assignError);
        socket_.assign(asio::ip::udp::v4(), opened.file(), assignError);
        if (assignError) {
            file_ = -1;
            error = assignError;
        } else {
            file_ = opened.release();
        }
    }
    if (error) {
        report(ConnectionState::failed, error);
        return;
    }
    isReceiving_ = true;
    receive();
    report(ConnectionState::ready);
}

void AsioConnection::close() {
    ++generation_;
    retryTimer_.cancel();
    handlers_ = {};
    const std::lock_guard lock(fileMutex_);
    std::error_code ignored;
    socket_.close(ignored);
    file_ = -1;
}

void AsioConnection::cancel() {
    report(ConnectionState::cancelled);
    silence();
    close();
}

void AsioConnection::report(ConnectionState state, std::error_code error) {
    if (!isSilent_ && handlers_.stateDidChange) handlers_.stateDidChange(state, error);
}

void AsioConnection::addressesChanged(const std::vector<IPv4Host>& own) {
    const bool isStranded =
        socket_.is_open() && std::find(own.begin(), own.end(), localAddress(file_)) == own.end();
    // Until there is another way to the peer the old socket stays: its address may return.
    if (isWaitingForRoute_ || (isStranded && !openConnected(localPort_, host_, remotePort_).error)) open();
}

// Receiving

void AsioConnection::receive() {
    socket_.async_receive(asio::buffer(buffer_.get(), largestDatagram),
                          [self = shared_from_this(), generation = generation_](const std::error_code& error,
                                                                                std::size_t size) {
                              if (generation == self->generation_) self->received(plain(error), size);
                          });
}

void AsioConnection::received(const std::error_code& error, std::size_t size) {
    if (isSilent_) return;
    if (error == std::errc::connection_refused) {
        refused();
    } else if (!error || !isNoRoute(error)) {
        if (!error) isHeard_ = true;
        const std::span<const std::uint8_t> datagram(buffer_.get(), error ? 0 : size);
        isReceiving_ = handlers_.received && handlers_.received(datagram, error) == Receive::again;
    }
    if (isReceiving_ && !isSilent_ && socket_.is_open()) receive();
}

void AsioConnection::refused() {
    if (isHeard_ || isRetrying_) return;
    isRetrying_ = true;
    retryTimer_.expires_after(retryPause);
    retryTimer_.async_wait([self = shared_from_this()](const std::error_code& error) {
        self->isRetrying_ = false;
        if (!error && !self->isHeard_) self->report(ConnectionState::ready);
    });
}

// Sending

void AsioConnection::send(std::span<const std::uint8_t> datagram) {
    int error = 0;
    bool wasRefused = false;
    {
        const std::lock_guard lock(fileMutex_);
        const auto attempt = [&] {
            const bool isSent =
                ::send(file_, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
            error = isSent ? 0 : errno;
        };
        attempt();
        // The network's answer to an earlier datagram shows once, on the next call, and keeps that one from
        // leaving.
        if (error == ECONNREFUSED || error == EHOSTUNREACH || error == ENETUNREACH || error == EPROTO) {
            wasRefused = error == ECONNREFUSED;
            attempt();
        }
    }
    if (wasRefused) asio::post(context_, [self = shared_from_this()] { self->refused(); });
    if (error == 0) return;
    asio::post(context_, [self = shared_from_this(), error] {
        if (!self->isSilent_ && self->handlers_.sendFailed)
            self->handlers_.sendFailed({error, std::system_category()});
    });
}

} // namespace tessary
