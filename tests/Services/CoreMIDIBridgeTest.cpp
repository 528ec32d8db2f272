// The rules of the list parser are inputs of fuzz_payload, which compares the bridge with a second parser.
#include "Services/CoreMIDIBridge.h"

#include "support/Fakes.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

struct CoreMIDIBridgeTest : testing::Test, FakeMachine {
    std::unique_ptr<CoreMIDIBridge> bridge;
};

} // namespace

TEST_F(CoreMIDIBridgeTest, PublishesEachMessageWithTheHostTimeOfItsParsing) {
    bridge = std::make_unique<CoreMIDIBridge>(platform());
    time.advance(5s);
    bridge->handleRTPMIDIPacket("8061 0001 00000000 CAFE00AA 0A 903C64 00 3C00 00 F001F0"_packet);
    bridge->handleRTPMIDIPacket("8061 0002 00000000 CAFE00AA 04 F7F802F7"_packet);
    EXPECT_EQ(midiOutput.messages,
              (std::vector{"903C64"_packet, "903C00"_packet, "F8"_packet, "F00102F7"_packet}));
    EXPECT_EQ(midiOutput.stamps, std::vector(4, std::uint64_t{5'000'000'000}));

    bridge.reset();
    EXPECT_EQ(midiOutput.calls,
              (std::vector<std::string>{"client Tessary Link", "source 7 Tessary Link 1", "id 9 1414745163",
                                        "dispose source 9", "dispose client 7"}));
}

TEST_F(CoreMIDIBridgeTest, PublishesNothingWithoutAMIDISystem) {
    midiOutput.clientStatus = -50;
    midiOutput.sourceStatus = -22;
    bridge = std::make_unique<CoreMIDIBridge>(platform());
    bridge->handleRTPMIDIPacket("8061 0001 00000000 CAFE00AA 03 903C64"_packet);
    bridge.reset();
    EXPECT_TRUE(midiOutput.messages.empty());
    EXPECT_TRUE(log.lines.back().starts_with("[CoreMIDI] devices connect, but nothing is published: "));
    log.lines.pop_back();
    EXPECT_EQ(log.lines, (std::vector<std::string>{"[CoreMIDI] MIDIClientCreate failed: -50",
                                                   "[CoreMIDI] MIDISourceCreate failed: -22"}));
    EXPECT_EQ(midiOutput.calls, (std::vector<std::string>{"client Tessary Link", "source 0 Tessary Link 1",
                                                          "id 0 1414745163"}));
}
