"""The program, the simulated device, a JACK server and a packet capture on the hosts of a test."""
import collections
import json
import os
import pathlib
import re
import shutil
import signal
import sys
import tempfile
import time
import unittest

from lab.networks import Network
from lab.processes import Process, environment, until

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = (ROOT / os.environ.get("TESSARY_BUILD_DIR", "build/release")).resolve()
PROGRAM = BUILD / "tessary-link"
DISCOVERY = BUILD / "tessary-discovery"
DEVICE = BUILD / "tools/tessary-device/tessary-device"
IS_SANITIZED = "TESSARY_SANITIZE:STRING=\n" not in (BUILD / "CMakeCache.txt").read_text()
CONTROL_PORT, DATA_PORT = 51204, 51205

SOURCE = "Tessary Link:Tessary Link"
TOOLS = ("ip", "nsenter", "unshare", "setpriv", "jackd", "jack_connect", "jack_lsp", "jack_midi_dump",
         "jack_wait", "tshark")


class SystemTest(unittest.TestCase):
    """A test with a network and processes; prints the output of the processes if it fails."""

    def setUp(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, for network namespaces")
        if missing := [tool for tool in TOOLS if not shutil.which(tool)]:
            self.skipTest("missing: " + ", ".join(missing))
        for binary in (PROGRAM, DEVICE):
            self.assertTrue(binary.exists(), f"{binary} is not built")
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="tessary-test-"))
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        self.network = Network(self)

    def run(self, result=None):
        def failures():
            return len(result.failures) + len(result.errors) if result else 0
        before = failures()
        self.processes = []
        super().run(result)
        if failures() > before:
            print(*(process.report() for process in self.processes), sep="\n", file=sys.stderr, flush=True)
        for process in self.processes:
            process.errors.close()
            if process.popen.stdout:
                process.popen.stdout.close()
        return result

    def device(self, host, *options):
        return Process(self, [DEVICE, *options], host)

    def assertSessionEnds(self, device, times=1):
        """Asserts that the device has received BY on both ports."""
        for port in ("control", "data"):
            device.wait_for(rf"bye from .*\({port}\)", times=times)

    def assertNotes(self, receiver, count):
        """Asserts that the receiver has received the first `count` messages of the device's scale, each once, in order."""
        heard, expected = receiver.messages, [scale(number) for number in range(count)]
        if heard != expected:
            place = next((n for n, pair in enumerate(zip(heard, expected)) if pair[0] != pair[1]), len(heard))
            self.fail(f"{len(heard)} of {count} messages; the first wrong one is number {place}: "
                      f"heard {heard[place:place + 6]}, expected {expected[place:place + 6]}")


class Program(Process):
    """The program under test. Its preferences are in the folder `config`."""

    time_to_end = 1.0  # seconds after a signal

    def __init__(self, test, host, config=None, stdout=None, variables=None, executable=PROGRAM,
                 limits=()):
        self.config = config or pathlib.Path(tempfile.mkdtemp(dir=test.directory))
        env = environment(**{"XDG_CONFIG_HOME": str(self.config), "HOME": str(self.config)} | (variables or {}))
        self._test = test
        super().__init__(test, ["prlimit", *limits, executable] if limits else [executable], host, env, stdout)

    @property
    def preferences(self):
        return json.loads((self.config / "tessary-link/preferences.json").read_text())

    def terminate(self, number=signal.SIGTERM):
        """Sends a signal, asserts that the program exits in time with status 0, and returns its log."""
        began = time.monotonic()
        self.signal(number)
        status = self.wait(60)
        self._test.assertEqual(status, 0, "exit status")
        self._test.assertLess(time.monotonic() - began, self.time_to_end, "time to end")
        return self.lines

    def end(self):
        if self.popen.poll() is None:
            self.terminate()
        elif self.popen.returncode != 0:
            raise AssertionError(f"the program ended with status {self.popen.returncode}")


class JackServer:
    """A JACK server on the host, without sound hardware. It waits for all clients in each cycle. With `patient` False it
    does not, and drops a client's whole period when the machine is busy, which would look like lost notes."""

    def __init__(self, test, host, patient=True, priority=None):
        self._test, self._host = test, host
        self._options = ["-R", "-P", str(priority)] if priority else ["-r"]
        self._options += ["-S", "-t", "2000"] if patient else []
        self.start()

    def start(self):
        driver = ["-d", "dummy", "-r", "48000", "-p", "256"]
        self.process = Process(self._test, ["jackd", *self._options, *driver], self._host)
        self._host.run("jack_wait", "-w", "-t", "10")

    def receiver(self, kind=None):
        return (kind or Receiver)(self._test, self._host)


