"""Which devices are dialled, and where."""
import unittest

from lab.programs import Program, SystemTest


class Discovery(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk, self.stage = self.network.host("10.77.2.1/24"), self.network.host("10.77.2.2/24")

    def test_device_is_dialled_if_it_has_a_marker_or_has_run_before(self):
        """It leaves and returns, with and without a goodbye, at another port or address and after a restart of the program."""
        plain = self.device(self.network.host("10.77.2.3/24"), "--name", "Plain", "--no-marker")
        plain.wait_for("announced")
        program = Program(self, self.desk)
        device = self.device(self.stage, "--name", "Marked", "--marker-name", "Another name", "--withdraw-after", 3)
        program.wait_for(r"^.Dialer. dialing Marked \[10\.77\.2\.2\] → 10\.77\.2\.2:5004$")
        program.wait_for(r"^.Dialer. peer 10\.77\.2\.2 gone — stopping session$")
        for port in ("control", "data"):
            device.wait_for(rf"bye from 10\.77\.2\.1 \({port}\)")
        device.end()
        ssrc = program.preferences["TessaryLink.localSSRC.v1"]
        program.terminate()

        program = Program(self, self.desk, program.config)
        for port in (6000, 7000):
            device = self.device(self.stage, "--name", "Piano", "--port", port, "--no-marker")
            device.wait_for("running with")
            device.kill()  # it does not withdraw its name, which stays listed while it moves
        self.stage.ip("addr del 10.77.2.2/24 dev lan", "addr add 10.77.2.9/24 dev lan")
        self.device(self.stage, "--name", "Piano", "--port", 7000)
        program.wait_for(r"^.Dialer. 10\.77\.2\.9 running$")
        self.assertEqual(program.times("didNotResolve"), [])
        program.terminate()
        self.assertEqual(program.preferences,
                         {"TessaryLink.localSSRC.v1": ssrc,
                          "TessaryLink.trustedPeerIPs.v1": ["10.77.2.2", "10.77.2.9"]})
        self.assertEqual(plain.times("invitation"), [])

    def test_many_devices_that_appear_at_once(self):
        count = 64
        addresses = [f"10.77.4.{number}" for number in range(2, 2 + count)]
        self.network.attach(self.desk, "10.77.4.1/24", switch="hall")
        hall = self.network.host(*(f"{address}/24" for address in addresses), switch="hall")
        program = Program(self, self.desk)
        self.device(hall, "--address", addresses[0], "--count", count, "--play", "nothing")
        program.wait_for(r"^.Dialer. 10\.77\.4\.\d+ running$", 20, times=count)
        for address in addresses:
            self.assertEqual(len(program.times(rf"dialing .*\[{address}\]")), 1)
            self.assertEqual(len(program.times(rf"^.Dialer. {address} running$")), 1)


if __name__ == "__main__":
    unittest.main()
