#!/usr/bin/env python3
"""The program on a real ALSA sequencer, among the programs that its users have: a monitor, a recorder, PipeWire. All of
it runs inside one virtual machine, which this file boots for itself.

One test alone: PYTHONPATH=$PWD/../../tools ../../tools/lab/vm.py python3 -m unittest -v test_alsa.Sequencer.test_port
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import unittest

from lab import vm
from lab.processes import Process, environment, until
from lab.programs import BUILD, JackServer, Program, SystemTest, exclusive, scale

SOURCE = "Tessary Link:0"  # client by name, port by number: as patchbays save connections
TOOLS = ("aconnect", "arecordmidi", "aseqdump", "chrt", "dbus-daemon", "jackd", "modprobe", "pipewire", "pw-jack",
         "wireplumber")
TIMEOUT = 60  # seconds; an emulated machine is slow


class VirtualMachine(unittest.TestCase):
    """What of this file runs on the machine at hand."""

    def test_inside(self):
        if missing := [tool for tool in TOOLS if not shutil.which(tool)]:
            self.skipTest("missing: " + ", ".join(missing))
        try:
            status = vm.run([sys.executable, "-m", "unittest", "-v", "test_alsa"], timeout=540, output=sys.stderr,
                            directory=pathlib.Path(__file__).parent,
                            environment={"TESSARY_BUILD_DIR": str(BUILD), "PYTHONDONTWRITEBYTECODE": "1"})
        except vm.Unavailable as reason:
            self.skipTest(str(reason))
        self.assertEqual(status, 0, "the tests inside, above")


def load_tests(loader, tests, pattern):
    inside = "TESSARY_VM" in os.environ
    return loader.loadTestsFromTestCase(Sequencer if inside else VirtualMachine)


def setUpModule():
    if "TESSARY_VM" in os.environ:
        subprocess.run(["modprobe", "-a", "snd-seq", "snd-seq-dummy", "bridge", "veth"], check=True)


class Listener(Process):
    """aseqdump, connected to the source by name. It writes to a file and has a high priority, so that it loses nothing
    by being slow."""

    def __init__(self, test):
        self._path = test.directory / f"aseqdump {len(test.processes)}"
        connected = len(test.connections())
        with self._path.open("wb") as file:
            super().__init__(test, ["chrt", "-f", "50", "aseqdump", "-p", SOURCE], stdout=file)
        until(lambda: len(test.connections()) > connected, TIMEOUT, "aseqdump is connected")

    @property
    def messages(self):
        """Notes, and System Exclusive joined from its pieces."""
        messages, pending = [], b""
        for event in re.findall(r"^ *\d+:0 +(.*)\n", self._path.read_text(), re.M):
            if piece := re.match(r"System exclusive +(.*)", event):
                pending += bytes.fromhex(piece[1])
                if pending.endswith(b"\xf7"):
                    messages.append(pending)
                    pending = b""
            elif note := re.match(r"Note (on|off) +(\d+), note (\d+), velocity (\d+)", event):
                status = {"on": 0x90, "off": 0x80}[note[1]]
                messages.append(pending + bytes((status | int(note[2]), int(note[3]), int(note[4]))))
        return messages

    def wait_for_messages(self, count):
        until(lambda: len(self.messages) >= count, TIMEOUT, f"{count} messages")


class Sequencer(SystemTest):
    def setUp(self):
        super().setUp()
        self.here = self.network.host("10.77.0.1/24")
        self.there = self.network.host("10.77.0.2/24", "10.77.0.3/24", "10.77.0.4/24")
        self.devices = 0

    def start(self):
        program = Program(self, self.here)
        program.time_to_end = TIMEOUT  # measured elsewhere, on a machine that is not emulated
        until(self.source, TIMEOUT, "the source is there")
        return program

    def device(self, *options):
        """Another device: the last one, had it come back, might be dialled both before and after it was missed."""
        self.devices += 1
        return super().device(self.there, "--name", f"Device {self.devices}", "--address",
                              f"10.77.0.{1 + self.devices}", *options)

    def source(self):
        """What the kernel lists of the program's client of the sequencer; nothing without one."""
        text = pathlib.Path("/proc/asound/seq/clients").read_text()
        return "".join(re.findall(r'^Client +\d+ : "Tessary Link".*\n(?:^ .*\n)*', text, re.M))

    def connections(self):
        """The ports that the source is connected to."""
        return re.findall(r"\d+:\d+", "".join(re.findall("Connecting To: .*", self.source())))

    def test_port(self):
        JackServer(self, self.here)
        program = self.start()
        listed = self.here.run("aconnect", "-l").stdout
        self.assertRegex(listed, r"client \d+: 'Tessary Link' \[type=user.*\]\n    0 'Tessary Link +'\n(client|$)")
        self.assertIn("Tessary Link", self.here.run("arecordmidi", "-l").stdout, "a MIDI port to read from")
        self.assertNotIn("'Tessary Link'", self.here.run("aconnect", "-o").stdout, "a port to write to")
        self.assertNotIn("Tessary Link", self.here.run("jack_lsp").stdout, "each note twice, by way of a bridge")
        self.assertEqual(program.terminate(), [], "nothing to report")
        self.assertEqual(self.source(), "")

    def test_units(self):
        """Unit tests that need a sequencer, or the right to raise a limit."""
        for program, pattern in (("tessary_platform_tests", "RealTime*"), ("tessary_allocation_test", "*")):
            tests = Process(self, [BUILD / "tests" / program, "--gtest_filter=" + pattern])
            self.assertEqual(tests.wait(TIMEOUT), 0)
            self.assertFalse(any("SKIPPED" in line for line in tests.lines))
            self.assertTrue(any("PASSED" in line for line in tests.lines))

    def test_every_size_of_system_exclusive(self):
        self.start()
        listener, expected = Listener(self), []
        for size in (3, 256, 10_000):
            self.device("--play", "sysex", "--sysex-size", size, "--rate", 10, "--messages", 4)
            expected += [exclusive(number, size) for number in range(4)]
            listener.wait_for_messages(len(expected))
        self.assertEqual(listener.messages, expected)

    def test_a_stopped_subscriber_disturbs_no_other(self):
        self.start()
        stopped, listener = Listener(self), Listener(self)
        stopped.signal(signal.SIGSTOP)
        self.device("--rate", 500, "--messages", 2000).wait_for("played 2000 messages", TIMEOUT)
        listener.wait_for_messages(2000)
        self.assertNotes(listener, 2000)

        stopped.signal(signal.SIGCONT)  # the kernel tells it that its queue ran over, and empties it
        self.device("--play", "sysex", "--rate", 100, "--messages", 24)
        expected = [exclusive(number, 256) for number in range(24)]
        until(lambda: stopped.messages[-24:] == expected, TIMEOUT, "the stopped one receives again")
        listener.wait_for_messages(2024)
        self.assertEqual(listener.messages[2000:], expected)

    def test_pipewire_bridges_the_source_to_jack(self):
        self.start()
        self.here.run("mkdir", "-p", "/run/user", *(f"/run/systemd/{part}" for part in ("seats", "sessions", "users")),
                      "/run/systemd/machines")
        env = environment(XDG_RUNTIME_DIR="/run/user", HOME=str(self.directory),
                          DBUS_SESSION_BUS_ADDRESS="unix:path=/run/user/bus")

        def jack(*command):
            return subprocess.run([*self.here.enter, "pw-jack", *command], env=env, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True).stdout

        bus = Process(self, ["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address",
                             "--address=unix:path=/run/user/bus"], self.here, env)
        bus.wait_for("unix:path", TIMEOUT)
        Process(self, ["pipewire"], self.here, env)
        until(lambda: self.here.run("test", "-S", "/run/user/pipewire-0", check=False).returncode == 0, TIMEOUT,
              "PipeWire is there")
        Process(self, ["wireplumber"], self.here, env)
        bridged = until(lambda: re.search(r"^Midi-Bridge:.*Tessary Link.*$", jack("jack_lsp"), re.M), TIMEOUT,
                        "the bridge")
        receiver = Process(self, ["pw-jack", "stdbuf", "-oL", "jack_midi_dump", "receiver"], self.here, env)
        until(lambda: "receiver:input" in jack("jack_lsp"), TIMEOUT, "the receiver")
        jack("jack_connect", bridged[0], "receiver:input")
        until(self.connections, TIMEOUT, "PipeWire listens")
        self.device("--rate", "50", "--messages", "100")
        receiver.wait_for(r"^ *\d+: [89]0", TIMEOUT, 50)  # an emulated PipeWire may be too late for some
        received = re.findall(r"^ *\d+: ((?:[0-9a-f]{2} )+)", "\n".join(receiver.lines), re.M)
        played = iter([scale(number) for number in range(100)])
        self.assertTrue(all(bytes.fromhex(message) in played for message in received), received)


if __name__ == "__main__":
    unittest.main()
