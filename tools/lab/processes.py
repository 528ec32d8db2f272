"""Real processes, and waiting for their output."""
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import threading
import time


def until(condition, timeout, what):
    """Polls a condition until it holds, for conditions that no event reports; returns its value."""
    deadline = time.monotonic() + timeout
    while not (result := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {timeout} s: {what}")
        time.sleep(0.02)
    return result


class Process:
    """A process, and waiting for its output lines. It is ended with its test."""

    def __init__(self, test, command, host=None, env=None, stdout=None):
        self.name = pathlib.Path(command[0]).name
        self.output = []  # (monotonic time, line)
        self._news = threading.Condition()
        self._ended = False
        self.errors = tempfile.TemporaryFile()
        prefix = ["setpriv", "--pdeathsig", "KILL"] + (host.enter if host else [])
        self.popen = subprocess.Popen(prefix + [str(part) for part in command], env=env or environment(),
                                      stdin=subprocess.DEVNULL, stdout=stdout or subprocess.PIPE,
                                      stderr=self.errors)
        self.pid = self.popen.pid  # each program of the prefix executes the next in the same process
        self._reader = None
        if stdout is None:
            # A large pipe, because this reader may be delayed: some programs block on a full pipe, others drop lines.
            fcntl.fcntl(self.popen.stdout, fcntl.F_SETPIPE_SZ, 1 << 20)
            self._reader = threading.Thread(target=self._read, daemon=True)
            self._reader.start()
        test.processes.append(self)
        test.addCleanup(self.end)

    def _read(self):
        for line in self.popen.stdout:
            with self._news:
                self.output.append((time.monotonic(), line.decode(errors="replace").rstrip("\n")))
                self._news.notify_all()
        with self._news:
            self._ended = True
            self._news.notify_all()

    @property
    def lines(self):
        with self._news:
            return [line for _, line in self.output]

    def times(self, pattern):
        """The times of the lines so far that match."""
        with self._news:
            return [moment for moment, line in self.output if re.search(pattern, line)]

    def wait_for(self, pattern, timeout=10, times=1):
        """Waits until `times` lines match; returns the time and the match of the last of them."""
        deadline = time.monotonic() + timeout
        seen, found = 0, 0
        with self._news:
            while True:
                for moment, line in self.output[seen:]:
                    if match := re.search(pattern, line):
                        found += 1
                        if found == times:
                            return moment, match
                seen = len(self.output)
                if self._ended or not self._news.wait(deadline - time.monotonic()):
                    raise AssertionError(f"{self.name}: {found} of {times} lines match {pattern!r} after "
                                         f"{timeout} s" + " (it has ended)" * self._ended)

    def signal(self, number):
        self.popen.send_signal(number)

    def wait(self, timeout=5):
        status = self.popen.wait(timeout)
        if self._reader:
            self._reader.join(timeout)
        return status

    def kill(self):
        self.signal(signal.SIGKILL)
        self.wait()

    def end(self):
        if self.popen.poll() is None:
            self.signal(signal.SIGTERM)
            try:
                self.wait(10)  # a process with many devices withdraws its announcements first
            except subprocess.TimeoutExpired:
                self.kill()

    def report(self):
        self.errors.seek(0)
        errors = self.errors.read().decode(errors="replace").splitlines()
        return "\n".join([f"--- {self.name} ({self.pid})"] + self.lines[-60:] + errors[:200])


def environment(**more):
    """The caller's environment, without the variables that refer to services of its desktop session."""
    kept = {key: value for key, value in os.environ.items()
            if not key.startswith(("DBUS_", "JACK_", "XDG_")) and key not in ("DISPLAY", "WAYLAND_DISPLAY")}
    # By default ThreadSanitizer waits a second at the exit for threads that still run.
    sanitizer = kept.get("TSAN_OPTIONS", "") + " atexit_sleep_ms=0"
    return kept | {"JACK_NO_AUDIO_RESERVATION": "1", "LC_ALL": "C.UTF-8", "TSAN_OPTIONS": sanitizer} | more
