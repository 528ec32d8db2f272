"""The parts of a storm: a lossy path, bogus services, datagrams of strangers, and the devices.

Run as a program it is one of the disturbances:

    storm.py path NEAR FAR SEED  forwards frames between two interfaces; SIGUSR1 begins to disturb, SIGUSR2 ends it
    storm.py services IP COUNT   announces services that do not exist; SIGTERM withdraws them
    storm.py strangers IP...     writes to the program's ports at those addresses until it is killed
"""
import random
import re
import select
import signal
import socket
import struct
import sys
import threading
import time

from lab import mdns
from lab.processes import Process
from lab.programs import CONTROL_PORT, DATA_PORT, DEVICE

RATE = 50  # messages a second that each device plays


class Path:
    """Forwards every frame. While it disturbs, a fifth of the UDP datagrams, mDNS included, is dropped, doubled or
    delayed. Session packets are spared: a session whose invitation or first clock exchange is lost waits by design."""

    LEVEL, VNET_HEADER, IGNORE_OUTGOING, MEMBERSHIP, PROMISCUOUS = 263, 15, 23, 1, 1  # linux/if_packet.h
    FORCED_BUFFER = 33
    COPIES = {"forwarded": 1, "dropped": 0, "doubled": 2, "delayed": 0}
    DELAY = 0.02  # seconds at most; less if another frame comes

    def __init__(self, interfaces, seed):
        self._random = random.Random(seed)
        self._is_disturbing = False
        near, far = (self._open(interface) for interface in interfaces)
        self._other_side = {near: far, far: near}

    def _open(self, interface):
        packets = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        # Each frame comes with what the kernel has not done to it yet: checksums, splitting.
        packets.setsockopt(self.LEVEL, self.VNET_HEADER, 1)
        packets.setsockopt(self.LEVEL, self.IGNORE_OUTGOING, 1)
        packets.setsockopt(socket.SOL_SOCKET, self.FORCED_BUFFER, 8 << 20)
        packets.bind((interface, 3))  # every protocol
        request = struct.pack("iHH8s", socket.if_nametoindex(interface), self.PROMISCUOUS, 0, b"")
        packets.setsockopt(self.LEVEL, self.MEMBERSHIP, request)
        return packets

    def run(self):
        signal.signal(signal.SIGUSR1, lambda *_: setattr(self, "_is_disturbing", True))
        signal.signal(signal.SIGUSR2, lambda *_: setattr(self, "_is_disturbing", False))
        print("open", flush=True)
        delayed = []
        while True:
            ready = select.select(list(self._other_side), [], [], self.DELAY if delayed else None)[0]
            due, delayed = delayed, []
            for source in ready:
                frame, out = source.recv(1 << 17), self._other_side[source]
                fate = self._fate(frame[10:])
                due = [(out, frame)] * self.COPIES[fate] + due
                if fate == "delayed":
                    delayed.append((out, frame))
            for out, frame in due:
                try:
                    out.send(frame)
                except OSError:
                    pass  # the link is down

    def _fate(self, frame):
        is_datagram = len(frame) >= 42 and frame[12:14] == b"\x08\x00" and frame[23] == socket.IPPROTO_UDP
        if not self._is_disturbing or not is_datagram:
            return "forwarded"
        payload = 14 + (frame[14] & 15) * 4 + 8
        if frame[payload:payload + 2] == b"\xff\xff" or self._random.random() >= 0.2:
            return "forwarded"
        return self._random.choice(("dropped", "doubled", "delayed"))


