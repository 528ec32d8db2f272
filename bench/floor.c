/* The lower bound of the latency: epoll_wait and recv on a connected UDP socket, and the output call; nothing else.

       floor HOST PORT STAMPS [blocking]      the output call records the time
       floor HOST PORT alsa [blocking]        the output call sends an event of the port "floor" of the ALSA sequencer

   Accepts RTP-MIDI with messages of three bytes and delta times of 0. With "blocking", a blocking recv replaces
   epoll_wait. Prints the local port. */

#include "stamps.h"

#include <alsa/asoundlib.h>
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>

static int64_t* stamps;
static snd_seq_t* sequencer;

static void output(const uint8_t* message) {
    if (!sequencer) {
        if ((message[0] & 15) == STAMP_CHANNEL) stamp(stamps, message[1], message[2]);
        return;
    }
    snd_seq_event_t event;
    snd_seq_ev_clear(&event);
    snd_seq_ev_set_subs(&event);
    snd_seq_ev_set_direct(&event);
    if (message[0] >> 4 == 9)
        snd_seq_ev_set_noteon(&event, message[0] & 15, message[1], message[2]);
    else
        snd_seq_ev_set_controller(&event, message[0] & 15, message[1], message[2]);
    snd_seq_event_output_direct(sequencer, &event);
}

static void fail(const char* what) {
    fprintf(stderr, "floor: %s: %s\n", what, strerror(errno));
    exit(1);
}

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    if (strcmp(argv[3], "alsa") == 0) {
        if (snd_seq_open(&sequencer, "default", SND_SEQ_OPEN_OUTPUT, SND_SEQ_NONBLOCK) < 0) fail("sequencer");
        snd_seq_set_client_name(sequencer, "floor");
        snd_seq_create_simple_port(sequencer, "floor", SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ,
                                   SND_SEQ_PORT_TYPE_MIDI_GENERIC);
    } else if (!(stamps = open_stamps(argv[3])))
        fail(argv[3]);

    const int is_blocking = argc > 4;
    const int file = socket(AF_INET, SOCK_DGRAM | (is_blocking ? 0 : SOCK_NONBLOCK), 0);
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(argv[2]))};
    socklen_t size = sizeof address;
    if (inet_pton(AF_INET, argv[1], &address.sin_addr) != 1 || connect(file, (struct sockaddr*)&address, size) != 0)
        fail("connect");
    getsockname(file, (struct sockaddr*)&address, &size);
    printf("port %d\n", ntohs(address.sin_port));
    fflush(stdout);

    struct epoll_event event = {.events = EPOLLIN};
    const int epoll = epoll_create1(0);
    epoll_ctl(epoll, EPOLL_CTL_ADD, file, &event);
    uint8_t datagram[2048];
    for (;;) {
        if (!is_blocking && epoll_wait(epoll, &event, 1, -1) != 1) continue;
        const ssize_t length = recv(file, datagram, sizeof datagram, 0);
        if (length < 13) continue;
        /* One or two bytes with the length of the MIDI list follow the RTP header. */
        for (ssize_t i = datagram[12] & 0x80 ? 14 : 13; i + 3 <= length; i += 4)
            output(datagram + i);
    }
}
