#include "Device.h"

#include "Models/UTF8.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace tessary::device {

namespace {

/// Invitations are free for anybody; more sessions than these are refused.
constexpr std::size_t mostSessions = 64;

/// How often a device that starts clock exchanges does so.
constexpr Seconds clockInterval{10};

/// How many datagrams a late wake-up catches up with before others have their turn.
constexpr int longestBurst = 256;

constexpr double timestampUnitsPerSecond = 10'000.0;

std::string text(const asio::ip::udp::endpoint& endpoint) {
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

std::string ipOf(const asio::ip::udp::endpoint& endpoint) {
    return endpoint.address().to_string();
}

} // namespace

/// One address of the device.
struct Device::Link {
    struct Socket {
        UDP::socket socket;
        UDP::endpoint from{};
        std::array<std::uint8_t, 2048> buffer{};
    };

    Socket& operator[](Port port) { return port == Port::control ? control : data; }

    IPv4Host address;
    Socket control;
    Socket data;
};

struct Device::Session {
    Link& link;
    std::uint32_t initiatorSSRC;
    std::uint32_t controlToken;
    UDP::endpoint control;
    RTPMIDIWriter writer;
    asio::steady_timer playTimer;
    asio::steady_timer byeTimer;
    asio::steady_timer clockTimer;
    asio::steady_timer garbageTimer;

