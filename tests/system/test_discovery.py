"""Which devices are dialled, and where."""
import time
import unittest

from lab.programs import Program, SystemTest


class Discovery(SystemTest):
    def test_plain_device_is_left_alone(self):
        desk = self.network.host("10.77.2.1/24")
        plain = self.device(self.network.host("10.77.2.2/24"), "--name", "Plain", "--no-marker")
        plain.wait_for("announced")
        program = Program(self, desk)
        marked = self.device(self.network.host("10.77.2.3/24"), "--name", "Marked", "--marker-name", "Another name")
        program.wait_for(r"^.Dialer. 10\.77\.2\.3 running$")
        with self.assertRaises(AssertionError):
            plain.wait_for("invitation", 3)
        self.assertEqual(program.times(r"Plain|10\.77\.2\.2\b"), [])
        self.assertEqual(program.preferences["TessaryLink.trustedPeerIPs.v1"], ["10.77.2.3"])
        self.assertEqual(len(marked.times("control invitation")), 1)

    def test_device_that_once_ran_needs_no_marker(self):
        desk, stage = self.network.host("10.77.2.1/24"), self.network.host("10.77.2.2/24")
        device = self.device(stage, "--name", "Piano")
        first = Program(self, desk)
        first.wait_for(r"^.Dialer. 10\.77\.2\.2 running$")
        first.terminate()
        device.end()
        self.device(stage, "--name", "Piano without", "--no-marker")
        second = Program(self, desk, first.config)
        ssrc = first.preferences["TessaryLink.localSSRC.v1"]
        second.wait_for(r"^.Dialer. dialing Piano without \[10\.77\.2\.2\]")
        second.wait_for(r"^.Dialer. 10\.77\.2\.2 running$")
        self.assertEqual(second.preferences, {"TessaryLink.localSSRC.v1": ssrc,
                                              "TessaryLink.trustedPeerIPs.v1": ["10.77.2.2"]})

    def test_device_that_returns_on_another_port(self):
        desk, stage = self.network.host("10.77.2.1/24"), self.network.host("10.77.2.2/24")
        program = Program(self, desk)
        device = self.device(stage, "--name", "Piano", "--withdraw-after", 3)
        program.wait_for(r"^.Dialer. dialing Piano \[10\.77\.2\.2\] → 10\.77\.2\.2:5004$")
        program.wait_for(r"^.Dialer. peer 10\.77\.2\.2 gone — stopping session$")
        for port in ("control", "data"):
            device.wait_for(rf"bye from 10\.77\.2\.1 \({port}\)")
        device.end()
        self.device(stage, "--name", "Piano", "--port", 6000)
        program.wait_for(r"^.Dialer. dialing Piano \[10\.77\.2\.2\] → 10\.77\.2\.2:6000$")
        program.wait_for(r"^.Dialer. 10\.77\.2\.2 running$", times=2)

    def test_device_that_returns_at_once_elsewhere(self):
        """Its name never leaves the list. With a farewell, without, and to another address."""
        desk, stage = self.network.host("10.77.2.1/24"), self.network.host("10.77.2.2/24")
        program = Program(self, desk)
        device = self.device(stage, "--name", "Piano")
        program.wait_for(r"^.Dialer. 10\.77\.2\.2 running$")
        device.end()
        device = self.device(stage, "--name", "Piano", "--port", 6000)
        device.wait_for("running with", 10)
        device.kill()
        device = self.device(stage, "--name", "Piano", "--port", 7000)
        device.wait_for("running with", 10)
        device.kill()
        stage.ip("addr del 10.77.2.2/24 dev lan", "addr add 10.77.2.9/24 dev lan")
        device = self.device(stage, "--name", "Piano", "--port", 7000)
        device.wait_for("running with", 10)
        self.assertEqual([line for line in program.lines if "didNotResolve" in line], [])

    def test_device_on_two_links(self):
        """Its two services must come to the same one of its addresses, whichever link is first where."""
        cable, radio = "10.77.2.{}/24", "10.77.3.{}/24"
        stage = self.network.host(cable.format(2), switch="cable")
        self.network.attach(stage, radio.format(2), switch="radio")
        one = self.network.host(cable.format(1), switch="cable")
        self.network.attach(one, radio.format(1), switch="radio")
        other = self.network.host(radio.format(3), switch="radio")
        self.network.attach(other, cable.format(3), switch="cable")
        device = self.device(stage, "--name", "Piano", "--address", "10.77.2.2", "--address", "10.77.3.2", "--play",
                             "nothing")
        device.wait_for("announced")
        waits = []
        for desk in 10 * [one, other]:
            program = Program(self, desk)  # with preferences of its own: nobody is trusted
            began = time.monotonic()
            program.wait_for(r"^.Dialer. 10\.77\.[23]\.2 running$")
            waits.append(time.monotonic() - began)
            program.terminate()
        print(f"\ndevice on two links: {len(waits)} of 20 run, after {min(waits):.2f} to {max(waits):.2f} s")


if __name__ == "__main__":
    unittest.main()
