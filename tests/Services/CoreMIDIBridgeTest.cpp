#include "Services/CoreMIDIBridge.h"

#include "support/Fakes.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

class CoreMIDIBridgeTest : public testing::Test {
  protected:
    /// A datagram of the given sender whose command section is `section`, flags and length included.
    static Bytes datagram(const std::string& section, std::uint16_t sequence = 1,
                          std::uint8_t sender = 0xAA) {
        Bytes bytes = packet("8061 0000 00000000 000000");
        bytes[2] = static_cast<std::uint8_t>(sequence >> 8);
        bytes[3] = static_cast<std::uint8_t>(sequence);
        bytes.push_back(sender);
        const Bytes tail = packet(section);
        bytes.insert(bytes.end(), tail.begin(), tail.end());
        return bytes;
    }

    /// What is published for one datagram.
    std::vector<Bytes> published(const Bytes& bytes) {
        machine.midiOutput.messages.clear();
        bridge->handleRTPMIDIPacket(bytes);
        return machine.midiOutput.messages;
    }
    std::vector<Bytes> published(const std::string& section) { return published(datagram(section)); }

    /// What is published for a list of any length, with a two-byte header.
    std::vector<Bytes> list(const Bytes& bytes, std::uint16_t sequence = 1, std::uint8_t sender = 0xAA) {
        Bytes whole = datagram("", sequence, sender);
        whole.push_back(static_cast<std::uint8_t>(0x80 | bytes.size() >> 8));
        whole.push_back(static_cast<std::uint8_t>(bytes.size()));
        whole.insert(whole.end(), bytes.begin(), bytes.end());
        return published(whole);
    }
    std::vector<Bytes> list(const std::string& text, std::uint16_t sequence = 1, std::uint8_t sender = 0xAA) {
        return list(packet(text), sequence, sender);
    }

    using Messages = std::vector<Bytes>;
    FakeMachine machine;
    std::unique_ptr<CoreMIDIBridge> bridge = std::make_unique<CoreMIDIBridge>(machine.platform());
};

} // namespace

TEST_F(CoreMIDIBridgeTest, DropsDatagramsWhoseSectionDoesNotFit) {
    EXPECT_EQ(published(packet("8061 0001 00000000 000000AA")), Messages{});
    EXPECT_EQ(published(packet("8161 0001 00000000 000000AA 03")), Messages{}); // ends where its CSRC list is
    EXPECT_EQ(published("80"), Messages{});                                     // second header byte missing
    EXPECT_EQ(published("04 90 3C 64"), Messages{});
    EXPECT_EQ(published("8FFF 90 3C 64"), Messages{});
    // Nothing of a dropped one is parsed: the running status outlives it.
    published("03 90 3C 64");
    published("0F 91");
    EXPECT_EQ(published("12 3C 00"), Messages{"90 3C 00"_packet});
}

TEST_F(CoreMIDIBridgeTest, FindsTheSectionBehindTheCSRCList) {
    EXPECT_EQ(published(packet("8261 0001 00000000 000000AA 11111111 22222222 03 90 3C 64 FFFF")),
              Messages{"90 3C 64"_packet});
    EXPECT_EQ(published("8005 903C64 003C"), Messages{"90 3C 64"_packet}); // LEN 5, incomplete last message
}

TEST_F(CoreMIDIBridgeTest, StepsOverDeltaTimesAndAppliesRunningStatus) {
    EXPECT_EQ(published("06 903C64 00 3C00"), (Messages{"90 3C 64"_packet, "90 3C 00"_packet}));
    EXPECT_EQ(published("23 90 3C 64"), Messages{}); // Z: 90 3C is a delta time
    EXPECT_EQ(published("28 00 903C64 8181818100 3C00"), (Messages{"90 3C 64"_packet}));
    EXPECT_EQ(published("0B 903C64 8181818100 3C00 00"), (Messages{"90 3C 64"_packet, "90 3C 00"_packet}));
    EXPECT_EQ(published("02 3C 00"), Messages{}); // P clear: no running status in force
    published("03 913C64");
    EXPECT_EQ(published("12 3D 10"), Messages{"91 3D 10"_packet});
    published("00"); // an empty list clears it as well
    EXPECT_EQ(published("12 3D 10"), Messages{});
}

