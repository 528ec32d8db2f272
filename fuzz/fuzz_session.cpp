// The dialer, its sessions and the discovery on a machine of fakes: peers come, go, answer and send anything,
// threads are held back, connections fail, and the user uses the menu.
#include "Fuzz.h"
#include "support/World.h"

#include <array>

using namespace tessary;
using namespace tessary::test;
using fuzz::Reader;
using fuzz::require;

namespace {

std::shared_ptr<FakeConnection> connection(const World& world, std::uint8_t index) {
    std::vector<std::shared_ptr<FakeConnection>> open;
    for (const auto& each : world.network.connections)
        if (each->isOpen) open.push_back(each);
    return open.empty() ? nullptr : open[index % open.size()];
}

/// A session packet with the token of the last or the first invitation, or anything.
Bytes datagram(const FakeConnection& to, std::uint8_t kind, Reader& input) {
    using P = AppleMIDIPacket;
    if (kind >= 128) return input.bytes();
    const auto& tokens = to.invitations;
    const std::uint32_t token = tokens.empty() ? 0 : kind < 96 ? tokens.back() : tokens.front();
    const std::uint8_t count = kind % 6 == 4 ? input.byte() : std::uint8_t{1};
    const std::array<P, 6> packets{{{P::Accept{token, 7, "iPad"}},
                                    {P::ClockSync{7, count, 2, 3, 4}},
                                    {P::Bye{token, 7}},
                                    {P::Reject{token, 7, ""}},
                                    {P::ClockSync{7, count, 2, 3, 4}},
                                    {P::Invitation{token, 7, "iPad"}}}};
    return packets[kind % 6].encode();
}

void peerSends(World& world, Reader& input) {
    const auto to = connection(world, input.byte());
    const std::uint8_t kind = input.byte();
    if (to) to->deliver(datagram(*to, kind, input));
    world.time.run();
}

void connectionReports(World& world, Reader& input) {
    const auto of = connection(world, input.byte());
    const std::uint8_t kind = input.byte() % 4;
    if (!of) return;
    if (kind == 3) return of->deliver(Bytes{}, std::make_error_code(std::errc::io_error));
    of->post([kind](FakeConnection& connection) {
        if (kind == 0) connection.becomeReady();
        if (kind == 1) connection.fail(std::errc::address_in_use);
        if (kind == 2) connection.failSend(std::errc::network_unreachable);
    });
}

/// The lowest bits choose what is listed, the highest the type of service.
void browserSees(World& world, Reader& input) {
    const std::array<std::string, 4> names{"iPad", "] → [10.0.0.9", "a\nb", ""};
    const std::uint8_t seen = input.byte();
    std::vector<std::string> listed;
    for (std::size_t i = 0; i < names.size(); ++i)
        if (seen >> i & 1) listed.push_back(names[i]);
    world.serviceDiscovery.browser(seen >> 7 ? "_tessarylink._tcp" : "_apple-midi._udp").see(listed);
}

void resolverEnds(World& world, Reader& input) {
    constexpr std::array<const char*, 4> addresses{"10.0.0.2", "10.0.0.12", "10.0.0.3", "0.0.0.0"};
    constexpr std::array<int, 8> ports{5004, 5004, 5004, 5006, 65535, 0, -1, 70'000};
    const std::uint8_t index = input.byte(), kind = input.byte();
    std::vector<std::shared_ptr<FakeResolver>> waiting;
    for (const auto& resolver : world.serviceDiscovery.resolvers)
        if (!resolver->isStopped) waiting.push_back(resolver);
    if (waiting.empty()) return;
    const auto resolver = waiting[index % waiting.size()];
    if (kind >= 160 && kind < 192) return resolver->fail("timed out");
    std::vector<std::string> found;
    if (kind < 160) found.push_back(addresses[kind % 4]);
    resolver->succeed(found, ports[kind / 4 % 8]);
}

void userChooses(World& world, Reader& input) {
    const std::uint8_t kind = input.byte();
    if (kind % 4 == 0) world.reconnect();
    if (kind % 4 == 2) world.shutDown();
    if (kind % 2 == 1) world.setAutoConnect(kind % 4 == 3);
}

template <bool isHeld>
void holdQueue(World& world, Reader& input) {
    if (const auto of = connection(world, input.byte())) of->queue->isHeldBack = isHeld;
}

void requireNothing(const std::string& wrong) {
    require(wrong.empty(), wrong);
}

constexpr std::array<void (*)(World&, Reader&), 16> actions{
    [](World& world, Reader&) { world.mainQueue->isHeldBack = true; },
    [](World& world, Reader&) { world.mainQueue->isHeldBack = false; },
    [](World& world, Reader&) { world.mainQueue->runOne(); },
    userChooses,
    browserSees,
    resolverEnds,
    connectionReports,
    holdQueue<true>,
    holdQueue<false>,
    [](World& world, Reader& input) { world.time.advance(input.byte() * 10ms); },
    [](World& world, Reader&) { requireNothing(world.wrongAtRest()); },
    [](World& world, Reader& input) { world.time.calendar -= input.byte() * 1min; },
    [](World& world, Reader& input) { world.network.isReadyByItself = input.byte() % 4 != 0; },
    peerSends,
    peerSends,
    peerSends};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    World world;
    world.startDialer();
    Reader input(data, size);
    while (!input.isEmpty()) {
        actions[input.byte() % actions.size()](world, input);
        requireNothing(world.wrongNow());
    }
    requireNothing(world.wrongAtRest());
    requireNothing(world.wrongAfterRelease());
    return 0;
}
