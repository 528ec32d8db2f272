"""What the tests of the whole program share: hosts on networks of their own, real processes on them, a JACK
server, a packet capture.

Every host is a network namespace and a mount namespace of its own, with its own /run and /dev/shm, so that
neither the machine's D-Bus, Avahi and JACK nor another test is in reach. A namespace lives as long as its
processes do, and those die with the test: nothing is left behind, whatever happens.
"""
import collections
import ctypes
import fcntl
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

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


def until(condition, timeout, what):
    """Asks again and again; for what nobody tells us of."""
    deadline = time.monotonic() + timeout
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {timeout} s: {what}")
        time.sleep(0.02)
    return result


class Process:
    """A process whose output lines can be waited for. Ends with its test."""

    def __init__(self, test, command, host=None, env=None, stdout=None):
        self.name = pathlib.Path(command[0]).name
        self.output = []  # (monotonic time, line)
        self._news = threading.Condition()
        self._ended = False
        self.errors = tempfile.TemporaryFile()
        prefix = ["setpriv", "--pdeathsig", "KILL"] + (host.enter if host else [])
        self.popen = subprocess.Popen(prefix + [str(part) for part in command], env=env or environment(),
                                      stdin=subprocess.DEVNULL, stdout=stdout or subprocess.PIPE,
                                      stderr=self.errors)
        self.pid = self.popen.pid  # each program of the prefix becomes the next
        self._reader = None
        if stdout is None:
            # Room for what it says while this reader does not run: some wait for room, others drop what they heard.
            fcntl.fcntl(self.popen.stdout, fcntl.F_SETPIPE_SZ, 1 << 20)
            self._reader = threading.Thread(target=self._read, daemon=True)
            self._reader.start()
        test.processes.append(self)
        test.addCleanup(self.end)

    def _read(self):
        for line in self.popen.stdout:
            with self._news:
                self.output.append((time.monotonic(), line.decode(errors="replace").rstrip("\n")))
                self._news.notify_all()
        with self._news:
            self._ended = True
            self._news.notify_all()

    @property
    def lines(self):
        with self._news:
            return [line for _, line in self.output]

    def times(self, pattern):
        """The moments of the lines that match so far."""
        with self._news:
            return [moment for moment, line in self.output if re.search(pattern, line)]

    def wait_for(self, pattern, timeout=10, times=1):
        """Waits until that many lines match; answers the time and the match of the last of them."""
        deadline = time.monotonic() + timeout
        seen, found = 0, 0
        with self._news:
            while True:
                for moment, line in self.output[seen:]:
                    if match := re.search(pattern, line):
                        found += 1
                        if found == times:
                            return moment, match
                seen = len(self.output)
                if self._ended or not self._news.wait(deadline - time.monotonic()):
                    raise AssertionError(f"{self.name}: {found} of {times} lines match {pattern!r} after "
                                         f"{timeout} s" + " (it has ended)" * self._ended)

    def signal(self, number):
        self.popen.send_signal(number)

    def wait(self, timeout=5):
        status = self.popen.wait(timeout)
        if self._reader:
            self._reader.join(timeout)
        return status

    def kill(self):
        self.signal(signal.SIGKILL)
        self.wait()

    def end(self):
        if self.popen.poll() is None:
            self.signal(signal.SIGTERM)
            try:
                self.wait(10)  # many devices take their time to withdraw
            except subprocess.TimeoutExpired:
                self.kill()

    def report(self):
        self.errors.seek(0)
        errors = self.errors.read().decode(errors="replace").splitlines()
        return "\n".join([f"--- {self.name} ({self.pid})"] + self.lines[-60:] + errors[:200])


def environment(**more):
    """The caller's, without what leads to its session's services."""
    kept = {key: value for key, value in os.environ.items()
            if not key.startswith(("DBUS_", "JACK_", "XDG_")) and key not in ("DISPLAY", "WAYLAND_DISPLAY")}
    # ThreadSanitizer would wait a second at the end for threads that still run.
    sanitizer = kept.get("TSAN_OPTIONS", "") + " atexit_sleep_ms=0"
    return kept | {"JACK_NO_AUDIO_RESERVATION": "1", "LC_ALL": "C.UTF-8", "TSAN_OPTIONS": sanitizer} | more


