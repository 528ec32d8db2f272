// From a device's send to the output call: the program's road against the floor, a bare loop of epoll_wait
// and recv on a connected socket that calls the same output. Both wait asleep; they take turns, datagram by
// datagram.

#include "Platform/asio/UDPSocket.h"
#include "support/LiveSession.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sys/epoll.h>
#include <thread>

using namespace tessary;
using namespace tessary::test;

namespace {

std::int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

/// Notes the moment of each call.
struct MomentOutput : FakeMIDIOutput {
    void publish(MIDIObjectRef, std::uint64_t, std::span<const std::uint8_t>) override { moment = now(); }
    std::atomic<std::int64_t> moment = 0;
};

/// The physical floor: nothing but the two calls and the output.
void floorLoop(int file, MIDIOutput& output, const std::atomic<bool>& isEnding) {
    const int epoll = epoll_create1(0);
    epoll_event event{.events = EPOLLIN, .data = {.fd = file}};
    epoll_ctl(epoll, EPOLL_CTL_ADD, file, &event);
    unsigned char buffer[2048];
    while (!isEnding) {
        if (epoll_wait(epoll, &event, 1, -1) != 1) continue;
        const ssize_t size = recv(file, buffer, sizeof buffer, 0);
        if (size > 13) output.publish(1, 0, {buffer + 13, static_cast<std::size_t>(size) - 13});
    }
    close(epoll);
}

struct Distribution {
    std::vector<std::int64_t> samples;
    double at(double quantile) {
        std::sort(samples.begin(), samples.end());
        return static_cast<double>(
                   samples[static_cast<std::size_t>(quantile * static_cast<double>(samples.size() - 1))]) /
               1000.0;
    }
    void print(const char* name) {
        std::printf("%-10s %8.1f %8.1f %8.1f %8.1f\n", name, at(0.5), at(0.99), at(0.999), at(1));
    }
};

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 10'000;
    constexpr IPv4Host host{{127, 0, 1, 10}};
    const auto note = packet("03 903C64");

    MomentOutput roadOutput, floorOutput;
    LiveSession road(roadOutput);
    PeerSocket peer(host);
    const auto opened = openConnected(std::nullopt, host, peer.port());
    sockaddr_in local{};
    socklen_t size = sizeof local;
    getsockname(opened.socket.file(), reinterpret_cast<sockaddr*>(&local), &size);
    std::atomic<bool> isEnding = false;
    std::thread floorThread([&] { floorLoop(opened.socket.file(), floorOutput, isEnding); });
    const Bytes floorDatagram = packet("8061 0001 00000000 000000AA 03 903C64");

    const auto once = [](MomentOutput& output, auto&& send) {
        output.moment = 0;
        std::this_thread::sleep_for(std::chrono::microseconds(300)); // the receiver is asleep by then
        const std::int64_t sent = now();
        send();
        while (output.moment == 0)
            std::this_thread::yield();
        return output.moment - sent;
    };
    Distribution roadTimes, floorTimes;
    for (int i = -200; i < rounds; ++i) {
        const auto roadTime = once(roadOutput, [&] { road.play(note); });
        const auto floorTime = once(floorOutput, [&] { peer.sendTo(ntohs(local.sin_port), floorDatagram); });
        if (i < 0) continue; // warming up
        roadTimes.samples.push_back(roadTime);
        floorTimes.samples.push_back(floorTime);
    }
    isEnding = true;
    peer.sendTo(ntohs(local.sin_port), floorDatagram);
    floorThread.join();

    std::printf("microseconds  50 %%     99 %%   99.9 %%      max   (%d datagrams each)\n", rounds);
    roadTimes.print("program");
    floorTimes.print("floor");
    std::printf("ratio      %8.2f %8.2f %8.2f\n", roadTimes.at(0.5) / floorTimes.at(0.5),
                roadTimes.at(0.99) / floorTimes.at(0.99), roadTimes.at(0.999) / floorTimes.at(0.999));
    return 0;
}
