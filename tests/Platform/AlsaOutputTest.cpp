#include "Platform/alsa/AlsaOutput.h"

#include "Platform/alsa/PacedSender.h"
#include "Platform/alsa/SequencerEncoder.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <malloc.h>
#include <mutex>
#include <numeric>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <vector>

namespace tessary {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr const char* name = "Tessary Link";

std::uint64_t hostTime() {
    return static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
}

Bytes systemExclusive(std::size_t size, std::size_t number = 0) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<std::uint8_t>(number));
    for (auto& byte : bytes)
        byte &= 0x7F;
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

Bytes note(std::size_t number) {
    return {0x90, static_cast<std::uint8_t>(number & 0x7F), static_cast<std::uint8_t>(number >> 7 & 0x7F)};
}

/// The bytes of an event, as the programs that listen make them of it: without running status.
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

/// Every message of one to three bytes that MIDI 1.0 defines, with data at the ends and in the middle.
std::vector<Bytes> everyShortMessage() {
    const std::array<std::uint8_t, 4> values{0, 1, 64, 127};
    std::vector<Bytes> messages;
    for (unsigned status = 0x80; status <= 0xFF; ++status) {
        const auto first = static_cast<std::uint8_t>(status);
        const unsigned kind = status & 0xF0;
        const bool isUndefined = status == 0xF4 || status == 0xF5 || status == 0xF9 || status == 0xFD;
        if (isUndefined || status == 0xF0 || status == 0xF7) continue;
        const bool hasOne = kind == 0xC0 || kind == 0xD0 || status == 0xF1 || status == 0xF3;
        if (kind == 0xF0 && status != 0xF2 && !hasOne) {
            messages.push_back({first});
            continue;
        }
        for (const auto value : values) {
            if (hasOne) messages.push_back({first, value});
            for (const auto other : values)
                if (!hasOne) messages.push_back({first, value, other});
        }
    }
    return messages;
}

TEST(SequencerEncoderTest, EveryDefinedMessageComesBackByteForByte) {
    SequencerEncoder encoder;
    for (const Bytes& message : everyShortMessage()) {
        const auto event = encoder.encode(0, 0, message);
        ASSERT_TRUE(event) << testing::PrintToString(message);
        EXPECT_EQ(bytesOf(*event), message);
    }
    for (const Bytes& exclusive :
         {systemExclusive(3), systemExclusive(256), Bytes{0xF0, 0xF7}, Bytes{1, 2, 3}, Bytes{0xF7}}) {
        const auto event = encoder.encode(0, 0, exclusive);
        ASSERT_TRUE(event);
        EXPECT_EQ(bytesOf(*event), exclusive);
    }
}

TEST(SequencerEncoderTest, WhatTheSequencerCannotCarryIsNoEvent) {
    SequencerEncoder encoder;
    const std::vector<Bytes> messages{{},         {0xF4},    {0xF5},          {0xF9},          {0xFD},
                                      {0x90, 60}, {0xC0},    {0xC0, 1, 2},    {0xE0, 1},       {0xF8, 0},
                                      {0xF2, 1},  {0xF6, 1}, {0x90, 60, 128}, {0xB0, 0x90, 1}, {0xD0, 0xFF}};
    for (const Bytes& message : messages) {
        EXPECT_FALSE(encoder.encode(0, 0, message)) << testing::PrintToString(message);
        const auto next = encoder.encode(0, 0, note(1));
        ASSERT_TRUE(next);
        EXPECT_EQ(bytesOf(*next), note(1)) << "after " << testing::PrintToString(message);
    }
}

/// Keeps what a sender sends, and when.
class Listener {
  public:
    struct Event {
        Clock::time_point time;
        Bytes bytes;
    };

    PacedSender::Send send() {
        return [this](std::uint64_t, std::span<const std::uint8_t> bytes) {
            const std::lock_guard lock(mutex_);
            events_.push_back({Clock::now(), {bytes.begin(), bytes.end()}});
            arrived_.notify_all();
        };
    }

