#include "Platform/network/AddressMonitor.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace tessary {

namespace {

/// A new link brings address, routes and more within moments; one look at the end is enough.
constexpr auto settleTime = std::chrono::milliseconds(100);

OpenFile openNetlink() {
    OpenFile file(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (file && bind(file.file(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        file = {};
    return file;
}

} // namespace

AddressMonitor::AddressMonitor(EventLoop& loop, std::function<void()> changed)
    : loop_(loop)
    , netlink_(openNetlink())
    , changed_(std::move(changed)) {
    if (netlink_) loop.watch(netlink_.file(), *this);
}

void AddressMonitor::readable() {
    std::array<char, 4096> news; // only the arrival of a message counts, not its content
    // A burst that overran the socket is a change like any other.
    if (recv(netlink_.file(), news.data(), news.size(), 0) < 0 && errno != ENOBUFS) return;
    if (std::exchange(isSettling_, true)) return;
    loop_.at(EventLoop::Clock::now() + settleTime, [this] {
        isSettling_ = false;
        changed_();
    });
}

std::vector<IPv4Host> ownAddresses() {
    std::vector<IPv4Host> hosts;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return hosts;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in address{};
        std::memcpy(&address, entry->ifa_addr, sizeof address);
        IPv4Host host;
        std::memcpy(host.bytes.data(), &address.sin_addr, host.bytes.size());
        hosts.push_back(host);
    }
    freeifaddrs(list);
    return hosts;
}

} // namespace tessary
