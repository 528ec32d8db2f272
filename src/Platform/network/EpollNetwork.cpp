#include "Platform/network/EpollNetwork.h"

#include "Platform/network/AddressMonitor.h"
#include "Platform/network/EpollConnection.h"
#include "Platform/network/EventLoop.h"
#include "Platform/network/LoopQueue.h"
#include "Platform/network/UDPSocket.h"
#include "Platform/realtime/RealTimePriority.h"
#include "Platform/realtime/ResidentMemory.h"
#include "Platform/system/Thread.h"

#include <optional>
#include <utility>
#include <vector>

namespace tessary {

namespace {

/// The connections that are open or about to be, in the order of their starts: when the addresses change they
/// are opened anew in that order, a session's control port before its data port. Used on: the network thread.
using Connections = std::vector<std::shared_ptr<EpollConnection>>;

/// The priority of the network thread, which takes it up again in its loop.
class NetworkPriority final : public EventLoop::Reader {
  public:
    explicit NetworkPriority(EventLoop& loop) {
        loop.watch(priority_.timeToAskAgain(), *this);
        priority_.ask();
    }
    void readable() override { priority_.askAgain(); }

  private:
    RealTimePriority priority_;
};

} // namespace

struct EpollNetwork::Parts {
    Parts(std::initializer_list<std::uint16_t> heldPorts, Scheduling scheduling)
        : background(loop)
        , monitor(loop, [this] { addressesChanged(); }) {
        for (const std::uint16_t port : heldPorts)
            placeholders.push_back(openPlaceholder(port).socket);
        thread = startThread("tessary-network", [this, scheduling] { run(scheduling); });
    }

    void run(Scheduling scheduling) {
        keepStackResident();
        keepResident(buffer.data(), buffer.size());
        keepProgramResident();
        std::optional<NetworkPriority> priority;
        if (scheduling == Scheduling::realTime) priority.emplace(loop);
        loop.run();
    }

    void addressesChanged() {
        const std::vector<IPv4Host> own = ownAddresses();
        if (own.empty()) return; // not even the loopback: the question has failed
        for (const auto& connection : Connections(connections))
            connection->addressesChanged(own);
    }

    EventLoop loop;
    LoopQueue background;
    AddressMonitor monitor;
    std::vector<OpenFile> placeholders;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(EpollConnection::bufferSize);
    Connections connections;
    std::thread thread;
};

namespace {

/// What the owner of a connection holds. It never waits for the network thread.
class ConnectionHandle : public UDPConnection {
  public:
    ConnectionHandle(EventLoop& loop, Connections& connections, std::shared_ptr<EpollConnection> connection)
        : loop_(loop)
        , connections_(connections)
        , connection_(std::move(connection)) {}
    ConnectionHandle(const ConnectionHandle&) = delete;
    ConnectionHandle& operator=(const ConnectionHandle&) = delete;
    ~ConnectionHandle() override {
        connection_->silence();
        loop_.post([connection = connection_, &connections = connections_] {
            connection->close();
            std::erase(connections, connection);
        });
    }

    void setHandlers(UDPHandlers handlers) override { connection_->setHandlers(std::move(handlers)); }

    void start(const std::shared_ptr<TimerQueue>&) override { // any queue of the network is its one thread
        loop_.post([connection = connection_, &connections = connections_] {
            for (const auto& other : connections)
                other->anotherStarts(*connection);
            connections.push_back(connection);
            connection->open();
        });
    }

    void send(std::span<const std::uint8_t> datagram) override { connection_->send(datagram); }

    void cancel() override {
        loop_.post([connection = connection_] { connection->cancel(); });
    }

  private:
    EventLoop& loop_;
    Connections& connections_;
    const std::shared_ptr<EpollConnection> connection_;
};

} // namespace

EpollNetwork::EpollNetwork(std::initializer_list<std::uint16_t> heldPorts, Scheduling scheduling)
    : parts_(std::make_unique<Parts>(heldPorts, scheduling)) {}

EpollNetwork::~EpollNetwork() {
    stop();
}

void EpollNetwork::stop() {
    parts_->loop.stop();
    if (parts_->thread.joinable()) parts_->thread.join();
}

std::shared_ptr<TimerQueue> EpollNetwork::makeQueue(std::string) {
    return std::make_shared<LoopQueue>(parts_->loop);
}

TimerQueue& EpollNetwork::backgroundQueue() {
    return parts_->background;
}

std::shared_ptr<UDPConnection> EpollNetwork::makeConnection(std::optional<std::uint16_t> localPort,
                                                            IPv4Host host, std::uint16_t remotePort) {
    return std::make_shared<ConnectionHandle>(
        parts_->loop, parts_->connections,
        std::make_shared<EpollConnection>(parts_->loop, parts_->buffer, localPort, host, remotePort));
}

} // namespace tessary