    /// Waits for `last`, and returns everything so far.
    std::vector<Event> until(const Bytes& last) {
        std::unique_lock lock(mutex_);
        arrived_.wait_for(lock, 20s, [&] {
            return std::any_of(events_.begin(), events_.end(),
                               [&](const Event& event) { return event.bytes == last; });
        });
        return events_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Event> events_;
};

/// The pieces of System Exclusive joined, everything else left alone.
std::vector<Bytes> joined(const std::vector<Listener::Event>& events) {
    std::vector<Bytes> messages;
    Bytes pending;
    for (const auto& [time, bytes] : events) {
        EXPECT_LE(bytes.size(), PacedSender::pieceSize);
        if (bytes[0] > 0xF0 && bytes[0] != 0xF7) {
            messages.push_back(bytes); // real-time, it may stand between pieces
            continue;
        }
        EXPECT_TRUE(pending.empty() || bytes[0] < 0x80 || bytes[0] == 0xF7) << "in the middle of another one";
        pending.insert(pending.end(), bytes.begin(), bytes.end());
        if (pending[0] == 0xF0 && pending.back() != 0xF7) continue;
        messages.push_back(std::move(pending));
        pending.clear();
    }
    EXPECT_TRUE(pending.empty());
    return messages;
}

/// Those who listen to a sender, as the sequencer would describe them.
struct Audience {
    PacedSender::Subscribers present() {
        return [this] {
            return std::vector<Subscriber>{
                {.client = 128, .tellsRoom = !isHardware, .room = room, .size = 200}};
        };
    }
    std::atomic<bool> isHardware = false;
    std::atomic<int> room = 200;
};

class PacedSenderTest : public testing::Test {
  protected:
    void publish(const Bytes& message) { sender.publish(hostTime(), message); }

