#!/usr/bin/env python3
"""The packets of the simulated device as a second opinion sees them: tshark dissects what crosses the link between
a host with the device and one with a small initiator."""
import contextlib
import ctypes
import os
import shutil
import signal
import socket
import struct
import time
import unittest

from lab.networks import Network
from lab.processes import Process, until
from lab.programs import SystemTest, scale

MY_IP, DEVICE_IP = "10.77.0.1", "10.77.0.2"
CONTROL, DATA = 5004, 5005
DISCARD = 9  # where marks in the capture go
PATIENCE = 10  # seconds until an awaited event counts as missing

FIELDS = """_ws.col.Protocol _ws.malformed _ws.expert.severity ip.src udp.srcport udp.dstport udp.payload
applemidi.command applemidi.protocol_version applemidi.initiator_token applemidi.sender_ssrc applemidi.name
applemidi.count applemidi.timestamp1 applemidi.timestamp2 applemidi.timestamp3
rtp.p_type rtp.seq rtp.timestamp rtp.ssrc rtp.payload
rtpmidi.b_flag rtpmidi.j_flag rtpmidi.z_flag rtpmidi.p_flag rtpmidi.cmd_length_short rtpmidi.cmd_length_long
rtpmidi.deltatime_1 rtpmidi.channel_status rtpmidi.channel rtpmidi.common_status rtpmidi.note rtpmidi.velocity
rtpmidi.pressure rtpmidi.controller rtpmidi.controller_value rtpmidi.program rtpmidi.channel_pressure
rtpmidi.pitch_bend dns.resp.name dns.resp.ttl dns.srv.port dns.a""".split()


@contextlib.contextmanager
def inside(host):
    """Sockets made within belong to the host and stay there."""
    libc = ctypes.CDLL(None, use_errno=True)
    clone_newnet = 0x40000000
    with open("/proc/thread-self/ns/net") as home, open(f"/proc/{host.pid}/ns/net") as away:
        if libc.setns(away.fileno(), clone_newnet):
            raise OSError(ctypes.get_errno(), "setns")
        try:
            yield
        finally:
            libc.setns(home.fileno(), clone_newnet)


def udp_socket(test, host):
    with inside(host):
        result = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    result.settimeout(PATIENCE)
    test.addCleanup(result.close)
    return result


class Initiator:
    """The inviting side of one session, by hand."""

    def __init__(self, test, ssrc=77):
        self.ssrc, self.tokens = ssrc, {CONTROL: 1000 + ssrc, DATA: 2000 + ssrc}
        self.sockets = {port: udp_socket(test, test.here) for port in (CONTROL, DATA)}

    def session_packet(self, port, command, name=b""):
        self.send(port, b"\xff\xff" + command + struct.pack(">III", 2, self.tokens[port], self.ssrc) + name)

    def send(self, port, datagram):
        self.sockets[port].sendto(datagram, (DEVICE_IP, port))

    def invite(self, port):
        self.session_packet(port, b"IN", b"tester\0")
        return self.sockets[port].recv(2048)

    def clock(self, count, t1=0, t2=0, t3=0):
        self.send(DATA, b"\xff\xffCK" + struct.pack(">IB3xQQQ", self.ssrc, count, t1, t2, t3))

    def next_clock(self, count):
        while (packet := self.sockets[DATA].recv(4096))[:4] != b"\xff\xffCK" or packet[8] != count:
            pass
        return struct.unpack(">QQQ", packet[12:36])

    def connect(self):
        self.invite(CONTROL)
        self.invite(DATA)
        self.clock(0, t1=4711)
        t1, t2, _ = self.next_clock(1)
        self.clock(2, t1, t2, t1 + 3)


