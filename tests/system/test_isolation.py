"""Discovery is a process of its own: what the network does to it is not heard in the music."""
import os
import pathlib
import re
import shutil
import signal
import sys
import time
import unittest

from lab import mdns
from lab.processes import Process, until
from lab.programs import DEVICE, DISCOVERY, PROGRAM, JackServer, Program, Receiver, SystemTest
import test_daemon

SECONDS = float(os.environ.get("TESSARY_ISOLATION_SECONDS", "15"))  # of being killed again and again
RATE = 48_000
TOOL = pathlib.Path(mdns.__file__).resolve()
# It hands bytes on between the program and the real process for a while, and then goes wrong.
PARTNER = """#!/usr/bin/python3
import os, select, socket, subprocess, sys, time
program, (near, far) = socket.socket(fileno=3), socket.socketpair()
subprocess.Popen([{discovery!r}], close_fds=False, preexec_fn=lambda: os.dup2(far.fileno(), 3))
far.close()
end = time.monotonic() + 3
while time.monotonic() < end:
    for source in select.select([program, near], [], [], 0.1)[0]:
        (near if source is program else program).sendall(source.recv(65536) or sys.exit())
listed = b"\\x01\\0\\0\\0\\x01" + b"\\0\\x04Pad%d" + b"\\0\\x05local" + b"\\0\\0\\0\\x01"
listed = len(listed).to_bytes(4, "big") + listed
{behaviour}
"""
BEHAVIOURS = {
    "random bytes": "program.sendall(os.urandom(100_000))",
    "a frame of four gigabytes": "program.sendall(b'\\xff' * 4 + listed * 100); time.sleep(60)",
    "nothing": "time.sleep(60)",
    "closed": "program.close(); time.sleep(60)",
    "names without end": "while True: program.sendall(listed.replace(b'Pad%d', os.urandom(2).hex().encode() + b'x'))",
    "one name without end": "while True: program.sendall(listed + b'\\0\\0\\0\\x05\\x03\\0\\0\\0\\x01')",
}


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

    def begin(self, notes, *prefix):
        """A device, started by the prefix, plays a note a millisecond until the messages are out."""
        self.program = Program(self, self.desk)
        self.receiver = TimedReceiver(self, self.desk)
        self.notes = notes
        Process(self, [*prefix, DEVICE, "--name", "Piano", "--rate", 1000, "--messages", notes], self.stage)
        self.receiver.wait_for_messages(100)

    def assertPlayedOn(self, maxDelay=0.005):
        self.receiver.wait_for_messages(self.notes, 20 + self.notes / 1000)
        self.assertNotes(self.receiver, self.notes)
        self.assertEqual(self.program.times("Piano.*failed|gone|1.2 failed"), [])
        delays = sorted(moment - number / 1000 for number, moment in enumerate(self.receiver.times))
        late = delays[int(0.99 * len(delays))] - delays[len(delays) // 2]
        print(f"\nnotes: 99 % within {late * 1000:.2f} ms of the median delay", flush=True)
        self.assertLess(late, maxDelay)

    def assertFound(self, name, address, began, timeout):
        self.program.wait_for(rf"^.Dialer. {address} running$", timeout + began - time.monotonic())
        print(f"{name} runs {time.monotonic() - began:.1f} s after", flush=True)

    def discovery(self):
        return until(lambda: self.program.popen.poll() is None and children(self.program.pid), 40, "discovery runs")[0]

    def attack(self, tend=lambda: None):
        """All kinds of hostile datagrams in turn; `tend` is called meanwhile. What would be another machine must not wait
        for this one's processors, and neither must what plays."""
        JackServer(self, self.desk, priority=10)
        self.begin(30_000, "chrt", "--fifo", "6")
        hostile = Process(self, ["nice", sys.executable, TOOL, "10.77.1.3", "all", "100", "0.2"], self.enemy)
        organ = None
        while not hostile.times("sent"):
            if len(self.receiver.lines) > 10_000 and not organ:
                organ = self.device(self.later, "--name", "Organ", "--play", "nothing")
            tend()
            time.sleep(0.05)
        self.assertFound("the new device", "10.77.1.4", time.monotonic(), 5)
        self.assertPlayedOn()
        self.program.terminate()

    def test_hostile_datagrams(self):
        self.attack()

    def test_hostile_datagrams_that_kill_the_daemon(self):
        test_daemon.start_system_bus(self, self.desk)
        daemons = [test_daemon.start_daemon(self, self.desk)]

        def start_again():
            if daemons[-1].popen.poll() is not None:
                daemons.append(test_daemon.start_daemon(self, self.desk, waits=False))
        self.attack(start_again)
        print(f"{len(daemons) - 1} daemons died")
        self.assertGreater(len(daemons), 2)

    def test_processes_that_are_killed_and_stopped(self):
        JackServer(self, self.desk)
        self.begin(int(SECONDS * 1000))
        began, kills = time.monotonic(), 0
        organ = None
        while time.monotonic() < began + SECONDS - 1:
            for process in children(self.program.pid):
                os.kill(process, signal.SIGKILL)
                kills += 1
            if kills % 2 and not organ:
                organ = self.device(self.later, "--name", "Organ", "--play", "nothing")
            elif organ and time.monotonic() > began + SECONDS / 2:
                organ.end()
                organ = None
            time.sleep(0.2)
        organ = organ or self.device(self.later, "--name", "Organ", "--play", "nothing")
        print(f"\n{kills} processes killed")
        self.assertFound("the last device", "10.77.1.4", time.monotonic(), 5)
        self.assertPlayedOn(maxDelay=0.1)  # the starting of processes takes the processor from what has no priority

        # Stopped before it has answered its first request, so that ten seconds are enough to notice; else 70 are.
        killed = self.discovery()
        os.kill(killed, signal.SIGKILL)
        while children(self.program.pid) in ([], [killed]):
            pass
        stopped = self.discovery()
        os.kill(stopped, signal.SIGSTOP)
        until(lambda: children(self.program.pid) not in ([], [stopped]), 75, "the stopped process is replaced")
        confined = "NoNewPrivs:\t1\nSeccomp:\t2"
        until(lambda: confined in pathlib.Path(f"/proc/{self.discovery()}/status").read_text(), 5, "it is confined")

        left = self.discovery()
        self.program.kill()
        until(lambda: not is_running(left), 1, "it ends with the program")
        self.program.popen.returncode = 0

    def test_a_cache_that_is_flooded(self):
        """The records are valid for years: only a new process can store others."""
        self.program = Program(self, self.desk)
        self.device(self.stage, "--name", "Piano", "--play", "nothing")
        self.program.wait_for("^.Dialer. 10.77.1.2 running$")
        before = memory(self.program.pid)
        Process(self, [sys.executable, TOOL, "10.77.1.3", "flood", "1", "0"], self.enemy).wait_for("sent", 120)
        began = time.monotonic()
        time.sleep(1)  # it takes in what has arrived
        flooded = memory(self.discovery())
        self.device(self.later, "--name", "Organ", "--play", "nothing")
        self.assertFound("a device after the flood", "10.77.1.4", began, 45)
        print(f"discovery {flooded:.0f} MiB, the program {before:.1f} to {memory(self.program.pid):.1f} MiB")
        self.assertLess(memory(self.program.pid), before + 16)
        self.assertLess(flooded, 128)
        self.assertEqual(self.program.times("1.2 (gone|failed)"), [])

    def test_a_partner_that_goes_wrong(self):
        for name, behaviour in BEHAVIOURS.items():
            with self.subTest(name):
                folder = self.directory / name.replace(" ", "-")
                folder.mkdir()
                shutil.copy(PROGRAM, folder)
                partner = folder / DISCOVERY.name
                partner.write_text(PARTNER.format(discovery=str(DISCOVERY), behaviour=behaviour))
                partner.chmod(0o755)
                program = Program(self, self.desk, executable=folder / PROGRAM.name)
                device = self.device(self.stage, "--name", "Piano", "--play", "nothing")
                program.wait_for("^.Dialer. 10.77.1.2 running$")
                program.wait_for("discovery process", 75)  # which asks once a minute
                program.terminate()
                self.assertEqual(program.times("gone|1.2 failed"), [])
                device.wait_for(r"bye from .*\(data\)")
                device.end()


if __name__ == "__main__":
    unittest.main()
