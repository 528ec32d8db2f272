#include "Platform/jack/JackOutput.h"

#include "Platform/jack/CycleTime.h"
#include "Platform/jack/MIDIRing.h"
#include "support/Fakes.h"
#include "support/JackServer.h"

#include <gtest/gtest.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

namespace tessary {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* name = "Tessary Link";
constexpr const char* portName = "Tessary Link:Tessary Link";

std::uint64_t hostTime() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

constexpr std::uint64_t milliseconds(std::uint64_t count) {
    return count * 1'000'000;
}

/// F0, `size` - 2 data bytes that begin with a number, F7.
Bytes systemExclusive(std::size_t size, std::size_t number = 0) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{3});
    for (auto& byte : bytes)
        byte &= 0x7F;
    bytes[1] = number & 0x7F;
    bytes[2] = number >> 7 & 0x7F;
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

Bytes note(std::size_t number) {
    return {0x90, static_cast<std::uint8_t>(number & 0x7F), 0x40};
}

/// That the sender had written before the receiver reads is JACK's doing, by way of its server:
/// ThreadSanitizer, which sees this process alone, must not look.
__attribute__((no_sanitize("thread"))) Bytes copyOf(const jack_midi_event_t& event) {
    const volatile std::uint8_t* const from = event.buffer;
    Bytes bytes(event.size);
    for (std::size_t i = 0; i < event.size; ++i)
        bytes[i] = from[i];
    return bytes;
}

/// A JACK client like any music program: it connects to the source as soon as that is there and keeps what
/// arrives.
class Receiver {
  public:
    struct Event {
        double time;          ///< in microseconds of the host time's clock
        double period;        ///< the length of its cycle, in the same
        jack_nframes_t frame; ///< its place in that cycle
        Bytes bytes;
    };

