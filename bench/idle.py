#!/usr/bin/env python3
"""What the program costs at rest in the panel: the icon shown, one session running, no JACK, no Avahi daemon. Needs
root.

    python3 bench/idle.py [seconds]
"""
import pathlib
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/system"))
from desktop import Desktop  # noqa: E402
from harness import SystemTest  # noqa: E402
from usage import usage  # noqa: E402

REST = float(sys.argv[1]) if len(sys.argv) > 1 else 60


class Idle(SystemTest):
    def test_idle(self):
        host, stage = self.network.host("10.77.6.1/24"), self.network.host("10.77.6.2/24")
        desktop = Desktop(self, host).start_bus().start_display()
        desktop.xfce_panel()
        program = desktop.program()
        desktop.wait_for_item(20)
        self.device(stage, "--play", "nothing")
        program.wait_for(" running$")
        time.sleep(10)  # the dense part of the heartbeat is over, and so are the questions of discovery's start
        before = usage(program.pid)
        time.sleep(REST)
        after = usage(program.pid)
        private = sum(int(line.split()[1]) for line in pathlib.Path(f"/proc/{program.pid}/smaps_rollup").open()
                      if line.startswith("Private_"))
        processor, wakeups = (100 * (after[0] - before[0]) / REST, (after[1] - before[1]) / REST)
        print(f"resident: {after[2] / 1024:.1f} MB (limit 30), of it private {private / 1024:.1f} MB")
        print(f"wake-ups: {wakeups:.1f} a second (limit 4)")
        print(f"processor: {processor:.2f} % of a core (limit 0.2)")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