@unittest.skipIf(os.geteuid() != 0, "needs root, for network namespaces")
@unittest.skipIf(shutil.which("tshark") is None, "needs tshark")
class DevicePackets(SystemTest):
    def setUp(self):
        self.processes = []
        self.network = Network(self)
        self.here, self.there = self.network.host(MY_IP + "/24"), self.network.host(DEVICE_IP + "/24")
        fields = [part for field in FIELDS for part in ("-e", field)]
        self.tshark = Process(self, ["tshark", "-i", "lan", "-n", "-l", "-f", "udp", "-T", "fields",
                                     "-E", "aggregator=|", *fields], self.here)
        self.marker, self.marks = udp_socket(self, self.here), 0
        until(lambda: self.mark(b"begin") or self.tshark.lines, PATIENCE, "tshark captures")

    def device(self, *options):
        device = super().device(self.there, *options)
        device.wait_for("listening on")
        return device

    def mark(self, text):
        self.marker.sendto(text, (DEVICE_IP, DISCARD))

    def captured(self):
        """The device's packets so far, none of which the dissector finds malformed."""
        self.marks += 1
        end = b"end %d" % self.marks
        self.mark(end)
        self.tshark.wait_for(end.hex())
        rows = [dict(zip(FIELDS, line.split("\t"))) for line in self.tshark.lines]
        rows = [row for row in rows if row["ip.src"] == DEVICE_IP]
        for row in rows:
            self.assertIn(row["_ws.col.Protocol"], ("AppleMIDI", "RTP-MIDI", "MDNS"), row)
            self.assertFalse(row["_ws.malformed"], row)
            if row["_ws.col.Protocol"] != "MDNS":  # there every repeated probe is remarked upon
                self.assertFalse(row["_ws.expert.severity"], row)
        return rows

    def session_packets(self, rows, command):
        wanted = "0x" + command.encode().hex()
        return [row for row in rows if row["applemidi.command"] == wanted]

    def expect_session_packet(self, row, port, initiator, **more):
        self.assertEqual(
            (row["udp.srcport"], row["udp.dstport"], row["applemidi.protocol_version"],
             int(row["applemidi.initiator_token"], 0)),
            (str(port), str(initiator.sockets[port].getsockname()[1]), "2", initiator.tokens[port]))
        for field, value in more.items():
            self.assertEqual(row["applemidi." + field], value)

    def midi(self, rows):
        """The RTP-MIDI rows, their RTP headers checked."""
        midi = [row for row in rows if row["_ws.col.Protocol"] == "RTP-MIDI"]
        for before, after in zip(midi, midi[1:]):
            self.assertEqual(int(after["rtp.seq"]), (int(before["rtp.seq"]) + 1) % 65536)
            self.assertGreaterEqual(int(after["rtp.timestamp"]), int(before["rtp.timestamp"]))
        for row in midi:
            length = len(row["rtp.payload"]) // 2
            long = length > 16
            flags = [row[f"rtpmidi.{flag}_flag"] for flag in "bjzp"]
            self.assertEqual((row["rtp.p_type"], flags), ("97", [str(int(long)), "0", "0", "0"]))
            self.assertEqual(row["rtpmidi.cmd_length_long" if long else "rtpmidi.cmd_length_short"],
                             str(length - (2 if long else 1)))
        return midi

    def test_whole_session_with_a_scale(self):
        device = self.device("--name", "Flügel", "--rate", "500", "--messages", "300", "--clock")
        device.wait_for("announced Flügel at 10.77.0.2:5004")
        me = Initiator(self)
        me.connect()
        device.wait_for("running with 10.77.0.1")
        device.wait_for("played 300 messages")
        began = time.monotonic()
        device.signal(signal.SIGTERM)
        self.assertEqual(device.wait(), 0)
        self.assertLess(time.monotonic() - began, 1)
        self.assertIn("sent 300 datagrams, 300 messages", device.lines[-1])
        rows = self.captured()

        accepts = self.session_packets(rows, "OK")
        self.assertEqual(len(accepts), 2)
        ssrc = accepts[0]["applemidi.sender_ssrc"]
        for row, port in zip(accepts, (CONTROL, DATA)):
            self.expect_session_packet(row, port, me, name="Flügel", sender_ssrc=ssrc)
        farewells = self.session_packets(rows, "BY")
        self.assertEqual(len(farewells), 2)
        for row, port in zip(farewells, (CONTROL, DATA)):
            self.expect_session_packet(row, port, me, sender_ssrc=ssrc)

        clocks = self.session_packets(rows, "CK")
        self.assertEqual([row["applemidi.count"] for row in clocks], ["0", "1"])
        self.assertEqual([row["applemidi.sender_ssrc"] for row in clocks], [ssrc, ssrc])
        times = [[int(row[f"applemidi.timestamp{n}"], 0) for n in (1, 2, 3)] for row in clocks]
        self.assertEqual(times[0][1:], [0, 0])
        self.assertEqual((times[1][0], times[1][2]), (4711, 0))
        self.assertGreaterEqual(times[1][1], times[0][0])

        midi = self.midi(rows)
        self.assertEqual([bytes.fromhex(row["rtp.payload"])[1:] for row in midi], [scale(i) for i in range(300)])
        self.assertEqual([(row["rtpmidi.channel_status"], row["rtpmidi.note"], row["rtpmidi.velocity"])
                          for row in midi[:3]], [("0x09", "60", "1"), ("0x08", "60", "2"), ("0x09", "62", "3")])
        self.assertEqual({row["rtp.ssrc"] for row in midi}, {ssrc})
        # 299 steps of 2 ms are 5980 units of 100 microseconds; the last message may be late a little.
        elapsed = int(midi[-1]["rtp.timestamp"]) - int(midi[0]["rtp.timestamp"])
        self.assertTrue(5950 <= elapsed <= 8000, elapsed)

        services = ["Flügel._apple-midi._udp.local", "Flügel._tessarylink._tcp.local"]
        mdns = [row for row in rows if row["_ws.col.Protocol"] == "MDNS"]
        announced = [row for row in mdns if set(services) <= set(row["dns.resp.name"].split("|"))]
        self.assertTrue(any(DEVICE_IP in row["dns.a"] and row["dns.srv.port"] == "5004|5004" for row in announced))
        last = announced[-1]
        goodbye = dict(zip(last["dns.resp.name"].split("|"), last["dns.resp.ttl"].split("|")))
        self.assertEqual([goodbye[name] for name in services], ["0", "0"])

    def test_own_clock_exchange_starts_the_playing(self):
        device = self.device("--no-announce", "--wait-for-clock", "--rate", "100", "--messages", "2")
        me = Initiator(self)
        me.invite(CONTROL)
        me.invite(DATA)
        t1, _, _ = me.next_clock(0)
        me.clock(0, t1=1)  # an exchange of ours alone must not start it
        _, answered, _ = me.next_clock(1)
        me.clock(2, 1, answered, 3)
        me.clock(1, t1, 8888)
        device.wait_for("played 2 messages")
        rows = self.captured()
        completing = self.session_packets(rows, "CK")[-1]
        self.assertEqual([int(completing[f"applemidi.timestamp{n}"], 0) for n in (1, 2)], [t1, 8888])
        self.assertEqual(completing["applemidi.count"], "2")
        self.assertLess(rows.index(completing), rows.index(self.midi(rows)[0]))

    def test_chords_for_two_initiators_at_once(self):
        device = self.device("--no-announce", "--play", "chords", "--per-datagram", "6", "--rate", "600",
                             "--messages", "12")
        initiators = [Initiator(self, ssrc) for ssrc in (11, 12)]
        for one in initiators:
            one.connect()
        device.wait_for("played 12 messages", times=2)
        rows = self.captured()
        for one in initiators:
            port = str(one.sockets[DATA].getsockname()[1])
            midi = self.midi([row for row in rows if row["udp.dstport"] == port])
            self.assertEqual([row["rtpmidi.note"] for row in midi], ["60|64|67|60|64|67", "62|65|69|62|65|69"])
            self.assertEqual([row["rtpmidi.velocity"] for row in midi], ["1|2|3|4|5|6", "7|8|9|10|11|12"])
            for row in midi:
                self.assertEqual(row["rtpmidi.channel_status"], "|".join(["0x09"] * 3 + ["0x08"] * 3))
                self.assertEqual(row["rtpmidi.deltatime_1"], "|".join(["0x00"] * 5))

    def test_every_kind_of_message(self):
        # All twelve in one datagram: this dissector reads a quarter frame at a packet's end one byte too far.
        device = self.device("--no-announce", "--play", "mixed", "--per-datagram", "12", "--rate", "1000",
                             "--messages", "24", "--sysex-size", "30")
        Initiator(self).connect()
        device.wait_for("played 24 messages")
        row = self.midi(self.captured())[1]
        self.assertEqual(row["rtpmidi.channel_status"], "0x09|0x08|0x0a|0x0b|0x0c|0x0d|0x0e")
        self.assertEqual(row["rtpmidi.common_status"], "0xf2|0xf3|0xf1|0xf8|0xf0|0xf7")
        self.assertEqual((row["rtpmidi.note"], row["rtpmidi.velocity"], row["rtpmidi.pressure"]),
                         ("60|60|60", "13|14", "1"))
        self.assertEqual((row["rtpmidi.controller"], row["rtpmidi.controller_value"]), ("1", "1"))
        self.assertEqual((row["rtpmidi.program"], row["rtpmidi.channel_pressure"]), ("1", "1"))

    def test_long_system_exclusive_goes_in_segments(self):
        device = self.device("--no-announce", "--play", "sysex", "--sysex-size", "3000", "--rate", "50",
                             "--messages", "2")
        Initiator(self).connect()
        device.wait_for("played 2 messages")
        midi = self.midi(self.captured())
        self.assertEqual([row["rtpmidi.common_status"] for row in midi], ["0xf0|0xf0", "0xf7|0xf0", "0xf7|0xf7"] * 2)
        for i in range(2):
            lists = [bytes.fromhex(row["rtp.payload"])[2:] for row in midi[3 * i:3 * i + 3]]
            joined = b"".join(one[1:-1] for one in lists)
            expected = bytes([0x7D, 0, 0, 0, i]) + bytes((7 * i + k + k // 128) % 128 for k in range(6, 2999))
            self.assertEqual(joined, expected)

    def test_misbehaviour_on_request(self):
        with self.subTest("rejections"):
            for port, reject in ((CONTROL, "control"), (DATA, "data")):
                device = self.device("--no-announce", "--reject", reject)
                me = Initiator(self, 20 + port)
                replies = [me.invite(CONTROL)[2:4]] + ([me.invite(DATA)[2:4]] if port == DATA else [])
                self.assertEqual(replies, [b"OK", b"NO"][-len(replies):])
                device.end()
                self.expect_session_packet(self.session_packets(self.captured(), "NO")[-1], port, me)
        with self.subTest("different SSRCs, a wrong token, BY by itself"):
            device = self.device("--no-announce", "--other-ssrc", "--wrong-token", "--bye-after", "0.1",
                                 "--play", "nothing")
            me = Initiator(self, 30)
            me.connect()
            device.wait_for("said bye to 10.77.0.1")
            device.end()
            control, data = self.session_packets(self.captured(), "OK")[-2:]
            self.assertNotEqual(control["applemidi.sender_ssrc"], data["applemidi.sender_ssrc"])
            self.assertNotIn(int(control["applemidi.initiator_token"], 0), me.tokens.values())
            farewells = self.session_packets(self.captured(), "BY")
            for accept, farewell, port in zip((control, data), farewells, (CONTROL, DATA), strict=True):
                self.expect_session_packet(farewell, port, me, sender_ssrc=accept["applemidi.sender_ssrc"])
        with self.subTest("garbage"):
            device = self.device("--no-announce", "--garbage", "1000", "--play", "nothing")
            me = Initiator(self, 40)
            me.connect()
            lengths = {len(me.sockets[DATA].recv(2048)) for _ in range(50)}
            self.assertGreater(len(lengths), 10)


if __name__ == "__main__":
    unittest.main()
