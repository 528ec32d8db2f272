// The road of a MIDI message, on real sockets, allocates nothing. A program of its own, because it counts
// every allocation there is.

#include "support/LiveSession.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <thread>

namespace {

thread_local std::size_t allocations = 0; // by this thread

} // namespace

#ifndef __clang__
#pragma GCC diagnostic ignored                                                                               \
    "-Wmismatched-new-delete" // the pair below matches; inlined, it does not look so
#endif
void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
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
                const auto patience = std::chrono::steady_clock::now() + 10s;
                while (output.messages < expected && std::chrono::steady_clock::now() < patience)
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
