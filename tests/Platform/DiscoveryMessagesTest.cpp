// The bytes of the messages between the program and its discovery process. What is no message is an input of
// fuzz_discovery.
#include "Platform/discovery/Messages.h"

#include "Aliases.h"
#include "support/Packet.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::discovery;
using namespace tessary::test;

namespace {

using Bytes = std::vector<std::uint8_t>;

} // namespace

// Other bytes need another protocolVersion, and other inputs in the corpus of fuzz_discovery.
TEST(DiscoveryMessagesTest, TheBytesOfEachReportAreFixed) {
    const std::vector<Report> reports{Started{1, Responder::embedded, refusedFilter},
                                      Listed{1, "Pad", "local", 2},
                                      Listed{2, "Müller", "local", 2},
                                      Changed{1},
                                      Changed{2},
                                      Pong{},
                                      Resolved{3, 5004, {{{10, 50, 0, 2}}, {{10, 51, 0, 2}}}},
                                      Unresolved{4, "Timeout reached"},
                                      Unlisted{1, "Pad", "local", 2},
                                      Restarted{2},
                                      BrowseFailed{2, "Daemon not running"},
                                      Pong{},
                                      BrowseFailed{1, std::string(maxTextSize, 'x')},
                                      Resolved{3, 5004, std::vector(maxAddresses, IPv4Host{{10, 50, 0, 2}})}};
    Bytes stream;
    for (const char* input : {"every-report", "longest-fields"}) {
        const std::string text = read(std::string(TESSARY_CORPUS "/fuzz_discovery/") + input);
        stream.insert(stream.end(), text.begin() + 1, text.end());
    }
    Bytes encoded, again;
    for (const Report& report : reports)
        encode(report, encoded);
    EXPECT_EQ(encoded, stream);

    MessageReader<Report> reader;
    reader.append(stream);
    while (const auto report = reader.next())
        encode(*report, again);
    EXPECT_EQ(again, stream);
}

TEST(AliasesTest, AreHiddenInEachSectionUpToWhatDoesNotParse) {
    const std::string alias = "00 0005 0001 00000000 0000";
    const std::vector<std::string> messages{
        // One question; an answer, an authority and an additional record that are aliases, among others.
        "0000 8400 0001 0003 0001 0002 "
        "04 'pads' 05 'local' 00 0005 0001 " // asks for an alias, and is none
        "C00C 000C 0001 00000078 0006 03 'Pad' C00C "
        "03 'Pad' C00C ?? 05 0001 00000078 0002 C00C "
        "C00C 0021 8001 00000078 0008 0000 0000 138C C00C "
        "03 'two' 00 ?? 05 8001 00000078 0005 03 'pad' 00 "
        "C00C 0001 8001 00000078 0004 0A000002 "
        "00 ?? 05 0001 00000000 0000",
        "0000 8400 0000 0002 0000 0000 40 '" + std::string(0x40, 'a') + "' 00 0001 0001 00000000 0000" +
            alias,
        "0000 8400 0000 0002 0000 0000 BF 00 0001 0001 00000000 0000" + alias,
        "0000 8400 0000 0002 0000 0000 00 0001 0001 00000000 FFFF" + alias,
        "0000 8400 0000 0002 0000 0000 3F 'short'" + alias};
    const auto with = [](std::string text, const std::string& high) {
        for (auto at = text.find("??"); at != std::string::npos; at = text.find("??"))
            text.replace(at, 2, high);
        return packet(text);
    };
    for (const std::string& message : messages) {
        Bytes datagram = with(message, "00");
        hideAliases(datagram);
        EXPECT_EQ(datagram, with(message, "FF")) << message;
    }
}
