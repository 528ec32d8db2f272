"""Devices that misbehave, and a network that changes."""
import unittest

from lab.programs import CONTROL_PORT, DATA_PORT, Capture, JackServer, Program, SystemTest, scale

MISBEHAVIOUR = {
    "Late": ("--open-after", 3),
    "Refusing": ("--reject", "control"),
    "Halfhearted": ("--reject", "data"),
    "Leaving": ("--bye-after", 1),
    "Silent": ("--silent",),
    "Confused": ("--wrong-token",),
    "Garbling": ("--garbage", 200),
    "Slow": ("--answer-delay", 300),
}


class Faults(SystemTest):
    def test_each_device_has_its_own_faults(self):
        """All of them beside one that plays, and is not disturbed."""
        address = {name: f"10.77.5.{number}" for number, name in enumerate(MISBEHAVIOUR, 3)}
        desk = self.network.host("10.77.5.1/24")
        hosts = {name: self.network.host(address[name] + "/24") for name in MISBEHAVIOUR}
        jack = JackServer(self, desk)
        capture = Capture(self, desk, address["Silent"])
        program = Program(self, desk)
        receiver = jack.receiver()
        for name, options in MISBEHAVIOUR.items():
            self.device(hosts[name], "--name", name, "--play", "nothing", *options)
        for name in MISBEHAVIOUR:
            program.wait_for(rf"dialing {name} ")
        good = self.device(self.network.host("10.77.5.2/24"), "--name", "Good", "--rate", 1000, "--messages", 5000)
        begin, _ = program.wait_for(r"^.Dialer. 10\.77\.5\.2 running$")
        end, _ = good.wait_for("played 5000 messages", 20)  # five seconds in which no device comes or goes
        receiver.wait_for_messages(5000)
        program.wait_for(f"^.Dialer. {address['Late']} running$")
        program.terminate()

        log = "\n".join(program.lines)

        def dialled(name):
            return program.times(rf"dialing {name} ")

        def invitations(name, local):
            return len([packet for packet in packets if packet.command == "IN" and packet.outgoing
                        and packet.local == local and packet.destination == address[name]])

        packets = capture.packets()
        with self.subTest("Good"):
            self.assertIn("dialing Good ", log)
            self.assertNotIn("10.77.5.2 failed", log)
            heard = iter(receiver.messages)  # in which the garbage may have left notes of its own
            self.assertTrue(all(scale(number) in heard for number in range(5000)))
        for name, reason in (("Refusing", "control invitation rejected"), ("Halfhearted", "data invitation rejected")):
            with self.subTest(name):
                # About once a second.
                self.assertIn(len([moment for moment in dialled(name) if begin < moment < end]), range(3, 8))
                failures = [line for line in program.lines if f"{address[name]} failed" in line]
                self.assertGreaterEqual(len(failures), len(dialled(name)) - 1)
                self.assertEqual(set(failures), {f"[Dialer] {address[name]} failed: {reason}"})
        with self.subTest("Leaving"):
            self.assertGreaterEqual(len(program.times(f"^.Dialer. {address['Leaving']} running$")), 2)
            self.assertRegex(log, rf"{address['Leaving']} failed: (peer sent BYE|peer BYE on data port)\n")
        with self.subTest("Late"):
            self.assertEqual(len(dialled("Late")), 1)
            self.assertIn(invitations("Late", CONTROL_PORT), range(2, 7))
        for name in ("Silent", "Confused"):
            with self.subTest(name):
                self.assertEqual((len(dialled(name)), invitations(name, CONTROL_PORT), invitations(name, DATA_PORT)),
                                 (1, 1, 0))
                self.assertNotIn(f"{address[name]} running", log)
        for name in ("Garbling", "Slow"):
            with self.subTest(name):
                self.assertEqual((len(dialled(name)), invitations(name, CONTROL_PORT), invitations(name, DATA_PORT)),
                                 (1, 1, 1))
                self.assertIn(f"{address[name]} running", log)
                self.assertNotIn(f"{address[name]} failed", log)

    def test_own_address_changes(self):
        desk, stage = self.network.host("10.77.6.1/24"), self.network.host("10.77.6.2/24")
        jack = JackServer(self, desk)
        program = Program(self, desk)
        receiver = jack.receiver()
        device = self.device(stage, "--name", "Piano", "--rate", 200)
        receiver.wait_for_messages(200)
        desk.ip("addr del 10.77.6.1/24 dev lan", "addr add 10.77.6.9/24 dev lan")
        device.wait_for(r"control invitation from 10\.77\.6\.9:51204 ")
        device.wait_for(r"running with 10\.77\.6\.9$", 15)
        receiver.wait_for_messages(len(receiver.messages) + 200)
        self.assertEqual(program.times("failed"), [], "the session goes on")
        self.assertEqual(program.popen.poll(), None)


if __name__ == "__main__":
    unittest.main()
