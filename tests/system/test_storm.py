"""Everything that may happen to devices, links, servers and the program's ports, at random and at once; afterwards
everything is as it was. TESSARY_STORM_SECONDS is the length of each storm, TESSARY_STORM_SEED repeats one."""
import collections
import itertools
import os
import pathlib
import random
import re
import resource
import signal
import subprocess
import sys
import time
import unittest

from lab.daemons import start_avahi, start_system_bus
from lab.desktop import Desktop
from lab.processes import Process, until
from lab.programs import JackServer, SystemTest, scale
from storm import RATE, Slot, Timetable

SECONDS = float(os.environ.get("TESSARY_STORM_SECONDS", 30))
SEED = int(os.environ.get("TESSARY_STORM_SEED", random.randrange(1 << 32)))
TOOL = pathlib.Path(__file__).with_name("storm.py")
DESK = "10.77.9.1", "10.77.9.2", "10.77.9.3"  # the program's host has one of these at a time
NOISE = "10.77.9.66"
CALM = 10  # seconds until everything plays again
BOGUS = 2000
PERIOD = [scale(number) for number in range(2032)]  # of the tune: 16 notes on and off, 127 velocities


def usage(pid):
    """Open files by kind, threads by name, and KiB of memory of the process's own."""
    process = pathlib.Path(f"/proc/{pid}")
    status = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
    sockets = {}
    for kind in ("udp", "udp6", "tcp", "unix", "netlink", "raw", "packet"):
        for line in (process / "net" / kind).read_text().splitlines()[1:]:
            sockets.update({f"socket:[{field}]": kind for field in line.split()})
    files = (os.readlink(file) for file in (process / "fd").iterdir())
    return (collections.Counter(sockets.get(file, re.sub(r"\d+", "N", file)) for file in files),
            collections.Counter((task / "comm").read_text().strip() for task in (process / "task").iterdir()),
            int(status["RssAnon"].split()[0]))


