// The rules of the list parser, a case each. Malformed, repeated and late datagrams, the limits of System
// Exclusive and the 65th sender are inputs of fuzz_payload, which compares the bridge with a second parser.
#include "Services/CoreMIDIBridge.h"

#include "support/Fakes.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

constexpr std::uint8_t Z = 0x20, P = 0x10; // the flags of a command section

struct Datagram {
    std::string list;
    std::string published; ///< a space between messages
    std::uint8_t flags = 0;
};

struct Case {
    const char* rule;
    std::vector<Datagram> datagrams;
};

class CoreMIDIBridgeTest : public testing::Test {
  protected:
    std::string published(const Datagram& datagram) {
        const Bytes list = packet(datagram.list);
        const bool isLong = list.size() > 15;
        Bytes bytes = packet("8061 0000 00000000 CAFE00AA");
        bytes[3] = ++sequence;
        bytes.push_back(static_cast<std::uint8_t>(datagram.flags | (isLong ? 0x80 : list.size())));
        if (isLong) bytes.push_back(static_cast<std::uint8_t>(list.size()));
        bytes.insert(bytes.end(), list.begin(), list.end());
        machine.midiOutput.messages.clear();
        bridge->handleRTPMIDIPacket(bytes);

        std::string text;
        for (const Bytes& message : machine.midiOutput.messages) {
            if (!text.empty()) text += ' ';
            for (const int byte : message)
                text += {"0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16]};
        }
        return text;
    }

    void check(const std::vector<Case>& cases) {
        for (const auto& [rule, datagrams] : cases) {
            bridge = std::make_unique<CoreMIDIBridge>(machine.platform());
            for (const Datagram& datagram : datagrams)
                EXPECT_EQ(published(datagram), datagram.published) << rule << ": " << datagram.list;
        }
    }

    FakeMachine machine;
    std::unique_ptr<CoreMIDIBridge> bridge = std::make_unique<CoreMIDIBridge>(machine.platform());
    std::uint8_t sequence = 0;
};

} // namespace

TEST_F(CoreMIDIBridgeTest, SplitsAListIntoMessages) {
    check({
        {"a delta time stands before each command but the first",
         {{"903C64 8181818100 913C00 00", "903C64 913C00"}, {"F8 00 FE 00 F8", "F8 FE F8"}}},
        {"with Z, before the first too", {{"903C64", "", Z}, {"8100 903C64", "903C64", Z}}},
        {"a data byte repeats the last status", {{"913C64 00 3C00 00 3D01", "913C64 913C00 913D01"}}},
        {"P carries the status on from the last datagram",
         {{"913C64", "913C64"}, {"3D10", "913D10", P}, {"3E10", ""}, {"3F10", "", P}}},
        {"a list without P clears the status even if it is empty",
         {{"913C64", "913C64"}, {"", ""}, {"3D10", "", P}}},
        {"an incomplete last message is dropped", {{"903C64 00 3C", "903C64"}, {"903C", ""}}},
        {"each status has its length",
         {{"803C40 00 A03C10 00 B00740 00 C005 00 D010 00 E00040", "803C40 A03C10 B00740 C005 D010 E00040"},
          {"F105 00 F20102 00 F303 00 F4 00 F5 00 F6 00 FF", "F105 F20102 F303 F4 F5 F6 FF"}}},
    });
}

// F0 … F0 is a first segment, F7 … F0 a middle one, F7 … F7 the last, and F4 cancels. An F7 or F4 that
// belongs to no message is published like any other status byte.
TEST_F(CoreMIDIBridgeTest, JoinsTheSegmentsOfSystemExclusive) {
    check({
        {"it clears the running status",
         {{"903C64 00 F07E01F7 00 3C00", "903C64 F07E01F7"}, {"F0F7 00 903C64", "F0F7 903C64"}}},
        {"real-time bytes in it are published at once", {{"F001 F8 02 FE F7", "F8 FE F00102F7"}}},
        {"segments are joined",
         {{"F001F0", ""},
          {"F702F8F0", "F8"},
          {"F8 00 F703F7 00 903C64", "F8 F0010203F7 903C64"},
          {"F7", "F7"}}},
        {"cancelled", {{"F001F0", ""}, {"F702F4 00 C005", "C005"}, {"F7", "F7"}}},
        {"ended by a command in a segment", {{"F0 903C64 00 3C00", "903C64 903C00"}}},
        {"ended by a command between segments", {{"F001F0", ""}, {"C005 00 F7", "C005 F7"}}},
        {"unterminated, and followed by another", {{"F001", ""}, {"F002F7", "F002F7"}}},
        {"unterminated in a later segment",
         {{"F001F0", ""}, {"F702", ""}, {"F7", "F7"}, {"F003F7", "F003F7"}}},
    });
}

TEST_F(CoreMIDIBridgeTest, StampsEachMessageWithTheHostTimeOfItsParsing) {
    machine.time.advance(5s);
    published({"903C64 00 3C00", ""});
    EXPECT_EQ(machine.midiOutput.stamps, (std::vector<std::uint64_t>{5'000'000'000, 5'000'000'000}));
}

TEST_F(CoreMIDIBridgeTest, DisposesOfTheSourceAndClientThatItMade) {
    bridge.reset();
    EXPECT_EQ(machine.midiOutput.calls,
              (std::vector<std::string>{"client Tessary Link", "source 7 Tessary Link 1", "id 9 1414745163",
                                        "dispose source 9", "dispose client 7"}));
}

TEST_F(CoreMIDIBridgeTest, PublishesNothingWithoutAMIDISystem) {
    bridge.reset();
    machine.midiOutput = {};
    machine.midiOutput.clientStatus = -50;
    machine.midiOutput.sourceStatus = -22;
    bridge = std::make_unique<CoreMIDIBridge>(machine.platform());
    EXPECT_EQ(published({"903C64", ""}), "");
    bridge.reset();
    EXPECT_TRUE(
        machine.log.lines.back().starts_with("[CoreMIDI] devices connect, but nothing is published: "));
    machine.log.lines.pop_back();
    EXPECT_EQ(machine.log.lines, (std::vector<std::string>{"[CoreMIDI] MIDIClientCreate failed: -50",
                                                           "[CoreMIDI] MIDISourceCreate failed: -22"}));
    EXPECT_EQ(
        machine.midiOutput.calls,
        (std::vector<std::string>{"client Tessary Link", "source 0 Tessary Link 1", "id 0 1414745163"}));
}
