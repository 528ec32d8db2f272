#!/usr/bin/env python3
"""Losses and latency of one device's notes while another device floods the program with garbage. Needs root.

    python3 bench/flood.py [runs of each kind] [seconds per run] [garbage datagrams per second]

Quiet and flooded runs alternate. A device plays 1,000 notes a second, which a JACK client counts, and starts 200 clock
exchanges a second from the same port, which the same thread answers. The latency is the time from the arrival of a clock
packet at the program's network interface to the departure of the answer. On a machine with other load, run it with
`chrt -f 10`.
"""
import collections
import ctypes
import pathlib
import select
import signal
import socket
import statistics
import struct
import sys
import time
import unittest

from lab.processes import Process, until
from lab.programs import DATA_PORT, SOURCE, JackServer, Program, SystemTest, scale

RATE, CHANNEL = 1000, 16
PLAYER = "10.77.8.2"
TIMESTAMP_NS, FORCED_BUFFER, ATTACH_FILTER = 35, 33, 26  # socket options


# Separate processes

def play():
    """A device that accepts every invitation. It plays from the start of a session to SIGUSR1; prints the number of notes."""
    isOver = False

    def end(*_):
        nonlocal isOver
        isOver = True
        print("sent", sent, flush=True)
    signal.signal(signal.SIGUSR1, end)
    control, data = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
    control.bind((PLAYER, 5004))
    data.bind((PLAYER, 5005))
    ssrc, program, began, sent = b"PLAY", None, 0, 0
    print("open", flush=True)
    while True:
        due = began + sent / RATE
        wait = max(0, due - time.monotonic()) if program and not isOver else None
        for source in select.select([control, data], [], [], wait)[0]:
            packet, sender = source.recvfrom(2048)
            if packet[:4] == b"\xff\xffIN":
                source.sendto(b"\xff\xffOK" + packet[4:12] + ssrc + b"Player\0", sender)
            elif packet[:4] == b"\xff\xffCK" and packet[8] == 0:
                source.sendto(packet[:4] + ssrc + b"\1\0\0\0" + packet[12:], sender)
            elif packet[:4] == b"\xff\xffCK" and packet[8] == 2 and not program:
                program, began = sender, time.monotonic()
                print("running", flush=True)
        while program and not isOver and began + sent / RATE <= time.monotonic():
            message = bytearray(scale(sent))
            message[0] |= CHANNEL - 1
            data.sendto(struct.pack("!HHI", 0x8061, sent & 0xFFFF, sent) + ssrc + b"\3" + message, program)
            if sent % 5 == 0:
                data.sendto(b"\xff\xffCK" + ssrc + bytes(4) + struct.pack("!QQQ", sent, 0, 0), program)
            sent += 1


def watch_interface():
    """Prints for each clock exchange of the player when its packet arrived (nanoseconds of the monotonic clock) and the
    time to the answer."""
    packets = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(3))  # ETH_P_ALL: outgoing packets too
    packets.setsockopt(socket.SOL_SOCKET, TIMESTAMP_NS, 1)
    packets.setsockopt(socket.SOL_SOCKET, FORCED_BUFFER, 8 << 20)
    # A kernel filter that passes packets from and to the player, except MIDI.
    player = int.from_bytes(socket.inet_aton(PLAYER), "big")
    steps = ((0x20, 0, 0, 12), (0x15, 2, 0, player), (0x20, 0, 0, 16), (0x15, 0, 3, player),
             (0x28, 0, 0, 28), (0x15, 0, 1, 0xFFFF), (0x06, 0, 0, 0xFFFF), (0x06, 0, 0, 0))
    program = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *step) for step in steps))
    packets.setsockopt(socket.SOL_SOCKET, ATTACH_FILTER, struct.pack("HP", len(steps), ctypes.addressof(program)))
    print("watching", flush=True)
    questions = {}
    while True:
        packet, ancillary, _, _ = packets.recvmsg(256, 64)
        if packet[28:32] != b"\xff\xffCK":
            continue
        seconds, nanoseconds = struct.unpack("qq", ancillary[0][2])
        moment, t1 = seconds * 1_000_000_000 + nanoseconds, packet[40:48]
        if packet[36] == 0 and packet[22:24] == struct.pack("!H", DATA_PORT):
            questions[t1] = moment
        elif packet[36] == 1 and t1 in questions:
            came = questions.pop(t1)
            print(came - (time.time_ns() - time.monotonic_ns()), moment - came, flush=True)


