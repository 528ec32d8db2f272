"""Faults of devices, links, servers and the program's host, at random and at once; after them everything is as it was.
TESSARY_STORM_SECONDS is the length of each storm, TESSARY_STORM_SEED repeats one."""
import collections
import operator
import os
import pathlib
import random
import re
import resource
import sched
import shutil
import signal
import subprocess
import time
import unittest

from lab.daemons import start_avahi, start_system_bus
from lab.desktop import Desktop
from lab.processes import Process, until
from lab.programs import DEVICE, JackServer, LongReceiver, SystemTest, scale

SECONDS = float(os.environ.get("TESSARY_STORM_SECONDS", 15))
SEED = int(os.environ.get("TESSARY_STORM_SEED", random.randrange(1 << 32)))
CALM = 10  # seconds after which everything is to run again
DESK = "10.77.9.1", "10.77.9.2", "10.77.9.3"  # the program's host has one of these at a time
PORTS = 5004, 6004, 7004
RATE = 50  # messages a second that each device plays
PERIOD = [scale(number) for number in range(2032)]  # of the tune: 16 notes on and off, 127 velocities
# A fifth of the datagrams is lost, those of mDNS too. Session packets are spared: a session whose invitation or first
# clock exchange is lost waits by design.
LOSS = """table inet storm {
  chain input {
    type filter hook input priority 0
    meta l4proto udp @th,64,16 != 0xffff numgen random mod 5 0 drop
  }
}
"""


def usage(pid):
    """Open files and threads by name, and KiB of memory of the process's own."""
    process = pathlib.Path(f"/proc/{pid}")
    files = collections.Counter(re.sub(r"\d+", "N", os.readlink(file)) for file in (process / "fd").iterdir())
    files = collections.Counter({name: count for name, count in files.items() if "receiver" not in name})
    threads = collections.Counter((task / "comm").read_text().strip() for task in (process / "task").iterdir())
    memory = int(re.search(r"RssAnon:\s+(\d+)", (process / "status").read_text())[1])
    return files, threads, memory


class Slot:
    """One of the devices, through all its restarts. It plays on the channel of its number."""

    def __init__(self, storm, number):
        self._storm, self.number = storm, number
        self.name, self.address, self.port = f"Storm {number}", f"10.77.9.{10 + number}", PORTS[0]
        self.host = storm.network.host(self.address + "/24")
        self.process = self._successor_of_killed = None
        self._is_killed = False
        self.link_fault = 0  # the time at which the last one ended

    def start(self, *options):
        clock = ["--clock"] if self.number % 2 == 0 else []
        command = [DEVICE, "--name", self.name, "--address", self.address, "--port", self.port, "--rate", RATE,
                   "--channel", self.number, *clock, *options]
        self.process = Process(self._storm, command, self.host)
        if self._is_killed:
            self._successor_of_killed = self.process

    def end(self, number=signal.SIGTERM):
        self.process.wait_for("listening on")  # from then on it handles the signal
        self.process.signal(number)
        self._is_killed = number == signal.SIGKILL
        self._storm.assertEqual(self.process.wait(), -number if self._is_killed else 0, self.name)

    def restart(self, *options):
        self.end()
        self.start(*options)

    def change_address(self):
        """While the process is away."""
        former, self.address = self.address, f"10.77.9.{10 + self.number + self._storm.random.choice((0, 10, 20))}"
        self.host.ip(f"addr del {former}/24 dev lan", f"addr add {self.address}/24 dev lan")

    def unnoticed_fault(self):
        """When the last fault was over that the program cannot notice: the device was killed, or a link was down. A
        session that was dialled before may wait for ever; one that was dialled later must run."""
        restarts = self._successor_of_killed.times("listening on") if self._successor_of_killed else []
        return max(self.link_fault, *restarts, 0)

    def runs(self):
        """Whether a session plays, as far as the device knows."""
        news = [line for line in self.process.lines if re.search("running with|bye|control invitation", line)]
        return bool(news) and "running with" in news[-1]


