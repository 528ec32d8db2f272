// tessary-device: one or many simulated companion devices in one process.
#include "Announcement.h"
#include "Device.h"

#include "Models/UTF8.h"
#include "Platform/epoll/AddressMonitor.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <csignal>
#include <cstdio>
#include <exception>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tessary::device {

namespace {

const std::map<std::string, Play> tunes{{"scale", Play::scale}, {"chords", Play::chords},
                                        {"sweep", Play::sweep}, {"sysex", Play::sysex},
                                        {"mixed", Play::mixed}, {"nothing", Play::nothing}};

const std::map<std::string, Port> ports{{"control", Port::control}, {"data", Port::data}};

constexpr const char* description =
    R"(Simulates one or many companion devices: announces them by multicast DNS, accepts the RTP-MIDI
sessions of any number of initiators, and plays to each session once its clock exchange has
completed. Prints one line for each event. The manual page, tessary-device(1), says more.
)";

/// In place of CLI11's range, which accepts NaN.
CLI::Validator isNumber(double least, double most) {
    const auto problem = [least, most](const std::string& value) -> std::string {
        double number{};
        if (CLI::detail::lexical_cast(value, number) && number >= least && number <= most) return {};
        return value + " is no number from " + CLI::detail::to_string(least) + " to " +
               CLI::detail::to_string(most);
    };
    return {problem, ""};
}

/// What the command line asks for.
struct CommandLine {
    DeviceOptions device;
    std::vector<std::string> addresses;
    bool hasNoMarker = false;
    bool isNotAnnounced = false;
    std::optional<Seconds> withdrawAfter;
    std::uint32_t count = 1;
};

