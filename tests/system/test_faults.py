"""Devices that misbehave."""
import unittest

from lab.processes import until
from lab.programs import JackServer, Program, SystemTest, scale

MISBEHAVIOUR = {  # options, and what the log says of it; None: neither that it runs nor that it failed
    "Late": (("--open-after", 3), "running"),
    "Refusing": (("--reject", "control"), "failed: control invitation rejected"),
    "Halfhearted": (("--reject", "data"), "failed: data invitation rejected"),
    "Leaving": (("--bye-after", 1), "failed: peer (sent BYE|BYE on data port)"),
    "Silent": (("--silent",), None),
    "Confused": (("--wrong-token",), None),
    "Garbling": (("--garbage", 200), "running"),
    "Slow": (("--answer-delay", 300), "running"),
}


class Faults(SystemTest):
    def test_a_misbehaving_device_disturbs_no_other(self):
        desk, stage = self.network.host("10.77.5.1/24"), self.network.host("10.77.5.2/24")
        jack = JackServer(self, desk)
        program = Program(self, desk)
        receiver = jack.receiver()
        address = {name: f"10.77.5.{number}" for number, name in enumerate(MISBEHAVIOUR, 3)}
        for name, (options, _) in MISBEHAVIOUR.items():
            self.device(self.network.host(address[name] + "/24"), "--name", name, "--play", "nothing", *options)
        for name in MISBEHAVIOUR:
            program.wait_for(rf"dialing {name} ")
        self.device(stage, "--name", "Good", "--rate", 1000, "--messages", 5000).wait_for("played 5000 messages", 20)

        def is_complete():
            heard = iter(receiver.messages)  # in which the garbage may have left notes of its own
            return all(scale(number) in heard for number in range(5000))
        until(is_complete, 15, "all notes, in order")
        for name, (_, outcome) in MISBEHAVIOUR.items():
            with self.subTest(name):
                if outcome:
                    program.wait_for(rf"^.Dialer. {address[name]} {outcome}$")
                if outcome in (None, "running"):
                    self.assertEqual(len(program.times(rf"dialing {name} ")), 1)
                    self.assertEqual(program.times(rf"{address[name]} failed"), [])
                    self.assertEqual(bool(program.times(rf"{address[name]} running")), bool(outcome))
        self.assertEqual(program.times(r"10\.77\.5\.2 failed"), [])


if __name__ == "__main__":
    unittest.main()
