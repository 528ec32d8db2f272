// What the simulated device plays and how it is packed: the tests of the program count on both.
#include "Player.h"
#include "RTPMIDIWriter.h"

#include <gtest/gtest.h>

#include <set>
#include <span>
#include <string>
#include <string_view>

namespace tessary::device {

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> written(RTPMIDIWriter& writer, const std::vector<MIDIMessage>& messages) {
    std::vector<Bytes> datagrams;
    writer.write(messages, 0x01020304,
                 [&](auto datagram) { datagrams.emplace_back(datagram.begin(), datagram.end()); });
    return datagrams;
}

std::string hex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr std::string_view digits = "0123456789ABCDEF";
        if (!text.empty()) text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

/// What follows the 12 bytes of the RTP header.
Bytes payload(const Bytes& datagram) {
    return {datagram.begin() + 12, datagram.end()};
}

TEST(PlayerTest, ScaleShowsEachLossAndEachSwap) {
    EXPECT_EQ(hex(messageAt(Play::scale, 0, 0)), "90 3C 01");
    EXPECT_EQ(hex(messageAt(Play::scale, 3, 0)), "80 3E 04");
    EXPECT_EQ(hex(messageAt(Play::scale, 14, 0)), "90 48 0F");
    EXPECT_EQ(hex(messageAt(Play::scale, 127, 0)), "80 48 01"); // 127 / 2 = 63, the last of eight

    std::set<std::string> different;
    for (std::uint64_t i = 1000; i < 3000; ++i)
        different.insert(hex(messageAt(Play::scale, i, 0)));
    EXPECT_EQ(different.size(), 2000U);
}

TEST(PlayerTest, EveryNoteOnHasItsNoteOff) {
    for (const Play play : {Play::scale, Play::chords, Play::mixed}) {
        std::multiset<std::uint8_t> sounding;
        for (std::uint64_t i = 0; i < 42 * 12; ++i) { // whole rounds of each tune
            const MIDIMessage message = messageAt(play, i, 64);
            if (message[0] == 0x90) {
                EXPECT_GT(message[2], 0);
                sounding.insert(message[1]);
            } else if (message[0] == 0x80) {
                ASSERT_TRUE(sounding.contains(message[1]));
                sounding.erase(sounding.find(message[1]));
            }
        }
        EXPECT_TRUE(sounding.empty());
    }
}

TEST(PlayerTest, SystemExclusiveIsWholeAndOfTheSizeAskedFor) {
    for (const std::size_t size : {7u, 256u, 20'000u}) {
        const MIDIMessage message = messageAt(Play::sysex, 300, size);
        ASSERT_EQ(message.size(), size);
        EXPECT_EQ(Bytes(message.begin(), message.begin() + 6),
                  (Bytes{0xF0, 0x7D, 0, 0, 2, 44})); // 2 * 128 + 44
        EXPECT_EQ(message.back(), 0xF7);
        for (std::size_t k = 1; k + 1 < size; ++k)
            ASSERT_LT(message[k], 0x80) << k;
    }
    EXPECT_EQ(hex(messageAt(Play::sysex, 300, minSysexSize)), "F0 7D F7");
}

TEST(RTPMIDIWriterTest, HeaderAndListOfOneDatagram) {
    RTPMIDIWriter writer(0xA1B2C3D4, 0xFFFF);
    const auto first = written(writer, {{0x90, 60, 1}});
    ASSERT_EQ(first.size(), 1U);
    EXPECT_EQ(hex(first[0]), "80 61 FF FF 01 02 03 04 A1 B2 C3 D4 03 90 3C 01");

    const auto second = written(writer, {{0x90, 60, 1}, {0xF8}, {}, {0x80, 60, 2}});
    ASSERT_EQ(second.size(), 1U);
    EXPECT_EQ(hex(std::span(second[0]).subspan(2, 2)), "00 00") << "the sequence number wraps";
    EXPECT_EQ(hex(payload(second[0])), "09 90 3C 01 00 F8 00 80 3C 02");

    EXPECT_TRUE(written(writer, {{}}).empty());
}

TEST(RTPMIDIWriterTest, MessagesThatDoNotFitGoOnInTheNextList) {
    RTPMIDIWriter writer(1, 1);
    const auto datagrams =
        written(writer, std::vector<MIDIMessage>(301, {0x90, 60, 1})); // 4 n - 1 bytes for n
    ASSERT_EQ(datagrams.size(), 2U);
    EXPECT_EQ(payload(datagrams[0]).size(), 2 + 1199U);
    EXPECT_EQ(hex(payload(datagrams[1])), "03 90 3C 01");
}

TEST(RTPMIDIWriterTest, LongSystemExclusiveGoesInSegmentsBetweenItsNeighbours) {
    for (const std::size_t size :
         {maxListSize + 1, 2 * maxListSize - 2, 2 * maxListSize - 1, std::size_t{20'000}}) {
        RTPMIDIWriter writer(1, 1);
        const MIDIMessage sysex = messageAt(Play::sysex, 5, size);
        const auto datagrams = written(writer, {{0xF8}, sysex, {0xFA}});
        ASSERT_GE(datagrams.size(), 4U);
        EXPECT_EQ(hex(payload(datagrams.front())), "01 F8");
        EXPECT_EQ(hex(payload(datagrams.back())), "01 FA");
        MIDIMessage joined{0xF0};
        for (std::size_t i = 1; i + 1 < datagrams.size(); ++i) {
            const Bytes whole = payload(datagrams[i]);
            const Bytes list(whole.begin() + (whole[0] & 0x80 ? 2 : 1), whole.end());
            EXPECT_LE(list.size(), maxListSize);
            EXPECT_EQ(list.front(), i == 1 ? 0xF0 : 0xF7);
            EXPECT_EQ(list.back(), i + 2 == datagrams.size() ? 0xF7 : 0xF0);
            EXPECT_GT(list.size(), 2U) << "a segment without content";
            joined.insert(joined.end(), list.begin() + 1, list.end() - 1);
        }
        joined.push_back(0xF7);
        EXPECT_TRUE(joined == sysex) << size;
    }
}

} // namespace

} // namespace tessary::device
