// What the program takes from its discovery process, and the discovery process from the network.
#include "Platform/discovery/Messages.h"

#include "Aliases.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

#include <map>

using namespace tessary;
using namespace tessary::discovery;
using namespace tessary::test;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string repeated(std::size_t count, const std::string& text) {
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

} // namespace

TEST(DiscoveryMessagesTest, MessagesComeOutHoweverTheStreamIsCut) {
    Bytes stream;
    encode(Report(Started{protocolVersion, Responder::embedded, refusedFilter}), stream);
    encode(Report(Listed{7, "Müller", std::string(maxTextSize, 'x'), 2}), stream);
    encode(Report(Resolved{8, 5004, std::vector(maxAddresses, IPv4Host{{10, 0, 0, 2}})}), stream);
    encode(Report(Pong{}), stream);
    MessageReader<Report> reader;
    Bytes again;
    for (const std::uint8_t& byte : stream) {
        reader.append({&byte, 1});
        while (const auto report = reader.next())
            encode(*report, again);
    }
    EXPECT_FALSE(reader.isBroken());
    EXPECT_EQ(again, stream);
}

TEST(DiscoveryMessagesTest, WhatIsNoMessageBreaksTheStreamForGood) {
    const std::map<std::string, std::string> frames{
        {"no length", "00000000"},
        {"longer than any", "00001001"},
        {"an unknown number", "00000001 0A"},
        {"a field too short", "00000004 03 000000"},
        {"a rest behind the fields", "00000006 03 00000001 00"},
        {"a responder that is none", "00000005 00 0001 03 00"},
        {"a text longer than its frame", "00000009 06 00000001 0003 'ab'"},
        {"a text that is no UTF-8", "00000009 06 00000001 0002 C0AF"},
        {"a text too long", "000003FE 06 00000001 03F7 " + repeated(1015, "61")},
        {"fewer addresses than said", "0000000C 07 00000001 138C 02 0A000002"},
        {"too many addresses", "0000010C 07 00000001 138C 41 " + repeated(65, "0A000002")},
    };
    for (const auto& [what, frame] : frames) {
        MessageReader<Report> reader;
        reader.append(packet("00000001 09" + frame)); // behind a good one
        EXPECT_TRUE(reader.next()) << what;
        EXPECT_FALSE(reader.next()) << what;
        EXPECT_TRUE(reader.isBroken()) << what;
        reader.append(packet("00000001 09"));
        EXPECT_FALSE(reader.next()) << what;
    }
}

TEST(AliasesTest, AreHiddenInEachSectionAndNothingElseIs) {
    // One question; an answer, an authority and an additional record that are aliases, among others.
    const std::string message = "0000 8400 0001 0003 0001 0002 "
                                "04 'pads' 05 'local' 00 0005 0001 " // asks for an alias, and is none
                                "C00C 000C 0001 00000078 0006 03 'Pad' C00C "
                                "03 'Pad' C00C ?? 05 0001 00000078 0002 C00C "
                                "C00C 0021 8001 00000078 0008 0000 0000 138C C00C "
                                "03 'two' 00 ?? 05 8001 00000078 0005 03 'pad' 00 "
                                "C00C 0001 8001 00000078 0004 0A000002 "
                                "00 ?? 05 0001 00000000 0000";
    const auto with = [&](const std::string& high) {
        std::string text = message;
        for (auto at = text.find("??"); at != std::string::npos; at = text.find("??"))
            text.replace(at, 2, high);
        return packet(text);
    };
    Bytes datagram = with("00");
    hideAliases(datagram);
    EXPECT_EQ(datagram, with("FF"));
}

TEST(AliasesTest, BehindWhatDoesNotParseNothingIsTouched) {
    const std::string alias = "00 0005 0001 00000000 0000";
    for (const char* record : {"40 00 0001 0001 00000000 0000 ", "BF 00 0001 0001 00000000 0000 ",
                               "00 0001 0001 00000000 FFFF ", "3F 'short' "}) {
        const Bytes before = packet("0000 8400 0000 0002 0000 0000 " + (record + alias));
        Bytes datagram = before;
        hideAliases(datagram);
        EXPECT_EQ(datagram, before) << record;
    }
}
