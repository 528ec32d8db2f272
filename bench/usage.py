"""The resources that a process uses, as counted by the kernel."""
import collections
import os
import pathlib

Usage = collections.namedtuple("Usage", "seconds wakeups resident anonymous")


def usage(pid):
    """Of a process and its children: processor time in seconds, voluntary context switches of each thread by name,
    resident memory and its anonymous part in KiB."""
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    seconds, wakeups, resident, anonymous = zip(*(usage_alone(process) for process in (pid, *children)))
    return Usage(sum(seconds), sum(wakeups, collections.Counter()), sum(resident), sum(anonymous))


def usage_alone(pid):
    process = pathlib.Path(f"/proc/{pid}")
    fields = (process / "stat").read_text().rsplit(")", 1)[1].split()
    wakeups = collections.Counter()
    for task in (process / "task").iterdir():
        status = dict(line.split(":", 1) for line in (task / "status").read_text().splitlines())
        wakeups[status["Name"].strip()] += int(status["voluntary_ctxt_switches"])
    rollup = [line.split() for line in (process / "smaps_rollup").read_text().splitlines()]
    memory = {line[0]: int(line[1]) for line in rollup if line[0] in ("Rss:", "Anonymous:")}
    return Usage((int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK"), wakeups, memory["Rss:"],
                 memory["Anonymous:"])
