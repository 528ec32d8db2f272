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


class PromptReceiver(Receiver):
    """A receiver drops what it has no time to print."""
    COMMAND = ("chrt", "--fifo", "4", *Receiver.COMMAND)


def children(pid):
    return [int(child) for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def memory(pid):
    """MiB resident."""
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) / 1024


class Isolation(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk, self.stage, self.enemy, self.later = (
            self.network.host(f"10.77.1.{number}/24") for number in (1, 2, 3, 4))

    def begin(self):
        """A device runs, and plays nothing."""
        self.program = Program(self, self.desk)
        self.device(self.stage, "--name", "Piano", "--play", "nothing")
        self.program.wait_for(r"^.Dialer. 10\.77\.1\.2 running$")

    def begin_playing(self, notes):
        """A device plays a note a millisecond until the messages are out."""
        JackServer(self, self.desk, priority=10)
        self.program = Program(self, self.desk)
        self.receiver = PromptReceiver(self, self.desk)
        self.notes = notes
        Process(self, ["chrt", "--fifo", "6", DEVICE, "--name", "Piano", "--rate", 1000, "--messages", notes], self.stage)
        self.receiver.wait_for_messages(100)

    def assertPlayedOn(self):
        self.receiver.wait_for_messages(self.notes, 20 + self.notes / 1000)
        self.assertNotes(self.receiver, self.notes)
        self.assertUndisturbed()

    def assertUndisturbed(self):
        self.assertEqual(self.program.times("Piano.*failed|gone|1.2 failed"), [])

    def assertNewDeviceFound(self, hostile=None):
        """Discovery has a low priority, so this takes its time on a busy machine."""
        self.device(self.later, "--name", "Organ", "--play", "nothing").wait_for("announced")
        if hostile:
            hostile.kill()
        self.program.wait_for(r"^.Dialer. 10\.77\.1\.4 running$", 60)

    def send(self, kind):
        """From what would be another machine: it must not take this one's processors from what plays."""
        return Process(self, ["nice", sys.executable, pathlib.Path(mdns.__file__).resolve(), "10.77.1.3", kind], self.enemy)

    def discovery(self):
        return until(lambda: children(self.program.pid), 40, "discovery runs")[0]

    def test_aliases(self):
        self.begin_playing(10_000)
        aliases = self.send("aliases")
        aliases.wait_for("sent", 60, times=2)
        self.assertNewDeviceFound(aliases)
        self.assertPlayedOn()
        self.assertEqual(self.program.times("discovery process"), [])  # it has not crashed

    def test_aliases_that_crash_the_daemon(self):
        start_system_bus(self, self.desk)
        start_avahi(self, self.desk, restarts=True)
        self.begin_playing(15_000)
        aliases = self.send("aliases")
        self.program.wait_for("has given up an Avahi daemon that keeps ending or does not return", 60)
        self.assertNewDeviceFound(aliases)
        self.assertPlayedOn()

    def test_process_that_is_killed(self):
        self.begin_playing(int(SECONDS * 1000))
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            for process in children(self.program.pid):
                os.kill(process, signal.SIGKILL)
            time.sleep(0.1)
        self.discovery()
        self.assertNewDeviceFound()
        self.assertPlayedOn()

        left = self.discovery()
        self.program.kill()
        # A process that has ended has no executable, even while nothing has waited for it.
        until(lambda: not os.path.exists(f"/proc/{left}/exe"), 1, "it ends with the program")
        self.program.popen.returncode = 0

    def test_thousands_of_names_hide_no_device(self):
        self.begin()
        names = self.send("names")
        names.wait_for("sent", 60)
        names.kill()
        self.assertNewDeviceFound()
        self.assertUndisturbed()

    def test_cache_that_is_flooded(self):
        """The records are valid for years: only a new process can store others."""
        self.begin()
        before = memory(self.program.pid)
        flood = self.send("flood")
        self.program.wait_for("had no room for more records", 60)
        flood.kill()
        self.discovery()
        self.assertNewDeviceFound()
        self.assertLess(memory(self.program.pid), before + 16)
        self.assertUndisturbed()


if __name__ == "__main__":
    unittest.main()