class Storm(SystemTest):
    def setUp(self):
        super().setUp()
        resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
        self.random = random.Random(SEED)
        print(f"\nstorm of {SECONDS:.0f} s, TESSARY_STORM_SEED={SEED}", flush=True)
        self.desk = self.network.host(DESK[0] + "/24")
        self.address = DESK[0]
        between = self.network.host(switch="lan")
        self.network.attach(between, switch="stage")
        self.path = self.tool(between, "path", "lan", "stage", SEED)
        self.path.wait_for("open")
        self.noise = self.network.host(NOISE + "/24")
        # The eighth floods the program, not the path: it is on the program's side of it.
        self.slots = [Slot(self, number, "stage" if number < 8 else "lan") for number in range(1, 9)]
        self.timetable = Timetable()
        self.counts = {}
        self.avahi = self.services = None
        self.isDeskBusy = self.isJackBusy = self.isAvahiBusy = False

    def tool(self, host, *arguments):
        return Process(self, [sys.executable, TOOL, *arguments], host)

    def forget(self, process):
        """One of many that have ended well."""
        self.processes.remove(process)
        process.errors.close()
        process.popen.stdout.close()

    def after(self, least, most, step):
        self.timetable.after(self.random.uniform(least, most), step)

    # What may happen. Each answers whether it did.

    def idle_slot(self):
        slots = [slot for slot in self.slots if not slot.isBusy]
        return self.random.choice(slots) if slots else None

    def device_restarts(self):
        """With or without a word, under the same or another port, sometimes at another address."""
        if not (slot := self.idle_slot()):
            return False
        slot.isBusy = True
        number = self.random.choice((signal.SIGTERM, signal.SIGKILL))
        slot.end(number)
        self.count("stopped" if number == signal.SIGTERM else "killed")

        def start():
            if self.random.random() < 0.5:
                slot.change_port()
                self.count("another port")
            if self.random.random() < 0.2:
                slot.move()
                self.count("device's address changed")
            slot.start()
            slot.isBusy = False
        self.after(0, self.random.choice((0, 1, 4)), start)
        return True

    @staticmethod
    def restart(slot, number, elsewhere):
        slot.end(number)
        if elsewhere:
            slot.change_port()
        slot.start()

    def device_refuses(self):
        if not (slot := self.idle_slot()):
            return False
        slot.isBusy = True
        slot.end(signal.SIGTERM)
        slot.start("--reject", self.random.choice(("control", "data")))

        def accept():
            slot.end(signal.SIGTERM)
            slot.start()
            slot.isBusy = False
        self.after(1, 4, accept)
        return True

    def device_floods(self):
        slot = self.slots[-1]
        if slot.isBusy:
            return False
        slot.isBusy = True
        slot.end(signal.SIGTERM)
        slot.start("--garbage", 20_000)

        def stop():
            slot.end(signal.SIGTERM)
            slot.start()
            slot.isBusy = False
        self.after(3, 6, stop)
        return True

    def device_link_goes(self):
        slot = self.idle_slot()
        # A device that loses its link while it claims its name never announces it (avahi-core 0.8, in the device).
        if not slot or not slot.process.times("announced"):
            return False
        slot.isBusy = True
        slot.host.ip(f"link set {slot.switch} down")

        def up():
            slot.host.ip(f"link set {slot.switch} up")
            slot.note_silent_fault("its link was down")
            slot.isBusy = False
        self.after(0.2, 4, up)
        return True

    def own_link_goes(self):
        if self.isDeskBusy:
            return False
        self.isDeskBusy = True
        self.desk.ip("link set lan down")

        def up():
            self.desk.ip("link set lan up")
            for slot in self.slots:
                slot.note_silent_fault("the program's link was down")
            self.isDeskBusy = False
        self.after(0.2, 3, up)
        return True

    def own_address_changes(self):
        if self.isDeskBusy:
            return False
        former, self.address = self.address, self.random.choice([each for each in DESK if each != self.address])
        self.desk.ip(f"addr del {former}/24 dev lan", f"addr add {self.address}/24 dev lan")
        for slot in self.slots:
            slot.note_silent_fault("the program's address changed")
        return True

    def jack_restarts(self):
        if self.isJackBusy:
            return False
        self.isJackBusy = True
        self.jack.process.kill()
        self.forget(self.jack.process)

        def start():
            self.jack.start()
            self.isJackBusy = False
        self.after(0, 4, start)
        return True

    def avahi_restarts(self):
        if self.isAvahiBusy or not self.avahi:
            return False
        self.isAvahiBusy = True
        self.random.choice((self.avahi.kill, self.avahi.end))()
        self.forget(self.avahi)

        def start():
            self.avahi = self.daemon()
            self.isAvahiBusy = False
        self.after(0, 3, start)
        return True

    def services_come_or_go(self):
        if self.services:
            self.services.wait_for("announced")
            self.services.end()
            self.forget(self.services)
            self.services = None
        else:
            self.services = self.tool(self.noise, "services", NOISE, BOGUS)
        return True

    EVENTS = {device_restarts: 12, device_refuses: 2, device_floods: 1, device_link_goes: 3, own_link_goes: 1,
              own_address_changes: 1, jack_restarts: 1, avahi_restarts: 1, services_come_or_go: 1}

    def received(self):
        """UDP datagrams that the program's host was given to read."""
        lines = pathlib.Path(f"/proc/{self.program.pid}/net/snmp").read_text().splitlines()
        names, values = (line.split() for line in lines if line.startswith("Udp:"))
        return int(values[names.index("InDatagrams")])

    def count(self, what):
        self.counts[what] = self.counts.get(what, 0) + 1

    # The whole

    def begin(self):
        desktop = Desktop(self, self.desk).start_bus().start_display()
        desktop.xfce_panel()
        self.desktop = desktop
        self.jack = JackServer(self, self.desk, patient=False)  # a patient one does not die while it has clients
        self.program = desktop.program()
        for slot in self.slots:
            slot.start()
        until(lambda: all(slot.runs() for slot in self.slots), CALM, "all eight run")
        desktop.wait_for_item()
        # The first wave of bogus services shows how much room they take; what is measured is what comes on top.
        for _ in range(2):
            self.services_come_or_go()
            time.sleep(5)
        self.before = self.measure("before")

    def rage(self):
        end = time.monotonic() + SECONDS
        events, weights = list(self.EVENTS), list(self.EVENTS.values())
        received = self.received()
        self.path.signal(signal.SIGUSR1)
        strangers = self.tool(self.noise, "strangers", *DESK)
        # Each kind once, in some order; then what chance brings.
        first = self.random.sample(events, len(events))
        while time.monotonic() < end:
            event = first.pop() if first else self.random.choices(events, weights)[0]
            if event(self):
                self.count(event.__name__)
            pause = time.monotonic() + self.random.uniform(0.1, 0.8)
            while time.monotonic() < pause:
                self.timetable.run_due()
                self.assertIsNone(self.program.popen.poll(), "the program has ended")
                time.sleep(0.01)
        self.timetable.finish()
        # A last gust: with and without a word, under the same and under another port, and back at once.
        gust = itertools.product((signal.SIGTERM, signal.SIGKILL), (False, True))
        for slot, (number, elsewhere) in zip(self.random.sample(self.slots, 4), gust):
            self.restart(slot, number, elsewhere)
        if self.services:
            self.services_come_or_go()
        strangers.kill()
        self.forget(strangers)
        self.path.signal(signal.SIGUSR2)
        until(lambda: all(slot.is_listening() for slot in self.slots), 5, "all devices are up")
        self.counts["names not resolved"] = len(self.program.times("didNotResolve Bogus"))
        self.counts["datagrams received"] = self.received() - received
        print("storm:", ", ".join(f"{count} {what}" for what, count in sorted(self.counts.items())))

    def check_calm(self):
        began = time.monotonic()
        # One that waits for each of its clients, so that no note is lost on the way.
        self.jack.process.kill()
        JackServer(self, self.desk)
        receiver = until(self.connected_receiver, CALM, "the source is back")
        print(f"the source is back {time.monotonic() - began:.1f} s after its last server came")
        waiting = list(self.slots)
        while waiting and time.monotonic() < began + CALM:
            waiting = [slot for slot in waiting if not slot.runs()]
            time.sleep(0.02)
        print(f"{8 - len(waiting)} of 8 run {time.monotonic() - began:.1f} s after the storm")
        for slot in waiting:
            dialled = self.program.times(rf"dialing .* \[{slot.address}\]")
            moment, fault = slot.silent_fault()
            self.assertTrue(dialled and dialled[-1] < moment,
                            f"{slot.name} at {slot.address}:{slot.port} does not run, and nothing explains it")
            print(f"{slot.name} waits: {fault} {moment - dialled[-1]:.1f} s after it was dialled")
        self.assertPlays(receiver, [slot for slot in self.slots if slot not in waiting])

        # Of those that vanished without a word: one leaves the network, the others wait for the menu.
        if waiting:
            slot = waiting[0]
            gone = len(self.program.times(f"peer {slot.address} gone"))
            slot.end(signal.SIGTERM)
            self.program.wait_for(f"peer {slot.address} gone", CALM, gone + 1)
            slot.start()
            until(slot.runs, CALM, f"{slot.name} runs, its service had left")
        sessions = {slot: slot.sessions() for slot in self.slots}
        self.desktop.choose("Reconnect Now")
        self.program.wait_for("manual reconnect")
        until(lambda: all(slot.sessions() > sessions[slot] for slot in self.slots), CALM, "all run again")
        self.assertPlays(receiver, self.slots)
        receiver.end()

    def connected_receiver(self):
        """The program may just be changing over from the server that has gone."""
        try:
            return self.jack.receiver()
        except subprocess.CalledProcessError:
            self.processes[-1].kill()
            return None

    def assertPlays(self, receiver, slots):
        """From now on the messages of each arrive complete and in order."""
        receiver.wait_for_messages(len(receiver.messages) + 50)  # what was on its way has come
        began, count = len(receiver.messages), 100

        def heard():
            lists = {slot: [] for slot in slots}
            for message in receiver.messages[began:]:
                for slot in slots:
                    if message[0] & 15 == slot.number - 1:
                        lists[slot].append(bytes((message[0] & 0xF0, *message[1:])))
            return lists
        until(lambda: all(len(messages) >= count for messages in heard().values()), 15 + count / RATE,
              f"{count} messages of each")
        for slot, messages in heard().items():
            start = PERIOD.index(messages[0])
            expected = [PERIOD[(start + offset) % len(PERIOD)] for offset in range(len(messages))]
            self.assertEqual(messages, expected, slot.name)

    def measure(self, when):
        files, threads, memory = usage(self.program.pid)
        print(f"{when}: {files.total()} open files, {threads.total()} threads, {memory / 1024:.1f} MiB", flush=True)
        return files, threads, memory

    def storm(self):
        self.begin()
        self.rage()
        self.check_calm()
        time.sleep(3)
        files, threads, memory = self.measure("after")
        files = collections.Counter({file: count for file, count in files.items() if "receiver" not in file})
        self.assertEqual(files, self.before[0])
        self.assertEqual(threads, self.before[1])
        self.assertLess(memory, self.before[2] + 8 * 1024)
        self.program.terminate()
        for slot in self.slots:
            for port in ("control", "data"):
                slot.process.wait_for(rf"bye from {self.address} \({port}\)")

    def test_without_daemon(self):
        self.storm()

    def test_with_daemon(self):
        start_system_bus(self, self.desk)
        self.avahi = self.daemon()
        self.storm()

    def daemon(self):
        return start_avahi(self, self.desk)


if __name__ == "__main__":
    unittest.main()