    test::FakeLog log; // of the sender's thread; read when that is idle
    Audience audience;
    Listener listener;
    PacedSender sender{listener.send(), audience.present(), log};
};

TEST_F(PacedSenderTest, SendsAtOnceWhatNeedNotWait) {
    const std::vector<Bytes> messages{note(1), systemExclusive(256), {0xF8}, systemExclusive(3), {0xC0, 5}};
    for (const Bytes& message : messages) {
        publish(message);
        EXPECT_EQ(listener.until(message).back().bytes, message);
    }
    for (const Bytes& message : {Bytes{}, Bytes{0xF0}, Bytes{0xF0, 1}, Bytes{0xF7}, Bytes{1, 2}})
        publish(message); // nothing that a listener could make sense of
    publish(note(2));
    EXPECT_EQ(listener.until(note(2)).size(), messages.size() + 1);
}

TEST_F(PacedSenderTest, ToHardwareExclusiveGoesAtTheCablesPaceInOrderAndRealTimeDoesNotWait) {
    audience.isHardware = true;
    const auto start = Clock::now();
    publish(note(1));
    publish(systemExclusive(4'096)); // sixteen pieces; eight wait for the cable
    publish({0xF8});
    EXPECT_LT(Clock::now() - start, 400ms) << "publishing waits for nothing";
    std::vector<Bytes> expected{note(1), systemExclusive(4'096)};
    for (std::size_t i = 0; i < 200; ++i)
        publish(expected.emplace_back(note(1'000 + i)));

    const auto events = listener.until(expected.back());
    auto messages = joined(events);
    const auto tick = std::find(messages.begin(), messages.end(), Bytes{0xF8});
    ASSERT_NE(tick, messages.end());
    EXPECT_EQ(tick - messages.begin(), 1) << "within the System Exclusive";
    messages.erase(tick);
    EXPECT_EQ(messages, expected);
    std::size_t bytes = 0;
    for (const auto& event : events) {
        if (event.bytes[0] >= 0x80 && event.bytes[0] != 0xF0) continue;
        bytes += event.bytes.size();
        if (bytes <= CablePace::bytesAhead) continue;
        EXPECT_GE(event.time - start, CablePace::byteTime * (bytes - CablePace::bytesAhead));
    }
    EXPECT_LT(events.back().time - start, 1500ms);
}

TEST_F(PacedSenderTest, ToProgramsExclusiveGoesAsTheyHaveRoomAndOneThatStopsReadingIsNotWaitedForTwice) {
    const auto took = [this](const Bytes& last) {
        const auto start = Clock::now();
        publish(systemExclusive(31'000));
        publish(last);
        EXPECT_EQ(joined(listener.until(last)).back(), last);
        return Clock::now() - start;
    };
    EXPECT_LT(took(note(1)), 500ms) << "ten seconds at a cable's pace";
    audience.room = 20;
    EXPECT_GE(took(note(2)), 100ms) << "it may just be slow";
    EXPECT_LT(took(note(3)), 50ms);
    audience.room = 200;
    EXPECT_LT(took(note(4)), 500ms);
    audience.room = 20;
    EXPECT_GE(took(note(5)), 100ms) << "it had read";
}

TEST_F(PacedSenderTest, WhatCannotBeOutWithinASecondIsDroppedWholeAndSaidOnce) {
    audience.isHardware = true;
    const auto start = Clock::now();
    for (const std::size_t size : {32'000u, 70'000u, 31'000u})
        publish(systemExclusive(size));
    publish(note(1));
    EXPECT_EQ(joined(listener.until(note(1))), std::vector<Bytes>{note(1)});
    publish(systemExclusive(4'000)); // this one can
    publish(systemExclusive(4'000, 1));
    publish(note(2));
    const auto messages = joined(listener.until(note(2)));
    EXPECT_EQ(messages, (std::vector<Bytes>{note(1), systemExclusive(4'000), note(2)}));
    EXPECT_LT(Clock::now() - start, 2s);
    EXPECT_EQ(log.lines.size(), 2u);
    EXPECT_TRUE(log.lines[0].starts_with("[CoreMIDI] dropped a System Exclusive of "));
}

/// A sequencer client like any music program.
class MusicProgram {
  public:
    MusicProgram() {
        if (snd_seq_open(&sequencer_, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK) < 0) return;
        snd_seq_set_client_name(sequencer_, "subscriber");
        port_ =
            snd_seq_create_simple_port(sequencer_, "in", SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
                                       SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    }
    MusicProgram(const MusicProgram&) = delete;
    MusicProgram& operator=(const MusicProgram&) = delete;
    ~MusicProgram() {
        if (sequencer_) snd_seq_close(sequencer_);
    }

    /// Connects to the source by its name.
    bool connect() {
        snd_seq_addr_t source;
        return snd_seq_parse_address(sequencer_, &source, "Tessary Link:0") == 0 &&
               snd_seq_connect_from(sequencer_, port_, source.client, source.port) == 0;
    }

    /// The next event; absent if none comes. What it refers to is valid until the next call.
    std::optional<snd_seq_event_t> next(std::chrono::milliseconds patience = 10s) {
        const auto deadline = Clock::now() + patience;
        for (;;) {
            snd_seq_event_t* event = nullptr;
            const int status = snd_seq_event_input(sequencer_, &event);
            if (status >= 0) {
                if (event->type == SND_SEQ_EVENT_PORT_SUBSCRIBED) continue; // the connection itself
                return *event;
            }
            if (status != -EAGAIN) return std::nullopt;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left < 0ms) return std::nullopt;
            pollfd file{};
            snd_seq_poll_descriptors(sequencer_, &file, 1, POLLIN);
            poll(&file, 1, static_cast<int>(left.count()) + 1);
        }
    }

    snd_seq_t* sequencer() const { return sequencer_; }

  private:
    snd_seq_t* sequencer_ = nullptr;
    int port_ = -1;
};

class AlsaOutputTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!AlsaOutput::isAvailable()) GTEST_SKIP() << "no ALSA sequencer here";
        ASSERT_EQ(output.createClient(name, client), 0);
        ASSERT_EQ(output.createSource(client, name, midiProtocol1_0, source), 0);
        ASSERT_NE(client, 0u);
        ASSERT_NE(source, 0u);
    }

    void publish(const Bytes& message, std::uint64_t time = hostTime()) {
        output.publish(source, time, message);
    }

    test::FakeLog log;
    AlsaOutput output{log};
    MIDIObjectRef client = 0;
    MIDIObjectRef source = 0;
};

TEST(AlsaOutputWithoutSequencerTest, IsAFailureAndNotWaitedFor) {
    if (AlsaOutput::isAvailable()) GTEST_SKIP() << "there is a sequencer here";
    test::FakeLog log;
    AlsaOutput output{log};
    MIDIObjectRef client = 7;
    MIDIObjectRef source = 7;
    EXPECT_LT(output.createClient(name, client), 0);
    EXPECT_EQ(client, 0u);
    EXPECT_LT(output.createSource(client, name, midiProtocol1_0, source), 0);
    EXPECT_EQ(source, 0u);
}

TEST_F(AlsaOutputTest, IsAMidiPortUnderItsNameEachTime) {
    for (int run = 0; run < 3; ++run) {
        const MusicProgram subscriber;
        snd_seq_addr_t address;
        ASSERT_EQ(snd_seq_parse_address(subscriber.sequencer(), &address, "Tessary Link:Tessary Link"), 0);
        EXPECT_EQ(address.port, 0);
        snd_seq_port_info_t* port = nullptr;
        snd_seq_port_info_alloca(&port);
        ASSERT_EQ(snd_seq_get_any_port_info(subscriber.sequencer(), address.client, 0, port), 0);
        EXPECT_EQ(std::string(snd_seq_port_info_get_name(port)), name);
        EXPECT_EQ(snd_seq_port_info_get_capability(port), SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ);
        EXPECT_EQ(snd_seq_port_info_get_type(port),
                  SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_SOFTWARE | SND_SEQ_PORT_TYPE_PORT);
        EXPECT_EQ(snd_seq_port_info_get_midi_channels(port), 16);
        MIDIObjectRef other = 7;
        EXPECT_EQ(output.createSource(client, name, midiProtocol1_0, other), -EBUSY);
        EXPECT_EQ(other, 0u);

        output.disposeSource(source);
        EXPECT_LT(snd_seq_get_any_port_info(subscriber.sequencer(), address.client, 0, port), 0);
        if (run == 1) {
            output.disposeClient(client);
            ASSERT_EQ(output.createClient(name, client), 0);
        }
        ASSERT_EQ(output.createSource(client, name, midiProtocol1_0, source), 0);
    }
}

TEST_F(AlsaOutputTest, EveryMessageArrivesByteForByteWithTheMomentOfItsParsing) {
    MusicProgram subscriber;
    ASSERT_TRUE(subscriber.connect());
    const std::uint64_t time = 12'345'678'901'234;
    for (const Bytes& message : everyShortMessage()) {
        publish({0xF9}); // its neighbours must not suffer
        publish(message, time);
        const auto event = subscriber.next();
        ASSERT_TRUE(event) << testing::PrintToString(message);
        EXPECT_EQ(bytesOf(*event), message);
        EXPECT_EQ(event->flags & SND_SEQ_TIME_STAMP_MASK, SND_SEQ_TIME_STAMP_REAL);
        EXPECT_EQ(event->time.time.tv_sec, 12'345u);
        EXPECT_EQ(event->time.time.tv_nsec, 678'901'234u);
    }
}

TEST_F(AlsaOutputTest, AllocatesNothingOnceOpen) {
    MusicProgram subscriber;
    ASSERT_TRUE(subscriber.connect());
    const Bytes exclusive = systemExclusive(256);
    const Bytes chord = note(1);
    const auto before = mallinfo2();
    output.publish(source, 1, exclusive);
    for (std::uint64_t i = 0; i < 100; ++i)
        output.publish(source, i, chord);
    const auto after = mallinfo2();
    EXPECT_EQ(after.uordblks, before.uordblks);
    EXPECT_EQ(after.arena, before.arena);
}

} // namespace
} // namespace tessary