def listen_to_jack():
    """Prints each note on the channel that the program's source publishes."""
    class Event(ctypes.Structure):
        _fields_ = [("time", ctypes.c_uint32), ("size", ctypes.c_size_t), ("bytes", ctypes.c_void_p)]
    jack = ctypes.CDLL("libjack.so.0")
    for name in ("jack_client_open", "jack_port_register", "jack_port_get_buffer"):
        getattr(jack, name).restype = ctypes.c_void_p
    client = ctypes.c_void_p(jack.jack_client_open(b"flood", 1, None))
    port = ctypes.c_void_p(jack.jack_port_register(client, b"input", b"8 bit raw midi", ctypes.c_ulong(1),
                                                   ctypes.c_ulong(0)))
    heard, event = collections.deque(), Event()

    @ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_uint32, ctypes.c_void_p)
    def process(frames, _):
        buffer = ctypes.c_void_p(jack.jack_port_get_buffer(port, frames))
        for number in range(jack.jack_midi_get_event_count(buffer)):
            jack.jack_midi_event_get(ctypes.byref(event), buffer, number)
            if event.size == 3:
                message = ctypes.string_at(event.bytes, 3)
                if message[0] in (0x80 | CHANNEL - 1, 0x90 | CHANNEL - 1):
                    heard.append(message)
        return 0
    jack.jack_set_process_callback(client, process, None)
    jack.jack_activate(client)
    until(lambda: jack.jack_connect(client, SOURCE.encode(), b"flood:input") == 0, 10, "connected")
    print("listening", flush=True)
    while True:
        time.sleep(0.1)
        while heard:
            print("note", heard.popleft().hex())
        sys.stdout.flush()


# The measurement

class Flood(SystemTest):
    runs, seconds, garbage = 5, 5.0, 20_000

    def tool(self, role, host, ready):
        process = Process(self, [sys.executable, pathlib.Path(__file__).resolve(), role], host)
        process.wait_for(ready)
        return process

    def test_flood(self):
        desk = self.network.host("10.77.8.1/24")
        self.jack = JackServer(self, desk)
        program = Program(self, desk)
        until(lambda: SOURCE in desk.run("jack_lsp", check=False).stdout, 10, "the source is there")
        listener, watcher = self.tool("listen", desk, "listening"), self.tool("watch", desk, "watching")
        booth, stage = self.network.host(PLAYER + "/24"), self.network.host("10.77.8.3/24")
        player = self.tool("play", booth, "open")
        self.device(booth, "--name", "Player", "--open-after", 3600)  # announces it
        player.wait_for("running", 20)

        def received():
            lines = pathlib.Path(f"/proc/{program.pid}/net/snmp").read_text().splitlines()
            names, values = (line.split() for line in lines if line.startswith("Udp:"))
            return int(values[names.index("InDatagrams")])
        windows, rates = {"quiet": [], "flooded": []}, {"quiet": [], "flooded": []}

        def measure(kind):
            began, count = time.monotonic_ns(), received()
            time.sleep(self.seconds)
            windows[kind].append((began, time.monotonic_ns()))
            rates[kind].append((received() - count) / self.seconds)
        for _ in range(self.runs):
            measure("quiet")
            flooder = self.device(stage, "--name", "Flooder", "--garbage", self.garbage, "--play", "nothing")
            flooder.wait_for("running with", 20)
            measure("flooded")
            flooder.end()
            program.wait_for(r"10\.77\.8\.3 (gone|failed)")
        player.signal(signal.SIGUSR1)
        sent = int(player.wait_for(r"^sent (\d+)")[1][1])

        def arrived():
            """The number of notes that arrived in order. The garbage may contain other notes on the channel; they are skipped."""
            count = 0
            for line in listener.lines[1:]:
                expected = scale(count)
                count += bytes.fromhex(line.split()[1]) == bytes((expected[0] | CHANNEL - 1, *expected[1:]))
            return count
        until(lambda: arrived() == sent, 5, f"{sent} notes have arrived")
        print(f"\n{sent} notes arrived, all, in order; datagrams a second that the program read: " +
              ", ".join(f"{kind} {statistics.median(values):.0f}" for kind, values in rates.items()))

        exchanges = [tuple(map(int, line.split())) for line in watcher.lines[1:]]
        print("microseconds   50 %     99 %      max")
        tails = {}
        for kind, spans in windows.items():
            tails[kind] = []
            for begin, end in spans:
                values = sorted(each / 1000 for moment, each in exchanges if begin <= moment < end)
                at = [values[int(quantile * (len(values) - 1))] for quantile in (0.5, 0.99, 1)]
                tails[kind].append(at[1])
                print(f"{kind:9}" + "".join(f" {each:8.0f}" for each in at))
        quiet, flooded = (statistics.median(tails[kind]) for kind in windows)
        print(f"99 %, medians: quiet {quiet:.0f}, flooded {flooded:.0f}, ratio {flooded / quiet:.2f}")
        self.assertLess(flooded, 2 * quiet)


if __name__ == "__main__":
    roles = {"play": play, "watch": watch_interface, "listen": listen_to_jack}
    if sys.argv[1:] and sys.argv[1] in roles:
        roles[sys.argv[1]]()
    else:
        for name, value in zip(("runs", "seconds", "garbage"), sys.argv[1:]):
            setattr(Flood, name, type(getattr(Flood, name))(value))
        unittest.main(argv=sys.argv[:1])