    Receiver() {
        client_ = jack_client_open("receiver", JackNoStartServer, nullptr);
        if (!client_) return;
        port_ = jack_port_register(client_, "in", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
        jack_set_process_callback(client_, process, this);
        jack_set_port_registration_callback(client_, portChanged, this);
        jack_activate(client_);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;
    ~Receiver() {
        if (client_) jack_client_close(client_);
    }

    /// Waits until the source is there, and connects to it.
    bool connect() {
        return await([this] {
            mutex_.unlock(); // libjack calls back from another thread before it returns
            const int status = client_ ? jack_connect(client_, portName, jack_port_name(port_)) : -1;
            mutex_.lock();
            return status == 0;
        });
    }

    /// Waits a moment for a message, and forgets it and what came before it.
    bool hears(const Bytes& message) {
        std::unique_lock lock(mutex_);
        const bool isHeard = changed_.wait_for(
            lock, 100ms, [&] { return !events_.empty() && events_.back().bytes == message; });
        events_.clear();
        return isHeard;
    }

    /// Waits for `count` events in all, and returns what has arrived by then.
    std::vector<Event> events(std::size_t count) {
        await([&] { return events_.size() >= count; });
        const std::lock_guard lock(mutex_);
        return events_;
    }

    std::vector<Bytes> messages(std::size_t count) {
        std::vector<Bytes> messages;
        for (auto& event : events(count))
            messages.push_back(std::move(event.bytes));
        return messages;
    }

  private:
    bool await(const std::function<bool()>& condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 15s, condition);
    }

    static void portChanged(jack_port_id_t, int, void* argument) {
        auto& self = *static_cast<Receiver*>(argument);
        const std::lock_guard lock(self.mutex_);
        self.changed_.notify_all();
    }

    static int process(jack_nframes_t frames, void* argument) {
        auto& self = *static_cast<Receiver*>(argument);
        void* const buffer = jack_port_get_buffer(self.port_, frames);
        jack_nframes_t cycle = 0;
        jack_time_t start = 0;
        jack_time_t next = 0;
        float period = 0;
        jack_get_cycle_times(self.client_, &cycle, &start, &next, &period);
        // JACK's own clock runs apart. Should this thread be interrupted here, events seem late, never early.
        const auto jackNow = static_cast<double>(jack_get_time());
        const double begin = static_cast<double>(hostTime()) / 1'000 - (jackNow - static_cast<double>(start));
        const std::lock_guard lock(self.mutex_);
        jack_midi_event_t event;
        for (jack_nframes_t i = 0; jack_midi_event_get(&event, buffer, i) == 0; ++i) {
            const double time = begin + double{period} * event.time / frames;
            self.events_.push_back({time, double{period}, event.time, copyOf(event)});
            self.changed_.notify_all();
        }
        return 0;
    }

    jack_client_t* client_ = nullptr;
    jack_port_t* port_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

class JackOutputTest : public testing::Test {
  protected:
    static void SetUpTestSuite() { server = std::make_unique<JackServer>(); }
    static void TearDownTestSuite() { server.reset(); }

    void SetUp() override {
        if (!JackServer::isInstalled()) GTEST_SKIP() << "jackd is not installed";
    }
    void TearDown() override {
        output.reset();
        server->end(SIGTERM);
    }

    void openSource() {
        ASSERT_TRUE(server->start());
        ASSERT_EQ(output->createClient(name, client), 0);
        ASSERT_EQ(output->createSource(client, name, midiProtocol1_0, source), 0);
        ASSERT_NE(client, 0u);
        ASSERT_NE(source, 0u);
    }

    /// Connects the receiver, and waits until the connection carries: JACK lets it take effect some cycles
    /// later.
    bool connect(Receiver& receiver) {
        if (!receiver.connect()) return false;
        for (std::uint8_t i = 0; i < 100; ++i) {
            publish({0xF3, i});
            if (receiver.hears({0xF3, i})) return true;
        }
        return false;
    }

    void publish(const Bytes& message, std::uint64_t time = hostTime()) {
        output->publish(source, time, message);
    }

    static inline std::unique_ptr<JackServer> server;
    tessary::test::FakeLog log;
    std::unique_ptr<JackOutput> output = std::make_unique<JackOutput>(log);
    MIDIObjectRef client = 0;
    MIDIObjectRef source = 0;
};

TEST_F(JackOutputTest, NoServerIsAFailureAndNotWaitedFor) {
    client = source = 7;
    EXPECT_LT(output->createClient(name, client), 0);
    EXPECT_EQ(client, 0u);
    EXPECT_LT(output->createSource(client, name, midiProtocol1_0, source), 0);
    EXPECT_EQ(source, 0u);

    openSource(); // a failure is not for good
}

TEST_F(JackOutputTest, WholeMessagesArriveUnchangedAndInOrder) {
    openSource();
    Receiver receiver;
    ASSERT_TRUE(connect(receiver));
    const std::vector<Bytes> fitting = {
        note(1), {0xF8},  systemExclusive(10'000), {0xC0, 5}, systemExclusive(32'720),
        {0xFE},  note(2), systemExclusive(3'000),  note(3)};
    for (const Bytes& message : fitting) {
        publish(systemExclusive(32'721)); // no JACK port takes it, and its neighbours must not suffer
        publish(message);
    }
    EXPECT_EQ(receiver.messages(fitting.size()), fitting);
}

TEST_F(JackOutputTest, EveryMessageIsDelayedByOnePeriod) {
    openSource();
    Receiver receiver;
    ASSERT_TRUE(connect(receiver));
    // Stamped ahead and 0.7 periods apart, so that each waits for its cycle, whenever this thread is
    // scheduled.
    const std::uint64_t first = hostTime() + milliseconds(30);
    const std::uint64_t step = 3'733'000;
    constexpr std::size_t count = 200;
    for (std::size_t i = 0; i < count; ++i)
        publish(note(i), first + i * step);

    const auto events = receiver.events(count);
    ASSERT_EQ(events.size(), count);
    constexpr double tolerance = 2 * 1e6 / JackServer::rate;
    std::size_t late = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const double due = static_cast<double>(first + i * step) / 1'000 + events[i].period;
        EXPECT_GE(events[i].time, due - tolerance) << "event " << i;
        // At frame 0 it may be due to the server, which on a busy machine starts a cycle too late.
        if (events[i].time > due + tolerance && events[i].frame > 0) ++late;
    }
    EXPECT_LE(late, count / 20) << "of which few may be due to an interrupted look at the clocks";
}

TEST_F(JackOutputTest, FullQueueDropsWholeMessagesAndRecovers) {
    openSource();
    Receiver receiver;
    ASSERT_TRUE(connect(receiver));
    server->signal(SIGSTOP);             // nothing is taken from the queue
    constexpr std::size_t count = 8'000; // of 300 bytes: more than twice what the queue holds
    for (std::size_t i = 0; i < count; ++i)
        publish(systemExclusive(300, i));
    server->signal(SIGCONT);
    receiver.events(100); // the queue is being emptied
    publish(note(1));

    std::size_t heard = 100;
    std::vector<Bytes> messages;
    do {
        messages = receiver.messages(++heard);
    } while (messages.size() >= heard && messages.back() != note(1));
    ASSERT_GT(messages.size(), 1'000u);
    ASSERT_LT(messages.size(), count);
    EXPECT_EQ(messages.back(), note(1));
    for (std::size_t i = 0; i + 1 < messages.size(); ++i)
        ASSERT_EQ(messages[i], systemExclusive(300, i));
}

TEST_F(JackOutputTest, SourceReturnsWithTheServerAndPlaysNothingOld) {
    openSource();
    for (int round = 0; round < 2; ++round) {
        server->signal(SIGSTOP); // the first one is still waiting when the server dies
        publish(note(1));
        server->end(SIGKILL);
        publish(note(2));
        ASSERT_TRUE(server->start());
        Receiver receiver;
        ASSERT_TRUE(connect(receiver));
        publish(note(3));
        EXPECT_EQ(receiver.messages(1), (std::vector<Bytes>{note(3)}));
    }
}

TEST_F(JackOutputTest, WhatAServerThatStoodStillFindsTooOldIsDroppedAndCounted) {
    openSource();
    Receiver receiver;
    ASSERT_TRUE(connect(receiver));
    for (const std::size_t number : {1u, 2u, 3u})
        publish(note(number), hostTime() - milliseconds(1'500));
    publish(note(4), hostTime() - milliseconds(500));
    EXPECT_EQ(receiver.messages(1), std::vector<Bytes>{note(4)});
    for (std::size_t count = 2; log.lines.empty() && count < 100; ++count) {
        publish(note(5));
        receiver.messages(count);
    }
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], "[CoreMIDI] dropped 3 messages that JACK had not played within a second");
}

TEST_F(JackOutputTest, AServerThatHangsAtLaunchIsNotWaitedForAndGetsItsSourceLater) {
    ASSERT_TRUE(server->start());
    server->signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(output->createClient(name, client), 0);
    EXPECT_EQ(output->createSource(client, name, midiProtocol1_0, source), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
    server->signal(SIGCONT);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    const std::string isListed = std::string("jack_lsp 2>/dev/null | grep -qx '") + portName + "'";
    bool isThere = false;
    while (!isThere && std::chrono::steady_clock::now() < deadline)
        isThere = std::system(isListed.c_str()) == 0; // NOLINT: a fixed command
    EXPECT_TRUE(isThere);
}

TEST_F(JackOutputTest, EndsQuicklyWhateverTheServerDoesAndWhileMessagesCome) {
    const std::vector<std::function<void()>> disturbances = {
        [] {},                                                             // it lives
        [] { server->signal(SIGSTOP); },                                   // it hangs
        [] { server->end(SIGKILL); },                                      // it dies at this moment
        [] { server->end(SIGKILL), std::this_thread::sleep_for(1200ms); }, // it has been waited for
    };
    for (std::size_t i = 0; i < disturbances.size(); ++i) {
        ASSERT_NO_FATAL_FAILURE(openSource());
        std::atomic<bool> isDone = false;
        std::thread network([&] {
            while (!isDone)
                publish(note(1));
        });
        disturbances[i]();
        const auto start = std::chrono::steady_clock::now();
        output->disposeSource(source);
        output->disposeClient(client);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms) << "disturbance " << i;
        isDone = true;
        network.join();

        server->signal(SIGCONT);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (output->createClient(name, client) == -EBUSY && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms); // the server that hung has yet to answer the last one's end
        output->disposeClient(client);
    }
}

TEST(CycleTimeTest, AMessageIsDueOnePeriodLaterAndNeverHeldByTimesThatAreNotTrue) {
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
    const Bytes large = systemExclusive(256 - sizeof(MIDIRing::Head));
    EXPECT_FALSE(ring.front());
    EXPECT_FALSE(ring.push(1, systemExclusive(large.size() + 1)));
    for (std::uint64_t round = 1; round < 100; ++round) {
        // The odd size moves the end of the ring through every byte of head and message.
        const std::vector<Bytes> messages = {large, systemExclusive(37), note(1)};
        for (const Bytes& message : messages) {
            ASSERT_TRUE(ring.push(round, message));
            ASSERT_FALSE(ring.push(round, large));
            const auto head = ring.front();
            ASSERT_TRUE(head);
            Bytes bytes(head->length);
            ring.copyFront(*head, bytes.data());
            ring.pop(*head);
            ASSERT_EQ(head->time, round);
            ASSERT_EQ(bytes, message);
        }
    }
    ASSERT_TRUE(ring.push(1, note(1)));
    ring.clear();
    EXPECT_FALSE(ring.front());
    EXPECT_TRUE(ring.push(1, large));
}

TEST(MIDIRingTest, HandsOverBetweenTwoThreads) {
    MIDIRing ring(1024);
    constexpr std::uint64_t count = 100'000;
    std::thread network([&] {
        for (std::uint64_t i = 0; i < count; ++i) {
            const Bytes message = systemExclusive(3 + i % 90, i);
            while (!ring.push(i, message))
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
        if (head->time != i || bytes != systemExclusive(3 + i % 90, i)) ++wrong;
    }
    network.join();
    EXPECT_EQ(wrong, 0u);
}

} // namespace
} // namespace tessary
