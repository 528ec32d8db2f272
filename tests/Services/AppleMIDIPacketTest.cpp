#include "Services/AppleMIDIPacket.h"

#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

std::optional<AppleMIDIPacket::Value> decoded(const std::vector<std::uint8_t>& bytes) {
    const auto packet = AppleMIDIPacket::decode(bytes);
    if (!packet) return std::nullopt;
    return packet->value;
}

} // namespace

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

TEST(AppleMIDIPacketTest, DecodesWhateverHoldsItsFields) {
    EXPECT_EQ(decoded("FFFF 'IN' 00000007 01020304 0A0B0C0D 'Mac' 00 'rest'"_packet), // any version
              AppleMIDIPacket::Value(AppleMIDIPacket::Invitation{0x01020304, 0x0A0B0C0D, "Mac"}));
    EXPECT_EQ(decoded("FFFF 'IN' 00000002 00000001 00000002"_packet),
              AppleMIDIPacket::Value(AppleMIDIPacket::Invitation{1, 2, ""}));
    EXPECT_EQ(decoded("FFFF 'OK' 00000002 00000001 00000002 'to the end'"_packet),
              AppleMIDIPacket::Value(AppleMIDIPacket::Accept{1, 2, "to the end"}));
    EXPECT_EQ(decoded("FFFF 'NO' 00000002 00000001 00000002 C0AF 00"_packet), // overlong UTF-8
              AppleMIDIPacket::Value(AppleMIDIPacket::Reject{1, 2, ""}));
    EXPECT_EQ(decoded("FFFF 'BY' 00000002 FFFFFFFF 80000000 'more'"_packet),
              AppleMIDIPacket::Value(AppleMIDIPacket::Bye{0xFFFFFFFF, 0x80000000}));
    EXPECT_EQ(
        decoded("FFFF 'CK' 00000001 FF 123456 8000000000000003 0000000000000004 0000000000000005 AA"_packet),
        AppleMIDIPacket::Value(AppleMIDIPacket::ClockSync{1, 255, 0x8000000000000003, 4, 5}));
}

TEST(AppleMIDIPacketTest, RefusesEveryShorterOrStrangerDatagram) {
    const auto clockSync = AppleMIDIPacket{AppleMIDIPacket::ClockSync{}}.encode();
    for (std::size_t size = 0; size < clockSync.size(); ++size)
        EXPECT_FALSE(AppleMIDIPacket::decode(std::span(clockSync).first(size))) << size;
    for (const char* command : {"'IN'", "'OK'", "'NO'", "'BY'"}) {
        const auto whole = packet(std::string("FFFF ") + command + "00000002 00000001 00000002");
        for (std::size_t size = 0; size < whole.size(); ++size)
            EXPECT_FALSE(AppleMIDIPacket::decode(std::span(whole).first(size))) << command << size;
    }
    for (const char* stranger :
         {"FFFE 'IN'", "FEFF 'IN'", "FFFF 'in'", "FFFF 'Ok'", "FFFF 'RS'", "FFFF C9CE"})
        EXPECT_FALSE(
            AppleMIDIPacket::decode(packet(std::string(stranger) + "00000002 00000001 00000002 00")));
}
