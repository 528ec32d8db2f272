"""Discovery is a process of its own: hostile datagrams and crashes there end no session and lose no note."""
import os
import pathlib
import re
import signal
import sys
import time
import unittest

from lab import mdns
from lab.daemons import start_avahi, start_system_bus
from lab.processes import Process, until
from lab.programs import DEVICE, JackServer, Program, Receiver, SystemTest

SECONDS = float(os.environ.get("TESSARY_ISOLATION_SECONDS", "6"))  # of killing the process again and again
RATE = 48_000


class TimedReceiver(Receiver):
    """Also tells when each message was played, in seconds of the server. It drops what it has no time to print."""
    COMMAND = ("chrt", "--fifo", "4", "jack_midi_dump", "-a")

    @property
    def times(self):
        found = (re.match(r" *(\d+): (?:[0-9a-f]{2} )*[0-9a-f]{2}\b", line) for line in self.lines)
        return [int(match[1]) / RATE for match in found if match]


def children(pid):
    return [int(child) for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def memory(pid):
    """MiB resident."""
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) / 1024


def is_running(pid):
    """A process that nobody has waited for is none."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] not in "ZX"
    except FileNotFoundError:
        return False


class Isolation(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk, self.stage, self.enemy, self.later = (
            self.network.host(f"10.77.1.{number}/24") for number in (1, 2, 3, 4))

    def begin(self, notes):
        """A device plays a note a millisecond until the messages are out."""
        JackServer(self, self.desk, priority=10)
        self.program = Program(self, self.desk)
        self.receiver = TimedReceiver(self, self.desk)
        self.notes = notes
        Process(self, ["chrt", "--fifo", "6", DEVICE, "--name", "Piano", "--rate", 1000, "--messages", notes], self.stage)
        self.receiver.wait_for_messages(100)

    def assertPlayedOn(self):
        self.receiver.wait_for_messages(self.notes, 20 + self.notes / 1000)
        self.assertNotes(self.receiver, self.notes)
        self.assertEqual(self.program.times("Piano.*failed|gone|1.2 failed"), [])
        delays = sorted(moment - number / 1000 for number, moment in enumerate(self.receiver.times))
        late = delays[int(0.99 * len(delays))] - delays[len(delays) // 2]
        print(f"\nnotes: 99 % within {late * 1000:.2f} ms of the median delay", flush=True)

    def add_device(self):
        self.device(self.later, "--name", "Organ", "--play", "nothing").wait_for("announced")

    def assertFound(self):
        """On an idle machine this takes less than 5 s; discovery has a low priority."""
        began = time.monotonic()
        self.program.wait_for(r"^.Dialer. 10\.77\.1\.4 running$", 60)
        print(f"\nthe new device runs after {time.monotonic() - began:.1f} s", flush=True)

    def send(self, kind):
        """From what would be another machine: it must not take this one's processors from what plays."""
        return Process(self, ["nice", sys.executable, pathlib.Path(mdns.__file__).resolve(), "10.77.1.3", kind], self.enemy)

    def discovery(self):
        return until(lambda: children(self.program.pid), 40, "discovery runs")[0]

    def test_aliases(self):
        self.begin(10_000)
        aliases = self.send("aliases")
        aliases.wait_for("sent", 60, times=2)
        self.add_device()
        aliases.kill()
        self.assertFound()
        self.assertPlayedOn()
        self.assertEqual(self.program.times("discovery process"), [])  # it has not crashed

    def test_aliases_that_crash_the_daemon(self):
        start_system_bus(self, self.desk)
        start_avahi(self, self.desk, restarts=True)
        self.begin(15_000)
        aliases = self.send("aliases")
        self.program.wait_for("has given up an Avahi daemon that keeps ending or does not return", 60)
        self.add_device()
        aliases.kill()
        self.assertFound()
        self.assertPlayedOn()

    def test_process_that_is_killed(self):
        self.begin(int(SECONDS * 1000))
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            for process in children(self.program.pid):
                os.kill(process, signal.SIGKILL)
            time.sleep(0.1)
        self.discovery()
        self.add_device()
        self.assertFound()
        self.assertPlayedOn()

        left = self.discovery()
        self.program.kill()
        until(lambda: not is_running(left), 1, "it ends with the program")
        self.program.popen.returncode = 0

    def test_thousands_of_names_hide_no_device(self):
        self.program = Program(self, self.desk)
        self.device(self.stage, "--name", "Piano", "--play", "nothing")
        self.program.wait_for("^.Dialer. 10.77.1.2 running$")
        names = self.send("names")
        names.wait_for("sent", 60)
        names.kill()
        self.add_device()
        self.assertFound()
        self.assertEqual(self.program.times("1.2 (gone|failed)"), [])

    def test_cache_that_is_flooded(self):
        """The records are valid for years: only a new process can store others."""
        self.program = Program(self, self.desk)
        self.device(self.stage, "--name", "Piano", "--play", "nothing")
        self.program.wait_for("^.Dialer. 10.77.1.2 running$")
        before = memory(self.program.pid)
        flood = self.send("flood")
        self.program.wait_for("had no room for more records", 60)
        flood.kill()
        self.discovery()
        self.add_device()
        self.assertFound()
        self.assertLess(memory(self.program.pid), before + 16)
        self.assertEqual(self.program.times("1.2 (gone|failed)"), [])


if __name__ == "__main__":
    unittest.main()