class Receiver(Process):
    """An independent JACK client that is connected to the program's source and prints its messages."""

    COMMAND = ("jack_midi_dump",)

    def __init__(self, test, host):
        # Two clients that activate at the same moment may stall this version of the JACK server for good, so they are
        # started one after the other. jack_lsp does not activate.
        def ports():
            return host.run("jack_lsp", check=False).stdout.splitlines()
        until(lambda: SOURCE in ports(), 10, "the source is there")
        super().__init__(test, [*self.COMMAND, "receiver"], host)
        until(lambda: "receiver:input" in ports(), 10, "the receiver is there")
        # The server lists the port before the client is active, so the first attempts to connect may fail.
        until(lambda: host.run("jack_connect", SOURCE, "receiver:input", check=False).returncode == 0, 10,
              "the receiver is connected")

    @property
    def messages(self):
        found = (re.match(r" *\d+: ((?:[0-9a-f]{2} )*[0-9a-f]{2})\b", line) for line in self.lines)
        return [bytes.fromhex(match[1]) for match in found if match]

    def wait_for_messages(self, count, timeout=15):
        self.wait_for(r"^ *\d+: [0-9a-f]{2}", timeout, count)


class LongReceiver(Receiver):
    """A receiver that accepts long System Exclusive too."""

    COMMAND = (sys.executable, ROOT / "tools/lab/jack_receiver.py")


def scale(number):
    """The message with this number in the device's scale."""
    note = (60, 62, 64, 65, 67, 69, 71, 72)[number // 2 % 8]
    return bytes((0x80 if number % 2 else 0x90, note, number % 127 + 1))


def exclusive(number, size):
    """The System Exclusive of the device's tunes that is their message `number`."""
    head = bytes([0xF0, 0x7D, *(number >> shift & 127 for shift in (21, 14, 7, 0))][:size - 1])
    return head + bytes((7 * number + k + k // 128) % 128 for k in range(6, size - 1)) + b"\xf7"


def mixed(number, size):
    """Message `number` of the device's mixed tune, whose System Exclusive has that size."""
    if number % 12 == 11:
        return exclusive(number, size)
    velocity, count, low = number % 127 + 1, number // 12 % 128, number % 128
    return bytes(((0x90, 60, velocity), (0x80, 60, velocity), (0xA0, 60, count), (0xB0, 1, count), (0xC0, count),
                  (0xD0, count), (0xE0, count, low), (0xF2, count, low), (0xF3, count), (0xF1, count),
                  (0xF8,))[number % 12])


Packet = collections.namedtuple("Packet", "time destination local remote outgoing command token ssrc name count "
                                          "t1 t2 t3 malformed")


class Tshark(Process):
    """The datagrams on the first interface of a host, a row of these fields each, as tshark dissects them. `peer` is
    the address of any other host: datagrams to its discard port mark where the capture begins and ends."""

    def __init__(self, test, host, peer, datagrams, fields):
        self._host, self._peer = host, peer
        options = [part for field in ("udp.dstport", *fields) for part in ("-e", field)]
        super().__init__(test, ["tshark", "-i", "lan", "-n", "-l", "-T", "fields", "-E", "aggregator=|", *options,
                                "-f", f"udp dst port 9 or ({datagrams})"], host)
        until(lambda: self._mark() or self.lines, 20, "tshark captures")

    def _mark(self):
        self._host.run("bash", "-c", f"echo > /dev/udp/{self._peer}/9")

    def rows(self):
        """Those so far, each with its destination port in front."""
        marks = len(self.times("^9\t"))
        self._mark()
        self.wait_for("^9\t", times=marks + 1)
        return [line.split("\t") for line in self.lines if not line.startswith("9\t")]


class Capture(Tshark):
    """The session packets of the program's host."""

    FIELDS = ("frame.time_epoch", "ip.dst", "udp.srcport", "applemidi.command",
              "applemidi.name", "_ws.malformed", "applemidi.initiator_token", "applemidi.sender_ssrc",
              "applemidi.count", "applemidi.timestamp1", "applemidi.timestamp2", "applemidi.timestamp3")

    def __init__(self, test, host, peer):
        # MIDI is left out: there is much of it, and tshark has to keep pace.
        super().__init__(test, host, peer, "udp portrange 51204-51205 and udp[8:2] = 0xffff", self.FIELDS)

    def packets(self):
        """Those so far."""
        return [self._packet(*row) for row in self.rows()]

    @staticmethod
    def _packet(destination_port, moment, destination, source_port, command, name, malformed, *numbers):
        ports = int(source_port), int(destination_port)
        outgoing = ports[0] in (CONTROL_PORT, DATA_PORT)
        token, ssrc, *clock = (int(number, 0) if number else None for number in numbers)
        return Packet(float(moment), destination, *(ports if outgoing else ports[::-1]), outgoing,
                      int(command or "0", 16).to_bytes(2, "big").decode("latin-1"), token, ssrc, name, *clock,
                      bool(malformed))