TEST_F(CoreMIDIBridgeTest, KnowsTheLengthOfEveryStatus) {
    EXPECT_EQ(
        list(
            "803C40 00 A03C10 00 B00740 00 C005 00 D010 00 E00040 00 F105 00 F20102 00 F303 00 F4 00 F5 00 F6"
            "00 F8 00 FF"),
        (Messages{"803C40"_packet, "A03C10"_packet, "B00740"_packet, "C005"_packet, "D010"_packet,
                  "E00040"_packet, "F105"_packet, "F20102"_packet, "F303"_packet, "F4"_packet, "F5"_packet,
                  "F6"_packet, "F8"_packet, "FF"_packet}));
    EXPECT_EQ(list("F8 00 01"),
              (Messages{"F8"_packet, "F8"_packet})); // it becomes the running status like any other
}

TEST_F(CoreMIDIBridgeTest, StampsEachMessageWithTheHostTimeOfItsParsing) {
    machine.time.advance(5s);
    published("06 903C64 00 3C00");
    EXPECT_EQ(machine.midiOutput.stamps, (std::vector<std::uint64_t>{5'000'000'000, 5'000'000'000}));
}

TEST_F(CoreMIDIBridgeTest, MakesItsSourceAndDisposesOfWhatWasMade) {
    bridge.reset();
    EXPECT_EQ(machine.midiOutput.calls,
              (std::vector<std::string>{"client Tessary Link", "source 7 Tessary Link 1", "id 9 1414745163",
                                        "dispose source 9", "dispose client 7"}));
}

TEST_F(CoreMIDIBridgeTest, GoesOnWithoutAMIDISystem) {
    FakeMachine bare;
    bare.midiOutput.clientStatus = -50;
    bare.midiOutput.sourceStatus = -22;
    {
        CoreMIDIBridge silent(bare.platform());
        silent.handleRTPMIDIPacket(datagram("03 903C64"));
    }
    EXPECT_EQ(bare.log.lines, (std::vector<std::string>{"[CoreMIDI] MIDIClientCreate failed: -50",
                                                        "[CoreMIDI] MIDISourceCreate failed: -22"}));
    EXPECT_EQ(
        bare.midiOutput.calls,
        (std::vector<std::string>{"client Tessary Link", "source 0 Tessary Link 1", "id 0 1414745163"}));
    EXPECT_TRUE(bare.midiOutput.messages.empty());
}

// System Exclusive

TEST_F(CoreMIDIBridgeTest, PublishesSystemExclusiveWholeAndLeavesNoRunningStatus) {
    EXPECT_EQ(list("F0 7E 01 F7 00 903C64"), (Messages{"F0 7E 01 F7"_packet, "90 3C 64"_packet}));
    EXPECT_EQ(list("903C64 00 F0F7 00 3C00"), (Messages{"90 3C 64"_packet, "F0 F7"_packet}));
    EXPECT_EQ(list("F0 01 F8 02 FE F7"), (Messages{"F8"_packet, "FE"_packet, "F0 01 02 F7"_packet}));
}

TEST_F(CoreMIDIBridgeTest, JoinsSegmentsPerSender) {
    EXPECT_EQ(list("F0 01 F0", 0xFFFF, 0xAA), Messages{});
    EXPECT_EQ(list("F0 51 F0", 7, 0xBB), Messages{});
    EXPECT_EQ(list("F7 02 F8 F0", 0x0000, 0xAA), Messages{"F8"_packet}); // the sequence number wraps
    EXPECT_EQ(list("F7 52 F7", 8, 0xBB), Messages{"F0 51 52 F7"_packet});
    EXPECT_EQ(list("F8 00 F7 03 F7 00 903C64", 0x0001, 0xAA),
              (Messages{"F8"_packet, "F0 01 02 03 F7"_packet, "90 3C 64"_packet}));
}

TEST_F(CoreMIDIBridgeTest, CancelledInterruptedAndUnterminatedOnesHarmNothing) {
    EXPECT_EQ(list("F0 01 F4 00 903C64"), Messages{"90 3C 64"_packet});
    EXPECT_EQ(list("F0 903C64 00 3C00"),
              (Messages{"90 3C 64"_packet, "90 3C 00"_packet})); // parsed as a command
    EXPECT_EQ(list("F0 01 02"), Messages{});
    EXPECT_EQ(list("903C64", 2), Messages{"90 3C 64"_packet});

    list("F0 01 F0", 3);
    EXPECT_EQ(list("F7 02 F4 00 C005", 4), Messages{"C0 05"_packet});
    list("F0 01 F0", 5);
    EXPECT_EQ(list("F4 00 C006", 6), Messages{"C0 06"_packet}); // cancelled between two segments
    list("F0 01 F0", 7);
    EXPECT_EQ(list("F7 02 C007", 8), Messages{"C0 07"_packet});
    list("F0 01 F0", 9);
    EXPECT_EQ(list("C008 00 F7", 10), (Messages{"C0 08"_packet, "F7"_packet})); // nothing is pending any more
    list("F0 01 F0", 11);
    EXPECT_EQ(list("F0 02 F7", 12), Messages{"F0 02 F7"_packet});
    EXPECT_EQ(list("F4", 13), Messages{"F4"_packet});
}

