"""Real-time priority for the network thread, as the kernel shows it: from RealtimeKit for an ordinary user, and none
where it is refused or where the bus does not answer. Nothing else of the program is to depend on that."""
import collections
import glob
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import unittest

from lab.daemons import start_system_bus
from lab.processes import Process, environment, until
from lab.programs import Program, SystemTest

RTKIT = "/usr/libexec/rtkit-daemon"
POLKIT = "/usr/lib/polkit-1/polkitd"
RULE = "polkit.addRule(function(action, subject) { return polkit.Result.%s; });\n"
NOBODY = 65534
ORDINARY = "TS"  # as ps has it
MODEST = 4       # below any audio thread


Thread = collections.namedtuple("Thread", "blocked policy priority name")


def threads(process):
    """As the kernel lists them, the main thread first."""
    fields = ["-o", "blocked=", "-o", "cls=", "-o", "rtprio=", "-o", "comm="]
    listed = subprocess.run(["ps", "-L", "-p", str(process.pid), *fields], stdout=subprocess.PIPE, text=True).stdout
    return [Thread(int(blocked, 16), policy, 0 if priority == "-" else int(priority), name)
            for blocked, policy, priority, name in (line.split(None, 3) for line in listed.splitlines())]


def names(process):
    return {thread.name for thread in threads(process)}


def blocks(thread, number):
    """Whether a signal does not reach the thread."""
    return bool(thread.blocked >> (number - 1) & 1)


class AsUser:
    """A host whose programs an ordinary user starts."""

    def __init__(self, host):
        self.enter = host.enter + ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]


class RealTime(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk = self.network.host("10.77.1.1/24")
        self.stage = self.network.host("10.77.1.2/24")

    def bus(self, answer):
        """A system bus with RealtimeKit on it, and an administrator who answers all questions alike."""
        if missing := [tool for tool in (RTKIT, POLKIT) if not shutil.which(tool)]:
            self.skipTest("missing: " + ", ".join(missing))
        start_system_bus(self, self.desk)
        self.desk.run("sh", "-ec", "cd /etc/polkit-1; mount -t tmpfs none rules.d; cat >rules.d/00.rules; "
                      "chmod 755 rules.d; chmod 644 rules.d/00.rules", text=RULE % answer)
        # RealtimeKit's watchdog would take the priority from everybody if this machine were too busy for it.
        for command, name in (([POLKIT, "--no-debug"], "org.freedesktop.PolicyKit1"),
                              ([RTKIT, "--no-canary"], "org.freedesktop.RealtimeKit1")):
            Process(self, command, self.desk)
            question = ["gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path", "/",
                        "--method", "org.freedesktop.DBus.NameHasOwner", name]
            until(lambda: "true" in self.desk.run(*question, check=False).stdout, 10, f"{name} is on the bus")

    def program(self, **variables):
        """Started by an ordinary user."""
        config = self.directory / "home"
        config.mkdir()
        for path in (self.directory, config):
            path.chmod(0o777)
        return Program(self, AsUser(self.desk), config, variables=variables)

    def assertPlays(self, program):
        self.device(self.stage, "--name", "Piano")
        program.wait_for("running with Piano")

    def test_the_network_thread_alone_has_it_from_realtimekit(self):
        self.bus("YES")
        program = self.program()
        self.assertPlays(program)
        until(lambda: any(thread.priority for thread in threads(program)), 10, "a thread has the priority")
        for thread in threads(program):
            expected = ("RR", MODEST) if thread.name == "tessary-network" else (ORDINARY, 0)
            self.assertEqual((thread.policy, thread.priority), expected, thread.name)
        self.assertNotIn("tessary-rtkit", names(program))

    def test_pipewires_jack_library_does_not_keep_the_signal_of_a_flood_from_its_threads(self):
        libraries = glob.glob("/usr/lib/*/pipewire-0.3/jack")
        if not libraries or not shutil.which("pipewire"):
            self.skipTest("missing: PipeWire's JACK library")
        self.bus("YES")
        runtime = self.directory / "runtime"
        runtime.mkdir(mode=0o700)
        os.chown(runtime, NOBODY, NOBODY)
        self.directory.chmod(0o777)
        Process(self, ["pipewire"], AsUser(self.desk), environment(XDG_RUNTIME_DIR=str(runtime), HOME=str(runtime)))
        until((runtime / "pipewire-0").exists, 10, "PipeWire runs")
        program = self.program(LD_LIBRARY_PATH=libraries[0], XDG_RUNTIME_DIR=str(runtime))
        audio = until(lambda: [thread for thread in threads(program) if thread.priority > MODEST], 10,
                      "PipeWire's thread has its priority")
        limits = pathlib.Path("/proc", str(program.pid), "limits")
        until(lambda: re.search("Max realtime timeout +100000 +200000 ", limits.read_text()), 10,
              "the signal comes before the kill")
        self.assertFalse(any(blocks(thread, signal.SIGXCPU) for thread in audio))

    def test_a_refusal_changes_and_logs_nothing(self):
        self.bus("NO")
        program = self.program()
        self.assertPlays(program)
        until(lambda: "tessary-rtkit" not in names(program), 10, "it has asked")
        self.assertEqual({thread.policy for thread in threads(program)}, {ORDINARY})
        self.assertFalse([line for line in program.terminate() if re.search("real|priorit", line, re.I)])

    def test_a_bus_that_never_answers_delays_neither_launch_nor_end(self):
        path = self.directory / "mute"
        mute = self.enterContext(socket.socket(socket.AF_UNIX))
        mute.bind(str(path))
        mute.listen(100)
        path.chmod(0o777)
        variables = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}
        program = self.program(**variables)
        until(lambda: {"tessary-rtkit", "QDBusConnection"} <= names(program), 10, "it asks, and goes on")
        self.assertEqual({thread.policy for thread in threads(program)}, {ORDINARY})
        program.terminate()
        for _ in range(12):  # which of the threads that ask the bus comes first is left to chance
            program = Program(self, self.desk, variables=variables)
            until(lambda: blocks(threads(program)[0], signal.SIGTERM), 10, "it handles the signal")
            program.signal(signal.SIGTERM)
            self.assertEqual(program.wait(10), 0)


if __name__ == "__main__":
    unittest.main()
