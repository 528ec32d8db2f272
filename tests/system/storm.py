"""The parts of a storm: a lossy path, bogus services, strangers, and eight devices to which anything may happen.

Run as a program it is one of the disturbers:

    storm.py path NEAR FAR SEED  hands frames on between two interfaces; SIGUSR1 begins to disturb, SIGUSR2 ends it
    storm.py services IP COUNT   announces services that nobody offers until SIGTERM takes them back
    storm.py strangers IP...     writes to the program's ports at those addresses until SIGTERM
"""
import collections
import heapq
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


# The lossy path

class Path:
    """Hands every frame on. Of the UDP datagrams, mDNS included, a fifth is dropped, doubled or sent late.

    Spared is what a session waits for without asking again, so that its loss ends in a session that waits by
    design: invitations and their answers (IN, OK, NO), and the first clock exchange, which nothing repeats until
    the session runs. Clock packets of running sessions, farewells and MIDI are not."""

    LEVEL, VNET_HEADER, IGNORE_OUTGOING, MEMBERSHIP, PROMISCUOUS = 263, 15, 23, 1, 1  # linux/if_packet.h
    FORCED_BUFFER = 33
    LATE = 0.02  # seconds at most; or when the next frame has overtaken it

    def __init__(self, interfaces, seed):
        self._random = random.Random(seed)
        self._isDisturbing = False
        self._starting = set()  # far addresses whose first clock exchange has not completed
        self._late = []  # (when due, socket to send on, frame)
        self._sockets = [self._open(interface) for interface in interfaces]
        self.counts = collections.Counter()

    def _open(self, interface):
        packets = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        # Each frame comes with what the kernel still has to do to it: checksums, splitting.
        packets.setsockopt(self.LEVEL, self.VNET_HEADER, 1)
        packets.setsockopt(self.LEVEL, self.IGNORE_OUTGOING, 1)
        packets.setsockopt(socket.SOL_SOCKET, self.FORCED_BUFFER, 8 << 20)
        packets.bind((interface, 3))  # every protocol
        request = struct.pack("iHH8s", socket.if_nametoindex(interface), self.PROMISCUOUS, 0, b"")
        packets.setsockopt(self.LEVEL, self.MEMBERSHIP, request)
        return packets

    def run(self):
        signal.signal(signal.SIGUSR1, lambda *_: setattr(self, "_isDisturbing", True))
        signal.signal(signal.SIGUSR2, lambda *_: setattr(self, "_isDisturbing", False))
        near, far = self._sockets
        print("open", flush=True)
        while True:
            patience = self.LATE if self._late else None
            for source in select.select(self._sockets, [], [], patience)[0]:
                frame = source.recv(1 << 17)
                self._hand_on(frame, far if source is near else near, source is near)
            now = time.monotonic()
            while self._late and self._late[0][0] <= now:
                self._send(*self._late.pop(0)[1:])

    def _hand_on(self, frame, out, fromNear):
        overtaken, self._late = self._late, []
        if not self._isDisturbing or not self._may_disturb(frame[10:], fromNear) or self._random.random() >= 0.2:
            self._send(out, frame)
        else:
            fate = self._random.choice(("dropped", "doubled", "late"))
            self.counts[fate] += 1
            self._note_farewell(frame[10:], fromNear, fate)
            if fate == "doubled":
                self._send(out, frame)
                self._send(out, frame)
            elif fate == "late":
                self._late.append((time.monotonic() + self.LATE, out, frame))
        for _, socket_, late in overtaken:
            self._send(socket_, late)

    @staticmethod
    def _send(out, frame):
        try:
            out.send(frame)
        except OSError:
            pass  # the link is down

    def _may_disturb(self, frame, fromNear):
        if len(frame) < 42 or frame[12:14] != b"\x08\x00" or frame[23] != socket.IPPROTO_UDP:
            return False
        payload = 14 + (frame[14] & 15) * 4 + 8
        if frame[payload:payload + 2] != b"\xff\xff":
            return True
        command = frame[payload + 2:payload + 4]
        far = frame[30:34] if fromNear else frame[26:30]
        if command == b"IN":
            self._starting.add(far)
        if command == b"CK":
            count = frame[payload + 8]
            if count == 2:
                self._starting.discard(far)
            return far not in self._starting
        return command not in (b"IN", b"OK", b"NO")

    def _note_farewell(self, frame, fromNear, fate):
        payload = 14 + (frame[14] & 15) * 4 + 8
        if fate == "dropped" and not fromNear and frame[payload:payload + 4] == b"\xff\xffBY":
            print("lost BY of " + socket.inet_ntoa(frame[26:30]), flush=True)


# Services that nobody offers

