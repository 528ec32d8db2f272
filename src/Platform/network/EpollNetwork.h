// UDP connections, serial queues and timers on one network thread. On the packet path.
#pragma once

#include "Platform/UDPConnection.h"

#include <initializer_list>
#include <memory>

namespace tessary {

/// Whether the network thread competes with ordinary work for the processor.
enum class Scheduling {
    ordinary,
    realTime, ///< as far as the machine grants it
};

/// One thread serves all its queues, so each is serial, and so are all of them together.
class EpollNetwork : public UDPNetwork {
  public:
    /// Starts the thread.
    ///
    /// @param heldPorts  local ports that no other program is to take by chance; sockets that drop everything
    ///                   hold them from here on (the kernel prefers connected sockets on the same port)
    explicit EpollNetwork(std::initializer_list<std::uint16_t> heldPorts,
                          Scheduling scheduling = Scheduling::ordinary);
    ~EpollNetwork() override;

    /// Ends the thread; nothing is delivered afterwards. The queues and connections may still be used, to no
    /// effect.
    void stop();

    std::shared_ptr<TimerQueue> makeQueue(std::string label) override;
    TimerQueue& backgroundQueue() override;
    std::shared_ptr<UDPConnection> makeConnection(std::optional<std::uint16_t> localPort, IPv4Host host,
                                                  std::uint16_t remotePort) override;

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace tessary
