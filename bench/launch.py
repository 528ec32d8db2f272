#!/usr/bin/env python3
"""The time from the start of the program to the first mDNS query of both browsers, compared with the start and end of a
Qt program that does nothing; the two alternate. Needs root.

    python3 bench/launch.py [runs]
"""
import statistics
import subprocess
import sys
import time
import unittest

from lab.desktop import Desktop
from lab.processes import Process, environment
from lab.programs import BUILD, SystemTest

RUNS = int(sys.argv[1]) if len(sys.argv) > 1 else 20


class Launch(SystemTest):
    def test_launch(self):
        host = self.network.host("10.77.5.1/24")
        desktop = Desktop(self, host).start_bus().start_display()
        desktop.xfce_panel()
        wire = Process(self, ["tshark", "-i", "lan", "-n", "-l", "-T", "fields", "-e", "frame.time_epoch", "-e",
                              "dns.qry.name", "-f", "udp dst port 5353"], host)
        first = desktop.program()  # fills the page cache
        desktop.wait_for_item(20)
        wire.wait_for("_tessarylink")  # also shows that the capture has started
        first.terminate()
        program, bare = [], []
        for _ in range(RUNS):
            began = time.time()
            subprocess.run([*host.enter, BUILD / "bench/bare_qt"], env=environment(**desktop.variables), check=True)
            bare.append(time.time() - began)

            asked = {}
            while not asked:
                began = time.time()
                link = desktop.program()
                deadline = time.monotonic() + 5
                while len(asked) < 2 and time.monotonic() < deadline:
                    for line in wire.lines:
                        for service in ("_apple-midi._udp.local", "_tessarylink._tcp.local"):
                            moment = float(line.split("\t")[0])
                            if service in line and moment > began:
                                asked.setdefault(service, moment - began)
                    time.sleep(0.02)
                link.terminate()
                if len(asked) < 2:
                    asked = {}
            program.append(max(asked.values()))
        for name, times in (("bare Qt program, start to end", bare), ("start to both browsers asking", program)):
            low, median, high = (1000 * value for value in (min(times), statistics.median(times), max(times)))
            print(f"{name}: median {median:.0f} ms, {low:.0f} to {high:.0f} ms ({RUNS} runs)")
        print(f"difference of the medians: {1000 * (statistics.median(program) - statistics.median(bare)):.0f} ms "
              "(limit 150)")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
