// On the path of a MIDI message nothing is allocated. A program of its own, because it counts every
// allocation.

#include "Platform/alsa/AlsaOutput.h"
#include "support/LiveSession.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace {

thread_local std::size_t allocations = 0; // by this thread

} // namespace

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* malloc(std::size_t size) noexcept {
    ++allocations;
    return __libc_malloc(size);
}

using namespace tessary;
using namespace tessary::test;

namespace {

/// Counts messages, and the allocations of the network thread so far.
struct CountingOutput : FakeMIDIOutput {
    void publish(MIDIObjectRef, std::uint64_t, std::span<const std::uint8_t>) override {
        allocationsSeen = allocations;
        ++messages;
    }
    std::atomic<int> messages = 0;
    std::atomic<std::size_t> allocationsSeen = 0;
};

} // namespace

TEST(AllocationTest, FromDatagramToOutputNothingIsAllocated) {
    CountingOutput output;
    LiveSession session(output);
    const std::array<std::pair<Bytes, int>, 5> sections{{{"03 903C64"_packet, 1},
                                                         {"0B 903C64 00 4064 00 4364 00 F8"_packet, 4},
                                                         {"09 F07E010203F80405F7"_packet, 2},
                                                         {"04 F00102F0"_packet, 0},
                                                         {"04 F70304F7"_packet, 1}}};
    int expected = 0;
    const auto play = [&](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            for (const auto& [section, messages] : sections) {
                expected += messages;
                session.play(section);
                const auto deadline = std::chrono::steady_clock::now() + 10s;
                while (output.messages < expected && std::chrono::steady_clock::now() < deadline)
                    std::this_thread::yield();
            }
        }
    };
    play(16); // the first ones fill the caches
    const std::size_t before = output.allocationsSeen;
    play(500);
    EXPECT_EQ(output.messages, expected);
    EXPECT_EQ(output.allocationsSeen, before);
}

TEST(AllocationTest, FromOutputToSequencerNothingIsAllocated) {
    if (!AlsaOutput::isAvailable()) GTEST_SKIP() << "no ALSA sequencer here";
    FakeLog log;
    AlsaOutput output(log);
    MIDIObjectRef client = 0, source = 0;
    ASSERT_EQ(output.createClient("Tessary Link", client), 0);
    ASSERT_EQ(output.createSource(client, "Tessary Link", midiProtocol1_0, source), 0);
    Bytes exclusive(256, 1);
    exclusive.front() = 0xF0;
    exclusive.back() = 0xF7;
    const Bytes note = "903C64"_packet;
    const std::size_t before = allocations;
    output.publish(source, 1, exclusive);
    output.publish(source, 1, note);
    EXPECT_EQ(allocations, before);
}
