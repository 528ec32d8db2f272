// One connected UDP socket on the network thread. On the road of a MIDI message.
#pragma once

#include "Platform/UDPConnection.h"

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace tessary {

/// What the network thread holds of a connection. Its owner holds a handle, which only posts to it and sends.
///
/// A port-unreachable answer means that nobody listens there now, not that the socket is broken: the receive
/// goes on, and as long as the peer was never heard the connection reports ready again a second later.
///
/// Runs on: the network thread, but for `send` and `silence`.
class AsioConnection : public std::enable_shared_from_this<AsioConnection> {
  public:
    AsioConnection(asio::io_context& context, std::optional<std::uint16_t> localPort, IPv4Host host,
                   std::uint16_t remotePort);

    void setHandlers(UDPHandlers handlers) { handlers_ = std::move(handlers); }

    /// Opens the socket; reports ready or failed. While there is no way to the peer it waits for one.
    void open();

    /// Sends one datagram at once. Runs on: any thread.
    void send(std::span<const std::uint8_t> datagram);

    /// From now on no handler is entered. Runs on: any thread.
    void silence() { isSilent_ = true; }

    /// Closes the socket without a report.
    void close();

    /// Reports cancelled and closes.
    void cancel();

    /// This machine's addresses have changed: a socket that is bound to one that is gone is opened anew.
    void addressesChanged(const std::vector<IPv4Host>& own);

  private:
    using Socket = asio::basic_datagram_socket<asio::ip::udp, asio::io_context::executor_type>;

    void receive();
    void received(const std::error_code& error, std::size_t size);
    void refused();
    void report(ConnectionState state, std::error_code error = {});

    asio::io_context& context_;
    const std::optional<std::uint16_t> localPort_;
    const IPv4Host host_;
    const std::uint16_t remotePort_;
    UDPHandlers handlers_;
    std::atomic<bool> isSilent_ = false;

    std::mutex fileMutex_; ///< between `send` and whoever opens or closes the socket
    int file_ = -1;

    Socket socket_;
    unsigned generation_ =
        0; ///< counts the sockets, so that a late completion of an old one is known as such
    bool isReceiving_ = false;
    bool isWaitingForRoute_ = false;
    bool isHeard_ = false;
    bool isRetrying_ = false;
    asio::steady_timer retryTimer_;
    /// Room for the largest datagram; pages that no datagram needs are never touched.
    std::unique_ptr<std::uint8_t[]> buffer_;
};

} // namespace tessary
