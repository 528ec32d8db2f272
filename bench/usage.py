"""What a process costs, as the kernel counts it."""
import os
import pathlib


def usage(pid):
    """Seconds of processor time, voluntary switches of all threads, resident KiB."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    status = [path.read_text() for path in pathlib.Path(f"/proc/{pid}/task").glob("*/status")]
    switches = sum(int(line.split()[1]) for text in status for line in text.splitlines()
                   if line.startswith("voluntary"))
    resident = int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE") // 1024
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK"), switches, resident
