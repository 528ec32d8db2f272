"""Isolated hosts and networks.

Every host has its own network and mount namespaces, with its own /run and /dev/shm, so that processes on it cannot reach
the machine's D-Bus, Avahi and JACK, nor another test's. The kernel removes a namespace with its last process, and all
processes are killed when the test ends, so nothing is left behind even if the test crashes.
"""
import subprocess
import unittest

from lab.processes import environment


class Host:
    """A host with its own network, /run and /dev/shm."""

    def __init__(self, test):
        script = "mount -t tmpfs none /dev/shm; mount -t tmpfs none /run; ip link set lo up; echo; exec cat"
        self._holder = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--net", "--mount", "sh", "-ec", script],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        test.addCleanup(self._release)
        if self._holder.stdout.readline() != b"\n":
            raise unittest.SkipTest("no network namespaces here")
        self.pid = self._holder.pid
        self.enter = ["nsenter", f"--target={self.pid}", "--net", "--mount"]

    def _release(self):
        self._holder.stdin.close()  # ends cat
        self._holder.wait()
        self._holder.stdout.close()

    def run(self, *command, check=True, text=""):
        return subprocess.run(self.enter + [*command], check=check, env=environment(), input=text,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def ip(self, *lines):
        """Runs several commands of `ip` in one process."""
        self.run("ip", "-batch", "-", text="\n".join(lines) + "\n")


class Network:
    """Switches, and hosts connected to them."""

    def __init__(self, test):
        self._test = test
        self._switches = Host(test)
        self._bridges = set()
        self._ports = 0

    def host(self, *addresses, switch="lan"):
        host = Host(self._test)
        self.attach(host, *addresses, switch=switch)
        return host

    def attach(self, host, *addresses, switch="lan"):
        """Adds an interface to the host, named after the switch, with the given addresses (a.b.c.d/n)."""
        commands = []
        if switch not in self._bridges:
            self._bridges.add(switch)
            commands += [f"link add {switch} type bridge mcast_snooping 0", f"link set {switch} up"]
        self._ports += 1
        port = f"port{self._ports}"
        commands += [f"link add {port} type veth peer name {switch} netns {host.pid}",
                     f"link set {port} master {switch} up"]
        self._switches.ip(*commands)
        host.ip(f"link set {switch} up", *(f"addr add {address} dev {switch}" for address in addresses))