class Storm(SystemTest):
    def setUp(self):
        super().setUp()
        if not shutil.which("nft"):
            self.skipTest("missing: nft")
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        self.random = random.Random(SEED)
        print(f"\nstorm of {SECONDS:.0f} s, TESSARY_STORM_SEED={SEED}", flush=True)
        self.address = DESK[0]
        self.desk = self.network.host(DESK[0] + "/24")
        self.slots = [Slot(self, number) for number in range(1, 9)]
        self.faults = sched.scheduler(time.monotonic, time.sleep)  # what ends those that last
        self.busy = set()  # what such a fault has befallen
        self.avahi = None

    # Faults. Each answers whether it happened.

    def during(self, thing, seconds, begin, end):
        """`begin` now, `end` after some seconds; meanwhile nothing else happens to the thing."""
        if thing in self.busy:
            return False
        self.busy.add(thing)
        begin()

        def finish():
            end()
            self.busy.remove(thing)
        self.faults.enter(self.random.uniform(*seconds), 0, finish)
        return True

    def device_restarts(self):
        """With or without BY, on the same or another port, sometimes at another address."""
        slot, number = self.random.choice(self.slots), self.random.choice((signal.SIGTERM, signal.SIGKILL))

        def start():
            slot.port = self.random.choice((slot.port, *PORTS))
            if self.random.random() < 0.2:
                slot.change_address()
            slot.start()
        return self.during(slot, self.random.choice(((0, 0), (1, 1), (4, 4))), lambda: slot.end(number), start)

    def device_misbehaves(self):
        options = self.random.choice((("--reject", "control"), ("--reject", "data"), ("--garbage", 20_000)))
        slot = self.slots[-1] if "--garbage" in options else self.random.choice(self.slots)
        return self.during(slot, (1, 5), lambda: slot.restart(*options), slot.restart)

    def link_goes(self, thing, host, slots):
        def up():
            host.ip("link set lan up")
            self.note_link_fault(slots)
        return self.during(thing, (0.2, 4), lambda: host.ip("link set lan down"), up)

    def note_link_fault(self, slots):
        for slot in slots:
            slot.link_fault = time.monotonic()

    def device_link_goes(self):
        slot = self.random.choice(self.slots)
        # A device that loses its link while it claims its name never announces it (avahi-core 0.8, in the device).
        return bool(slot.process.times("announced")) and self.link_goes(slot, slot.host, [slot])

    def own_link_goes(self):
        return self.link_goes("desk", self.desk, self.slots)

    def own_address_changes(self):
        def change():
            former, self.address = self.address, self.random.choice([each for each in DESK if each != self.address])
            self.desk.ip(f"addr del {former}/24 dev lan", f"addr add {self.address}/24 dev lan")
            self.note_link_fault(self.slots)
        return self.during("desk", (0, 0), change, lambda: None)

    def jack_restarts(self):
        return self.during("jack", (0, 4), self.jack.process.kill, self.jack.start)

    def avahi_restarts(self):
        return bool(self.avahi) and self.during(
            "avahi", (0, 3), self.random.choice((self.avahi.kill, self.avahi.end)), self.start_avahi)

    def start_avahi(self):
        self.avahi = start_avahi(self, self.desk)

    WEIGHTS = {device_restarts: 12, device_misbehaves: 3, device_link_goes: 3, own_link_goes: 1,
               own_address_changes: 1, jack_restarts: 1, avahi_restarts: 1}

    # The whole

    def begin(self):
        self.desktop = Desktop(self, self.desk).start_bus().start_display()
        self.desktop.xfce_panel()
        self.jack = JackServer(self, self.desk, patient=False)  # a patient one does not die while it has clients
        self.program = self.desktop.program()
        for slot in self.slots:
            slot.start()
        until(lambda: all(slot.runs() for slot in self.slots), CALM, "all eight run")
        self.desktop.wait_for_item()
        self.before = self.measure("before")

    def rage(self):
        end = time.monotonic() + SECONDS
        lossy = [self.desk, *(slot.host for slot in self.slots)]
        for host in lossy:
            host.run("nft", "-f", "-", text=LOSS)
        counts = collections.Counter()
        # Each kind once, in some order; then at random.
        first = self.random.sample(list(self.WEIGHTS), len(self.WEIGHTS))
        while time.monotonic() < end:
            fault = first.pop() if first else self.random.choices(*zip(*self.WEIGHTS.items()))[0]
            counts[fault.__name__] += fault(self)
            pause = time.monotonic() + self.random.uniform(0.1, 0.8)
            while time.monotonic() < pause:
                self.faults.run(blocking=False)
                self.assertIsNone(self.program.popen.poll(), "the program has ended")
                time.sleep(0.01)
        self.faults.run()
        for _ in range(6):  # at last some at once
            self.device_restarts()
        self.faults.run()
        for host in lossy:
            host.run("nft", "flush", "ruleset")
        until(lambda: all(slot.process.times("listening on") for slot in self.slots), 5, "all devices are up")
        print("storm:", ", ".join(f"{count} {what}" for what, count in sorted(counts.items())))

    def check_calm(self):
        began = time.monotonic()
        # A patient server, so that no note is lost after the program.
        self.jack.process.kill()
        JackServer(self, self.desk)
        receiver = until(self.connected_receiver, CALM, "the source is back")
        while (waiting := [slot for slot in self.slots if not slot.runs()]) and time.monotonic() < began + CALM:
            time.sleep(0.02)
        print(f"{8 - len(waiting)} of 8 run {time.monotonic() - began:.1f} s after the storm")
        for slot in waiting:
            dialled = self.program.times(rf"dialing .* \[{slot.address}\]")
            self.assertTrue(dialled and dialled[-1] < slot.unnoticed_fault(),
                            f"{slot.name} at {slot.address}:{slot.port} does not run, and no fault explains it")
        self.assertPlays(receiver, [slot for slot in self.slots if slot not in waiting])

        before = self.sessions()
        self.desktop.choose("Reconnect Now")
        until(lambda: all(map(operator.gt, self.sessions(), before)), CALM, "all run again")
        self.assertPlays(receiver, self.slots)
        receiver.end()

    def sessions(self):
        """How many each device has had since its process began."""
        return [len(slot.process.times("running with")) for slot in self.slots]

    def connected_receiver(self):
        """None while the program still changes over from the server that has gone."""
        try:
            return self.jack.receiver(LongReceiver)  # which drops nothing, however busy the machine
        except subprocess.CalledProcessError:
            self.processes[-1].kill()
            return None

    def assertPlays(self, receiver, slots):
        """From now on the messages of each arrive complete and in order."""
        receiver.wait_for_messages(len(receiver.messages) + 50)  # those on their way have come
        began, count = len(receiver.messages), 100

        def heard(slot):
            return [bytes((message[0] & 0xF0, *message[1:])) for message in receiver.messages[began:]
                    if message[0] & 15 == slot.number - 1]
        until(lambda: all(len(heard(slot)) >= count for slot in slots), 15 + count / RATE, f"{count} messages of each")
        for slot in slots:
            messages = heard(slot)
            start = PERIOD.index(messages[0])
            self.assertEqual(messages, (PERIOD * 2)[start:start + len(messages)], slot.name)

    def measure(self, when):
        files, threads, memory = usage(self.program.pid)
        print(f"{when}: files {dict(files)}, threads {dict(threads)}, {memory / 1024:.1f} MiB", flush=True)
        return files, threads, memory

    def storm(self):
        self.begin()
        self.rage()
        self.check_calm()
        try:
            until(lambda: usage(self.program.pid)[:2] == self.before[:2], 5, "files and threads as before")
        finally:
            after = self.measure("after")
        self.assertLess(after[2], self.before[2] + 8 * 1024)
        self.program.terminate()
        for slot in self.slots:
            for port in ("control", "data"):
                slot.process.wait_for(rf"bye from {self.address} \({port}\)")

    def test_without_daemon(self):
        self.storm()

    def test_with_daemon(self):
        start_system_bus(self, self.desk)
        self.start_avahi()
        self.storm()


if __name__ == "__main__":
    unittest.main()
