// The packet path of the program, from the network thread to an output that records the time.
//
//     latency_road STAMPS HOST...       invites each host on port 5004

#include "Platform/network/EpollNetwork.h"
#include "Platform/system/SystemClock.h"
#include "Services/CoreMIDIBridge.h"
#include "Services/RTPMIDISession.h"
#include "stamps.h"
#include "support/Fakes.h"

#include <cstdio>
#include <unistd.h>

using namespace tessary;
using namespace tessary::test;

namespace {

struct StampOutput : FakeMIDIOutput {
    void publish(MIDIObjectRef, std::uint64_t, std::span<const std::uint8_t> message) override {
        if (message.size() == 3 && (message[0] & 15) == STAMP_CHANNEL) stamp(stamps, message[1], message[2]);
    }
    std::int64_t* stamps = nullptr;
};

} // namespace

int main(int argc, char** argv) {
    StampOutput output;
    if (argc < 3 || !(output.stamps = open_stamps(argv[1]))) {
        std::fputs("usage: latency_road STAMPS HOST...\n", stderr);
        return 2;
    }
    FakeMachine machine;
    EpollNetwork network({RTPMIDISession::controlLocalPort, RTPMIDISession::dataLocalPort},
                         Scheduling::realTime);
    // The main queue only stores session states here, so it may run on the network thread.
    const auto mainQueue = network.makeQueue("main");
    const SystemClock clock;
    const Platform platform = machine.platform(
        {.mainQueue = mainQueue.get(), .network = &network, .midiOutput = &output, .clock = &clock});
    CoreMIDIBridge bridge(platform);
    std::vector<std::shared_ptr<RTPMIDISession>> sessions;
    mainQueue->post([&] {
        for (int i = 2; i < argc; ++i) {
            const auto host = IPv4Host::parse(argv[i]).value();
            auto session =
                std::make_shared<RTPMIDISession>(platform, argv[i], host, std::uint16_t{5004}, "bench");
            session->midiPacketReceived = [&](std::span<const std::uint8_t> packet) {
                bridge.handleRTPMIDIPacket(packet);
            };
            session->start();
            sessions.push_back(std::move(session));
        }
    });
    for (;;) // until the process is killed
        pause();
}
