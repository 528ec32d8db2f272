// A JACK client that counts the messages and bytes from the program's source, and prints both when they have
// changed.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <jack/jack.h>
#include <jack/midiport.h>
#include <thread>

namespace {

struct Counter {
    jack_port_t* port = nullptr;
    std::atomic<unsigned long long> messages = 0;
    std::atomic<unsigned long long> bytes = 0;
};

int count(jack_nframes_t frames, void* argument) {
    auto& counter = *static_cast<Counter*>(argument);
    void* const buffer = jack_port_get_buffer(counter.port, frames);
    jack_midi_event_t event;
    for (jack_nframes_t i = 0; jack_midi_event_get(&event, buffer, i) == 0; ++i) {
        ++counter.messages;
        counter.bytes += event.size;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    jack_client_t* const client = jack_client_open("counter", JackNoStartServer, nullptr);
    if (argc != 2 || !client) return 1;
    Counter counter;
    counter.port = jack_port_register(client, "input", JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    jack_set_process_callback(client, count, &counter);
    jack_activate(client);
    while (jack_connect(client, argv[1], jack_port_name(counter.port)) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::puts("counting");
    std::fflush(stdout);
    for (unsigned long long printed = 0;; std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
        const unsigned long long messages = counter.messages;
        if (messages == printed) continue;
        printed = messages;
        std::printf("%llu messages, %llu bytes\n", messages, counter.bytes.load());
        std::fflush(stdout);
    }
}
