#!/usr/bin/env python3
"""The program on a real ALSA sequencer, among the programs that its users have: a monitor, a patchbay, a synthesizer,
PipeWire. All of it runs inside one virtual machine, which this file boots for itself.

One test alone: PYTHONPATH=$PWD/../../tools ../../tools/lab/vm.py python3 -m unittest -v test_alsa.Sequencer.test_notes
"""
import array
import itertools
import math
import os
import pathlib
import re
import shutil
import signal
import statistics
import subprocess
import sys
import unittest
import wave

from lab import vm
from lab.processes import Process, environment, until
from lab.programs import BUILD, JackServer, Program, SystemTest, scale

SOURCE = "Tessary Link:0"  # client by name, port by number: as a saved connection has it
SYNTHESIZER = "FLUID Synth (tessary)"
SOUND_FONT = "/usr/share/sounds/sf2/TimGM6mb.sf2"
TOOLS = ("aconnect", "aseqdump", "aj-snapshot", "chrt", "dbus-daemon", "fluidsynth", "jackd", "modprobe", "pipewire",
         "pw-jack", "wireplumber")
PATIENCE = 30  # seconds until an awaited event counts as missing; an emulated machine is slow


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


def mixed(number, size):
    """Message `number` of the device's mixed tune."""
    count, low = number // 12 % 128, number % 128
    exclusive = bytes([0xF0, 0x7D, *(number >> shift & 127 for shift in (21, 14, 7, 0))][:size - 1])
    exclusive += bytes((7 * number + k + k // 128) % 128 for k in range(6, size - 1)) + b"\xf7"
    velocity = number % 127 + 1
    return (bytes((0x90, 60, velocity)), bytes((0x80, 60, velocity)), bytes((0xA0, 60, count)), bytes((0xB0, 1, count)),
            bytes((0xC0, count)), bytes((0xD0, count)), bytes((0xE0, count, low)), bytes((0xF2, count, low)),
            bytes((0xF3, count)), bytes((0xF1, count)), b"\xf8", exclusive)[number % 12]


class SlowProgram(Program):
    """How soon it ends is measured elsewhere, on a machine that is not emulated."""

    def terminate(self, number=signal.SIGTERM):
        self.signal(number)
        self._test.assertEqual(self.wait(PATIENCE), 0, "exit status")
        return self.lines


class Listener(Process):
    """aseqdump, connected to the source by name. Its output goes to a file and it goes first, so that it loses
    nothing by being slow."""

    KINDS = (("Note on", 0x90, 2), ("Note off", 0x80, 2), ("Polyphonic aftertouch", 0xA0, 2),
             ("Control change", 0xB0, 2), ("Program change", 0xC0, 1), ("Channel aftertouch", 0xD0, 1))

    def __init__(self, test):
        self._test = test
        self._path = test.directory / f"aseqdump {len(test.processes)}"
        connected = len(test.connections())
        with self._path.open("wb") as file:
            super().__init__(test, ["chrt", "-f", "50", "aseqdump", "-p", SOURCE], stdout=file)
        until(lambda: len(test.connections()) > connected, PATIENCE, "aseqdump is connected")

    @property
    def events(self):
        """What is printed of each event: its kind and its data."""
        lines = self._path.read_text().splitlines()
        return [line[8:].strip() for line in lines if re.match(r" *\d+:0  ", line)]

    @property
    def messages(self):
        """All, System Exclusive joined from its pieces; a real-time message among these comes first."""
        messages, exclusive = [], b""
        for event in self.events:
            if event.startswith("System exclusive"):
                exclusive += bytes.fromhex(event.removeprefix("System exclusive"))
                if exclusive.endswith(b"\xf7"):
                    messages.append(exclusive)
                    exclusive = b""
            elif event != "Clock" and exclusive:
                raise AssertionError(f"{event} in the middle of a System Exclusive")
            else:
                messages.append(self._bytes(event))
        return messages

    def _bytes(self, event):
        numbers = [int(number) for number in re.findall(r"(?:^|[ ,])(-?\d+)(?=,|$)", event)]
        for name, status, size in self.KINDS:
            if event.startswith(name):
                return bytes((status | numbers[0], *numbers[-size:]))
        for name, status, offset in (("Pitch bend", 0xE0, 8192), ("Song position", 0xF2, 0)):
            if event.startswith(name):
                value = numbers[-1] + offset
                return bytes((status | (numbers[0] if status == 0xE0 else 0), value & 127, value >> 7))
        if event.startswith("Song select"):
            return bytes((0xF3, numbers[-1]))
        if quarter := re.match(r"MTC quarter frame +([0-9a-f]+)h", event):
            return bytes((0xF1, int(quarter[1], 16)))
        return {"Clock": b"\xf8"}.get(event, event.encode())

    def wait_for_messages(self, count):
        until(lambda: len(self.events) >= count, PATIENCE, f"{count} messages")


class Synthesizer(Process):
    """fluidsynth, which plays into a WAV file, in real time, and prints what it is given to play."""

    RATE = 16000  # four milliseconds for each of its periods: it rounds them to whole ones
    VIBRAPHONE = 11  # quick, and purer than most

    def __init__(self, test):
        self.recording, commands = test.directory / "recording.wav", test.directory / "commands"
        os.mkfifo(commands)
        options = ["-d", "-r", self.RATE, "-R", 0, "-C", 0, "-g", 10, "-z", 64, "-m", "alsa_seq", "-a", "file",
                   "-o", "midi.alsa_seq.id=tessary", "-o", "synth.polyphony=16", "-o", "audio.file.type=wav",
                   "-o", f"audio.file.name={self.recording}"]
        command = ["stdbuf", "-oL", "fluidsynth", *options, SOUND_FONT]
        super().__init__(test, ["sh", "-c", f'exec "$@" <{commands}', "fluidsynth", *command])
        self._commands = commands.open("w")
        test.addCleanup(self._commands.close)
        self._command(f"prog 0 {self.VIBRAPHONE}")
        until(lambda: SYNTHESIZER in test.clients(), PATIENCE, "the synthesizer is there")

    def _command(self, text):
        self._commands.write(text + "\n")
        self._commands.flush()

    def finish(self):
        """Ends the recording; answers it as (samples, samples a second), thinned out to what notes need."""
        self._command("quit")
        self.wait(PATIENCE)
        thinning = 4
        with wave.open(str(self.recording)) as file:
            samples = array.array("h", file.readframes(file.getnframes()))[::file.getnchannels()]
            return ([sum(samples[i:i + thinning]) for i in range(0, len(samples) - thinning, thinning)],
                    file.getframerate() / thinning)


def notes_in(samples, rate, lowest, highest):
    """The notes of a recording of one voice that never plays the same one twice in a row, as [(seconds, note)]."""
    window, step = round(0.1 * rate), round(0.02 * rate)
    # Goertzel's algorithm, tuned to each note.
    tuned = {note: 2 * math.cos(2 * math.pi * 440 * 2 ** ((note - 69) / 12) / rate)
             for note in range(lowest, highest + 1)}

    def power(part, factor):
        before = last = 0.0
        for sample in part:
            before, last = last, sample + factor * last - before
        return before * before + last * last - factor * before * last

    def dominant(part):
        if sum(map(abs, part)) / window < 8:  # in one of 32,768 parts of what a WAV file can hold: silence
            return None
        return max(tuned, key=lambda note: power(part, tuned[note]))

    steps = [(begin, dominant(samples[begin:begin + window])) for begin in range(0, len(samples) - window, step)]
    notes = []
    for note, run in itertools.groupby(steps, lambda one: one[1]):
        (begin, _), *more = run
        lasts = len(more) >= 2  # else it is the passage from one note to the next
        if note is not None and lasts and not (notes and notes[-1][1] == note):
            notes.append((begin / rate, note))
    return notes


class Sequencer(SystemTest):
    def setUp(self):
        if "TESSARY_VM" not in os.environ:
            self.skipTest("runs in a virtual machine of its own")
        super().setUp()
        self.here = self.network.host("10.77.0.1/24")
        self.there = self.network.host("10.77.0.2/24", "10.77.0.3/24", "10.77.0.4/24")
        self.devices = 0

    def start(self):
        program = SlowProgram(self, self.here)
        until(lambda: "Tessary Link" in self.clients(), PATIENCE, "the source is there")
        return program

    def device(self, *options):
        """Another device: the last one, had it come back, might be dialled both before and after it was missed."""
        self.devices += 1
        return super().device(self.there, "--name", f"Device {self.devices}", "--address",
                              f"10.77.0.{1 + self.devices}", *options)

    def clients(self):
        """The sequencer's clients as the kernel lists them: {name: text}."""
        return {name: text for name, text in self._clients().values()}

    def connections(self):
        """The names of the clients that the source is connected to, one for each connection."""
        clients = self._clients()
        targets = re.search(r"Connecting To: (.*)", self.clients().get("Tessary Link", ""))
        return [clients[int(target.split(":")[0])][0] for target in targets[1].split(",")] if targets else []

    @staticmethod
    def _clients():
        text = pathlib.Path("/proc/asound/seq/clients").read_text()
        return {int(match[1]): (match[2], match[0])
                for match in re.finditer(r'^Client +(\d+) : "(.*?)".*\n(?:^ .*\n)*', text, re.M)}

    def test_port(self):
        program = self.start()
        listed = self.here.run("aconnect", "-l").stdout
        self.assertRegex(listed, r"client \d+: 'Tessary Link' \[type=user.*\]\n    0 'Tessary Link +'\n(client|$)")
        self.assertRegex(self.here.run("aconnect", "-i").stdout, "'Tessary Link'")  # one can read from it,
        self.assertNotRegex(self.here.run("aconnect", "-o").stdout, "'Tessary Link'")  # and not write to it
        self.assertEqual(program.terminate(), [], "nobody is told which MIDI system it is")
        self.assertNotIn("Tessary Link", self.clients())

    def test_not_on_jack_as_well(self):
        JackServer(self, self.here)
        self.start()
        self.assertNotIn("Tessary Link", self.here.run("jack_lsp").stdout)

    def test_units(self):
        """Unit tests that need a sequencer, or the right to raise a limit."""
        tests = Process(self, [BUILD / "tests/tessary_platform_tests", "--gtest_filter=AlsaOutputTest.*:RealTime*"])
        self.assertEqual(tests.wait(PATIENCE), 0)
        self.assertFalse(any("SKIPPED" in line for line in tests.lines))
        self.assertTrue(any("PASSED" in line for line in tests.lines))

    def test_notes(self):
        self.start()
        listener = Listener(self)
        self.device("--rate", "1000", "--messages", "5000").wait_for("played 5000", PATIENCE)
        listener.wait_for_messages(5000)
        self.assertNotes(listener, 5000)

    def test_every_kind_of_message_and_size_of_system_exclusive(self):
        self.start()
        for size in (3, 256, 10_000):
            with self.subTest(size=size):
                listener = Listener(self)
                self.device("--play", "mixed", "--sysex-size", size, "--rate", "100", "--messages", "24")
                expected = [mixed(number, size) for number in range(24)]
                until(lambda: len(listener.messages) >= 24, PATIENCE, "24 messages")
                heard, ticks = listener.messages, [b"\xf8"] * 2
                # The clock does not wait for long System Exclusive.
                self.assertEqual([message for message in heard if message not in ticks],
                                 [message for message in expected if message not in ticks])
                self.assertEqual([message for message in heard if message in ticks], ticks)
                listener.end()

    def test_a_stopped_subscriber_disturbs_no_other(self):
        self.start()
        stopped, listener = Listener(self), Listener(self)
        stopped.signal(signal.SIGSTOP)
        self.device("--rate", "500", "--messages", "2000").wait_for("played 2000", PATIENCE)
        listener.wait_for_messages(2000)
        self.assertNotes(listener, 2000)

        stopped.signal(signal.SIGCONT)  # the kernel tells it that its queue ran over, and empties it
        self.device("--play", "mixed", "--rate", "100", "--messages", "24")
        for subscriber, before in ((listener, 2000), (stopped, 0)):
            subscriber.wait_for_messages(before + 24)
            self.assertEqual(subscriber.messages[before:], [mixed(number, 256) for number in range(24)])

    def test_a_saved_connection_returns_with_the_program(self):
        program = self.start()
        synthesizer = Synthesizer(self)
        self.here.run("aconnect", SOURCE, SYNTHESIZER + ":0")
        saved = self.directory / "connections.xml"
        self.here.run("aj-snapshot", "-af", str(saved))
        program.terminate()
        self.assertNotIn("Tessary Link", self.clients())

        Process(self, ["aj-snapshot", "-a", "-d", saved])  # a patchbay that keeps the connections
        self.start()
        until(lambda: self.connections() == [SYNTHESIZER], PATIENCE, "the connection returns")
        self.device("--messages", "2")
        synthesizer.wait_for("event_post_noteon 0 60 1", PATIENCE)
        synthesizer.wait_for("event_post_noteoff 0 60 2", PATIENCE)

    def test_a_synthesizer_plays_the_right_notes_at_the_right_times(self):
        self.start()
        synthesizer = Synthesizer(self)
        self.here.run("aconnect", SOURCE, SYNTHESIZER + ":0")
        count, every = 24, 0.25
        self.device("--rate", 2 / every, "--messages", 2 * count)
        synthesizer.wait_for("event_post_noteoff", PATIENCE, count)
        notes = notes_in(*synthesizer.finish(), 57, 75)
        self.assertEqual([note for _, note in notes], [scale(2 * number)[1] for number in range(count)])
        offsets = [time - number * every for number, (time, _) in enumerate(notes)]
        for number, offset in enumerate(offsets[1:], 1):  # the first is too soft to tell when it begins
            self.assertAlmostEqual(offset, statistics.median(offsets), delta=0.08, msg=f"note {number} of {notes}")

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
        bus.wait_for("unix:path", PATIENCE)
        Process(self, ["pipewire"], self.here, env)
        until(lambda: self.here.run("test", "-S", "/run/user/pipewire-0", check=False).returncode == 0, PATIENCE,
              "PipeWire is there")
        Process(self, ["wireplumber"], self.here, env)
        bridged = until(lambda: re.search(r"^Midi-Bridge:.*Tessary Link.*$", jack("jack_lsp"), re.M), PATIENCE,
                        "the bridge")
        receiver = Process(self, ["pw-jack", "stdbuf", "-oL", "jack_midi_dump", "receiver"], self.here, env)
        until(lambda: "receiver:input" in jack("jack_lsp"), PATIENCE, "the receiver")
        jack("jack_connect", bridged[0], "receiver:input")
        until(lambda: "PipeWire-RT-Event" in self.connections(), PATIENCE, "PipeWire listens")
        self.device("--rate", "50", "--messages", "100")
        receiver.wait_for(r"^ *\d+: [89]0", PATIENCE, 100)
        heard = [re.match(r" *\d+: ((?:[0-9a-f]{2} )+)", line) for line in receiver.lines]
        self.assertEqual([bytes.fromhex(match[1]) for match in heard if match], [scale(n) for n in range(100)])


if __name__ == "__main__":
    unittest.main()
