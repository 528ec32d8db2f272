"""The simulated device's RTP-MIDI packets, which the other tests and the benches rely on, as tshark dissects them. That
the messages come out right is seen wherever the program publishes them."""
import unittest

from lab.programs import Program, SystemTest, Tshark

FIELDS = """_ws.malformed _ws.expert.severity rtp.p_type rtp.seq rtp.timestamp rtp.ssrc rtp.payload
rtpmidi.b_flag rtpmidi.j_flag rtpmidi.z_flag rtpmidi.p_flag rtpmidi.cmd_length_short rtpmidi.cmd_length_long
rtpmidi.channel_status rtpmidi.common_status""".split()


class DevicePackets(SystemTest):
    def test_packets(self):
        desk, stage = self.network.host("10.77.0.1/24"), self.network.host("10.77.0.2/24")
        tshark = Tshark(self, stage, "10.77.0.1", "udp portrange 5004-5005", FIELDS)
        # A cycle of the tune in one datagram: this dissector reads a quarter frame at a packet's end one byte too far.
        device = self.device(stage, "--play", "mixed", "--sysex-size", 30, "--per-datagram", 12, "--rate", 500,
                             "--messages", 300)
        device.wait_for("listening on")
        Program(self, desk)
        device.wait_for("played 300 messages", 20)
        rows = [dict(zip(FIELDS, row[1:])) for row in tshark.rows()]
        for row in rows:
            self.assertFalse(row["_ws.malformed"] or row["_ws.expert.severity"], row)

        midi = [row for row in rows if row["rtp.payload"]]
        self.assertEqual(len(midi), 25)
        for row in midi:
            length = len(bytes.fromhex(row["rtp.payload"])) - 2
            flags = [row[f"rtpmidi.{flag}_flag"] for flag in "bjzp"]
            self.assertEqual((row["rtp.p_type"], flags, row["rtpmidi.cmd_length_long"], row["rtpmidi.channel_status"],
                              row["rtpmidi.common_status"]),
                             ("97", ["1", "0", "0", "0"], str(length), "0x09|0x08|0x0a|0x0b|0x0c|0x0d|0x0e",
                              "0xf2|0xf3|0xf1|0xf8|0xf0|0xf7"))
        self.assertEqual(len({row["rtp.ssrc"] for row in midi}), 1)
        numbers, moments = ([int(row[f"rtp.{field}"]) for row in midi] for field in ("seq", "timestamp"))
        self.assertEqual(numbers, [(numbers[0] + number) % 65536 for number in range(25)])
        self.assertEqual(moments, sorted(moments))
        # In units of 100 microseconds, 24 steps of 24 ms: 5,760, and more on a busy machine.
        self.assertTrue(5_730 <= moments[-1] - moments[0] < 57_600, moments)


if __name__ == "__main__":
    unittest.main()