TEST_F(CoreMIDIBridgeTest, AMissingSequenceNumberSpoilsTheMessageAndNothingElse) {
    list("F0 01 F0", 1);
    EXPECT_EQ(list("F7 03 F0", 3), Messages{}); // 2 is missing
    EXPECT_EQ(list("F7 04 F7 00 903C64", 4), Messages{"90 3C 64"_packet});
    EXPECT_EQ(list("F0 05 F7", 5), Messages{"F0 05 F7"_packet});
}

TEST_F(CoreMIDIBridgeTest, ASenderThatCountsAnewIsJoinedAgain) {
    list("F0 01 F0", 30'000); // the app dies in the middle of it and starts again with the same SSRC
    list("F0 02 F0", 100);
    EXPECT_EQ(list("F7 03 F7", 101), Messages{"F0 02 03 F7"_packet});
    list("F0 01 F0", 102);
    EXPECT_EQ(list("F7 02 F7", 40'000), Messages{}); // a jump is a gap
    list("F0 04 F0", 40'001);
    EXPECT_EQ(list("F7 05 F7", 40'002), Messages{"F0 04 05 F7"_packet});
}

TEST_F(CoreMIDIBridgeTest, ADoubledDatagramIsNotJoinedTwice) {
    list("F0 01 F0", 1);
    list("F0 01 F0", 1);
    list("F7 02 F0", 2);
    list("F7 02 F0", 2);
    list("F0 01 F0", 1);                                         // late
    EXPECT_EQ(list("F7 7F F7", 1), Messages{});                  // late, the end of the message before
    EXPECT_EQ(list("F0 7E F7", 2), Messages{"F0 7E F7"_packet}); // late, and whole in itself
    EXPECT_EQ(list("F7 03 F7", 3), Messages{"F0 01 02 03 F7"_packet});
}

TEST_F(CoreMIDIBridgeTest, AnOversizedOneIsDroppedWithItsRemainingSegments) {
    const auto send = [&](std::size_t dataBytes) {
        Bytes first(1 + 3000, 0x11), middle(1 + 3000, 0x22);
        first.front() = 0xF0, middle.front() = 0xF7;
        first.push_back(0xF0), middle.push_back(0xF0);
        std::uint16_t sequence = 1;
        list(first, sequence++);
        for (std::size_t left = dataBytes - 3000; left > 0;) {
            const std::size_t size = std::min<std::size_t>(left, 3000);
            left -= size;
            Bytes segment(1 + size, 0x22);
            segment.front() = 0xF7;
            segment.push_back(left > 0 ? 0xF0 : 0xF7);
            const auto result = list(segment, sequence++);
            if (left == 0) return result;
        }
        return Messages{};
    };
    const auto whole = send(SystemExclusive::longestMessage - 2);
    ASSERT_EQ(whole.size(), 1u);
    EXPECT_EQ(whole[0].size(), SystemExclusive::longestMessage);
    EXPECT_EQ(whole[0].back(), 0xF7);
    EXPECT_EQ(send(SystemExclusive::longestMessage - 1), Messages{});
    EXPECT_EQ(list("903C64", 99), Messages{"90 3C 64"_packet});
}

TEST_F(CoreMIDIBridgeTest, TheSixtyFifthSenderTakesThePlaceOfTheLongestSilentOne) {
    for (std::uint8_t sender = 1; sender <= 65; ++sender)
        list("F0 01 F0", 1, sender);
    EXPECT_EQ(list("F7 02 F7", 2, 2), Messages{"F0 01 02 F7"_packet});
    EXPECT_EQ(list("F7 02 F7", 2, 65), Messages{"F0 01 02 F7"_packet});
    EXPECT_EQ(list("F7", 2, 1), Messages{"F7"_packet});
}
