"""The simulated device's RTP-MIDI packets, which the other tests and the benches rely on, as tshark dissects them."""
import unittest

from lab.programs import Program, SystemTest, Tshark, scale

FIELDS = """_ws.malformed _ws.expert.severity rtp.p_type rtp.seq rtp.timestamp rtp.ssrc rtp.payload
rtpmidi.b_flag rtpmidi.j_flag rtpmidi.z_flag rtpmidi.p_flag rtpmidi.cmd_length_short rtpmidi.cmd_length_long
rtpmidi.channel_status rtpmidi.common_status rtpmidi.note rtpmidi.velocity rtpmidi.pressure rtpmidi.controller
rtpmidi.controller_value rtpmidi.program rtpmidi.channel_pressure""".split()


class DevicePackets(SystemTest):
    def setUp(self):
        super().setUp()
        self.desk, self.stage = self.network.host("10.77.0.1/24"), self.network.host("10.77.0.2/24")

    def played(self, count, *options):
        """The datagrams of the tune, their headers checked: a row of fields and the list of each."""
        tshark = Tshark(self, self.stage, "10.77.0.1", "udp portrange 5004-5005", FIELDS)
        device = self.device(self.stage, "--messages", count, *options)
        device.wait_for("listening on")
        Program(self, self.desk)
        device.wait_for(f"played {count} messages", 20)
        rows = [dict(zip(FIELDS, row[1:])) for row in tshark.rows()]
        for row in rows:
            self.assertFalse(row["_ws.malformed"] or row["_ws.expert.severity"], row)
        midi = [row for row in rows if row["rtp.payload"]]
        for before, after in zip(midi, midi[1:]):
            self.assertEqual(int(after["rtp.seq"]), (int(before["rtp.seq"]) + 1) % 65536)
            self.assertGreaterEqual(int(after["rtp.timestamp"]), int(before["rtp.timestamp"]))
        lists = []
        for row in midi:
            payload = bytes.fromhex(row["rtp.payload"])
            header = 2 if len(payload) > 16 else 1
            flags = [row[f"rtpmidi.{flag}_flag"] for flag in "bjzp"]
            self.assertEqual((row["rtp.p_type"], flags), ("97", [str(header - 1), "0", "0", "0"]))
            length = row["rtpmidi.cmd_length_long" if header == 2 else "rtpmidi.cmd_length_short"]
            self.assertEqual(length, str(len(payload) - header))
            lists.append(payload[header:])
        self.assertEqual(len({row["rtp.ssrc"] for row in midi}), 1)
        return midi, lists

    def test_scale(self):
        midi, lists = self.played(300, "--rate", "500")
        self.assertEqual(lists, [scale(number) for number in range(300)])
        self.assertEqual([(row["rtpmidi.channel_status"], row["rtpmidi.note"], row["rtpmidi.velocity"])
                          for row in midi[:3]], [("0x09", "60", "1"), ("0x08", "60", "2"), ("0x09", "62", "3")])
        # In units of 100 microseconds, 299 steps of 2 ms: 5,980, and more on a busy machine.
        elapsed = int(midi[-1]["rtp.timestamp"]) - int(midi[0]["rtp.timestamp"])
        self.assertTrue(5_950 <= elapsed < 59_800, elapsed)

    def test_each_kind_of_message(self):
        # All twelve in one datagram: this dissector reads a quarter frame at a packet's end one byte too far.
        midi, _ = self.played(24, "--play", "mixed", "--per-datagram", "12", "--rate", "1000", "--sysex-size", "30")
        row = midi[1]
        self.assertEqual(row["rtpmidi.channel_status"], "0x09|0x08|0x0a|0x0b|0x0c|0x0d|0x0e")
        self.assertEqual(row["rtpmidi.common_status"], "0xf2|0xf3|0xf1|0xf8|0xf0|0xf7")
        self.assertEqual((row["rtpmidi.note"], row["rtpmidi.velocity"], row["rtpmidi.pressure"]),
                         ("60|60|60", "13|14", "1"))
        self.assertEqual((row["rtpmidi.controller"], row["rtpmidi.controller_value"]), ("1", "1"))
        self.assertEqual((row["rtpmidi.program"], row["rtpmidi.channel_pressure"]), ("1", "1"))

    def test_long_system_exclusive_goes_in_segments(self):
        midi, lists = self.played(2, "--play", "sysex", "--sysex-size", "3000", "--rate", "50")
        self.assertEqual([row["rtpmidi.common_status"] for row in midi], ["0xf0|0xf0", "0xf7|0xf0", "0xf7|0xf7"] * 2)
        for number in range(2):
            joined = b"".join(one[1:-1] for one in lists[3 * number:3 * number + 3])
            content = bytes((7 * number + k + k // 128) % 128 for k in range(6, 2999))
            self.assertEqual(joined, bytes([0x7D, 0, 0, 0, number]) + content)


if __name__ == "__main__":
    unittest.main()
