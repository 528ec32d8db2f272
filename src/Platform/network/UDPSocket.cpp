#include "Platform/network/UDPSocket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

/// Holds a burst while the machine is busy; the kernel may allow less. Small datagrams count about 800 bytes
/// each.
constexpr int receiveBuffer = 1 << 20;

sockaddr_in endpoint(IPv4Host host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    std::memcpy(&address.sin_addr, host.bytes.data(), host.bytes.size());
    return address;
}

bool setOption(int file, int option, const void* value, socklen_t size) {
    return setsockopt(file, SOL_SOCKET, option, value, size) == 0;
}

bool attachFilter(int file, std::span<sock_filter> filter) {
    const sock_fprog program{.len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
    return setOption(file, SO_ATTACH_FILTER, &program, sizeof program);
}

/// Accepts nothing.
bool hearNobody(int file) {
    std::array filter{sock_filter BPF_STMT(BPF_RET | BPF_K, 0)};
    return attachFilter(file, filter);
}

/// Accepts only the peer's datagrams. Attached before bind: between bind and connect the socket would accept
/// anyone's, and a datagram in flight at that moment even later.
bool hearOnly(int file, IPv4Host host, std::uint16_t port) {
    constexpr std::uint32_t sourceAddress = 12; // offset in the IPv4 header
    constexpr std::uint32_t sourcePort =
        0; // offset in the UDP header, where the packet begins for the filter
    constexpr std::uint32_t everyByte = 0xFFFFFFFF;
    std::uint32_t address = 0;
    for (const std::uint8_t byte : host.bytes)
        address = address << 8 | byte;
    std::array filter{sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS,
                                           static_cast<std::uint32_t>(SKF_NET_OFF) + sourceAddress),
                      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, address, 0, 3),
                      sock_filter BPF_STMT(BPF_LD | BPF_H | BPF_ABS, sourcePort),
                      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, port, 0, 1),
                      sock_filter BPF_STMT(BPF_RET | BPF_K, everyByte),
                      sock_filter BPF_STMT(BPF_RET | BPF_K, 0)};
    return attachFilter(file, filter);
}

/// Shares the port. SO_REUSEPORT, because with SO_REUSEADDR another user's program could bind it too.
bool bindShared(int file, std::uint16_t localPort) {
    const int one = 1;
    const sockaddr_in local = endpoint({}, localPort);
    return setOption(file, SO_REUSEPORT, &one, sizeof one) &&
           bind(file, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

int openSocket() {
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

std::error_code lastError() {
    return {errno, std::system_category()};
}

} // namespace

UDPSocketResult openConnected(std::optional<std::uint16_t> localPort, IPv4Host host,
                              std::uint16_t remotePort) {
    OpenFile socket(openSocket());
    const int file = socket.file();
    const sockaddr_in remote = endpoint(host, remotePort);
    if (file < 0 || !hearOnly(file, host, remotePort) || !bindShared(file, localPort.value_or(0)) ||
        connect(file, reinterpret_cast<const sockaddr*>(&remote), sizeof remote) != 0)
        return {{}, lastError()};
    setOption(file, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    return {std::move(socket), {}};
}

UDPSocketResult openPlaceholder(std::uint16_t localPort) {
    OpenFile socket(openSocket());
    const int file = socket.file();
    if (file < 0 || !hearNobody(file) || !bindShared(file, localPort)) return {{}, lastError()};
    return {std::move(socket), {}};
}

IPv4Host localAddress(int file) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    IPv4Host host;
    if (getsockname(file, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        std::memcpy(host.bytes.data(), &address.sin_addr, host.bytes.size());
    return host;
}

} // namespace tessary
