#!/usr/bin/env python3
"""How long many devices take to run, and what the program costs at rest. Needs root.

    python3 bench/scale.py [devices] [seconds at rest]
"""
import pathlib
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/system"))
from harness import Program, SystemTest  # noqa: E402
from usage import usage  # noqa: E402

COUNT = int(sys.argv[1]) if len(sys.argv) > 1 else 64
REST = float(sys.argv[2]) if len(sys.argv) > 2 else 30


class Scale(SystemTest):
    def test_scale(self):
        program = Program(self, self.network.host("10.77.4.1/23"))
        stage = self.network.host(*(f"10.77.{4 + n // 256}.{n % 256}/23" for n in range(2, 2 + COUNT)))
        devices = self.device(stage, "--address", "10.77.4.2", "--count", COUNT, "--play", "nothing")
        announced, _ = devices.wait_for("announced", 60, times=COUNT)
        running, _ = program.wait_for(r"^\[Dialer\] .* running$", 60, times=COUNT)
        print(f"{COUNT} devices: all run {running - announced:.2f} s after the last announcement")
        time.sleep(6)  # the dense part of the heartbeat is over
        before = usage(program.pid)
        time.sleep(REST)
        after = usage(program.pid)
        print(f"at rest for {REST:.0f} s: {100 * (after[0] - before[0]) / REST:.2f} % of a core, "
              f"{(after[1] - before[1]) / REST:.1f} wake-ups a second, {after[2] / 1024:.1f} MiB resident")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