def bogus_service(number, ttl):
    """Every eighth has a host and a port; the others have only a name. Every fourth is a marker."""
    kind = mdns.MARKER if number % 4 == 3 else mdns.MIDI
    instance = mdns.name(f"Bogus {number}", *kind)
    records = [mdns.record(mdns.name(*kind), mdns.PTR, ttl, instance)]
    if number % 8 == 0:
        host = mdns.name(f"bogus-{number}", "local")
        records.append(mdns.record(instance, mdns.SRV, ttl, struct.pack("!HHH", 0, 0, 5004) + host, True))
        records.append(mdns.record(host, mdns.A, ttl, bytes((10, 77, 9, 100 + number // 8 % 100)), True))
    return records


def announce_bogus_services(address, count):
    """Repeatedly, so that a daemon that has restarted knows them soon."""
    is_over = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: is_over.set())
    out = mdns.Sender(address)

    def send_all(ttl):
        for datagram in mdns.datagrams(each for number in range(count) for each in bogus_service(number, ttl)):
            out.send(datagram)
            time.sleep(0.002)
    while not is_over.is_set():
        send_all(4500)
        print("announced", flush=True)
        is_over.wait(5)
    send_all(0)
    send_all(0)


def write_as_strangers(addresses):
    sockets = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(4)]
    for port, out in enumerate(sockets[:2], 5004):  # the ports that a device would use
        out.bind(("", port))
    while True:
        session = [b"\xff\xff" + command + struct.pack("!I", 2) + random.randbytes(8) + b"Stranger\0"
                   for command in (b"IN", b"OK", b"NO", b"BY")]
        clock = b"\xff\xffCK" + random.randbytes(4) + bytes((random.randrange(3), 0, 0, 0)) + random.randbytes(24)
        midi = b"\x80\x61" + random.randbytes(10) + b"\x03\x9f\x01\x01"
        for datagram in (random.randbytes(50), midi, clock, *session):
            for address in addresses:
                for port in (CONTROL_PORT, DATA_PORT):
                    try:
                        random.choice(sockets).sendto(datagram, socket.MSG_DONTWAIT, (address, port))
                    except OSError:
                        pass  # the program's host has another address now
        time.sleep(0.05)


class Slot:
    """One of the devices, through all its restarts."""

    PORTS = 5004, 6004, 7004

    def __init__(self, storm, number, switch):
        self._storm, self.number, self.switch = storm, number, switch
        self.name = f"Storm {number}"  # it plays on the channel of that number
        self.address = f"10.77.9.{10 + number}"
        self.port = self.PORTS[0]
        self.host = storm.network.host(self.address + "/24", switch=switch)
        self.process = self._successor_of_killed = None
        self._is_killed = False
        self._link_fault = 0

    def start(self, *options):
        clock = ["--clock"] if self.number % 2 == 0 else []
        command = [DEVICE, "--name", self.name, "--address", self.address, "--port", self.port, "--rate", RATE,
                   "--channel", self.number, *clock, *options]
        self.process = Process(self._storm, command, self.host)
        if self._is_killed:
            self._successor_of_killed = self.process

    def end(self, number):
        self.process.wait_for("listening on")  # from then on it handles the signal
        self.process.signal(number)
        status = self.process.wait()
        self._is_killed = number == signal.SIGKILL
        if not self._is_killed and status != 0:
            raise AssertionError(f"{self.name} ended with {status}: " + self.process.report())
        self._storm.forget(self.process)

    def change_port(self):
        self.port = self._storm.random.choice([port for port in self.PORTS if port != self.port])

    def change_address(self):
        """While the process is away."""
        former, self.address = self.address, f"10.77.9.{10 + self.number + self._storm.random.choice((0, 10, 20))}"
        self.host.ip(f"addr del {former}/24 dev {self.switch}", f"addr add {self.address}/24 dev {self.switch}")

    def note_link_fault(self):
        self._link_fault = time.monotonic()

    def unnoticed_fault(self):
        """When the last fault was over that the program cannot notice: the device was killed, or a link was down. A
        session that was dialled before may wait for ever; one that was dialled later must run."""
        restarts = self._successor_of_killed.times("listening on") if self._successor_of_killed else []
        return max(self._link_fault, *restarts, 0)

    def sessions(self):
        """How many have run since the process began."""
        return len(self.process.times("running with"))

    def runs(self):
        """Whether a session plays, as far as the device knows."""
        news = [line for line in self.process.lines if re.search("running with|bye|control invitation", line)]
        return bool(news) and "running with" in news[-1]


if __name__ == "__main__":
    role, *arguments = sys.argv[1:]
    if role == "path":
        Path(arguments[:2], int(arguments[2])).run()
    elif role == "services":
        announce_bogus_services(arguments[0], int(arguments[1]))
    elif role == "strangers":
        write_as_strangers(arguments)
