"""Where the program's output goes: the reader of its log may leave, the MIDI system may stall, leave, or never come, and
the system may give it little."""
import os
import signal
import unittest

from lab.programs import IS_SANITIZED, JackServer, LongReceiver, Program, SystemTest, exclusive, mixed, scale


class Output(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk = self.network.host("10.77.7.1/24")
        self.stage = self.network.host(*(f"10.77.7.{number}/24" for number in (2, 3, 4, 5)))

    def test_reader_of_the_log_leaves(self):
        reader, writer = os.pipe()
        program = Program(self, self.desk, stdout=writer)
        os.close(writer)
        os.close(reader)
        self.device(self.stage, "--name", "Piano", "--messages", 10).wait_for("played 10 messages")
        program.terminate()

    def test_small_limits(self):
        if IS_SANITIZED:
            return  # its runtime needs more
        for limit in ("--nofile=8", "--nofile=14"):
            program = Program(self, self.desk, limits=(limit,))
            self.assertEqual(program.wait(), 1, limit)
            self.assertRegex(program.report(), "(cannot run: .+|no Qt platform plugin could be initialized.*)", limit)
            program.popen.returncode = 0
        device = self.device(self.stage, "--name", "Piano", "--play", "nothing")
        program = Program(self, self.desk, limits=("--fsize=0", "--stack=65536"))
        program.wait_for("running$")
        program.terminate()
        self.assertSessionEnds(device)

    def test_no_midi_system(self):
        program = Program(self, self.desk)
        self.device(self.stage, "--name", "Piano", "--messages", 10).wait_for("played 10 messages")
        lines = [line for line in program.terminate() if "CoreMIDI" in line]
        self.assertRegex("\n".join(lines), r"^\[CoreMIDI\] MIDIClientCreate failed: -\d+\n"
                         r"\[CoreMIDI\] MIDISourceCreate failed: -\d+\n"
                         r"\[CoreMIDI\] devices connect, but nothing is published: .*$")

    def test_jack_gets_whole_messages_at_their_time(self):
        """One period after their parsing, not all at the beginning of a cycle."""
        size, count = 32_000, 60  # the longest System Exclusive that the program joins
        jack = JackServer(self, self.desk)
        Program(self, self.desk)
        receiver = jack.receiver(LongReceiver)
        self.device(self.stage, "--name", "Piano", "--play", "mixed", "--sysex-size", size, "--rate", 50,
                    "--messages", count)
        receiver.wait_for_messages(count)
        burst = 10  # more than a cycle of JACK has room for
        self.device(self.stage, "--name", "Organ", "--address", "10.77.7.3", "--play", "sysex", "--sysex-size", size,
                    "--rate", 1000, "--messages", burst)
        receiver.wait_for_messages(count + burst)
        self.assertEqual(receiver.messages, [mixed(number, size) for number in range(count)]
                         + [exclusive(number, size) for number in range(burst)])
        self.assertGreater(len({line.partition(":")[0] for line in receiver.lines}), 10, "frames of a cycle")

    def test_jack_server_hangs(self):
        """At launch, while notes play, and at the end."""
        jack = JackServer(self, self.desk)
        jack.process.signal(signal.SIGSTOP)
        program = Program(self, self.desk)
        piano = self.device(self.stage, "--name", "Piano", "--rate", 500)
        program.wait_for("running$")
        jack.process.signal(signal.SIGCONT)
        receiver = jack.receiver(LongReceiver)
        receiver.wait_for_messages(500)
        piano.end()

        jack.process.signal(signal.SIGSTOP)
        size = 30_000  # a second of these is more than twice what the queue holds
        organ = self.device(self.stage, "--name", "Organ", "--address", "10.77.7.3", "--play", "mixed",
                            "--sysex-size", size, "--rate", 1000, "--messages", 1000)
        organ.wait_for("played 1000 messages")
        self.device(self.stage, "--name", "Drum", "--address", "10.77.7.5", "--play", "nothing")
        program.wait_for("running with Drum$")
        jack.process.signal(signal.SIGCONT)
        count = 400
        self.device(self.stage, "--name", "Flute", "--address", "10.77.7.4", "--channel", 2, "--rate", 200,
                    "--messages", count)
        notes = [bytes((status | 1, note, velocity)) for status, note, velocity in map(scale, range(count))]
        receiver.wait_for(" " + notes[-1].hex(" ") + "$", 20)
        played = receiver.messages
        self.assertEqual([message for message in played if message in notes], notes)
        tune = {mixed(number, size) for number in range(1000)} | {scale(number) for number in range(2032)}
        self.assertLessEqual(set(played), tune | set(notes), "whole messages")
        _, match = program.wait_for(r"^\[CoreMIDI\] dropped (\d+) messages that JACK had not played within a second$")
        self.assertGreater(int(match[1]), 100)

        jack.process.signal(signal.SIGSTOP)
        program.terminate()
        jack.process.kill()  # it would not end by itself

    def test_jack_server_dies_and_returns(self):
        jack = JackServer(self, self.desk, patient=False)  # a patient one does not end while it has clients
        program = Program(self, self.desk)
        receiver = jack.receiver()
        device = self.device(self.stage, "--name", "Piano", "--rate", 500)
        receiver.wait_for_messages(200)
        for number in (signal.SIGKILL, signal.SIGTERM):
            with self.subTest(number.name):
                if number == signal.SIGKILL:  # with messages in the queue, which are not to be played by the next one
                    jack.process.signal(signal.SIGSTOP)
                    self.device(self.stage, "--name", "Organ", "--address", "10.77.7.3",
                                "--messages", 2).wait_for("played 2 messages")
                jack.process.signal(number)
                jack.process.wait(20)
                receiver.end()
                jack.start()
                receiver = jack.receiver()
                receiver.wait_for_messages(500)
                # The velocities count on, but for a period now and then that such a server drops.
                heard = [message[2] for message in receiver.messages[:500]]
                steps = [(after - before) % 127 for before, after in zip(heard, heard[1:])]
                self.assertGreater(steps.count(1), 450)
        self.assertEqual(program.times("dialing Piano"), program.times("dialing")[:1])
        self.assertEqual((device.times("bye"), program.times("dropped")), ([], []))
        jack.process.kill()
        program.terminate()


if __name__ == "__main__":
    unittest.main()
