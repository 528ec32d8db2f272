// A peer: a plain UDP socket on a loopback address.
#pragma once

#include "Models/IPv4Host.h"
#include "Platform/system/OpenFile.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <span>
#include <stdexcept>
#include <sys/socket.h>
#include <vector>

namespace tessary::test {

class PeerSocket {
  public:
    /// Port 0: any free one.
    explicit PeerSocket(IPv4Host host, std::uint16_t port = 0)
        : file_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = endpoint(host, port);
        socklen_t size = sizeof address;
        if (bind(file_.file(), reinterpret_cast<const sockaddr*>(&address), size) != 0)
            throw std::runtime_error("the test's own port is taken");
        getsockname(file_.file(), reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
    }

    std::uint16_t port() const { return port_; }

    static sockaddr_in endpoint(IPv4Host host, std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        std::memcpy(&address.sin_addr, host.bytes.data(), host.bytes.size());
        return address;
    }

    void sendTo(std::uint16_t port, std::span<const std::uint8_t> datagram) {
        const sockaddr_in to = endpoint({{127, 0, 0, 1}}, port);
        sendto(file_.file(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof to);
    }

    struct Arrival {
        std::vector<std::uint8_t> bytes;
        std::uint16_t fromPort = 0;
    };
    /// The next datagram; empty if none comes within `timeout` milliseconds.
    Arrival receive(int timeout = 10'000) {
        pollfd ready{.fd = file_.file(), .events = POLLIN, .revents = 0};
        if (poll(&ready, 1, timeout) != 1) return {};
        std::array<std::uint8_t, 2048> buffer{};
        sockaddr_in from{};
        socklen_t size = sizeof from;
        const ssize_t length = recvfrom(file_.file(), buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &size);
        return {{buffer.begin(), buffer.begin() + std::max<ssize_t>(length, 0)}, ntohs(from.sin_port)};
    }

  private:
    OpenFile file_;
    std::uint16_t port_ = 0;
};

} // namespace tessary::test