class Host:
    """A machine of its own as far as network, /run and /dev/shm go."""

    def __init__(self, test):
        script = "mount -t tmpfs none /dev/shm; mount -t tmpfs none /run; ip link set lo up; echo; exec cat"
        self._holder = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--net", "--mount", "sh", "-ec", script],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        test.addCleanup(self._release)
        if self._holder.stdout.readline() != b"\n":
            raise unittest.SkipTest("no network namespaces here")
        self.pid = self._holder.pid
        self.enter = ["nsenter", f"--target={self.pid}", "--net", "--mount"]

    def _release(self):
        self._holder.stdin.close()  # ends cat
        self._holder.wait()
        self._holder.stdout.close()

    def run(self, *command, check=True, text=""):
        return subprocess.run(self.enter + [*command], check=check, env=environment(), input=text,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def ip(self, *lines):
        """Runs several commands of `ip` at once."""
        self.run("ip", "-batch", "-", text="\n".join(lines) + "\n")


class Network:
    """Switches, and hosts on them."""

    def __init__(self, test):
        self._test = test
        self._switches = Host(test)
        self._bridges = set()
        self._ports = 0

    def host(self, *addresses, switch="lan"):
        host = Host(self._test)
        self.attach(host, *addresses, switch=switch)
        return host

    def attach(self, host, *addresses, switch="lan"):
        """Gives the host one more interface, named after the switch, with those addresses (a.b.c.d/n)."""
        commands = []
        if switch not in self._bridges:
            self._bridges.add(switch)
            commands += [f"link add {switch} type bridge mcast_snooping 0", f"link set {switch} up"]
        self._ports += 1
        port = f"port{self._ports}"
        commands += [f"link add {port} type veth peer name {switch} netns {host.pid}",
                     f"link set {port} master {switch} up"]
        self._switches.ip(*commands)
        host.ip(f"link set {switch} up", *(f"addr add {address} dev {switch}" for address in addresses))


class SystemTest(unittest.TestCase):
    """A test with a network, its processes, and their output in print if it fails."""

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

    def assertNotes(self, receiver, count):
        """What the receiver heard is the beginning of the device's scale, each message once, in order."""
        heard, expected = receiver.messages, [scale(number) for number in range(count)]
        if heard != expected:
            place = next((n for n, pair in enumerate(zip(heard, expected)) if pair[0] != pair[1]), len(heard))
            self.fail(f"{len(heard)} of {count} messages; the first wrong one is number {place}: "
                      f"heard {heard[place:place + 6]}, expected {expected[place:place + 6]}")


class Program(Process):
    """The program under test. Its preferences live in `config`."""

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
        """It ends within a second, and well; answers its log."""
        began = time.monotonic()
        self.signal(number)
        status = self.wait(20)
        self._test.assertEqual(status, 0, "exit status")
        self._test.assertLess(time.monotonic() - began, 1.0, "time to end")
        return self.lines

    def end(self):
        if self.popen.poll() is None:
            self.terminate()
        elif self.popen.returncode != 0:
            raise AssertionError(f"the program ended with status {self.popen.returncode}")


class JackServer:
    """A JACK server of the host's own, without sound hardware. It waits for each of its clients in each cycle:
    one that does not (`patient` False) drops a client's whole period when the machine is busy, which would look
    like lost notes."""

    def __init__(self, test, host, patient=True, priority=None):
        self._test, self._host = test, host
        self._options = ["-R", "-P", str(priority)] if priority else ["-r"]
        self._options += ["-S", "-t", "2000"] if patient else []
        self.start()

    def start(self):
        driver = ["-d", "dummy", "-r", "48000", "-p", "256"]
        self.process = Process(self._test, ["jackd", *self._options, *driver], self._host)
        self._host.run("jack_wait", "-w", "-t", "10")

    def receiver(self):
        return Receiver(self._test, self._host)


class Receiver(Process):
    """A JACK client that is not ours. It is connected to the program's source, and hears its messages."""

    COMMAND = ("jack_midi_dump",)

    def __init__(self, test, host):
        # jack_lsp takes no part in the server's cycles. Clients that do may stall a JACK server of this version
        # for good if they come at the same moment, so they come one by one.
        def ports():
            return host.run("jack_lsp", check=False).stdout.splitlines()
        until(lambda: SOURCE in ports(), 10, "the source is there")
        super().__init__(test, [*self.COMMAND, "receiver"], host)
        until(lambda: "receiver:input" in ports(), 10, "the receiver is there")
        # The server shows the port before the client is active.
        until(lambda: host.run("jack_connect", SOURCE, "receiver:input", check=False).returncode == 0, 10,
              "the receiver is connected")

    @property
    def messages(self):
        found = (re.match(r" *\d+: ((?:[0-9a-f]{2} )*[0-9a-f]{2})\b", line) for line in self.lines)
        return [bytes.fromhex(match[1]) for match in found if match]

    def wait_for_messages(self, count, timeout=15):
        self.wait_for(r"^ *\d+: [0-9a-f]{2}", timeout, count)


def scale(number):
    """Message `number` of the device's scale."""
    note = (60, 62, 64, 65, 67, 69, 71, 72)[number // 2 % 8]
    return bytes((0x80 if number % 2 else 0x90, note, number % 127 + 1))


Packet = collections.namedtuple("Packet", "time destination local remote outgoing command token ssrc name count "
                                          "t1 t2 t3 malformed")


class Capture:
    """The session packets on the first interface of the program's host, as tshark reads them. `peer` is the address
    of any other host: datagrams to its discard port mark where the capture begins and ends."""

    FIELDS = ("frame.time_epoch", "ip.dst", "udp.srcport", "udp.dstport", "applemidi.command",
              "applemidi.name", "_ws.malformed", "applemidi.initiator_token", "applemidi.sender_ssrc",
              "applemidi.count", "applemidi.timestamp1", "applemidi.timestamp2", "applemidi.timestamp3")

    def __init__(self, test, host, peer):
        self._host, self._peer = host, peer
        fields = [part for field in self.FIELDS for part in ("-e", field)]
        # MIDI is left out: there is much of it, and tshark has to keep pace.
        self._tshark = Process(test, ["tshark", "-i", "lan", "-n", "-l", "-T", "fields", *fields, "-f",
                                      "udp dst port 9 or (udp portrange 51204-51205 and udp[8:2] = 0xffff)"], host)
        until(lambda: self._mark() or self._tshark.lines, 20, "tshark captures")

    def _mark(self):
        self._host.run("bash", "-c", f"echo > /dev/udp/{self._peer}/9")

    def packets(self):
        """Those so far."""
        marks = len(self._tshark.times("\t9\t"))
        self._mark()
        self._tshark.wait_for("\t9\t", times=marks + 1)
        rows = [line.split("\t") for line in self._tshark.lines]
        return [self._packet(*row) for row in rows if row[3] != "9"]

    @staticmethod
    def _packet(moment, destination, source_port, destination_port, command, name, malformed, *numbers):
        ports = int(source_port), int(destination_port)
        outgoing = ports[0] in (CONTROL_PORT, DATA_PORT)
        token, ssrc, *clock = (int(number, 0) if number else None for number in numbers)
        return Packet(float(moment), destination, *(ports if outgoing else ports[::-1]), outgoing,
                      int(command or "0", 16).to_bytes(2, "big").decode("latin-1"), token, ssrc, name, *clock,
                      bool(malformed))


class MainThreadHold:
    """Holds up the main thread of a process, and no other, while the `with` block runs."""

    SEIZE, INTERRUPT, DETACH, WALL = 0x4206, 0x4207, 17, 0x40000000

    def __init__(self, process):
        self._pid = process.pid
        self._libc = ctypes.CDLL(None, use_errno=True)
        self._libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p]
        self._libc.ptrace.restype = ctypes.c_long

    def _ptrace(self, request):
        if self._libc.ptrace(request, self._pid, None, None) != 0:
            raise OSError(ctypes.get_errno(), "ptrace")

    def __enter__(self):
        self._ptrace(self.SEIZE)
        self._ptrace(self.INTERRUPT)
        os.waitpid(self._pid, self.WALL)

    def __exit__(self, *_):
        self._ptrace(self.DETACH)
