#include "Platform/asio/UDPSocket.h"

#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

/// A burst while the machine is busy elsewhere waits here; the kernel takes as much of it as it allows. Small
/// datagrams count about 800 bytes each.
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

bool dropEverything(int file) {
    sock_filter nothing = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program{.len = 1, .filter = &nothing};
    return setOption(file, SO_ATTACH_FILTER, &program, sizeof program);
}

/// Open, deaf, and bound to the port together with whoever else shares it: SO_REUSEPORT, because SO_REUSEADDR
/// would let another user's program in.
bool bindDeaf(int file, std::uint16_t localPort) {
    const int one = 1;
    const sockaddr_in local = endpoint({}, localPort);
    return setOption(file, SO_REUSEPORT, &one, sizeof one) && dropEverything(file) &&
           bind(file, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

int openFile() {
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

std::error_code lastError() {
    return {errno, std::system_category()};
}

} // namespace

UDPSocket::UDPSocket(UDPSocket&& other) noexcept
    : file_(other.release()) {}

UDPSocket& UDPSocket::operator=(UDPSocket&& other) noexcept {
    std::swap(file_, other.file_);
    return *this;
}

UDPSocket::~UDPSocket() {
    if (file_ >= 0) close(file_);
}

int UDPSocket::release() {
    return std::exchange(file_, -1);
}

UDPSocketResult openConnected(std::optional<std::uint16_t> localPort, IPv4Host host,
                              std::uint16_t remotePort) {
    UDPSocket socket(openFile());
    const int file = socket.file();
    const sockaddr_in remote = endpoint(host, remotePort);
    const int unused = 0;
    if (file < 0 || !bindDeaf(file, localPort.value_or(0)) ||
        connect(file, reinterpret_cast<const sockaddr*>(&remote), sizeof remote) != 0 ||
        !setOption(file, SO_DETACH_FILTER, &unused, sizeof unused))
        return {{}, lastError()};
    setOption(file, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    return {std::move(socket), {}};
}

UDPSocketResult openPlaceholder(std::uint16_t localPort) {
    UDPSocket socket(openFile());
    if (socket.file() < 0 || !bindDeaf(socket.file(), localPort)) return {{}, lastError()};
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
