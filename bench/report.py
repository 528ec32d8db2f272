#!/usr/bin/env python3
"""Writes docs/performance.md and its plots from the results of the programs in this folder.

    python3 bench/report.py DIRECTORY      holds the results: NAME.json, or NAME.txt with the program's output
"""
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

import matplotlib
matplotlib.use("svg")
from matplotlib import pyplot

ROOT = pathlib.Path(__file__).resolve().parents[1]
from lab import vm

DOCS, RESULTS = ROOT / "docs", pathlib.Path(sys.argv[1])
QUANTILES = {"50": "50 %", "99": "99 %", "99.9": "99.9 %", "max": "longest"}
PLACES = {"latency-null": "natively, to an output that records the time",
          "latency-alsa": "in the virtual machine, through the ALSA sequencer"}
LIBRARIES = ("libasound2", "libavahi-core7", "libdbus-1-3", "libglib2.0-0", "libjack-jackd2-0", "libqt6core6")
COLORS = {"program": "#1668c1", "floor": "#d1662b", "blocking recv": "#8a8a8a"}


def printed(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


def machine():
    """A paragraph that describes the machine."""
    processor = dict(line.split(":", 1) for line in printed("lscpu").splitlines() if ":" in line)
    memory = re.search(r"MemTotal: +(\d+)", pathlib.Path("/proc/meminfo").read_text())[1]
    system = re.search(r'PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text())[1]
    compiler = printed("g++", "-dumpfullversion")
    libraries = [line.split() for line in printed("dpkg-query", "-W", "-f", "${Package} ${Version}\n",
                                                  *LIBRARIES).splitlines()]
    hypervisor = processor.get("Hypervisor vendor", "").strip()
    kernel = platform.release().split("-")[0]
    guest = vm._kernel()[0].name.removeprefix("vmlinuz-")
    emulator = printed("qemu-system-x86_64", "--version").splitlines()[0].split(" version ")[1].split()[0]
    return (f"{system}, kernel {kernel}, {os.cpu_count()} cores of an {processor['Model name'].strip()}" +
            (f" (itself a virtual machine, of {hypervisor})" if hypervisor else "") +
            f", {int(memory) // 2 ** 20 + 1} GiB of memory. g++ {compiler}, preset `release`. " +
            ", ".join(f"{package} {version}" for package, version in libraries) +
            f". The virtual machine: kernel {guest}, two cores, emulated in software by QEMU {emulator}.")


def table(header, rows):
    lines = [header, ["---"] * len(header), *rows]
    return "\n".join("| " + " | ".join(map(str, line)) + " |" for line in lines) + "\n"


def spread(values, digits=1):
    """The median of the rounds, with their minimum and maximum."""
    digits = 0 if min(values) >= 1000 else digits
    low, middle, high = (f"{value:,.{digits}f}" for value in (min(values), statistics.median(values), max(values)))
    return f"{middle} ({low} to {high})"


class Latency:
    """The results of latency.py in one environment."""

    def __init__(self, name):
        self.name = name
        self.results = json.loads((RESULTS / f"{name}.json").read_text())["results"]

    def get(self, condition, isRealTime, kind, side, part="first"):
        return next((each for each in self.results if (condition, isRealTime, kind, side, part) == (
            each["condition"], each["realTime"], each["kind"], each["side"], each["part"])), None)

    def ratios(self, quantile, *key):
        """The ratio of the program's latency to the floor's, for each round."""
        program, floor = (self.get(*key[:3], side, *key[3:])["runs"][quantile] for side in ("program", "floor"))
        return [one / other for one, other in zip(program, floor)]

    def table(self, condition, isRealTime, kinds=("notes", "chords", "controllers")):
        rows = []
        for kind in kinds:
            for part in ("first", "last"):
                if not self.get(condition, isRealTime, kind, "program", part):
                    continue
                label = kind + (f", to the {part} of ten" if kind == "chords" else "")
                for side in COLORS:
                    each = self.get(condition, isRealTime, kind, side, part)
                    if each and (side != "blocking recv" or (condition, kind) == ("quiet", "notes")):
                        rows.append((label, side, *(spread(each["runs"][quantile]) for quantile in QUANTILES)))
                rows.append((label, "**ratio**", *(f"**{spread(self.ratios(quantile, condition, isRealTime, kind, part), 2)}**"
                                                   for quantile in ("50", "99", "99.9")), ""))
        return table(("microseconds", "", *QUANTILES.values()), rows)

    def tail(self, isRealTime):
        """Compares the 99.9th percentiles on a busy and a quiet machine, over all rounds."""
        quiet, busy = (self.get(condition, real, "notes", "program")["pooled"]["99.9"]
                       for condition, real in (("quiet", True), ("both cores busy", isRealTime)))
        return f"{busy:,.0f} µs, {busy / quiet:.1f} times the {quiet:,.0f} µs of the quiet machine"


def plot(name, panels, latencies):
    """Writes a plot: one row per environment, one column per panel: (title, [(label, line style, key, side)])."""
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": name, "font.size": 9})
    figure, grid = pyplot.subplots(len(latencies), len(panels), squeeze=False, sharex="row", sharey=True,
                                   figsize=(5 * len(panels), 3.6 * len(latencies)), layout="constrained")
    for row, latency in zip(grid, latencies):
        for axes, (title, lines) in zip(row, panels):
            for label, style, key, side in lines:
                if each := latency.get(*key, side):
                    axes.step(*zip(*each["curve"]), style, where="post", color=COLORS[side], label=label)
            axes.set(xscale="log", yscale="log", xlabel="microseconds (log)",
                     title=(title + "\n" if title else "") + PLACES[latency.name])
            axes.grid(True, linewidth=0.3)
            axes.legend()
        row[0].set_ylabel("share of notes that take longer (log)")
    figure.savefig(DOCS / name, metadata={"Date": None})
    pyplot.close(figure)


def figures(name):
    """The results of another program: tables of its JSON, or its output."""
    file = RESULTS / f"{name}.json"
    if not file.exists():
        return f"```\n{(RESULTS / name).with_suffix('.txt').read_text().strip()}\n```\n"

    def show(value):
        return f"{value:,.2f}".rstrip("0").rstrip(".") if isinstance(value, float) else str(value)
    found = json.loads(file.read_text())
    single = {key: value for key, value in found.items() if key != "name" and not isinstance(value, (list, dict))}
    text = table(("", ""), [(key, show(value)) for key, value in single.items()]) if single else ""
    for key, value in found.items():
        if isinstance(value, dict) and all(isinstance(row, dict) for row in value.values()):
            value = [{key: name} | row for name, row in value.items()]
        elif isinstance(value, dict):
            value = [value]
        if isinstance(value, list) and value:
            columns = list(dict.fromkeys(column for row in value for column in row))
            text += "\n" + table(columns, [[show(row.get(column, "")) for column in columns] for row in value])
    return text


def main():
    latencies = [Latency(name) for name in PLACES]
    quiet, busy, ordinary = (("quiet", True, "notes"), ("both cores busy", True, "notes"),
                             ("both cores busy", False, "notes"))
    plot("latency-floor.svg", [("", [(side, "-", quiet, side) for side in COLORS])], latencies)
    plot("latency-load.svg", [(title, [(f"{side}, {label}", style, key, side) for side in ("program", "floor")
                                       for label, style, key in (("quiet", ":", quiet), ("both cores busy", "-", load))])
                              for title, load in (("with real-time priority", busy), ("without", ordinary))], latencies)
    sections = [f"""# Performance

Written by `./scripts/bench` (root), which measures all of this. {machine()}

Measurements on such machines are noisy, so compare the ratios: both sides of each comparison were measured in the same
run, alternately. Each figure is the median of the rounds, with the minimum and the maximum in brackets.

## From a device's send to the output

    scripts/bench latency-null          # root: it makes network namespaces
    scripts/bench latency-alsa

A device in a network namespace of its own sends notes, chords of ten notes in one datagram, or 1,000 control changes a
second, alternately to the program and to the floor: a C program with nothing but `epoll_wait`, `recv` on a connected
UDP socket, and the output call (`bench/floor.c`). Both sleep while they wait, and have real-time priority unless stated
otherwise. The time starts just before the device's system call. Natively it ends at the output call, and only the packet
path of the program is measured, from the network thread to the output. In the virtual machine it ends when another
program, which subscribes to both, has received the message from the ALSA sequencer, and the whole program is measured.
"blocking recv" is the floor without `epoll_wait`, for comparison.

![Distribution of the latency: program and floor](latency-floor.svg)
"""]
    for latency in latencies:
        sections.append(f"### Quiet, {PLACES[latency.name]}\n\n" + latency.table("quiet", True) + f"""
Notes: {statistics.median(latency.ratios('50', *quiet)):.2f} times the floor at the median (target 1.10), {statistics.median(latency.ratios('99', *quiet)):.2f} times at the 99th
percentile (target 1.25).
""")
    sections.append("""## With both cores busy

Two processes of ordinary priority that never wait occupy both cores. The program requests real-time priority by itself;
the second measurement of each kind is without the permission for it. The floor is scheduled like the program each time.

![Distribution of the latency with both cores busy, with and without real-time priority](latency-load.svg)
""")
    for latency in latencies:
        for isRealTime in (True, False):
            title = f"{'With' if isRealTime else 'Without'} real-time priority, {PLACES[latency.name]}"
            sections.append(f"### {title}\n\n" + latency.table("both cores busy", isRealTime) + f"""
The 99.9th percentile of notes: {latency.tail(isRealTime)}{' (target 3)' if isRealTime else ''}.
""")
    sections.append("## With 50 other devices\n\nTogether they play 1,000 messages a second.\n")
    for latency in latencies:
        sections.append(f"### {PLACES[latency.name].capitalize().replace('alsa', 'ALSA')}\n\n" +
                        latency.table("50 other devices", True, ("notes",)))
    sections.append("## Where the time goes\n\n" + (ROOT / "bench/where-the-time-goes.md").read_text())
    for title, name, command, text in (
            ("A message, parsed and published to an output that does nothing", "parse", "build/release/bench/parse_bench",
             "The median of 21 runs of a million messages, with the fastest and the slowest run. About 20 ns of each message "
             "are spent\nreading the host clock for its time stamp."),
            ("Many devices", "scale", "scripts/bench scale", ""),
            ("At rest", "idle", "scripts/bench idle", ""),
            ("The launch", "launch", "scripts/bench launch",
             "From the start to the first query of both browsers on the network. Most of the difference from a Qt program that "
             "does\nnothing is the delay before a first multicast DNS query (RFC 6762, section 5.2)."),
            ("During a flood of garbage", "flood", "scripts/bench flood",
             "Notes of one device while another sends 20,000 garbage datagrams a second: the losses, and the time to the "
             "answer of\nclock exchanges from the same port, which the same thread sends.")):
        sections.append(f"## {title}\n\n    {command}\n\n" + (text + "\n\n" if text else "") + figures(name))
    (DOCS / "performance.md").write_text("\n".join(sections))


if __name__ == "__main__":
    main()
