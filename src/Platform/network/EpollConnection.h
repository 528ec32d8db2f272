// One connected UDP socket on the network thread. On the packet path.
#pragma once

#include "Platform/UDPConnection.h"
#include "Platform/network/EventLoop.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace tessary {

/// The network thread's part of a connection. Its owner holds a handle, which only posts to it and sends.
///
/// An ICMP error does not mean that the socket is broken: receiving continues, and the datagram is sent
/// again. Port unreachable means that the port is closed now: until a datagram from the peer has arrived, the
/// connection reports ready again a second later.
///
/// Runs on: the network thread, but for `send` and `silence`.
class EpollConnection final : public EventLoop::Reader, public std::enable_shared_from_this<EpollConnection> {
  public:
    /// Room for the largest datagram.
    static constexpr std::size_t bufferSize = 65'536;

    /// @param buffer  `bufferSize` bytes, which all connections of the thread share
    EpollConnection(EventLoop& loop, std::span<std::uint8_t> buffer, std::optional<std::uint16_t> localPort,
                    IPv4Host host, std::uint16_t remotePort);

    void setHandlers(UDPHandlers handlers) { handlers_ = std::move(handlers); }

    /// Opens the socket and reports ready. Without a route to the peer it waits for one. Any other error is
    /// reported once, as failed, and the socket is tried again every five seconds.
    void open();

    /// Sends one datagram at once. Runs on: any thread.
    void send(std::span<const std::uint8_t> datagram);

    /// No handler is entered from now on. Runs on: any thread.
    void silence() { isSilent_ = true; }

    /// Closes the socket without a report.
    void close();

    /// Reports cancelled and closes.
    void cancel();

    /// Another connection is starting. If it is between the same ports, the kernel delivers the peer's
    /// datagrams to the socket opened last, so this connection never opens its socket again.
    void anotherStarts(const EpollConnection& other);

    /// This machine's addresses have changed: opens the socket again if its local address is gone.
    void addressesChanged(const std::vector<IPv4Host>& own);

    /// One datagram or one error is pending.
    void readable() override;

  private:
    void openLater();
    void setSocket(OpenFile socket);
    void handOn(std::span<const std::uint8_t> datagram, std::error_code error);
    void refused();
    void report(ConnectionState state, std::error_code error = {});

    EventLoop& loop_;
    const std::span<std::uint8_t> buffer_;
    const std::optional<std::uint16_t> localPort_;
    const IPv4Host host_;
    const std::uint16_t remotePort_;
    UDPHandlers handlers_;
    std::atomic<bool> isSilent_ = false;

    std::mutex
        socketMutex_; ///< between `send` and the network thread, which alone opens and closes the socket
    OpenFile socket_;
    std::error_code openError_; ///< of the last attempt
    bool isWaitingForRoute_ = false;
    bool isSuperseded_ = false;
    bool isHeard_ = false;
    bool isRetrying_ = false;
};

} // namespace tessary