    std::uint32_t dataToken = 0;
    std::optional<UDP::endpoint> data{}; // once invited there
    bool running = false;
    bool ended = false;
    Clock::time_point playingSince{};
    std::uint64_t nextMessage = 0;
};

Device::Device(asio::io_context& context, Announcer& announcer, DeviceOptions options)
    : context_(context)
    , announcer_(announcer)
    , options_(std::move(options))
    , random_(std::random_device{}())
    , controlSSRC_(static_cast<std::uint32_t>(random_()))
    , dataSSRC_(options_.otherSSRC ? ~controlSSRC_ : controlSSRC_) {}

Device::~Device() = default;

void Device::start() {
    if (options_.openAfter)
        after(*options_.openAfter, [this] { openPorts(); });
    else
        openPorts();
    if (options_.announces) announce();
    if (options_.closeAfter) after(*options_.closeAfter, [this] { closePorts(); });
    if (options_.withdrawAfter)
        after(*options_.withdrawAfter, [this] {
            if (announcement_) announcer_.withdraw(*std::exchange(announcement_, std::nullopt));
            print("announcement withdrawn");
        });
}

void Device::announce() {
    // The handlers come on the announcer's thread.
    const auto later = [this](std::string event) {
        asio::post(context_, [this, event = std::move(event)] { print(event); });
    };
    const auto announced = [this, later](const std::string& name) {
        for (const IPv4Host& address : options_.addresses)
            later("announced " + name + " at " + address.text() + ":" + std::to_string(options_.controlPort));
    };
    const auto failed = [later](const std::string& reason) { later("not announced: " + reason); };
    announcement_ = announcer_.announce(
        {options_.name, options_.markerName, options_.addresses, options_.controlPort}, {announced, failed});
}

void Device::openPorts() {
    for (const IPv4Host& address : options_.addresses) {
        const auto socketAt = [&](std::uint16_t port) {
            const UDP::endpoint endpoint(asio::ip::address_v4(address.bytes), port);
            Link::Socket result{UDP::socket(context_, UDP::v4())};
            std::error_code error;
            result.socket.bind(endpoint, error);
            if (error) throw std::system_error(error, "cannot listen on " + text(endpoint));
            return result;
        };
        const auto dataPort = static_cast<std::uint16_t>(options_.controlPort + 1);
        links_.push_back(
            std::make_unique<Link>(Link{address, socketAt(options_.controlPort), socketAt(dataPort)}));
        print("listening on " + address.text() + ":" + std::to_string(options_.controlPort));
        receive(*links_.back(), Port::control);
        receive(*links_.back(), Port::data);
    }
}

void Device::closePorts() {
    closeSockets();
    print("ports closed");
}

void Device::receive(Link& link, Port port) {
    Link::Socket& end = link[port];
    end.socket.async_receive_from(asio::buffer(end.buffer), end.from,
                                  [this, &link, &end, port](std::error_code error, std::size_t size) {
                                      if (!end.socket.is_open()) return;
                                      if (!error)
                                          received(link, port, std::span(end.buffer).first(size), end.from);
                                      receive(link, port);
                                  });
}

void Device::received(Link& link, Port port, std::span<const std::uint8_t> datagram,
                      const UDP::endpoint& from) {
    if (options_.silent) return;
    const auto packet = AppleMIDIPacket::decode(datagram);
    if (!packet) return;
    if (const auto* invitation = std::get_if<AppleMIDIPacket::Invitation>(&packet->value))
        port == Port::control ? controlInvitation(link, *invitation, from)
                              : dataInvitation(link, *invitation, from);
    else if (const auto* farewell = std::get_if<AppleMIDIPacket::Bye>(&packet->value))
        bye(link, port, *farewell, from);
    else if (const auto* clock = std::get_if<AppleMIDIPacket::ClockSync>(&packet->value))
        if (port == Port::data) clockSync(link, *clock, from);
}

void Device::controlInvitation(Link& link, const AppleMIDIPacket::Invitation& invitation,
                               const UDP::endpoint& from) {
    print("control invitation from " + text(from) + " token=" + std::to_string(invitation.token) +
          " name=\"" + invitation.name + "\"");
    // An initiator that invites anew has begun anew.
    if (const SessionRef previous = sessionOf(link, from, invitation.ssrc)) end(previous);
    if (options_.rejects == Port::control || sessions_.size() >= mostSessions) {
        print("rejected " + text(from) + " (control)");
        return answer(link, Port::control,
                      {AppleMIDIPacket::Reject{invitation.token, controlSSRC_, options_.name}}, from);
    }
    const RTPMIDIWriter writer(dataSSRC_, static_cast<std::uint16_t>(random_()));
    const auto timer = [this] { return asio::steady_timer(context_); };
    sessions_.push_back(std::make_shared<Session>(
        Session{link, invitation.ssrc, invitation.token, from, writer, timer(), timer(), timer(), timer()}));
    answer(link, Port::control,
           {AppleMIDIPacket::Accept{invitation.token + options_.wrongToken, controlSSRC_, options_.name}},
           from);
}

void Device::dataInvitation(Link& link, const AppleMIDIPacket::Invitation& invitation,
                            const UDP::endpoint& from) {
    print("data invitation from " + text(from) + " token=" + std::to_string(invitation.token));
    const SessionRef session = sessionOf(link, from, invitation.ssrc);
    if (!session || options_.rejects == Port::data) {
        print("rejected " + text(from) + " (data)" + (session ? "" : ": no control invitation came before"));
        if (session) end(session);
        return answer(link, Port::data, {AppleMIDIPacket::Reject{invitation.token, dataSSRC_, options_.name}},
                      from);
    }
    const bool again = session->data.has_value();
    session->dataToken = invitation.token;
    session->data = from;
    answer(link, Port::data,
           {AppleMIDIPacket::Accept{invitation.token + options_.wrongToken, dataSSRC_, options_.name}}, from);
    if (again) return;
    if (options_.startsClock) startClockExchange(session);
    if (options_.garbageRate > 0) sendGarbage(session, Clock::now());
}

void Device::bye(Link& link, Port port, const AppleMIDIPacket::Bye& packet, const UDP::endpoint& from) {
    const SessionRef session = sessionOf(link, from, packet.ssrc);
    // The second BY of a session finds it gone, or a new one, which it does not mean. Token 0 means any.
    const bool meant = session && (packet.token == 0 || packet.token == session->controlToken ||
                                   packet.token == session->dataToken);
    print("bye from " + ipOf(from) + (port == Port::control ? " (control)" : " (data)") +
          (meant ? "" : ", no session"));
    if (meant) end(session);
}

void Device::clockSync(Link& link, const AppleMIDIPacket::ClockSync& packet, const UDP::endpoint& from) {
    const SessionRef session = sessionOf(link, from, packet.ssrc);
    if (!session || !session->data) return;
    if (packet.count == 0)
        answer(
            link, Port::data,
            {AppleMIDIPacket::ClockSync{.ssrc = dataSSRC_, .count = 1, .t1 = packet.t1, .t2 = timestamp()}},
            from);
    if (packet.count == 1) {
        answer(link, Port::data,
               {AppleMIDIPacket::ClockSync{
                   .ssrc = dataSSRC_, .count = 2, .t1 = packet.t1, .t2 = packet.t2, .t3 = timestamp()}},
               from);
        clockCompleted(session, true);
    }
    if (packet.count == 2) clockCompleted(session, false);
}

Device::SessionRef Device::sessionOf(const Link& link, const UDP::endpoint& from, std::uint32_t ssrc) const {
    const auto found = std::find_if(sessions_.begin(), sessions_.end(), [&](const SessionRef& session) {
        return &session->link == &link && session->initiatorSSRC == ssrc &&
               session->control.address() == from.address();
    });
    return found == sessions_.end() ? nullptr : *found;
}

void Device::end(const SessionRef& session) {
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it keeps the session alive
    const SessionRef kept = session; // the argument may be the list's own
    kept->ended = true;
    for (auto* timer : {&kept->playTimer, &kept->byeTimer, &kept->clockTimer, &kept->garbageTimer})
        timer->cancel();
    std::erase(sessions_, kept);
}

void Device::sayBye() {
    for (const SessionRef& session : sessions_)
        sayBye(*session);
    closeSockets();
}

void Device::closeSockets() {
    while (!sessions_.empty())
        end(sessions_.back());
    std::error_code ignored;
    for (const auto& link : links_)
        for (const Port port : {Port::control, Port::data})
            (*link)[port].socket.close(ignored);
}

void Device::sayBye(const Session& session) {
    send(session.link, Port::control,
         AppleMIDIPacket{AppleMIDIPacket::Bye{session.controlToken, controlSSRC_}}.encode(), session.control);
    if (session.data)
        send(session.link, Port::data,
             AppleMIDIPacket{AppleMIDIPacket::Bye{session.dataToken, dataSSRC_}}.encode(), *session.data);
    print("said bye to " + ipOf(session.control));
}

void Device::startClockExchange(const SessionRef& session) {
    answer(session->link, Port::data,
           {AppleMIDIPacket::ClockSync{.ssrc = dataSSRC_, .count = 0, .t1 = timestamp()}}, *session->data);
    session->clockTimer.expires_after(std::chrono::duration_cast<Clock::duration>(clockInterval));
    session->clockTimer.async_wait([this, session](std::error_code) {
        if (!session->ended) startClockExchange(session);
    });
}

void Device::clockCompleted(const SessionRef& session, bool startedHere) {
    if (session->running || (options_.waitsForClock && !startedHere)) return;
    session->running = true;
    print("running with " + ipOf(session->control));
    if (options_.byeAfter) {
        session->byeTimer.expires_after(std::chrono::duration_cast<Clock::duration>(*options_.byeAfter));
        session->byeTimer.async_wait([this, session](std::error_code) {
            if (session->ended) return;
            sayBye(*session);
            end(session);
        });
    }
    if (options_.play == Play::nothing) return;
    session->playingSince = Clock::now();
    playDue(session);
}

/// Every message has its own deadline, counted from the start, so that late wake-ups do not add up.
void Device::playDue(const SessionRef& session) {
    const auto deadline = [&] {
        const Seconds sinceStart{static_cast<double>(session->nextMessage) / options_.rate};
        return session->playingSince + std::chrono::duration_cast<Clock::duration>(sinceStart);
    };
    for (int burst = 0; burst < longestBurst && deadline() <= Clock::now(); ++burst) {
        playNextDatagram(*session);
        if (options_.messages > 0 && session->nextMessage >= options_.messages)
            return print("played " + std::to_string(session->nextMessage) + " messages to " +
                         ipOf(session->control));
    }
    session->playTimer.expires_at(deadline());
    session->playTimer.async_wait([this, session](std::error_code) {
        if (!session->ended) playDue(session);
    });
}

void Device::playNextDatagram(Session& session) {
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
                             send(session.link, Port::data, datagram, *session.data);
                         });
}

