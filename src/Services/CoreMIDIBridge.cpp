#include "Services/CoreMIDIBridge.h"

#include "Platform/Clock.h"
#include "Platform/Log.h"

#include <array>
#include <string>

namespace tessary {

namespace {

constexpr const char* sourceName = "Tessary Link";

/// "TSLK": the fixed identity by which the MIDI system knows the source across runs.
constexpr std::int32_t sourceUniqueID = 0x54534C4B;

/// The fixed RTP header (RFC 3550, section 5.1).
constexpr std::size_t rtpHeaderSize = 12;

constexpr bool isRealTime(std::uint8_t status) {
    return status >= 0xF8;
}

/// How many data bytes follow a status byte.
constexpr std::size_t dataByteCount(std::uint8_t status) {
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0:
        return 1;
    case 0xF0:
        return status == 0xF2 ? 2 : (status == 0xF1 || status == 0xF3) ? 1 : 0;
    default:
        return 2;
    }
}

} // namespace

CoreMIDIBridge::CoreMIDIBridge(const Platform& platform)
    : output_(platform.midiOutput)
    , clock_(platform.clock) {
    if (const MIDIStatus status = output_.createClient(sourceName, client_); status != 0)
        platform.log.line("[CoreMIDI] MIDIClientCreate failed: " + std::to_string(status));
    if (const MIDIStatus status = output_.createSource(client_, sourceName, midiProtocol1_0, source_);
        status != 0)
        platform.log.line("[CoreMIDI] MIDISourceCreate failed: " + std::to_string(status));
    if (source_ == 0)
        platform.log.line("[CoreMIDI] devices connect, but nothing is published: there is no ALSA sequencer "
                          "(/dev/snd/seq) and no JACK server; start Tessary Link again once there is one");
    output_.setUniqueID(source_, sourceUniqueID);
}

CoreMIDIBridge::~CoreMIDIBridge() {
    if (source_ != 0) output_.disposeSource(source_);
    if (client_ != 0) output_.disposeClient(client_);
}

void CoreMIDIBridge::handleRTPMIDIPacket(std::span<const std::uint8_t> packet) {
    const std::size_t size = packet.size();
    if (size < rtpHeaderSize + 1) return;
    const std::size_t csrcCount = packet[0] & 0x0F;
    const std::size_t header = rtpHeaderSize + 4 * csrcCount;
    if (size <= header) return;

    const std::uint8_t flags = packet[header];
    std::size_t length = flags & 0x0F;
    std::size_t start = header + 1;
    if (flags & 0x80) {
        if (start >= size) return;
        length = length << 8 | packet[start];
        ++start;
    }
    if (start + length > size) return;

    const auto sequenceNumber = static_cast<std::uint16_t>(packet[2] << 8 | packet[3]);
    const std::uint32_t ssrc = std::uint32_t{packet[8]} << 24 | std::uint32_t{packet[9]} << 16 |
                               std::uint32_t{packet[10]} << 8 | packet[11];
    systemExclusive_.beginDatagram(ssrc, sequenceNumber);
    parseMIDISection(packet.subspan(start, length), (flags & 0x20) != 0, (flags & 0x10) != 0);
}

void CoreMIDIBridge::parseMIDISection(std::span<const std::uint8_t> list, bool zBit, bool pBit) {
    if (!pBit) runningStatus_ = 0;
    const std::size_t size = list.size();
    std::size_t p = 0;
    bool deltaTimeExpected = zBit;
    while (p < size) {
        if (deltaTimeExpected) {
            while (p < size && list[p] >= 0x80)
                ++p;
            if (++p >= size) return;
        }
        deltaTimeExpected = true;

        const bool hasStatus = list[p] >= 0x80;
        if (hasStatus) {
            runningStatus_ = list[p++];
            const bool isPending = systemExclusive_.isPending();
            if (runningStatus_ == 0xF0 || (isPending && (runningStatus_ == 0xF7 || runningStatus_ == 0xF4))) {
                const SystemExclusiveEnd end = parseSystemExclusive(runningStatus_, list, p);
                p = end.position;
                deltaTimeExpected = !end.wasInterrupted;
                continue;
            }
            if (isPending && !isRealTime(runningStatus_)) systemExclusive_.interrupt();
        } else if (runningStatus_ == 0) {
            return;
        }

        const std::size_t dataBytes = dataByteCount(runningStatus_);
        if (p + dataBytes > size) return;
        if (hasStatus) {
            publish(list.subspan(p - 1, 1 + dataBytes));
        } else {
            std::array<std::uint8_t, 3> message{runningStatus_};
            for (std::size_t i = 0; i < dataBytes; ++i)
                message[1 + i] = list[p + i];
            publish(std::span(message).first(1 + dataBytes));
        }
        p += dataBytes;
    }
}

CoreMIDIBridge::SystemExclusiveEnd CoreMIDIBridge::parseSystemExclusive(std::uint8_t head,
                                                                        std::span<const std::uint8_t> list,
                                                                        std::size_t position) {
    runningStatus_ = 0;
    if (head == 0xF4) {
        systemExclusive_.interrupt(); // cancelled between two segments
        return {position};
    }
    head == 0xF0 ? systemExclusive_.start() : systemExclusive_.resume();
    for (; position < list.size(); ++position) {
        const std::uint8_t byte = list[position];
        if (byte < 0x80) {
            systemExclusive_.append(byte);
        } else if (isRealTime(byte)) {
            publish(list.subspan(position, 1));
        } else if (byte == 0xF7) {
            if (const auto message = systemExclusive_.finish(); !message.empty()) publish(message);
            return {position + 1};
        } else if (byte == 0xF0) {
            systemExclusive_.suspend();
            return {position + 1};
        } else {
            systemExclusive_.drop();
            if (byte == 0xF4) return {position + 1};
            return {position, true};
        }
    }
    systemExclusive_.drop(); // it never ended
    return {position};
}

void CoreMIDIBridge::publish(std::span<const std::uint8_t> message) {
    if (source_ != 0) output_.publish(source_, clock_.hostTime(), message);
}

} // namespace tessary
