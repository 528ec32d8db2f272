// The bytes of each packet. What is accepted, and that decoding is the inverse of encoding, is what
// fuzz_packet holds over the inputs in its corpus.
#include "Services/AppleMIDIPacket.h"

#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

TEST(AppleMIDIPacketTest, EncodesTheExactBytes) {
    EXPECT_EQ((AppleMIDIPacket{AppleMIDIPacket::Invitation{0x01020304, 0x0A0B0C0D, "Mac"}}.encode()),
              "FFFF 'IN' 00000002 01020304 0A0B0C0D 'Mac' 00"_packet);
    EXPECT_EQ((AppleMIDIPacket{AppleMIDIPacket::Accept{1, 2, ""}}.encode()),
              "FFFF 'OK' 00000002 00000001 00000002 00"_packet);
    EXPECT_EQ((AppleMIDIPacket{AppleMIDIPacket::Reject{1, 2, "\xFF"}}.encode()), // no UTF-8: no bytes
              "FFFF 'NO' 00000002 00000001 00000002 00"_packet);
    EXPECT_EQ((AppleMIDIPacket{AppleMIDIPacket::Bye{1, 2}}.encode()),
              "FFFF 'BY' 00000002 00000001 00000002"_packet);
    EXPECT_EQ((AppleMIDIPacket{AppleMIDIPacket::ClockSync{1, 2, 3, 4, 0x0102030405060708}}.encode()),
              "FFFF 'CK' 00000001 02 000000 0000000000000003 0000000000000004 0102030405060708"_packet);
}
