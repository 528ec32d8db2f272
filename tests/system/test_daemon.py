"""With avahi-daemon on a system bus, as on most desktops."""
import shutil
import unittest

from harness import JackServer, Process, Program, SystemTest

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


class WithDaemon(SystemTest):
    def setUp(self):
        super().setUp()
        if missing := [tool for tool in ("dbus-daemon", "avahi-daemon") if not shutil.which(tool)]:
            self.skipTest("missing: " + ", ".join(missing))
        self.desk = self.network.host("10.77.1.1/24")
        self.stage = self.network.host("10.77.1.2/24")
        self.desk.run("mkdir", "/run/dbus", "/run/avahi-daemon")
        (self.directory / "bus.conf").write_text(BUS)
        (self.directory / "avahi.conf").write_text(AVAHI)
        bus = Process(self, ["dbus-daemon", "--config-file", self.directory / "bus.conf", "--nofork", "--nopidfile",
                             "--print-address"], self.desk)
        bus.wait_for("^unix:")

    def daemon(self):
        daemon = Process(self, ["sh", "-c", "exec avahi-daemon --no-drop-root --no-chroot --no-rlimits "
                                f"--no-proc-title -f {self.directory}/avahi.conf 2>&1"], self.desk)
        daemon.wait_for("Server startup complete")
        return daemon

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
