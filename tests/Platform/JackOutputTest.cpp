// What JACK clients receive from the program is tested in tests/system/test_output.py.
#include "Platform/jack/JackOutput.h"
#include "Platform/jack/CycleTime.h"
#include "Platform/jack/JackLibrary.h"
#include "Platform/jack/MIDIRing.h"
#include "support/Await.h"
#include "support/Fakes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace tessary {

/// Replaces libjack in these tests: a server with which everything succeeds, until it is lost.
namespace fake {

test::Reports<std::chrono::steady_clock::time_point> closings;
JackShutdownCallback serverLost = nullptr;
void* argument = nullptr;
int object = 0;

jack_client_t* open(const char*, jack_options_t, jack_status_t*, ...) {
    return reinterpret_cast<jack_client_t*>(&object);
}

} // namespace fake

const JackLibrary* JackLibrary::load() {
    static JackLibrary jack;
    jack.set_error_function = jack.set_info_function = [](void (*)(const char*)) {};
    jack.client_open = fake::open;
    jack.client_close = [](jack_client_t*) {
        fake::closings.add(std::chrono::steady_clock::now());
        return 0;
    };
    jack.on_shutdown = [](jack_client_t*, JackShutdownCallback callback, void* data) {
        fake::serverLost = callback;
        fake::argument = data;
    };
    jack.set_process_callback = [](jack_client_t*, JackProcessCallback, void*) { return 0; };
    jack.activate = [](jack_client_t*) { return 0; };
    jack.port_register = [](jack_client_t*, const char*, const char*, unsigned long, unsigned long) {
        return reinterpret_cast<jack_port_t*>(&fake::object);
    };
    return &jack;
}

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

/// A message of that size whose bytes depend on its number and their place.
Bytes message(std::size_t size, std::size_t number) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::uint8_t>(number + i);
    return bytes;
}

TEST(CycleTimeTest, AMessageIsDueOnePeriodLaterAndIsNotHeldBackByImplausibleTimes) {
    const CycleTime cycle{.start = 1'000'000, .period = 20'000, .frames = 960};
    EXPECT_EQ(cycle.frameOf(980'000), 0u);
    EXPECT_EQ(cycle.frameOf(990'000), 480u);
    EXPECT_EQ(cycle.frameOf(999'999), 959u);
    EXPECT_EQ(cycle.frameOf(900'000), 0u); // overdue
    EXPECT_EQ(cycle.frameOf(1'000'000), std::nullopt);
    EXPECT_EQ(cycle.frameOf(1'019'999), std::nullopt);
    EXPECT_EQ(cycle.frameOf(1'119'999), std::nullopt);
    EXPECT_EQ(cycle.frameOf(1'600'000), 0u); // the server was held up for 600 ms
    EXPECT_EQ((CycleTime{.start = 5, .period = 0, .frames = 960}.frameOf(1'000'000)), 0u);
}

TEST(MIDIRingTest, TakesWholeMessagesOrNothing) {
    MIDIRing ring(256);
    const Bytes large = message(256 - sizeof(MIDIRing::Head), 1);
    EXPECT_FALSE(ring.front());
    EXPECT_FALSE(ring.push(1, message(large.size() + 1, 1)));
    for (std::uint64_t round = 1; round < 100; ++round) {
        // The odd size moves the end of the ring through every byte of head and message.
        for (const Bytes& pushed : {large, message(37, round), message(3, round)}) {
            ASSERT_TRUE(ring.push(round, pushed));
            ASSERT_FALSE(ring.push(round, large));
            const auto head = ring.front();
            ASSERT_TRUE(head);
            Bytes bytes(head->length);
            ring.copyFront(*head, bytes.data());
            ring.pop(*head);
            ASSERT_EQ(head->time, round);
            ASSERT_EQ(bytes, pushed);
        }
    }
    ASSERT_TRUE(ring.push(1, message(3, 1)));
    ring.clear();
    EXPECT_FALSE(ring.front());
    EXPECT_TRUE(ring.push(1, large));
}

TEST(MIDIRingTest, HandsOverBetweenTwoThreads) {
    MIDIRing ring(1024);
    constexpr std::uint64_t count = 100'000;
    std::thread network([&] {
        for (std::uint64_t i = 0; i < count; ++i) {
            const Bytes pushed = message(3 + i % 90, i);
            while (!ring.push(i, pushed))
                std::this_thread::yield();
        }
    });
    std::uint64_t wrong = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        auto head = ring.front();
        for (; !head; head = ring.front())
            std::this_thread::yield();
        Bytes bytes(head->length);
        ring.copyFront(*head, bytes.data());
        ring.pop(*head);
        if (head->time != i || bytes != message(3 + i % 90, i)) ++wrong;
    }
    network.join();
    EXPECT_EQ(wrong, 0u);
}

TEST(JackOutputTest, ClosesTheClientOfALostServerAfterTheServersLastNotifications) {
    test::FakeLog log;
    JackOutput output(log);
    MIDIObjectRef client = 0;
    MIDIObjectRef source = 0;
    ASSERT_EQ(output.createClient("Client", client), 0);
    ASSERT_EQ(output.createSource(client, "Source", midiProtocol1_0, source), 0);
    const auto lost = std::chrono::steady_clock::now();
    fake::serverLost(fake::argument);
    EXPECT_GE(fake::closings.next().value() - lost, 1s)
        << "libjack may still be notified of clients that leave";
}

} // namespace
} // namespace tessary
