// A device that measures the latency of its messages to several receivers. It sends to them alternately,
// datagram by datagram, and accepts the program's invitations.
//
//     latency_bench ADDRESS RECEIVER-ADDRESS SECONDS KINDS SIDE...
//
// KINDS is a list of notes, chords and controllers, separated by commas. A SIDE is NAME,STAMPS,PORT. PORT is
// the receiver's port, or 0 for the session that the program opens. STAMPS is a file in which the receiver
// records when each message reached its output, or the name of an ALSA sequencer client, to which this
// process then subscribes. Prints "open", "running", and for each kind and side a line of JSON: nanoseconds
// to the first and to the last message of each datagram.

#include "stamps.h"

#include <alsa/asoundlib.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Kind {
    const char* name;
    unsigned char status;
    int messages; ///< per datagram
    double rate;  ///< datagrams per second to each side
};
constexpr std::array kinds{Kind{"notes", 0x9F, 1, 400}, Kind{"chords", 0x9F, 10, 100},
                           Kind{"controllers", 0xBF, 1, 1000}};

struct Side {
    std::string name, stampsName;
    sockaddr_in to{};
    std::int64_t* stamps = nullptr;
    int client = -1; ///< number of its sequencer client
    std::vector<std::int64_t> sent{};
};

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "latency_bench: %s\n", why.c_str());
    std::exit(1);
}

sockaddr_in endpoint(const char* address, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET, address, &result.sin_addr) != 1) fail(std::string("no address: ") + address);
    return result;
}

