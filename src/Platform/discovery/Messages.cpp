#include "Platform/discovery/Messages.h"

#include "Models/UTF8.h"

#include <algorithm>
#include <concepts>
#include <utility>

namespace tessary::discovery {

namespace {

constexpr std::size_t lengthSize = 4;

class Encoder {
  public:
    explicit Encoder(std::vector<std::uint8_t>& out)
        : out_(out) {}

    void put(std::unsigned_integral auto value) {
        for (std::size_t byte = sizeof value; byte-- > 0;)
            out_.push_back(static_cast<std::uint8_t>(value >> (8 * byte)));
    }
    void put(Responder value) { put(static_cast<std::uint8_t>(value)); }
    void put(const IPv4Host& host) { out_.insert(out_.end(), host.bytes.begin(), host.bytes.end()); }
    void put(const std::string& text) {
        const auto size = std::min(text.size(), maxTextSize);
        put(static_cast<std::uint16_t>(size));
        out_.insert(out_.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size));
    }
    void put(const std::vector<IPv4Host>& hosts) {
        const auto count = std::min(hosts.size(), maxAddresses);
        put(static_cast<std::uint8_t>(count));
        for (std::size_t i = 0; i < count; ++i)
            put(hosts[i]);
    }

  private:
    std::vector<std::uint8_t>& out_;
};

/// Every `get` returns whether the value is present and valid.
class Decoder {
  public:
    explicit Decoder(std::span<const std::uint8_t> in)
        : in_(in) {}

    bool get(std::unsigned_integral auto& value) {
        const auto bytes = take(sizeof value);
        value = 0;
        for (const std::uint8_t byte : bytes)
            value = static_cast<std::remove_reference_t<decltype(value)>>(value << 8 | byte);
        return !bytes.empty();
    }
    bool get(Responder& value) {
        std::uint8_t number = 0;
        if (!get(number) || number > static_cast<std::uint8_t>(Responder::embedded)) return false;
        value = static_cast<Responder>(number);
        return true;
    }
    bool get(IPv4Host& host) {
        const auto bytes = take(host.bytes.size());
        std::ranges::copy(bytes, host.bytes.begin());
        return !bytes.empty();
    }
    bool get(std::string& text) {
        std::uint16_t size = 0;
        if (!get(size) || size > maxTextSize || size > in_.size()) return false;
        const auto bytes = take(size);
        text.assign(bytes.begin(), bytes.end());
        return isUTF8(text);
    }
    bool get(std::vector<IPv4Host>& hosts) {
        std::uint8_t count = 0;
        if (!get(count) || count > maxAddresses) return false;
        hosts.resize(count);
        return std::ranges::all_of(hosts, [this](IPv4Host& host) { return get(host); });
    }

    bool isAtEnd() const { return in_.empty(); }

  private:
    /// Returns no bytes if there are fewer than `size`.
    std::span<const std::uint8_t> take(std::size_t size) {
        if (size > in_.size()) return {};
        const auto taken = in_.first(size);
        in_ = in_.subspan(size);
        return taken;
    }

    std::span<const std::uint8_t> in_;
};

template <typename Variant>
void encodeFrame(Variant message, std::vector<std::uint8_t>& out) {
    const std::size_t begin = out.size();
    Encoder encoder(out);
    encoder.put(std::uint32_t{0});
    encoder.put(static_cast<std::uint8_t>(message.index()));
    std::visit(
        [&](auto& fields) {
            std::apply([&](const auto&... field) { (encoder.put(field), ...); }, fields.fields());
        },
        message);
    const std::size_t length = out.size() - begin - lengthSize;
    for (std::size_t byte = 0; byte < lengthSize; ++byte)
        out[begin + byte] = static_cast<std::uint8_t>(length >> (8 * (lengthSize - 1 - byte)));
}

template <typename Variant, std::size_t... Number>
std::optional<Variant> decodeAs(std::uint8_t number, Decoder& decoder, std::index_sequence<Number...>) {
    std::optional<Variant> message;
    const auto attempt = [&]<std::size_t candidate>() {
        if (number != candidate) return;
        std::variant_alternative_t<candidate, Variant> fields;
        const bool isRead =
            std::apply([&](auto&... field) { return (decoder.get(field) && ...); }, fields.fields());
        if (isRead && decoder.isAtEnd()) message = std::move(fields);
    };
    (attempt.template operator()<Number>(), ...);
    return message;
}

} // namespace

void encode(const Request& message, std::vector<std::uint8_t>& out) {
    encodeFrame(message, out);
}

void encode(const Report& message, std::vector<std::uint8_t>& out) {
    encodeFrame(message, out);
}

template <typename Message>
std::optional<Message> MessageReader<Message>::next() {
    const std::span<const std::uint8_t> waiting = std::span(waiting_).subspan(begin_);
    std::uint32_t length = 0;
    if (isBroken_ || !Decoder(waiting).get(length))
        length = maxFrameSize;
    else if (length == 0 || length > maxFrameSize)
        isBroken_ = true;
    if (isBroken_ || waiting.size() < lengthSize + length) {
        waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(begin_));
        begin_ = 0;
        return std::nullopt;
    }
    begin_ += lengthSize + length;
    Decoder decoder(waiting.subspan(lengthSize + 1, length - 1));
    auto message = decodeAs<Message>(waiting[lengthSize], decoder,
                                     std::make_index_sequence<std::variant_size_v<Message>>());
    isBroken_ = !message;
    return message;
}

template class MessageReader<Request>;
template class MessageReader<Report>;

} // namespace tessary::discovery
