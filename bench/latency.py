#!/usr/bin/env python3
"""Latency from a device's send to the output: the program and the floor, alternating datagram by datagram. Needs root.

    python3 bench/latency.py [--vm] [--rounds N] [--seconds S] [--json FILE]

Without --vm, the packet path of the program and the floor record the time of their output calls. With --vm, in a virtual
machine with the ALSA sequencer, the whole program and the floor send to the sequencer, and the time is that at which a
subscriber has received the message. The conditions alternate too, round by round.
"""
import argparse
import json
import os
import pathlib
import signal
import statistics
import subprocess
import sys
import tempfile
import time
import unittest

from lab import vm
from lab.processes import Process, environment
from lab.programs import BUILD, PROGRAM, SystemTest

DESK, DEVICE_ADDRESS, PORT = "10.77.9.1", "10.77.9.2", 5005
OTHERS = [f"10.77.9.{3 + number}" for number in range(50)]
STAMP_BYTES = 128 * 127 * 8
# (name, real-time priority, kinds of datagrams)
CONDITIONS = (("quiet", True, "notes,chords,controllers"),
              ("both cores busy", True, "notes,chords,controllers"),
              ("both cores busy", False, "notes,chords,controllers"),
              ("50 other devices", True, "notes"))
QUANTILES = {"50": 0.5, "99": 0.99, "99.9": 0.999, "max": 1.0}
# Removes the permission for real-time priority, also from root.
ORDINARY = ["setpriv", "--bounding-set", "-sys_nice", "prlimit", "--rtprio=0"]
TIMEOUT = 60


def quantile(ordered, share):
    return ordered[round(share * (len(ordered) - 1))]


