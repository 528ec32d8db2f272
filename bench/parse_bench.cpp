// Measures the time to parse a message and publish it to an output that does nothing.

#include "Platform/system/SystemClock.h"
#include "Services/CoreMIDIBridge.h"
#include "support/Fakes.h"
#include "support/Packet.h"

#include <algorithm>
#include <cstdio>

using namespace tessary;
using namespace tessary::test;

namespace {

struct NullOutput : FakeMIDIOutput {
    void publish(MIDIObjectRef, std::uint64_t, std::span<const std::uint8_t>) override { ++published; }
    std::uint64_t published = 0;
};

/// Prints the median and the range of nanoseconds per message, over runs of a million messages.
void measure(const char* name, const Bytes& datagram) {
    FakeMachine machine;
    NullOutput output;
    const SystemClock clock;
    CoreMIDIBridge bridge(machine.platform({.midiOutput = &output, .clock = &clock}));
    std::vector<double> runs;
    for (int run = 0; run < 21; ++run) {
        output.published = 0;
        const auto before = std::chrono::steady_clock::now();
        while (output.published < 1'000'000)
            bridge.handleRTPMIDIPacket(datagram);
        const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - before;
        runs.push_back(took.count() / static_cast<double>(output.published));
    }
    std::sort(runs.begin(), runs.end());
    std::printf("%-34s %6.1f ns a message (%.1f to %.1f)\n", name, runs[runs.size() / 2], runs.front(),
                runs.back());
}

} // namespace

int main() {
    const std::string header = "8061 0001 00000000 000000AA ";
    std::string chord = "8027 903C64", note = "03 903C64";
    for (int i = 1; i < 10; ++i)
        chord += " 00 903C64";
    measure("one note a datagram", packet(header + note));
    measure("ten notes a datagram", packet(header + chord));
    measure("running status, three a datagram", packet(header + "09 903C64 00 4064 00 4364"));
    measure("System Exclusive of 8 bytes", packet(header + "08 F07E0102030405F7"));
    return 0;
}
