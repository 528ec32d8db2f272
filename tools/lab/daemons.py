"""A system bus and avahi-daemon on a host, as on most desktops."""
import shutil

from lab.processes import Process

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


def start_avahi(test, host, restarts=False):
    """With `restarts` it is started again whenever it has ended, as by systemd."""
    command = f"avahi-daemon --no-drop-root --no-chroot --no-rlimits --no-proc-title -f {test.directory}/avahi.conf 2>&1"
    script = f"while :; do setpriv --pdeathsig KILL {command}; done" if restarts else f"exec {command}"
    daemon = Process(test, ["sh", "-c", script], host)
    daemon.wait_for("Server startup complete")
    return daemon