void Device::sendGarbage(const SessionRef& session, Clock::time_point due) {
    std::vector<std::uint8_t> datagram(random_() % 300);
    for (auto& byte : datagram)
        byte = static_cast<std::uint8_t>(random_());
    // A third each: noise, the beginning of a session packet, the beginning of RTP-MIDI.
    const auto kind = random_() % 3;
    if (kind > 0 && datagram.size() >= 3) {
        datagram[0] = kind == 1 ? 0xFF : 0x80;
        datagram[1] = kind == 1 ? 0xFF : 0x61;
        if (kind == 1) datagram[2] |= 0x80; // no letter: a BY by chance would end the session
    }
    send(session->link, Port::data, datagram, *session->data);
    const auto next = due + std::chrono::duration_cast<Clock::duration>(Seconds(1 / options_.garbageRate));
    session->garbageTimer.expires_at(next);
    session->garbageTimer.async_wait([this, session, next](std::error_code) {
        if (!session->ended) sendGarbage(session, next);
    });
}

void Device::answer(Link& link, Port port, const AppleMIDIPacket& packet, const UDP::endpoint& to) {
    if (options_.answerDelay.count() == 0) return send(link, port, packet.encode(), to);
    after(options_.answerDelay, [this, &link, port, packet, to] { send(link, port, packet.encode(), to); });
}

void Device::send(Link& link, Port port, std::span<const std::uint8_t> datagram, const UDP::endpoint& to) {
    std::error_code ignored; // the network's losses are the receiver's to bear
    link[port].socket.send_to(asio::buffer(datagram.data(), datagram.size()), to, 0, ignored);
}

void Device::after(Seconds delay, std::function<void()> work) {
    const auto timer = std::make_shared<asio::steady_timer>(context_);
    timer->expires_after(std::chrono::duration_cast<Clock::duration>(delay));
    timer->async_wait([timer, work = std::move(work)](std::error_code error) {
        if (!error) work();
    });
}

std::uint64_t Device::timestamp() const {
    return static_cast<std::uint64_t>(Seconds(Clock::now() - startedAt_).count() * timestampUnitsPerSecond);
}

void Device::printTotals() const {
    print("sent " + std::to_string(datagramsSent_) + " datagrams, " + std::to_string(messagesSent_) +
          " messages");
}

void Device::print(const std::string& event) const {
    std::printf("%s\n", escapedControls("[device " + options_.name + "] " + event).c_str());
    std::fflush(stdout);
}

} // namespace tessary::device
