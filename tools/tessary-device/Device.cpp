#include "Device.h"

#include "Models/UTF8.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace tessary::device {

namespace {

/// Anybody can invite; invitations beyond this are rejected.
constexpr std::size_t maxSessions = 64;

/// The interval of the clock exchanges that the device starts.
constexpr Seconds clockInterval{10};

/// How many datagrams a late wake-up catches up with before other sockets and timers are served.
constexpr int maxBurst = 256;

IPv4Host hostOf(const sockaddr_in& address) {
    return {std::bit_cast<decltype(IPv4Host::bytes)>(address.sin_addr.s_addr)};
}

std::string text(const sockaddr_in& address) {
    return hostOf(address).text() + ":" + std::to_string(ntohs(address.sin_port));
}

} // namespace

/// One port of one of the device's addresses.
struct Device::Socket final : EventLoop::Reader {
    /// Errors: throws std::system_error.
    Socket(Device& owner, IPv4Host address, Port whichPort)
        : device(owner)
        , host(address)
        , port(whichPort)
        , file(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = std::bit_cast<in_addr_t>(host.bytes);
        local.sin_port =
            htons(static_cast<std::uint16_t>(device.options_.announcement.port + (port == Port::data)));
        if (!file || bind(file.file(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0)
            throw std::system_error(errno, std::system_category(), "cannot listen on " + text(local));
        device.loop_.watch(file.file(), *this);
    }

    void readable() override;

    Device& device;
    const IPv4Host host;
    const Port port;
    OpenFile file;
};

/// An initiator's port, and the socket of ours that it sends to.
struct Device::Remote {
    void send(std::span<const std::uint8_t> datagram) const {
        // An error is a lost datagram, which the receiver has to handle anyway.
        sendto(socket.file.file(), datagram.data(), datagram.size(), 0,
               reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    std::string ip() const { return hostOf(address).text(); }
    std::string portName() const { return socket.port == Port::control ? "control" : "data"; }

    Socket& socket;
    sockaddr_in address;
};

struct Device::Session {
    std::uint32_t initiatorSSRC;
    std::uint32_t controlToken;
    Remote control;
    RTPMIDIWriter writer;

    std::uint32_t dataToken = 0;
    std::optional<Remote> data{}; // once it has invited there
    bool isRunning = false;
    std::uint64_t nextMessage = 0;
};

/// Datagrams at a steady rate. Each has its own deadline, counted from the start, so late wake-ups do not
/// add up.
struct Device::Stream {
    Clock::time_point due() const { return start + ticks(Seconds(static_cast<double>(sent) / rate)); }

    double rate;                           // datagrams a second
    std::function<bool(Session&)> sendOne; // false: that was the last one
    Clock::time_point start = Clock::now();
    std::uint64_t sent = 0;
};

Device::Device(EventLoop& loop, DeviceOptions options)
    : loop_(loop)
    , options_(std::move(options))
    , random_(std::random_device{}())
    , controlSSRC_(static_cast<std::uint32_t>(random_()))
    , dataSSRC_(options_.hasOtherSSRC ? ~controlSSRC_ : controlSSRC_) {
    after(options_.openAfter, [this] { openPorts(); });
    after(options_.closeAfter, [this] {
        closePorts();
        print("ports closed");
    });
}

Device::~Device() = default;

void Device::openPorts() {
    for (const IPv4Host& address : options_.announcement.addresses) {
        for (const Port port : {Port::control, Port::data})
            sockets_.emplace_back(*this, address, port);
        print("listening on " + address.text() + ":" + std::to_string(options_.announcement.port));
    }
}

void Device::stop() {
    for (const SessionRef& session : sessions_)
        sendBye(*session);
    closePorts();
    print("sent " + std::to_string(datagramsSent_) + " datagrams, " + std::to_string(messagesSent_) +
          " messages");
}

void Device::closePorts() {
    sessions_.clear();
    for (Socket& socket : sockets_)
        socket.file = {}; // the socket itself stays: delayed answers still refer to it
}

// Receiving

void Device::Socket::readable() {
    std::array<std::uint8_t, 2048> buffer;
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t size = recvfrom(file.file(), buffer.data(), buffer.size(), MSG_DONTWAIT,
                                  reinterpret_cast<sockaddr*>(&from), &length);
    if (size >= 0) device.received({*this, from}, std::span(buffer).first(static_cast<std::size_t>(size)));
}

void Device::received(const Remote& from, std::span<const std::uint8_t> datagram) {
    if (options_.isSilent) return;
    if (const auto packet = AppleMIDIPacket::decode(datagram))
        std::visit([&](const auto& value) { handle(from, value); }, packet->value);
}

void Device::handle(const Remote& from, const AppleMIDIPacket::Invitation& packet) {
    const bool isControl = from.socket.port == Port::control;
    print(from.portName() + " invitation from " + text(from.address) +
          " token=" + std::to_string(packet.token) + (isControl ? " name=\"" + packet.name + "\"" : ""));
    const SessionRef session = sessionOf(from, packet.ssrc);
    if (isControl) std::erase(sessions_, session); // a new session replaces it
    const bool isPossible = isControl ? sessions_.size() < maxSessions : session != nullptr;
    if (!isPossible || options_.rejects == from.socket.port) {
        print("rejected " + text(from.address) + " (" + from.portName() + ")" +
              (isControl || session ? "" : ": no control invitation came before"));
        std::erase(sessions_, session);
        return answer(from, {AppleMIDIPacket::Reject{packet.token, ssrcOf(from.socket.port),
                                                     options_.announcement.name}});
    }
    answer(from, {AppleMIDIPacket::Accept{packet.token + options_.hasWrongToken, ssrcOf(from.socket.port),
                                          options_.announcement.name}});
    if (isControl) {
        const RTPMIDIWriter writer(dataSSRC_, static_cast<std::uint16_t>(random_()));
        sessions_.push_back(std::make_shared<Session>(Session{packet.ssrc, packet.token, from, writer}));
        return;
    }
    const bool isRepeated = session->data.has_value();
    session->dataToken = packet.token;
    session->data.emplace(from);
    if (isRepeated) return;
    if (options_.startsClock) startClockExchange(session);
    if (options_.garbageRate > 0)
        keepSending(session, {options_.garbageRate, [this](Session& to) { return sendGarbage(to); }});
}

void Device::handle(const Remote& from, const AppleMIDIPacket::Bye& packet) {
    const SessionRef session = sessionOf(from, packet.ssrc);
    // The second BY of a session finds none, or a new one that it does not end. Token 0 ends any.
    const bool isMeant = session && (packet.token == 0 || packet.token == session->controlToken ||
                                     packet.token == session->dataToken);
    print("bye from " + from.ip() + " (" + from.portName() + ")" + (isMeant ? "" : ", no session"));
    if (isMeant) std::erase(sessions_, session);
}

void Device::handle(const Remote& from, const AppleMIDIPacket::ClockSync& packet) {
    const SessionRef session = sessionOf(from, packet.ssrc);
    if (!session || !session->data || from.socket.port != Port::data) return;
    if (packet.count < 2) {
        AppleMIDIPacket::ClockSync reply = packet;
        reply.ssrc = dataSSRC_;
        reply.count = static_cast<std::uint8_t>(packet.count + 1);
        (packet.count == 0 ? reply.t2 : reply.t3) = timestamp();
        answer(from, {reply});
    }
    if (packet.count == 1 || packet.count == 2) clockCompleted(session, packet.count == 1);
}

// Sessions

Device::SessionRef Device::sessionOf(const Remote& from, std::uint32_t ssrc) const {
    const auto found = std::ranges::find_if(sessions_, [&](const SessionRef& session) {
        return session->initiatorSSRC == ssrc && session->control.socket.host == from.socket.host &&
               hostOf(session->control.address) == hostOf(from.address);
    });
    return found == sessions_.end() ? nullptr : *found;
}

void Device::sendBye(const Session& session) {
    session.control.send(AppleMIDIPacket{AppleMIDIPacket::Bye{session.controlToken, controlSSRC_}}.encode());
    if (session.data)
        session.data->send(AppleMIDIPacket{AppleMIDIPacket::Bye{session.dataToken, dataSSRC_}}.encode());
    print("said bye to " + session.control.ip());
}

void Device::startClockExchange(const WeakSession& weak) {
    const SessionRef session = weak.lock();
    if (!session) return;
    answer(*session->data, {AppleMIDIPacket::ClockSync{.ssrc = dataSSRC_, .count = 0, .t1 = timestamp()}});
    after(clockInterval, [this, weak] { startClockExchange(weak); });
}

void Device::clockCompleted(const SessionRef& session, bool startedHere) {
    if (session->isRunning || (options_.waitsForClock && !startedHere)) return;
    session->isRunning = true;
    print("running with " + session->control.ip());
    after(options_.byeAfter, [this, weak = WeakSession(session)] {
        const SessionRef ending = weak.lock();
        if (ending) sendBye(*ending);
        std::erase(sessions_, ending);
    });
    if (options_.play != Play::nothing)
        keepSending(session, {options_.rate / static_cast<double>(options_.messagesPerDatagram),
                              [this](Session& to) { return playNextDatagram(to); }});
}

// Sending

void Device::keepSending(const WeakSession& weak, Stream stream) {
    const SessionRef session = weak.lock();
    if (!session) return;
    for (int burst = 0; burst < maxBurst && stream.due() <= Clock::now(); ++burst, ++stream.sent)
        if (!stream.sendOne(*session)) return;
    // At a time in the past the loop would serve this timer again before any socket.
    loop_.at(std::max(stream.due(), Clock::now()), [this, weak, stream] { keepSending(weak, stream); });
}

/// Returns false once the session has got all its messages.
bool Device::playNextDatagram(Session& session) {
    std::uint64_t count = options_.messagesPerDatagram;
    if (options_.messages > 0) count = std::min(count, options_.messages - session.nextMessage);
    std::vector<MIDIMessage> messages;
    for (; count > 0; --count) {
        messages.push_back(messageAt(options_.play, session.nextMessage++, options_.sysexSize));
        if (auto& message = messages.back(); !message.empty() && message[0] < 0xF0)
            message[0] = static_cast<std::uint8_t>((message[0] & 0xF0) | (options_.channel - 1));
    }
    messagesSent_ += messages.size();
    session.writer.write(messages, static_cast<std::uint32_t>(timestamp()),
                         [&](std::span<const std::uint8_t> datagram) {
                             ++datagramsSent_;
                             session.data->send(datagram);
                         });
    if (options_.messages == 0 || session.nextMessage < options_.messages) return true;
    print("played " + std::to_string(session.nextMessage) + " messages to " + session.control.ip());
    return false;
}

/// Returns true: there is no end.
bool Device::sendGarbage(const Session& session) {
    std::vector<std::uint8_t> datagram(random_() % 300);
    std::ranges::generate(datagram, [this] { return static_cast<std::uint8_t>(random_()); });
    // A third each: noise, the beginning of a session packet, the beginning of RTP-MIDI.
    const auto kind = random_() % 3;
    if (kind > 0 && datagram.size() >= 3) {
        datagram[0] = kind == 1 ? 0xFF : 0x80;
        datagram[1] = kind == 1 ? 0xFF : 0x61;
        if (kind == 1) datagram[2] |= 0x80; // not a letter: a random BY would end the session
    }
    session.data->send(datagram);
    return true;
}

void Device::answer(const Remote& to, const AppleMIDIPacket& packet) {
    if (options_.answerDelay.count() == 0) return to.send(packet.encode());
    after(options_.answerDelay, [to, packet] { to.send(packet.encode()); });
}

void Device::after(std::optional<Seconds> delay, std::function<void()> work) {
    if (delay) loop_.at(Clock::now() + ticks(*delay), std::move(work));
}

std::uint64_t Device::timestamp() const {
    return static_cast<std::uint64_t>((Clock::now() - startedAt_) / std::chrono::microseconds(100));
}

void Device::print(const std::string& event) const {
    std::printf("%s\n", escapedControls("[device " + options_.announcement.name + "] " + event).c_str());
    std::fflush(stdout);
}

} // namespace tessary::device