def bogus_service(number, ttl):
    """Every eighth has a host and a port; of the others there is nothing but the name. Every fourth is a marker."""
    service = ("_tessarylink", "_tcp", "local") if number % 4 == 3 else ("_apple-midi", "_udp", "local")
    instance = mdns.name(f"Bogus {number}", *service)
    records = [mdns.record(mdns.name(*service), 12, ttl, instance)]
    if number % 8 == 0:
        host = mdns.name(f"bogus-{number}", "local")
        records.append(mdns.record(instance, 33, ttl, struct.pack("!HHH", 0, 0, 5004) + host, True))
        records.append(mdns.record(host, 1, ttl, bytes((10, 77, 9, 100 + number // 8 % 100)), True))
    return records


def announce_bogus(address, count):
    """Again and again: a daemon that has restarted knows them soon."""
    isOver = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: isOver.set())
    out = mdns.Sender(address)

    def send_all(ttl):
        for datagram in mdns.datagrams(each for number in range(count) for each in bogus_service(number, ttl)):
            out.send(datagram)
            time.sleep(0.002)
    while not isOver.is_set():
        send_all(4500)
        print("announced", flush=True)
        isOver.wait(5)
    send_all(0)
    send_all(0)


# Strangers

def strange_datagrams(number):
    yield random.randbytes(number % 100)
    yield b"\x80\x61" + random.randbytes(10) + b"\x03\x9f\x01\x01"
    for command in (b"IN", b"OK", b"NO", b"BY"):
        yield b"\xff\xff" + command + struct.pack("!I", 2) + random.randbytes(8) + b"Stranger\0"
    yield b"\xff\xffCK" + random.randbytes(4) + bytes([number % 3, 0, 0, 0]) + random.randbytes(24)


def write_as_strangers(addresses):
    sockets = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(4)]
    for port, out in enumerate(sockets[:2], 5004):  # the ports that a device would use
        out.bind(("", port))
    for out in sockets:
        out.setblocking(False)
    for number in range(1 << 62):
        for datagram in strange_datagrams(number):
            for address in addresses:
                for port in (CONTROL_PORT, DATA_PORT):
                    try:
                        sockets[number % 4].sendto(datagram, (address, port))
                    except OSError:
                        pass  # nobody at that address now
        time.sleep(0.05)


# The devices

class Slot:
    """One of the devices, through all its restarts."""

    PORTS = 5004, 6004, 7004

    def __init__(self, storm, number, switch):
        self._storm, self.number, self.switch = storm, number, switch
        self.name = f"Storm {number}"  # it plays on the channel of that number
        self.address = f"10.77.9.{10 + number}"
        self.port = self.PORTS[0]
        self.host = storm.network.host(self.address + "/24", switch=switch)
        self.isBusy = False
        self.process = None
        self._silent_fault = 0, None
        self._ended = None
        self._ends = []  # (when, by which signal, farewells said, the next process)

    def start(self, *options):
        clock = ["--clock"] if self.number % 2 == 0 else []
        command = [DEVICE, "--name", self.name, "--address", self.address, "--port", self.port, "--rate", RATE,
                   "--channel", self.number, *clock, *options]
        self.process = Process(self._storm, command, self.host)
        if self._ended:
            self._ends.append((*self._ended, self.process))

    def end(self, number):
        """Ends the process, with its farewells or without."""
        process = self.process
        process.wait_for("listening on")  # from then on it minds the signal
        moment = time.monotonic()
        process.signal(number)
        status = process.wait()
        if number == signal.SIGTERM and status != 0:
            raise AssertionError(f"{self.name} ended badly: " + process.report())
        farewells = 0
        if number == signal.SIGTERM and process.times("said bye"):
            farewells = 2 if self._last("(control|data) invitation") == "data" else 1
        self._ended = moment, number, farewells
        self._storm.forget(process)

    def _last(self, pattern):
        found = [match[1] for line in self.process.lines if (match := re.search(pattern, line))]
        return found[-1] if found else None

    def note_silent_fault(self, fault):
        self._silent_fault = time.monotonic(), fault

    def silent_fault(self):
        """When the last fault was over, and which, of which nobody had told the program: it was killed, its farewells were
        lost, its link was down. A session from before may wait for ever; one from after must run."""
        moment, fault = self._silent_fault
        for ended, number, farewells, successor in self._ends:
            lost = [at for at in self._storm.path.times(f"lost BY of {self.address}$") if ended < at < ended + 1]
            if number == signal.SIGKILL or 0 < farewells <= len(lost):
                came = max(successor.times("listening on"), default=0)
                if came > moment:
                    moment, fault = came, "killed" if number == signal.SIGKILL else "farewell lost"
        return moment, fault

    def change_port(self):
        self.port = self._storm.random.choice([port for port in self.PORTS if port != self.port])

    def move(self):
        """To another address, while the process is away."""
        former, self.address = self.address, f"10.77.9.{10 + self.number + self._storm.random.choice((0, 10, 20))}"
        self.host.ip(f"addr del {former}/24 dev {self.switch}", f"addr add {self.address}/24 dev {self.switch}")

    def is_listening(self):
        return bool(self.process.times("listening on"))

    def sessions(self):
        """How many have run since the process began."""
        return len(self.process.times("running with"))

    def runs(self):
        """Whether a session plays, as far as the device knows."""
        for line in reversed(self.process.lines):
            if "running with" in line:
                return True
            if "bye" in line or "control invitation" in line:
                return False
        return False


class Timetable:
    """What is to happen when."""

    def __init__(self):
        self._due = []
        self._order = 0

    def after(self, seconds, step):
        self._order += 1
        heapq.heappush(self._due, (time.monotonic() + seconds, self._order, step))

    def run_due(self):
        while self._due and self._due[0][0] <= time.monotonic():
            heapq.heappop(self._due)[2]()

    def finish(self):
        while self._due:
            time.sleep(max(0, self._due[0][0] - time.monotonic()))
            self.run_due()


if __name__ == "__main__":
    role, *arguments = sys.argv[1:]
    if role == "path":
        Path(arguments[:2], int(arguments[2])).run()
    elif role == "services":
        announce_bogus(arguments[0], int(arguments[1]))
    elif role == "strangers":
        write_as_strangers(arguments)