/// Makes the options, which write their values into `line`.
void addOptions(CLI::App& app, CommandLine& line) {
    DeviceOptions& device = line.device;
    Announcement& announcement = device.announcement;
    const auto add = [&app](const char* name, auto& variable, const CLI::Validator& check, const char* value,
                            const char* text) {
        return app.add_option(name, variable, text)->option_text(value)->transform(check);
    };
    const CLI::Validator any;
    const CLI::Validator isHost(
        [](const std::string& text) { return IPv4Host::parse(text) ? "" : text + " is no IPv4 address"; },
        "");
    const CLI::Validator isTune = CLI::IsMember(tunes) & CLI::Transformer(tunes);
    const CLI::Validator isPort = CLI::IsMember(ports) & CLI::Transformer(ports);
    const CLI::Validator isSysexSize = isNumber(minSysexSize, 1'000'000);
    // More seconds than these (three years) could overflow the clock's type.
    const CLI::Validator isTime = isNumber(0, 1e8);

    app.option_defaults()->group("Identity");
    add("--name", announcement.name, any, "NAME", "name of the device (default \"Tessary Device\")");
    add("--marker-name", announcement.markerName, any, "NAME",
        "name of its marker service (default: the same)");
    add("--address", line.addresses, isHost, "A.B.C.D",
        "address to listen on and to announce; can be repeated")
        ->allow_extra_args(false);
    add("--port", announcement.port, isNumber(1, 65534), "P", "control port (default 5004); data: the next");
    add("--count", line.count, isNumber(1, 4096), "N", "N devices, at consecutive addresses (default 1)");
    app.add_flag("--no-marker", line.hasNoMarker, "announce no marker service (_tessarylink._tcp)");
    app.add_flag("--no-announce", line.isNotAnnounced, "announce nothing");

    app.option_defaults()->group("What it plays");
    add("--play", device.play, isTune, "TUNE", "scale (default), chords, sweep, sysex, mixed or nothing");
    add("--rate", device.rate, isNumber(0.001, 100'000), "R", "messages a second, up to 100000 (default 4)");
    add("--per-datagram", device.messagesPerDatagram, isNumber(1, 1000), "N",
        "messages a datagram (default 1)");
    add("--messages", device.messages, isNumber(0, 1e12), "N",
        "stop after N to a session (default 0: never)");
    add("--sysex-size", device.sysexSize, isSysexSize, "BYTES", "with F0 and F7 (default 256)");
    add("--channel", device.channel, isNumber(1, 16), "N", "MIDI channel of what it plays (default 1)");
    app.add_flag("--clock", device.startsClock, "start clock exchanges too, every 10 s");
    app.add_flag("--wait-for-clock", device.waitsForClock, "play once such an exchange was answered");

    app.option_defaults()->group("How it misbehaves (SECONDS count from the start unless said otherwise)");
    add("--reject", device.rejects, isPort, "PORT", "reject the invitations to one port: control or data");
    app.add_flag("--silent", device.isSilent, "never answer anything");
    add("--answer-delay", device.answerDelay, isNumber(0, 3'600'000), "MS",
        "answer so many milliseconds late");
    app.add_flag("--wrong-token", device.hasWrongToken, "accept invitations with a token that is not theirs");
    add("--bye-after", device.byeAfter, isTime, "SECONDS", "end a session that has run that long");
    add("--open-after", device.openAfter, isTime, "SECONDS",
        "announce at once, but open the ports that late");
    add("--close-after", device.closeAfter, isTime, "SECONDS", "close the ports without a BY");
    add("--withdraw-after", line.withdrawAfter, isTime, "SECONDS", "withdraw the announcement, nothing else");
    add("--garbage", device.garbageRate, isNumber(0, 100'000), "R",
        "send each session R random datagrams a second");
    app.add_flag("--other-ssrc", device.hasOtherSSRC, "use different SSRCs on the control and the data port");
}

/// Fills in what the command line leaves to the program.
///
/// Errors: throws CLI::ValidationError.
void complete(CommandLine& line) {
    DeviceOptions& device = line.device;
    auto& [name, markerName, addresses, port, report] = device.announcement;
    for (const std::string& text : line.addresses)
        addresses.push_back(*IPv4Host::parse(text));
    if (line.count > 1 && addresses.size() > 1)
        throw CLI::ValidationError("--count", "goes with one --address only");
    if (addresses.empty()) {
        const auto own = ownAddresses();
        const auto first =
            std::ranges::find_if(own, [](const IPv4Host& host) { return host.bytes[0] != 127; });
        addresses.push_back(first == own.end() ? IPv4Host{{127, 0, 0, 1}} : *first);
    }
    if (markerName.empty()) markerName = name;
    const std::size_t maxSize = 63 - (line.count > 1 ? 1 + std::to_string(line.count).size() : 0);
    for (const std::string& each : {name, markerName})
        if (each.empty() || each.size() > maxSize || !isUTF8(each))
            throw CLI::ValidationError("--name", "a name has 1 to 63 bytes of UTF-8");
    if (line.hasNoMarker) markerName.clear();
    device.startsClock |= device.waitsForClock;
    if (device.play == Play::chords)
        device.messagesPerDatagram =
            (device.messagesPerDatagram + notesPerChord - 1) / notesPerChord * notesPerChord;
}

EventLoop* runningLoop = nullptr;

void run(const CommandLine& line) {
    EventLoop loop;
    runningLoop = &loop;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        std::signal(number, [](int) { runningLoop->stop(); });

    std::list<Device> devices;
    std::vector<Announcement> announcements;
    for (std::uint32_t i = 0; i < line.count; ++i) {
        DeviceOptions options = line.device;
        Announcement& announcement = options.announcement;
        if (line.count > 1) {
            auto& address = announcement.addresses.front().bytes;
            address = std::bit_cast<std::array<std::uint8_t, 4>>(
                htonl(ntohl(std::bit_cast<in_addr_t>(address)) + i));
            for (std::string* name : {&announcement.name, &announcement.markerName})
                if (!name->empty()) name->append(" ").append(std::to_string(i + 1));
        }
        Device& device = devices.emplace_back(loop, options);
        // Reports come on the announcer's thread.
        announcement.report = [&loop, &device](const std::string& event) {
            loop.post([&device, event] { device.print(event); });
        };
        announcements.push_back(announcement);
    }
    std::optional<Announcer> announcer;
    if (!line.isNotAnnounced) announcer.emplace(std::move(announcements));
    if (line.withdrawAfter)
        loop.at(EventLoop::Clock::now() +
                    std::chrono::duration_cast<EventLoop::Clock::duration>(*line.withdrawAfter),
                [&] {
                    announcer.reset();
                    for (const Device& device : devices)
                        device.print("announcement withdrawn");
                });
    loop.run();

    for (Device& device : devices)
        device.stop();
}

} // namespace

} // namespace tessary::device

int main(int argc, char** argv) {
    using namespace tessary::device;
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app(description, "tessary-device");
    app.set_help_flag("--help", "print this and exit");
    app.set_version_flag("--version", "tessary-device " TESSARY_VERSION, "print the version and exit");
    CommandLine line;
    addOptions(app, line);
    try {
        app.parse(argc, argv);
        complete(line);
        run(line);
        return 0;
    } catch (const CLI::Success& request) { // --help or --version
        return app.exit(request);
    } catch (const std::exception& error) {
        const bool isUsage = dynamic_cast<const CLI::ParseError*>(&error);
        std::fprintf(stderr, "tessary-device: %s%s\n", tessary::escapedControls(error.what()).c_str(),
                     isUsage ? " (--help explains)" : "");
        return isUsage ? 2 : 1;
    }
}