int openSocket(const char* address, int port) {
    const int file = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in local = endpoint(address, port);
    if (bind(file, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) fail("bind");
    return file;
}

/// The program's data port; 0 until its session runs.
std::atomic<std::uint16_t> programPort = 0;

/// Accepts every invitation and answers clock exchanges.
void answer(const std::array<int, 2>& sockets) {
    for (;;) {
        std::array<pollfd, 2> ready{pollfd{sockets[0], POLLIN, 0}, pollfd{sockets[1], POLLIN, 0}};
        poll(ready.data(), ready.size(), -1);
        for (const pollfd& each : ready) {
            if (!each.revents) continue;
            std::array<unsigned char, 2048> packet{};
            sockaddr_in from{};
            socklen_t size = sizeof from;
            const auto length =
                recvfrom(each.fd, packet.data(), 1024, 0, reinterpret_cast<sockaddr*>(&from), &size);
            if (length < 16 || packet[0] != 0xFF || packet[1] != 0xFF) continue;
            std::size_t reply = 0;
            if (std::memcmp(&packet[2], "IN", 2) == 0) {
                // OK with the version and token of the invitation, an SSRC and a name.
                std::memcpy(&packet[2], "OK", 2);
                std::memcpy(&packet[12],
                            "\0\0\0\xAA"
                            "bench",
                            10);
                reply = 22;
            } else if (std::memcmp(&packet[2], "CK", 2) == 0 && length == 36 && packet[8] == 0) {
                std::memcpy(&packet[4], "\0\0\0\xAA\1", 5);
                reply = 36;
            } else if (std::memcmp(&packet[2], "CK", 2) == 0 && packet[8] == 2) {
                programPort = from.sin_port;
            }
            if (reply) sendto(each.fd, packet.data(), reply, 0, reinterpret_cast<sockaddr*>(&from), size);
        }
    }
}

/// Waits for a sequencer client of that name and returns its number.
int awaitClient(snd_seq_t* sequencer, const std::string& name) {
    for (int attempt = 0; attempt < 600; ++attempt) {
        snd_seq_client_info_t* info = nullptr;
        snd_seq_client_info_alloca(&info);
        snd_seq_client_info_set_client(info, -1);
        while (snd_seq_query_next_client(sequencer, info) >= 0)
            if (name == snd_seq_client_info_get_name(info)) return snd_seq_client_info_get_client(info);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    fail("no sequencer client " + name);
}

/// Subscribes to the sides that send to the sequencer, and stamps their events on a separate thread.
void listen(std::vector<Side>& sides) {
    snd_seq_t* sequencer = nullptr;
    if (snd_seq_open(&sequencer, "default", SND_SEQ_OPEN_DUPLEX, 0) < 0) fail("no sequencer");
    snd_seq_set_client_name(sequencer, "bench");
    snd_seq_set_client_pool_input(sequencer, 1000);
    const int port =
        snd_seq_create_simple_port(sequencer, "bench", SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
                                   SND_SEQ_PORT_TYPE_APPLICATION);
    for (Side& side : sides) {
        side.client = awaitClient(sequencer, side.stampsName);
        for (int attempt = 0; snd_seq_connect_from(sequencer, port, side.client, 0) < 0; ++attempt) {
            if (attempt == 100) fail("cannot listen to " + side.stampsName);
            // The port is created after the client.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    std::thread([sequencer, &sides] {
        for (snd_seq_event_t* event = nullptr;;) {
            if (snd_seq_event_input(sequencer, &event) < 0)
                continue; // the queue has overflowed: stamps will be missing
            const bool isNote = event->type == SND_SEQ_EVENT_NOTEON;
            const unsigned channel = isNote ? event->data.note.channel : event->data.control.channel;
            if ((!isNote && event->type != SND_SEQ_EVENT_CONTROLLER) || channel != STAMP_CHANNEL) continue;
            for (Side& side : sides) {
                if (side.client != event->source.client) continue;
                if (isNote)
                    stamp(side.stamps, event->data.note.note, event->data.note.velocity);
                else
                    stamp(side.stamps, event->data.control.param,
                          static_cast<unsigned>(event->data.control.value));
            }
        }
    }).detach();
}

/// Writes a datagram whose messages carry the numbers from `number` on, and returns its size.
std::size_t compose(std::array<unsigned char, 256>& datagram, const Kind& kind, std::size_t number) {
    datagram = {0x80, 0x61, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA};
    std::size_t size = 12;
    const auto add = [&](std::size_t byte) { datagram[size++] = static_cast<unsigned char>(byte); };
    const int length = 4 * kind.messages - 1;
    if (length > 15) add(0x80);
    add(static_cast<std::size_t>(length));
    for (int i = 0; i < kind.messages; ++i, ++number) {
        if (i) add(0);
        add(kind.status);
        add(number % 128);
        add(1 + number / 128);
    }
    return size;
}

void sleepUntil(std::int64_t moment) {
    const timespec time{moment / 1'000'000'000, moment % 1'000'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

void print(const char* list, const Side& side, int messages, int which) {
    std::printf(", \"%s\": [", list);
    const char* comma = "";
    for (std::size_t i = 0; i < side.sent.size(); ++i)
        if (const auto stamped =
                side.stamps[i * static_cast<std::size_t>(messages) + static_cast<std::size_t>(which)])
            std::printf("%s%lld", comma, static_cast<long long>(stamped - side.sent[i])), comma = ",";
    std::printf("]");
}

void measure(int socket, const Kind& kind, double seconds, std::vector<Side>& sides) {
    const auto messages = static_cast<std::size_t>(kind.messages);
    const auto count = std::min(static_cast<std::size_t>(kind.rate * seconds), STAMP_COUNT / messages);
    for (Side& side : sides) {
        side.sent.assign(count, 0);
        std::memset(side.stamps, 0, STAMP_BYTES);
    }
    // Random pauses, so that the datagrams are not synchronous with the kernel's timer ticks.
    const double pause = 1e9 / kind.rate / static_cast<double>(sides.size());
    std::minstd_rand random;
    std::uniform_real_distribution<double> pauses(0.7 * pause, 1.3 * pause);
    std::int64_t due = now() + 1'000'000;
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t turn = 0; turn < sides.size(); ++turn) {
            Side& side = sides[(turn + i) % sides.size()];
            std::array<unsigned char, 256> datagram{};
            const std::size_t size = compose(datagram, kind, i * messages);
            datagram[2] = static_cast<unsigned char>(i >> 8), datagram[3] = static_cast<unsigned char>(i);
            sleepUntil(due);
            due += static_cast<std::int64_t>(pauses(random));
            side.sent[i] = now();
            sendto(socket, datagram.data(), size, 0, reinterpret_cast<const sockaddr*>(&side.to),
                   sizeof side.to);
        }
    }
    sleepUntil(now() + 300'000'000);
    for (const Side& side : sides) {
        std::printf("{\"kind\": \"%s\", \"side\": \"%s\", \"sent\": %zu", kind.name, side.name.c_str(),
                    count);
        print("first", side, kind.messages, 0);
        if (kind.messages > 1) print("last", side, kind.messages, kind.messages - 1);
        std::printf("}\n");
    }
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 6) fail("arguments are missing");
    std::vector<Side> sides;
    bool isSequencer = false;
    for (int i = 5; i < argc; ++i) {
        std::istringstream text(argv[i]);
        Side side;
        std::string port;
        std::getline(text, side.name, ',');
        std::getline(text, side.stampsName, ',');
        std::getline(text, port);
        side.to = endpoint(argv[2], std::atoi(port.c_str()));
        if (side.stampsName.starts_with('/')) {
            side.stamps = open_stamps(side.stampsName.c_str());
            if (!side.stamps) fail("no stamps: " + side.stampsName);
        } else {
            isSequencer = true;
            side.stamps = new std::int64_t[STAMP_COUNT]; // never freed
        }
        sides.push_back(side);
    }
    sigset_t signals; // blocked in all threads
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const std::array<int, 2> sockets{openSocket(argv[1], 5004), openSocket(argv[1], 5005)};

    std::thread([sockets] { answer(sockets); }).detach();
    std::puts("open");
    std::fflush(stdout);
    if (isSequencer) listen(sides);
    while (programPort == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (Side& side : sides)
        if (side.to.sin_port == 0) side.to.sin_port = programPort;
    std::puts("running");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&signals, &signal);

    std::istringstream chosen(argv[4]);
    for (std::string name; std::getline(chosen, name, ',');)
        for (const Kind& kind : kinds)
            if (name == kind.name) measure(sockets[1], kind, std::atof(argv[3]), sides);
    std::exit(0);
}
