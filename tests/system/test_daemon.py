"""With avahi-daemon on a system bus, as on most desktops."""
import shutil
import unittest

from lab.processes import Process
from lab.programs import JackServer, Program, SystemTest

BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <policy context="default">
    <allow user="*"/><allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/><allow receive_sender="*" eavesdrop="true"/>
  </policy>
</busconfig>
"""
AVAHI = """[server]
use-ipv4=yes
use-ipv6=yes
[publish]
publish-hinfo=no
"""


def start_system_bus(test, host):
    if missing := [tool for tool in ("dbus-daemon", "avahi-daemon") if not shutil.which(tool)]:
        test.skipTest("missing: " + ", ".join(missing))
    host.run("mkdir", "/run/dbus", "/run/avahi-daemon")
    (test.directory / "bus.conf").write_text(BUS)
    (test.directory / "avahi.conf").write_text(AVAHI)
    Process(test, ["dbus-daemon", "--config-file", test.directory / "bus.conf", "--nofork", "--nopidfile",
                   "--print-address"], host).wait_for("^unix:")


def start_daemon(test, host, waits=True):
    daemon = Process(test, ["sh", "-c", "exec avahi-daemon --no-drop-root --no-chroot --no-rlimits "
                            f"--no-proc-title -f {test.directory}/avahi.conf 2>&1"], host)
    if waits:
        daemon.wait_for("Server startup complete")
    return daemon


class WithDaemon(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk = self.network.host("10.77.1.1/24")
        self.stage = self.network.host("10.77.1.2/24")
        start_system_bus(self, self.desk)

    def daemon(self):
        return start_daemon(self, self.desk)

    def test_daemon_restarts_while_notes_play(self):
        daemon = self.daemon()
        jack = JackServer(self, self.desk)
        program = Program(self, self.desk)
        receiver = jack.receiver()
        self.device(self.stage, "--name", "Piano", "--rate", 1000, "--messages", 5000)
        receiver.wait_for_messages(1000)
        daemon.kill()
        receiver.wait_for_messages(2000)
        daemon = self.daemon()
        receiver.wait_for_messages(5000)
        self.assertNotes(receiver, 5000)

        # The new daemon serves as the old one did: a device that comes is dialled, one that leaves is let go.
        another = self.network.host("10.77.1.3/24")
        self.device(another, "--name", "Organ", "--play", "nothing", "--withdraw-after", 4)
        program.wait_for(r"^.Dialer. 10\.77\.1\.3 running$")
        program.wait_for(r"^.Dialer. peer 10\.77\.1\.3 gone — stopping session$")
        self.assertEqual(len(program.times("dialing Piano")), 1)
        self.assertEqual(program.times("failed|gone.*1.2 "), [])


if __name__ == "__main__":
    unittest.main()