class Latency(SystemTest):
    arguments = None

    def setUp(self):
        if "TESSARY_VM" in os.environ:
            subprocess.run(["modprobe", "-a", "snd-seq", "bridge", "veth"], check=True)
        super().setUp()
        self.isSequencer = "TESSARY_VM" in os.environ
        self.desk = self.network.host(DESK + "/24")
        self.stage = self.network.host(*(address + "/24" for address in (DEVICE_ADDRESS, *OTHERS)))

    def stamps(self):
        """The path of a file in memory, valid for every process."""
        file = os.memfd_create("stamps")
        os.write(file, bytes(STAMP_BYTES))
        self.addCleanup(os.close, file)
        return f"/proc/{os.getpid()}/fd/{file}"

    def measure(self, condition, isRealTime, kinds, seconds):
        """Runs one round of a condition and returns the results that the device prints."""
        first = len(self.processes)
        scheduling = ["chrt", "-f", "4"] if isRealTime else []  # the priority that the program uses
        sides = []
        for name, *options in [("floor",)] + [("blocking recv", "blocking")] * (not self.isSequencer):
            output = "alsa" if self.isSequencer else self.stamps()
            process = Process(self, [*scheduling, BUILD / "bench/floor", DEVICE_ADDRESS, PORT, output, *options],
                              self.desk)
            port = process.wait_for(r"^port (\d+)", TIMEOUT)[1][1]
            sides.append(f"{name},{'floor' if self.isSequencer else output},{port}")
        stamps = "Tessary Link" if self.isSequencer else self.stamps()
        device = Process(self, ["chrt", "-f", "50", BUILD / "bench/latency_bench", DEVICE_ADDRESS, DESK, seconds,
                                kinds, f"program,{stamps},0", *sides], self.stage)
        device.wait_for("^open", TIMEOUT)
        others = OTHERS if condition == "50 other devices" else []
        if others:  # 1,000 messages a second in all
            orchestra = self.device(self.stage, "--address", others[0], "--count", len(others), "--rate", 20)
            orchestra.wait_for("announced", TIMEOUT, len(others))
        rights = [] if isRealTime else ORDINARY
        if self.isSequencer:
            variables = environment(XDG_CONFIG_HOME=str(self.directory), HOME=str(self.directory))
            Process(self, [*rights, PROGRAM], self.desk, variables)
            self.device(self.stage, "--address", DEVICE_ADDRESS, "--open-after", 3600)  # announces the device
        else:
            Process(self, [*rights, BUILD / "bench/latency_road", stamps, DEVICE_ADDRESS, *others], self.desk)
        if others:
            orchestra.wait_for("running with", TIMEOUT, len(others))
        device.wait_for("^running", TIMEOUT)
        if condition == "both cores busy":
            for _ in range(2):
                Process(self, ["sh", "-c", "while :; do :; done"])
        time.sleep(0.5)  # let them start
        device.signal(signal.SIGUSR1)
        self.assertEqual(device.wait(TIMEOUT + 20 * seconds), 0)
        for process in self.processes[first:]:
            if process.popen.poll() is None:
                process.kill()  # the next round starts its own
        return [json.loads(line) for line in device.lines if line.startswith("{")]

    def test_latency(self):
        found = {}  # (condition, real time, kind, side, part): lists of nanoseconds, one a round
        for number in range(self.arguments.rounds):
            for condition, isRealTime, kinds in CONDITIONS:
                print(f"round {number + 1}: {condition}, {'with' if isRealTime else 'without'} real-time priority",
                      file=sys.stderr, flush=True)
                for line in self.measure(condition, isRealTime, kinds, self.arguments.seconds):
                    for part in ("first", "last"):
                        if part in line:
                            key = (condition, isRealTime, line["kind"], line["side"], part)
                            found.setdefault(key, []).append(line[part])
                            self.assertGreater(len(line[part]), 0.98 * line["sent"], f"{key}: lost messages")
        results = []
        for (condition, isRealTime, kind, side, part), runs in found.items():
            runs = [sorted(value / 1000 for value in run) for run in runs]
            pooled = sorted(value for run in runs for value in run)
            # Points of (microseconds, share of the messages that take longer), denser towards the tail.
            shares = [10 ** (-step / 20) for step in range(100) if 10 ** (-step / 20) * len(pooled) >= 1]
            results.append({
                "condition": condition, "realTime": isRealTime, "kind": kind, "side": side, "part": part,
                "count": len(pooled),
                "runs": {name: [quantile(run, share) for run in runs] for name, share in QUANTILES.items()},
                "pooled": {name: quantile(pooled, share) for name, share in QUANTILES.items()},
                "curve": [(round(quantile(pooled, 1 - share), 1), share) for share in shares]})
        for each in results:
            medians = "".join(f"{statistics.median(each['runs'][name]):10.1f}" for name in QUANTILES)
            print(f"{each['condition']:17}{'with RT' if each['realTime'] else 'without':8}{each['kind']:12}"
                  f"{each['side']:14}{each['part']:6}{medians}", file=sys.stderr)
        text = json.dumps({"name": "latency-alsa" if self.isSequencer else "latency-null", "results": results})
        if self.isSequencer:
            print("\n" + text, flush=True)  # the only way to return it from the virtual machine
        elif self.arguments.json:
            pathlib.Path(self.arguments.json).write_text(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--vm", action="store_true")
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--seconds", type=float, default=3)
    parser.add_argument("--json")
    arguments = Latency.arguments = parser.parse_args()
    if not arguments.vm:
        return unittest.main(argv=sys.argv[:1])
    command = ["/usr/bin/python3", __file__, "--rounds", arguments.rounds, "--seconds", arguments.seconds]
    with tempfile.TemporaryFile("w+") as output:
        status = vm.run(command, 900, {"TESSARY_BUILD_DIR": str(BUILD)}, output=output)
        output.seek(0)
        lines = output.read().splitlines()
    print(*(line for line in lines if not line.startswith("{")), sep="\n")
    if arguments.json and status == 0:
        pathlib.Path(arguments.json).write_text(next(line for line in lines if line.startswith("{")))
    return sys.exit(status)


if __name__ == "__main__":
    main()
