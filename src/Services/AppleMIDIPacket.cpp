#include "Services/AppleMIDIPacket.h"

#include "Models/UTF8.h"

#include <algorithm>
#include <string_view>

namespace tessary {

namespace {

constexpr std::uint8_t signature = 0xFF;
constexpr std::uint32_t protocolVersion = 2;

/// Version, token and SSRC follow the command in every packet but CK.
constexpr std::size_t headerSize = 16;
constexpr std::size_t clockSyncSize = 36;

class Writer {
  public:
    explicit Writer(std::string_view command)
        : bytes_{signature, signature} {
        bytes_.insert(bytes_.end(), command.begin(), command.end());
    }

    template <typename Integer>
    Writer& number(Integer value) {
        for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
            bytes_.push_back(static_cast<std::uint8_t>(value >> shift));
        return *this;
    }

    Writer& text(std::string_view name) {
        if (isUTF8(name)) bytes_.insert(bytes_.end(), name.begin(), name.end());
        bytes_.push_back(0);
        return *this;
    }

    std::vector<std::uint8_t> take() { return std::move(bytes_); }

  private:
    std::vector<std::uint8_t> bytes_;
};

template <typename Integer>
Integer numberAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
    Integer value = 0;
    for (const std::uint8_t byte : bytes.subspan(offset, sizeof value))
        value = static_cast<Integer>(value << 8 | byte);
    return value;
}

std::string nameAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
    const auto tail = bytes.subspan(offset);
    std::string name(tail.begin(), std::find(tail.begin(), tail.end(), 0));
    if (!isUTF8(name)) name.clear();
    return name;
}

struct Encoder {
    std::vector<std::uint8_t> named(std::string_view command, std::uint32_t token, std::uint32_t ssrc,
                                    std::string_view name) const {
        return Writer(command).number(protocolVersion).number(token).number(ssrc).text(name).take();
    }
    std::vector<std::uint8_t> operator()(const AppleMIDIPacket::Invitation& p) const {
        return named("IN", p.token, p.ssrc, p.name);
    }
    std::vector<std::uint8_t> operator()(const AppleMIDIPacket::Accept& p) const {
        return named("OK", p.token, p.ssrc, p.name);
    }
    std::vector<std::uint8_t> operator()(const AppleMIDIPacket::Reject& p) const {
        return named("NO", p.token, p.ssrc, p.name);
    }
    std::vector<std::uint8_t> operator()(const AppleMIDIPacket::Bye& p) const {
        return Writer("BY").number(protocolVersion).number(p.token).number(p.ssrc).take();
    }
    std::vector<std::uint8_t> operator()(const AppleMIDIPacket::ClockSync& p) const {
        Writer writer("CK");
        writer.number(p.ssrc).number(p.count);
        writer.number(std::uint8_t{0}).number(std::uint8_t{0}).number(std::uint8_t{0});
        return writer.number(p.t1).number(p.t2).number(p.t3).take();
    }
};

} // namespace

std::vector<std::uint8_t> AppleMIDIPacket::encode() const {
    return std::visit(Encoder{}, value);
}

std::optional<AppleMIDIPacket> AppleMIDIPacket::decode(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < 4 || bytes[0] != signature || bytes[1] != signature) return std::nullopt;
    const std::string command(bytes.begin() + 2, bytes.begin() + 4);

    if (command == "CK") {
        if (bytes.size() < clockSyncSize) return std::nullopt;
        return AppleMIDIPacket{ClockSync{.ssrc = numberAt<std::uint32_t>(bytes, 4),
                                         .count = bytes[8],
                                         .t1 = numberAt<std::uint64_t>(bytes, 12),
                                         .t2 = numberAt<std::uint64_t>(bytes, 20),
                                         .t3 = numberAt<std::uint64_t>(bytes, 28)}};
    }

    if (bytes.size() < headerSize) return std::nullopt;
    const auto token = numberAt<std::uint32_t>(bytes, 8);
    const auto ssrc = numberAt<std::uint32_t>(bytes, 12);
    if (command == "BY") return AppleMIDIPacket{Bye{token, ssrc}};
    if (command == "IN") return AppleMIDIPacket{Invitation{token, ssrc, nameAt(bytes, headerSize)}};
    if (command == "OK") return AppleMIDIPacket{Accept{token, ssrc, nameAt(bytes, headerSize)}};
    if (command == "NO") return AppleMIDIPacket{Reject{token, ssrc, nameAt(bytes, headerSize)}};
    return std::nullopt;
}

} // namespace tessary
