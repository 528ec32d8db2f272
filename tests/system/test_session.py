"""One device and one program: from the announcement to the notes, in the log, in the packets and at a JACK client."""
import re
import shutil
import signal
import subprocess
import unittest

from lab.processes import Process
from lab.programs import BUILD, CONTROL_PORT, DATA_PORT, ROOT, Capture, JackServer, Program, SystemTest

NAME, ADDRESS = "Stage Piano & Söhne", "10.77.0.2"


class OneDevice(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk = self.network.host("10.77.0.1/24")
        self.stage = self.network.host(f"{ADDRESS}/24")

    def assertLog(self, lines, name=NAME, port=5004):
        """The log of one undisturbed session, line for line. Answers its tokens."""
        text = "\n".join(lines)
        tokens = [int(token) for token in re.findall(r" token=(\d+)$", text, re.M)]
        self.assertEqual(len(tokens), 2, text)
        begin = [f"[Dialer] dialing {name} [{ADDRESS}] → {ADDRESS}:{port}",
                 f"[RTPMIDI] sent control IN to {name} token={tokens[0]}",
                 f"[RTPMIDI] control OK from {name}",
                 f"[RTPMIDI] sent data IN to {name} token={tokens[1]}",
                 f"[RTPMIDI] data OK from {name} — beginning clock sync"]
        self.assertEqual(lines[:5], begin)
        # One of these comes from the session's thread, the other from the main thread.
        self.assertEqual(sorted(lines[5:]), sorted([f"[RTPMIDI] running with {name}", f"[Dialer] {ADDRESS} running"]))
        return tokens

    def test_notes_log_and_packets(self):
        jack = JackServer(self, self.desk)
        capture = Capture(self, self.desk, ADDRESS)
        program = Program(self, self.desk)
        receiver = jack.receiver()
        # The notes last until the second heartbeat has been sent.
        device = self.device(self.stage, "--name", NAME, "--address", ADDRESS, "--rate", 1000, "--messages", 2500,
                             "--wait-for-clock")
        receiver.wait_for_messages(2500)
        self.assertNotes(receiver, 2500)
        log = program.terminate()
        self.assertSessionEnds(device)
        self.assertPackets(capture.packets(), self.assertLog(log), program.preferences["TessaryLink.localSSRC.v1"])

    def assertPackets(self, packets, tokens, ssrc):
        sent = [packet for packet in packets if packet.outgoing]
        self.assertFalse([packet for packet in packets if packet.malformed])
        self.assertTrue(all(packet.ssrc == ssrc and packet.destination == ADDRESS for packet in sent))
        self.assertTrue(1 <= ssrc < 1 << 32)

        both = [(CONTROL_PORT, 5004, tokens[0]), (DATA_PORT, 5005, tokens[1])]
        self.assertNotEqual(*tokens)
        for command, outgoing in (("IN", True), ("OK", False), ("BY", True)):
            found = [packet for packet in packets if packet.command == command and packet.outgoing == outgoing]
            self.assertEqual([(packet.local, packet.remote, packet.token) for packet in found], both, command)
            name = {"IN": "Tessary Link", "OK": NAME, "BY": ""}[command]
            self.assertEqual([packet.name for packet in found], [name, name])
        self.assertEqual([packet.command for packet in sent][-2:], ["BY", "BY"])

        # The questions of the program, a second apart by its clock too, which counts in units of 100 microseconds.
        clock = [packet for packet in packets if packet.command == "CK"]
        self.assertEqual({packet.local for packet in clock}, {DATA_PORT})
        own = [packet for packet in clock if packet.outgoing and packet.count == 0]
        self.assertGreaterEqual(len(own), 3)
        for before, after in zip(own[1:], own[2:]):
            self.assertAlmostEqual(after.time - before.time, 1, delta=0.15)
            self.assertAlmostEqual((after.t1 - before.t1) / 10_000, 1, delta=0.15)
        # The exchange of the device, whose first message waits for an answer.
        theirs = [packet for packet in clock if not packet.outgoing and packet.count == 0]
        replies = [packet for packet in clock if packet.outgoing and packet.count == 1]
        self.assertEqual([packet.t1 for packet in replies], [packet.t1 for packet in theirs])

    def test_each_signal_ends_the_sessions(self):
        device = self.device(self.stage, "--name", NAME, "--play", "nothing")
        for times, number in enumerate((signal.SIGINT, signal.SIGHUP, signal.SIGTERM), 1):
            program = Program(self, self.desk)
            program.wait_for(" running$")
            program.terminate(number)
            self.assertSessionEnds(device, times)

    def test_an_independent_participant(self):
        package = BUILD / "node_modules/rtpmidi/package.json"
        if missing := [tool for tool in ("node", "npm") if not shutil.which(tool)]:
            self.skipTest("missing: " + ", ".join(missing))
        if not package.exists():
            subprocess.run(["npm", "install", "--prefix", BUILD, "--no-save", "--ignore-scripts", "--omit=optional",
                            "rtpmidi@1.0.0"], timeout=120)
        if not package.exists():
            self.skipTest("npm cannot fetch the package rtpmidi")
        jack = JackServer(self, self.desk)
        program = Program(self, self.desk)
        receiver = jack.receiver()
        peer = Process(self, ["node", ROOT / "tools/lab/rtpmidi_peer.js", package.parent, 5104, 200], self.stage)
        peer.wait_for("^listening")
        # This device announces both services; the participant has the ports.
        self.device(self.stage, "--name", "Other", "--address", ADDRESS, "--port", 5104, "--open-after", 3600)
        program.wait_for(f"^.Dialer. {ADDRESS} running$")
        peer.wait_for("^played 200$", 20)
        receiver.wait_for_messages(200)
        self.assertEqual(receiver.messages,
                         [bytes((0x90, 36 + number % 60, 1 + number % 127)) for number in range(200)])
        self.assertLog(program.terminate(), "Other", 5104)
        peer.wait_for("^session ended$")


if __name__ == "__main__":
    unittest.main()
