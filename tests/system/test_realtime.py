"""Real-time priority for the network thread, as the kernel shows it: from RealtimeKit for an ordinary user, and none
where it is refused or where the bus does not answer. Nothing else of the program is to depend on that."""
import glob
import os
import pathlib
import re
import shutil
import signal
import socket
import unittest

from lab.daemons import BUS
from lab.processes import Process, environment, until
from lab.programs import Program, SystemTest

RTKIT = "/usr/libexec/rtkit-daemon"
POLKIT = "/usr/lib/polkit-1/polkitd"
RULE = "polkit.addRule(function(action, subject) { return polkit.Result.%s; });\n"
NOBODY = 65534
ORDINARY = 0  # SCHED_OTHER, as in /proc
MODEST = 4    # below any audio thread


def threads(process):
    """Folder, name, policy and real-time priority of each thread."""
    found = []
    for task in pathlib.Path("/proc", str(process.pid), "task").iterdir():
        try:
            fields = (task / "stat").read_text().rpartition(")")[2].split()
            found.append((task, (task / "comm").read_text().strip(), int(fields[38]), int(fields[37])))
        except OSError:  # it has just ended
            pass
    return found


def scheduling(process):
    """Name, policy and real-time priority of each thread."""
    return [each[1:] for each in threads(process)]


def blocks(task, number):
    """Whether a signal does not reach the thread."""
    blocked = int((task / "status").read_text().partition("SigBlk:")[2].split()[0], 16)
    return blocked >> (number - 1) & 1


class UsersProgram(Program):
    """The program, started by an ordinary user."""

    def __init__(self, test, host, variables=None):
        config = test.directory / "home"
        config.mkdir()
        for path in (test.directory, config):
            path.chmod(0o777)
        super().__init__(test, AsUser(host), config, variables=variables)


class AsUser:
    def __init__(self, host):
        self.enter = host.enter + ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]


class RealTime(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk = self.network.host("10.77.1.1/24")
        self.stage = self.network.host("10.77.1.2/24")

    def bus(self, answer):
        """A system bus with RealtimeKit on it, and an administrator who answers all questions alike."""
        for tool in ("dbus-daemon", RTKIT, POLKIT):
            if not shutil.which(tool):
                self.skipTest(f"missing: {tool}")
        (self.directory / "bus.conf").write_text(BUS)
        (self.directory / "rule").write_text(RULE % answer)
        self.desk.run("sh", "-ec", "mkdir /run/dbus; mount -t tmpfs none /etc/polkit-1/rules.d; "
                      f"cat {self.directory}/rule >/etc/polkit-1/rules.d/00.rules; "
                      "chmod 755 /etc/polkit-1/rules.d; chmod 644 /etc/polkit-1/rules.d/00.rules")
        bus = Process(self, ["dbus-daemon", "--config-file", self.directory / "bus.conf", "--nofork", "--nopidfile",
                             "--print-address"], self.desk)
        bus.wait_for("^unix:")
        Process(self, [POLKIT, "--no-debug"], self.desk)
        self.owned("org.freedesktop.PolicyKit1")
        # Its watchdog would take the priority from everybody if this machine were too busy for it.
        Process(self, [RTKIT, "--no-canary"], self.desk)
        self.owned("org.freedesktop.RealtimeKit1")

    def owned(self, name):
        question = ["gdbus", "call", "--system", "--dest", "org.freedesktop.DBus", "--object-path", "/",
                    "--method", "org.freedesktop.DBus.NameHasOwner", name]
        until(lambda: "true" in self.desk.run(*question, check=False).stdout, 10, f"{name} is on the bus")

    def assertPlays(self, program):
        self.device(self.stage, "--name", "Piano")
        program.wait_for("running with Piano")

    def test_an_ordinary_users_network_thread_alone_has_it_from_realtimekit(self):
        self.bus("YES")
        program = UsersProgram(self, self.desk)
        self.assertPlays(program)
        until(lambda: any(priority for _, _, priority in scheduling(program)), 10, "a thread has the priority")
        for name, policy, priority in scheduling(program):
            if name == "tessary-network":
                self.assertEqual((policy, priority), (os.SCHED_RR, MODEST))
            else:
                self.assertEqual((name, policy), (name, ORDINARY))
        self.assertNotIn("tessary-rtkit", [name for name, _, _ in scheduling(program)])

    def test_pipewires_jack_library_does_not_take_the_warning_from_a_flood(self):
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
        program = UsersProgram(self, self.desk, {"LD_LIBRARY_PATH": libraries[0], "XDG_RUNTIME_DIR": str(runtime)})
        audio = lambda: [task for task, _, _, priority in threads(program) if priority > MODEST]
        until(audio, 10, "PipeWire's thread has its priority")
        limits = pathlib.Path("/proc", str(program.pid), "limits")
        until(lambda: re.search("Max realtime timeout +100000 +200000 ", limits.read_text()), 10, "they are told first")
        for task in audio():
            self.assertFalse(blocks(task, signal.SIGXCPU))
        self.assertPlays(program)

    def test_a_refusal_is_taken_in_silence(self):
        self.bus("NO")
        program = UsersProgram(self, self.desk)
        self.assertPlays(program)
        until(lambda: "tessary-rtkit" not in [name for name, _, _ in scheduling(program)], 10, "it has asked")
        self.assertEqual({policy for _, policy, _ in scheduling(program)}, {ORDINARY})
        self.assertFalse([line for line in program.terminate() if "real" in line.lower() or "priorit" in line.lower()])

    def mute_bus(self):
        """The variables of a program whose system bus never answers."""
        path = self.directory / "mute"
        mute = socket.socket(socket.AF_UNIX)
        self.addCleanup(mute.close)
        mute.bind(str(path))
        mute.listen(100)
        path.chmod(0o777)
        return {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={path}"}

    def test_a_bus_that_never_answers_holds_nobody_up(self):
        program = UsersProgram(self, self.desk, self.mute_bus())
        until(lambda: {"tessary-rtkit", "QDBusConnection"} <= {name for name, _, _ in scheduling(program)}, 10,
              "it asks, and goes on")
        self.assertEqual({policy for _, policy, _ in scheduling(program)}, {ORDINARY})
        program.terminate()  # within a second

    def test_a_bus_that_never_answers_does_not_keep_the_program_from_ending(self):
        variables = self.mute_bus()
        for _ in range(12):  # which of the threads that ask the bus comes first is left to chance
            program = Program(self, self.desk, variables=variables)
            until(lambda: blocks(pathlib.Path("/proc", str(program.pid)), signal.SIGTERM), 10, "it handles the signal")
            program.signal(signal.SIGTERM)
            self.assertEqual(program.wait(10), 0)


if __name__ == "__main__":
    unittest.main()
