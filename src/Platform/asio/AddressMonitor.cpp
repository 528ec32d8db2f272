#include "Platform/asio/AddressMonitor.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <array>
#include <cstring>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

/// A new link brings address, routes and more within moments; one look at the end is enough.
constexpr auto settleTime = std::chrono::milliseconds(100);

int openNetlink() {
    const int file = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (file >= 0 && bind(file, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return file;
    if (file >= 0) close(file);
    return -1;
}

} // namespace

struct AddressMonitor::Parts : std::enable_shared_from_this<Parts> {
    Parts(asio::io_context& context, std::function<void()> handler)
        : netlink(context)
        , timer(context)
        , changed(std::move(handler)) {}

    void read() {
        netlink.async_read_some(asio::buffer(buffer),
                                [self = shared_from_this()](std::error_code error, std::size_t) {
                                    // A burst that overran the socket is a change like any other.
                                    if (error && error != asio::error::no_buffer_space) return;
                                    if (!std::exchange(self->isSettling, true)) self->settle();
                                    self->read();
                                });
    }

    void settle() {
        timer.expires_after(settleTime);
        timer.async_wait([self = shared_from_this()](std::error_code error) {
            self->isSettling = false;
            if (!error && self->changed) self->changed();
        });
    }

    asio::posix::stream_descriptor netlink;
    asio::steady_timer timer;
    std::function<void()> changed;
    bool isSettling = false;
    std::array<char, 4096> buffer{}; ///< what it says is not read, only that it says something
};

AddressMonitor::AddressMonitor(asio::io_context& context, std::function<void()> changed)
    : parts_(std::make_shared<Parts>(context, std::move(changed))) {
    const int file = openNetlink();
    if (file < 0) return;
    parts_->netlink.assign(file);
    parts_->read();
}

AddressMonitor::~AddressMonitor() {
    std::error_code ignored;
    parts_->changed = nullptr;
    parts_->netlink.close(ignored);
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
