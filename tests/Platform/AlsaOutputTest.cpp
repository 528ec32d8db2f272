// What the program sends on a real sequencer is tested in tests/system/test_alsa.py.
#include "Platform/alsa/AlsaOutput.h"

#include "Platform/alsa/PacedSender.h"
#include "Platform/alsa/SequencerEncoder.h"
#include "support/Await.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <span>
#include <utility>
#include <vector>

namespace tessary {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

Bytes systemExclusive(std::size_t size, std::size_t number = 0) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = (number + i) & 0x7F;
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

Bytes note(std::size_t number) {
    return {0x90, static_cast<std::uint8_t>(number & 0x7F), static_cast<std::uint8_t>(number >> 7 & 0x7F)};
}

/// The bytes of an event, decoded by the library without running status.
Bytes bytesOf(const snd_seq_event_t& event) {
    snd_midi_event_t* decoder = nullptr;
    snd_midi_event_new(512, &decoder);
    snd_midi_event_no_status(decoder, 1);
    Bytes bytes(512);
    const long size = snd_midi_event_decode(decoder, bytes.data(), static_cast<long>(bytes.size()), &event);
    snd_midi_event_free(decoder);
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return bytes;
}

TEST(SequencerEncoderTest, EveryMessageThatMIDIDefinesIsAnEventAndNoOtherIs) {
    SequencerEncoder encoder;
    for (unsigned status = 0x80; status <= 0xFF; ++status) {
        if (status == 0xF0 || status == 0xF7) continue; // System Exclusive
        const unsigned kind = status & 0xF0;
        const bool isUndefined = status == 0xF4 || status == 0xF5 || status == 0xF9 || status == 0xFD;
        const bool isOneByte = kind == 0xC0 || kind == 0xD0 || status == 0xF1 || status == 0xF3;
        const std::size_t size = isOneByte ? 2 : kind != 0xF0 || status == 0xF2 ? 3 : 1;
        for (const Bytes& data : std::vector<Bytes>{{0, 0, 0}, {127, 1, 1}, {64, 127, 127}}) {
            Bytes message{static_cast<std::uint8_t>(status)};
            for (const std::uint8_t next : data) {
                const auto event = encoder.encode(0, 0, message);
                ASSERT_EQ(event.has_value(), message.size() == size && !isUndefined)
                    << testing::PrintToString(message);
                EXPECT_TRUE(!event || bytesOf(*event) == message) << testing::PrintToString(message);
                message.push_back(next);
            }
            EXPECT_FALSE(encoder.encode(0, 0, message)) << testing::PrintToString(message);
        }
    }
    for (const Bytes& bytes : std::vector<Bytes>{{}, {0x90, 60, 128}, {0xB0, 0x90, 1}, {0xD0, 0xFF}})
        EXPECT_FALSE(encoder.encode(0, 0, bytes)) << testing::PrintToString(bytes);
    for (const Bytes& piece : {systemExclusive(256), Bytes{0xF0, 0xF7}, Bytes{1, 2, 3}, Bytes{0xF7}})
        EXPECT_EQ(bytesOf(encoder.encode(0, 0, piece).value()), piece);
}

TEST(SequencerEncoderTest, CarriesTheMomentOfItsParsing) {
    SequencerEncoder encoder;
    const auto event = encoder.encode(0, 12'345'678'901'234, note(1)).value();
    EXPECT_EQ(event.flags & (SND_SEQ_TIME_STAMP_MASK | SND_SEQ_TIME_MODE_MASK),
              SND_SEQ_TIME_STAMP_REAL | SND_SEQ_TIME_MODE_ABS);
    EXPECT_EQ(event.time.time.tv_sec, 12'345u);
    EXPECT_EQ(event.time.time.tv_nsec, 678'901'234u);
}

TEST(CablePaceTest, At31250BitsASecondBytesGoAheadOfTheCableByWhatTheKernelKeeps) {
    CablePace pace;
    const Clock::time_point start{1h};
    EXPECT_EQ(pace.nextTime(CablePace::bytesAhead, start), start);
    EXPECT_EQ(pace.nextTime(CablePace::bytesAhead + 100, start), start + 32ms);
    pace.sent(CablePace::bytesAhead, start);
    EXPECT_EQ(pace.nextTime(256, start), start + 256 * 320us);
    EXPECT_EQ(pace.nextTime(256, start + 50ms), start + 256 * 320us);
    pace.sent(256, start + 2s); // the cable has long been free
    EXPECT_EQ(pace.nextTime(CablePace::bytesAhead, start + 2s), start + 2s + 256 * 320us);
}

class PacedSenderTest : public testing::Test {
  protected:
    void publish(const Bytes& message) {
        sender.publish(static_cast<std::uint64_t>(Clock::now().time_since_epoch().count()), message);
    }

    /// The messages that are sent, up to `last`: the pieces of System Exclusive joined.
    std::vector<Bytes> until(const Bytes& last) {
        std::vector<Bytes> messages;
        Bytes pending;
        while (messages.empty() || messages.back() != last) {
            const Bytes bytes = pieces.next().value_or(Bytes{});
            if (bytes.empty()) return {};
            EXPECT_LE(bytes.size(), PacedSender::pieceSize);
            if (bytes[0] > 0xF7) { // real-time, it may stand between pieces
                messages.push_back(bytes);
                continue;
            }
            EXPECT_TRUE(pending.empty() || bytes[0] < 0x80 || bytes[0] == 0xF7) << "between two pieces";
            pending.insert(pending.end(), bytes.begin(), bytes.end());
            if (pending[0] == 0xF0 && pending.back() != 0xF7) continue;
            messages.push_back(std::exchange(pending, {}));
        }
        return messages;
    }

    test::FakeLog log;                    // written by the sender's thread; read when that is idle
    std::atomic<bool> isHardware = false; // the one subscriber
    std::atomic<int> room = 200;
    test::Reports<Bytes> pieces;
    PacedSender sender{[this](std::uint64_t, std::span<const std::uint8_t> bytes) {
                           pieces.add({bytes.begin(), bytes.end()});
                       },
                       [this] {
                           return std::vector<Subscriber>{
                               {.client = 128, .tellsRoom = !isHardware, .room = room, .size = 200}};
                       },
                       log};
};

TEST_F(PacedSenderTest, WhatNeedNotWaitIsSentBeforePublishReturns) {
    for (const Bytes& message :
         std::vector<Bytes>{note(1), systemExclusive(256), {0xF8}, systemExclusive(3), {0xC0, 5}}) {
        publish(message);
        EXPECT_FALSE(pieces.isEmpty());
        EXPECT_EQ(until(message), std::vector<Bytes>{message});
    }
    for (const Bytes& message : std::vector<Bytes>{{}, {0xF0}, {0xF0, 1}, {0xF7}, {1, 2}})
        publish(message); // no whole messages
    publish(note(2));
    EXPECT_EQ(until(note(2)), std::vector<Bytes>{note(2)});
}

TEST_F(PacedSenderTest, HardwareGetsExclusiveAtTheCablesPaceInOrderAndRealTimeDoesNotWait) {
    isHardware = true;
    const auto start = Clock::now();
    std::vector<Bytes> expected{{0xF8}, systemExclusive(4'096)}; // 16 pieces, of which 8 wait for the cable
    publish(expected[1]);
    publish(expected[0]);
    for (std::size_t i = 0; i < 200; ++i)
        publish(expected.emplace_back(note(i)));
    EXPECT_EQ(until(expected.back()), expected);
    EXPECT_GE(Clock::now() - start, CablePace::byteTime * (4'096 - CablePace::bytesAhead));
}

TEST_F(PacedSenderTest, ProgramsGetExclusiveAsTheyHaveRoomAndOneThatStopsReadingIsWaitedForOnce) {
    const auto took = [this] {
        const auto start = Clock::now();
        publish(systemExclusive(31'000)); // ten seconds of a cable, and so it would be dropped
        publish(note(1));
        EXPECT_EQ(until(note(1)), (std::vector<Bytes>{systemExclusive(31'000), note(1)}));
        return Clock::now() - start;
    };
    for (int round = 0; round < 2; ++round) {
        took();
        room = 20;
        EXPECT_GE(took(), 100ms) << "it may just be slow, if it has read before";
        auto least = took();
        for (int i = 0; i < 10; ++i)
            least = std::min(least, took());
        EXPECT_LT(least, 100ms) << "it is waited for again";
        room = 200;
    }
}

TEST_F(PacedSenderTest, ExclusiveThatCannotBeSentWithinASecondIsDroppedWholeAndReportedOnce) {
    isHardware = true;
    for (const std::size_t size : {32'000u, 70'000u, 31'000u})
        publish(systemExclusive(size));
    publish(note(1));
    EXPECT_EQ(until(note(1)), std::vector<Bytes>{note(1)});
    publish(systemExclusive(4'000)); // this one can
    publish(systemExclusive(4'000, 1));
    publish(note(2));
    EXPECT_EQ(until(note(2)), (std::vector<Bytes>{systemExclusive(4'000), note(2)}));
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_TRUE(log.lines[0].starts_with("[CoreMIDI] dropped a System Exclusive of "));
}

TEST(AlsaOutputTest, WithoutASequencerOpeningFails) {
    if (AlsaOutput::isAvailable()) GTEST_SKIP() << "there is a sequencer here";
    test::FakeLog log;
    AlsaOutput output{log};
    MIDIObjectRef client = 7, source = 7;
    EXPECT_LT(output.createClient("Tessary Link", client), 0);
    EXPECT_LT(output.createSource(client, "Tessary Link", midiProtocol1_0, source), 0);
    EXPECT_EQ(client, 0u);
    EXPECT_EQ(source, 0u);
}

} // namespace
} // namespace tessary
