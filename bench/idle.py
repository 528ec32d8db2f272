#!/usr/bin/env python3
"""The resources that the idle program uses, with 0, 1 and 250 sessions, and with one session and a panel. No JACK, no
Avahi daemon. Needs root.

    python3 bench/idle.py [--seconds S] [--json FILE]

JSON: `sessions`, a list of rows.
"""
import argparse
import json
import pathlib
import sys
import time
import unittest

from lab.desktop import Desktop
from lab.programs import Program, SystemTest
from usage import usage

HEARTBEAT = 0.1  # per second and session; each causes one wake-up to send it and one for the answer
FOUND = {"sessions": []}


class Idle(SystemTest):
    seconds = 30.0

    def measure(self, name, program, sessions):
        time.sleep(10)  # the frequent first clock exchanges and mDNS queries are over
        before = usage(program.pid)
        time.sleep(self.seconds)
        after = usage(program.pid)
        wakeups = {thread: round((count - before.wakeups[thread]) / self.seconds, 2)
                   for thread, count in after.wakeups.items() if count > before.wakeups[thread]}
        total = sum(wakeups.values())
        row = {"sessions": name, "wake-ups a second": round(total, 1),
               "beyond the heartbeats": round(total - 2 * HEARTBEAT * sessions, 1),
               "% of a core": round(100 * (after.seconds - before.seconds) / self.seconds, 2),
               "resident, MiB": round(after.resident / 1024, 1), "of it the program's own, MiB": round(after.anonymous / 1024, 1),
               "by thread": ", ".join(f"{thread} {count}" for thread, count in sorted(wakeups.items()))}
        FOUND["sessions"].append(row)
        print(", ".join(f"{key}: {value}" for key, value in row.items()), flush=True)
        return row

    def test_sessions(self):
        desk = self.network.host("10.77.4.1/23")
        stage = self.network.host(*(f"10.77.{4 + n // 256}.{n % 256}/23" for n in range(2, 252)))
        for count in (0, 1, 250):
            program = Program(self, desk)
            if count:
                devices = self.device(stage, "--address", "10.77.4.2", "--count", count, "--play", "nothing")
                program.wait_for(r"^\[Dialer\] .* running$", 60, times=count)
            row = self.measure(count, program, count)
            if count == 1:
                self.assertLessEqual(row["beyond the heartbeats"], 2)
                self.assertLess(row["% of a core"], 0.1)
            program.terminate()
            if count:
                devices.end()

    def test_with_a_panel(self):
        host, stage = self.network.host("10.77.6.1/24"), self.network.host("10.77.6.2/24")
        desktop = Desktop(self, host).start_bus().start_display()
        desktop.xfce_panel()
        program = desktop.program()
        desktop.wait_for_item(20)
        self.device(stage, "--play", "nothing")
        program.wait_for(" running$")
        row = self.measure("1, in Xfce's panel", program, 1)
        self.assertLessEqual(row["resident, MiB"], 33)
        self.assertLessEqual(row["wake-ups a second"], 4)
        self.assertLess(row["% of a core"], 0.2)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=Idle.seconds)
    parser.add_argument("--json", type=pathlib.Path)
    arguments = parser.parse_args()
    Idle.seconds = arguments.seconds
    result = unittest.main(argv=sys.argv[:1], exit=False).result
    if arguments.json:
        arguments.json.write_text(json.dumps({"name": "idle"} | FOUND))
    sys.exit(not result.wasSuccessful())
