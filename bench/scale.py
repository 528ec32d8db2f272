#!/usr/bin/env python3
"""Many devices: the time until all sessions run, the cost of a session, and the highest rate without loss. Needs root.

    python3 bench/scale.py [--json FILE]

One process in a network namespace simulates all devices. JSON: `devices` and `rates`, lists of rows.
"""
import argparse
import json
import pathlib
import sys
import time
import unittest

from lab.processes import Process, until
from lab.programs import BUILD, SOURCE, JackServer, Program, SystemTest
from usage import usage

COUNTS = 1, 10, 50, 250
RATES = 10_000, 20_000, 30_000  # datagrams per second in total
MESSAGES_PER_DATAGRAM, PLAYING = 5, 8  # seconds
FOUND = {"devices": [], "rates": []}


def show(kind, row):
    FOUND[kind].append(row)
    print(", ".join(f"{key}: {value}" for key, value in row.items()), flush=True)


class Scale(SystemTest):
    def hosts(self):
        desk = self.network.host("10.77.4.1/23")
        return desk, self.network.host(*(f"10.77.{4 + n // 256}.{n % 256}/23" for n in range(2, 2 + max(COUNTS))))

    def start(self, stage, program, count, *options):
        devices = self.device(stage, "--address", "10.77.4.2", "--count", count, *options)
        announced, _ = devices.wait_for("announced", 60, times=count)
        running, _ = program.wait_for(r"^\[Dialer\] .* running$", 60, times=count)
        return devices, running - announced

    def test_devices(self):
        desk, stage = self.hosts()
        for count in COUNTS:
            program = Program(self, desk)
            program.wait_for("MIDI")  # the log line about the MIDI system; discovery starts next
            time.sleep(3)
            before = usage(program.pid)
            devices, duration = self.start(stage, program, count, "--play", "nothing")
            ran = usage(program.pid)
            time.sleep(7)  # the frequent first clock exchanges are over
            after = usage(program.pid)
            show("devices", {"devices": count, "all running after, s": round(duration, 2),
                             "processor until then, s": round(ran.seconds - before.seconds, 2),
                             "memory a session, KiB": round((after.anonymous - before.anonymous) / count, 1)})
            self.assertLess(duration, 3)
            if count > 1:  # the first session also allocates what all sessions share
                self.assertLess((after.anonymous - before.anonymous) / count, 64)
            program.terminate()
            devices.end()

    def test_rates(self):
        desk, stage = self.hosts()
        JackServer(self, desk)
        program = Program(self, desk)
        until(lambda: SOURCE in desk.run("jack_lsp", check=False).stdout, 10, "the source is there")
        counter = Process(self, [BUILD / "bench/midi_counter", SOURCE], desk)
        counter.wait_for("counting")
        count, total = max(COUNTS), 0
        for number, rate in enumerate(RATES, 1):
            each = rate * MESSAGES_PER_DATAGRAM // count  # messages per second and device
            devices = self.device(stage, "--address", "10.77.4.2", "--count", count, "--rate", each, "--per-datagram",
                                  MESSAGES_PER_DATAGRAM, "--messages", each * PLAYING)
            devices.wait_for("running with", 20, times=count)
            began, before = time.monotonic(), usage(program.pid)
            devices.wait_for("played", PLAYING + 20, times=count)
            after, seconds = usage(program.pid), time.monotonic() - began
            sent = count * each * PLAYING
            total += sent
            try:
                until(lambda: counter.lines[-1].startswith(f"{total} messages"), 5, "everything has arrived")
            except AssertionError:
                pass  # the row shows the loss
            arrived = int(counter.lines[-1].split()[0])
            lost, total = total - arrived, arrived
            show("rates", {"datagrams a second": rate, "messages a second": rate * MESSAGES_PER_DATAGRAM,
                           "messages sent": sent, "lost": lost,
                           "processor of the program, % of a core":
                               round(100 * (after.seconds - before.seconds) / seconds)})
            if rate <= 20_000:
                self.assertEqual(lost, 0)
            devices.end()
            program.wait_for(" (failed: peer sent BYE|gone)", times=number * count)
            time.sleep(3)  # a withdrawn service is removed after a second, and with it a session that has begun since


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--json", type=pathlib.Path)
    arguments = parser.parse_args()
    result = unittest.main(argv=sys.argv[:1], exit=False).result
    if arguments.json:
        arguments.json.write_text(json.dumps({"name": "scale"} | FOUND))
    sys.exit(not result.wasSuccessful())
