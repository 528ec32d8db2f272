#include "Platform/asio/AsioNetwork.h"

#include "Platform/asio/AddressMonitor.h"
#include "Platform/asio/AsioConnection.h"
#include "Platform/asio/AsioTimer.h"
#include "Platform/asio/UDPSocket.h"
#include "Platform/posix/Thread.h"

#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>

#include <unordered_set>
#include <utility>
#include <vector>

namespace tessary {

namespace {

/// The connections that are open or about to be. Used on: the network thread.
using Connections = std::unordered_set<std::shared_ptr<AsioConnection>>;

/// All queues share the one thread, which makes each of them serial.
class AsioQueue : public TimerQueue {
  public:
    explicit AsioQueue(asio::io_context& context)
        : context_(context) {}

    void post(std::function<void()> work) override { asio::post(context_, std::move(work)); }

    std::shared_ptr<Timer> makeTimer(std::function<void(Timer&)> handler) override {
        return makeAsioTimer(context_, std::move(handler));
    }

    void postAfter(std::chrono::nanoseconds delay, std::function<void()> work) override {
        post([this, delay, work = std::move(work)] { asioPostAfter(context_, delay, work); });
    }

  private:
    asio::io_context& context_;
};

} // namespace

struct AsioNetwork::Parts {
    explicit Parts(std::initializer_list<std::uint16_t> heldPorts)
        : work(context.get_executor())
        , background(context)
        , monitor(context, [this] { addressesChanged(); }) {
        for (const std::uint16_t port : heldPorts)
            placeholders.push_back(openPlaceholder(port).socket);
        thread = startThread("tessary-network", [this] { context.run(); });
    }

    void addressesChanged() {
        const std::vector<IPv4Host> own = ownAddresses();
        if (own.empty()) return; // not even the loopback: the question has failed
        for (const auto& connection : Connections(connections))
            connection->addressesChanged(own);
    }

    asio::io_context context{1}; // one thread runs it
    asio::executor_work_guard<asio::io_context::executor_type> work;
    AsioQueue background;
    AddressMonitor monitor;
    std::vector<UDPSocket> placeholders;
    Connections connections;
    std::thread thread;
};

namespace {

/// What the owner of a connection holds. It never waits for the network thread.
class ConnectionHandle : public UDPConnection {
  public:
    ConnectionHandle(asio::io_context& context, Connections& connections,
                     std::shared_ptr<AsioConnection> connection)
        : context_(context)
        , connections_(connections)
        , connection_(std::move(connection)) {}
    ConnectionHandle(const ConnectionHandle&) = delete;
    ConnectionHandle& operator=(const ConnectionHandle&) = delete;
    ~ConnectionHandle() override {
        connection_->silence();
        asio::post(context_, [connection = connection_, &connections = connections_] {
            connection->close();
            connections.erase(connection);
        });
    }

    void setHandlers(UDPHandlers handlers) override { connection_->setHandlers(std::move(handlers)); }

    void start(const std::shared_ptr<TimerQueue>&) override { // any queue of the network is its one thread
        asio::post(context_, [connection = connection_, &connections = connections_] {
            connections.insert(connection);
            connection->open();
        });
    }

    void send(std::span<const std::uint8_t> datagram) override { connection_->send(datagram); }

    void cancel() override {
        asio::post(context_, [connection = connection_] { connection->cancel(); });
    }

  private:
    asio::io_context& context_;
    Connections& connections_;
    const std::shared_ptr<AsioConnection> connection_;
};

} // namespace

AsioNetwork::AsioNetwork(std::initializer_list<std::uint16_t> heldPorts)
    : parts_(std::make_unique<Parts>(heldPorts)) {}

AsioNetwork::~AsioNetwork() {
    stop();
}

void AsioNetwork::stop() {
    parts_->context.stop();
    if (parts_->thread.joinable()) parts_->thread.join();
}

std::shared_ptr<TimerQueue> AsioNetwork::makeQueue(std::string) {
    return std::make_shared<AsioQueue>(parts_->context);
}

TimerQueue& AsioNetwork::backgroundQueue() {
    return parts_->background;
}

std::shared_ptr<UDPConnection> AsioNetwork::makeConnection(std::optional<std::uint16_t> localPort,
                                                           IPv4Host host, std::uint16_t remotePort) {
    return std::make_shared<ConnectionHandle>(
        parts_->context, parts_->connections,
        std::make_shared<AsioConnection>(parts_->context, localPort, host, remotePort));
}

} // namespace tessary
