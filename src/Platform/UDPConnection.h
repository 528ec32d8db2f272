// What the services need from the machine: UDP connections from fixed local ports.
#pragma once

#include "Models/IPv4Host.h"
#include "Platform/Queue.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <system_error>

namespace tessary {

enum class ConnectionState { ready, failed, cancelled };

/// What a receive handler returns: whether it wants the next datagram.
enum class Receive { again, stop };

/// The handlers of one connection. All run on the queue that the connection was started on.
struct UDPHandlers {
    /// Each change of state; the error is set for `failed` only. A connection may report `ready` more than
    /// once: each time its owner must invite the peer again.
    std::function<void(ConnectionState, std::error_code)> stateDidChange;
    /// One datagram, whole, in a buffer that is the connection's again once the handler returns; or no bytes
    /// and an error.
    std::function<Receive(std::span<const std::uint8_t>, std::error_code)> received;
    /// A datagram that could not be sent.
    std::function<void(std::error_code)> sendFailed;
};

/// One UDP socket that is bound to a local port and connected to one port of a peer.
///
/// Dropping the last reference cancels it, without a report and without waiting, from any thread. After
/// `cancel` or destruction no handler is entered; one that is running finishes.
class UDPConnection {
  public:
    virtual ~UDPConnection() = default;

    /// Installs the handlers; before `start`.
    virtual void setHandlers(UDPHandlers handlers) = 0;

    /// Opens the socket and delivers everything on `queue`.
    ///
    /// Runs on: any thread. Errors: a `failed` state.
    virtual void start(const std::shared_ptr<TimerQueue>& queue) = 0;

    /// Sends one datagram before it returns, without waiting.
    ///
    /// Runs on: any thread. Allocates: only after an error. Errors: `sendFailed`, later.
    virtual void send(std::span<const std::uint8_t> datagram) = 0;

    /// Closes the connection; it then reports `cancelled` and delivers nothing more.
    ///
    /// Runs on: any thread.
    virtual void cancel() = 0;
};

/// Makes connections, and the serial queues that they and the sessions run on.
class UDPNetwork {
  public:
    virtual ~UDPNetwork() = default;

    /// A new serial queue; the label is for debugging.
    virtual std::shared_ptr<TimerQueue> makeQueue(std::string label) = 0;

    /// The queue for small work in the background.
    virtual TimerQueue& backgroundQueue() = 0;

    /// A connection that is not started: from `localPort` of the IPv4 wildcard address (absent: any port) to
    /// `remotePort` of `host`. Other connections may hold the same local port.
    ///
    /// Runs on: any thread.
    virtual std::shared_ptr<UDPConnection> makeConnection(std::optional<std::uint16_t> localPort,
                                                          IPv4Host host, std::uint16_t remotePort) = 0;
};

} // namespace tessary
