// Weeks of running in seconds: what is used at the end is what was used at the beginning.
#include "support/ObservedMachine.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <malloc.h>

using namespace tessary;
using namespace tessary::test;

namespace {

/// Bytes that are allocated now. A sanitizer's allocator counts nothing here; it looks for leaks itself.
std::size_t allocated() {
    const auto counted = mallinfo2();
    return counted.uordblks + counted.hblkhd;
}
std::ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

struct Use {
    std::size_t bytes = allocated();
    std::ptrdiff_t files = openFiles();
};

/// Both the same, but for what the test's own containers have room for.
void expectFlat(const Use& before, const Use& after) {
    EXPECT_NEAR(static_cast<double>(after.bytes), static_cast<double>(before.bytes), 4096);
    EXPECT_EQ(after.files, before.files);
}

} // namespace

TEST(EnduranceTest, TenThousandConnectsAndDisconnects) {
    ObservedMachine machine;
    const auto discovery = std::make_shared<PeerDiscovery>(machine.platform());
    const auto bridge = std::make_shared<CoreMIDIBridge>(machine.platform());
    discovery->start();
    const auto dialer = RTPMIDIDialer::make(machine.platform(), discovery, bridge, "Tessary Link");
    const auto see = [&](const char* type, const std::vector<std::string>& names) {
        machine.serviceDiscovery.browser(type).see(names);
        machine.time.run();
        for (const auto& name : names)
            if (const auto resolver = machine.serviceDiscovery.resolver(type, name);
                resolver && !resolver->isStopped)
                resolver->succeed({"10.0.0.2"}, 5004);
    };
    const auto connection = [&](std::uint16_t port) { return machine.journaled.newest(port); };
    const auto answer = [&](std::uint16_t port, const AppleMIDIPacket& packet) {
        connection(port)->deliver(packet);
        machine.time.run();
    };
    const auto accept = [&](std::uint16_t port) {
        const auto token = connection(port)->sentOf<AppleMIDIPacket::Invitation>().back().token;
        answer(port, {AppleMIDIPacket::Accept{token, 7, "iPad"}});
    };

    Use before;
    int ran = 0;
    constexpr int connects = 10'000, warmUp = 100;
    for (int i = 0; i < warmUp + connects; ++i) {
        if (i == warmUp) before = Use();
        see("_tessarylink._tcp", {"iPad"});
        see("_apple-midi._udp", {"iPad"});
        machine.time.advance(1s);
        accept(51204);
        accept(51205);
        answer(51205, {AppleMIDIPacket::ClockSync{7, 1, 0, 0, 0}});
        connection(51205)->deliver(Bytes{0x80, 0x61, 0, 1, 0, 0, 0, 0, 0, 0, 0, 7, 3, 0x90, 0x3C, 0x64});
        connection(51205)->deliver(Bytes{0x80, 0x61, 0, 2, 0, 0, 0, 0, 0, 0, 0, 7, 3, 0xF0, 0x01, 0xF0});
        machine.time.run();
        ran += *dialer->connectedPeerIPs() == std::vector<std::string>{"10.0.0.2"};
        switch (i % 4) { // each way in which a session ends
        case 0:
            answer(51204, {AppleMIDIPacket::Bye{0, 7}});
            break;
        case 1:
            answer(51205, {AppleMIDIPacket::Reject{0, 7, ""}});
            break;
        case 2:
            dialer->reconnectNow();
            break;
        default:
            see("_apple-midi._udp", {});
            see("_tessarylink._tcp", {});
        }
        machine.time.advance(200ms);
        ASSERT_EQ(machine.wrongNow(), "") << "at connect " << i;
        machine.midiOutput.messages.clear();
        machine.midiOutput.stamps.clear();
        machine.forgetThePast();
    }
    expectFlat(before, Use());
    EXPECT_EQ(ran, warmUp + connects);
}

TEST(EnduranceTest, AMillionHeartbeats) {
    ObservedMachine machine;
    const auto session = std::make_shared<RTPMIDISession>(machine.platform(), "iPad", IPv4Host{{10, 0, 0, 2}},
                                                          std::uint16_t{5004}, "Tessary Link");
    session->start();
    machine.time.run();
    for (const auto port : {RTPMIDISession::controlLocalPort, RTPMIDISession::dataLocalPort}) {
        const auto on = machine.journaled.newest(port);
        const auto token = on->sentOf<AppleMIDIPacket::Invitation>().back().token;
        on->deliver({AppleMIDIPacket::Accept{token, 7, "iPad"}});
        machine.time.run();
    }
    const auto data = machine.journaled.newest(51205);
    data->deliver({AppleMIDIPacket::ClockSync{7, 1, 0, 0, 0}});
    machine.time.advance(5s); // the dense ones
    data->sent.clear();

    Use before;
    constexpr int heartbeats = 1'000'000, warmUp = 1000;
    std::uint64_t last = 0;
    for (int i = 0; i < warmUp + heartbeats; ++i) {
        if (i == warmUp) before = Use();
        machine.time.advance(10s);
        ASSERT_EQ(data->sent.size(), 1u) << "heartbeat " << i;
        const auto beat = AppleMIDIPacket::decode(data->sent[0]);
        ASSERT_TRUE(beat);
        const auto t1 = std::get<AppleMIDIPacket::ClockSync>(beat->value).t1;
        ASSERT_GT(t1, last) << "heartbeat " << i;
        last = t1;
        data->deliver({AppleMIDIPacket::ClockSync{7, 1, t1, t1, 0}}); // as the peer answers
        machine.time.run();
        ASSERT_EQ(data->sent.size(), 2u) << "heartbeat " << i;
        data->sent.clear();
    }
    expectFlat(before, Use());
    EXPECT_EQ(session->state().which, RTPMIDISession::Case::running);
    // A third of a year, to the tenth of a millisecond.
    EXPECT_EQ(last, static_cast<std::uint64_t>(5 + 10LL * (warmUp + heartbeats)) * 10'000);
}
