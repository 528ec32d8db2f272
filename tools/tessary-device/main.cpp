// tessary-device: one or many simulated companion devices in one process.
#include "Announcement.h"
#include "Device.h"

#include "Models/UTF8.h"
#include "Platform/network/AddressMonitor.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

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
    R"(Simulates companion devices: announces them by multicast DNS, accepts RTP-MIDI sessions, and plays
to each session once its clock exchange has completed. tessary-device(1) says more.
)";

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
    const CLI::Validator isHost(
        [](const std::string& text) { return IPv4Host::parse(text) ? "" : text + " is no IPv4 address"; },
        "");
    const CLI::Validator isTune = CLI::IsMember(tunes) & CLI::Transformer(tunes);
    const CLI::Validator isPort = CLI::IsMember(ports) & CLI::Transformer(ports);
    const CLI::Range isSysexSize(minSysexSize, std::size_t{1'000'000});
    const CLI::Range isCount(std::uint64_t{0}, std::uint64_t{1'000'000'000'000});
    const CLI::Validator isReal( // CLI11's ranges accept NaN
        [](const std::string& text) { return text.find_first_of("nN") == text.npos ? "" : "no number"; }, "");
    // More seconds than these (three years) could overflow the clock's type.
    const CLI::Validator isTime = CLI::Range(0.0, 1e8) & isReal;

    app.option_defaults()->group("Identity");
    add("--name", announcement.name, {}, "NAME", "name of the device (default \"Tessary Device\")");
    add("--marker-name", announcement.markerName, {}, "NAME",
        "name of its marker service (default: the same)");
    add("--address", line.addresses, isHost, "A.B.C.D",
        "address to listen on and to announce; can be repeated")
        ->allow_extra_args(false);
    add("--port", announcement.port, CLI::Range(1, 65534), "P",
        "control port (default 5004); data: the next");
    add("--count", line.count, CLI::Range(1, 4096), "N", "N devices, at consecutive addresses (default 1)");
    app.add_flag("--no-marker", line.hasNoMarker, "announce no marker service (_tessarylink._tcp)");
    app.add_flag("--no-announce", line.isNotAnnounced, "announce nothing");

    app.option_defaults()->group("What it plays");
    add("--play", device.play, isTune, "TUNE", "scale (default), chords, sweep, sysex, mixed or nothing");
    add("--rate", device.rate, CLI::Range(0.001, 1e5) & isReal, "R",
        "messages a second, up to 100000 (default 4)");
    add("--per-datagram", device.messagesPerDatagram, CLI::Range(1, 1000), "N",
        "messages a datagram (default 1)");
    add("--messages", device.messages, isCount, "N", "stop after N to a session (default 0: never)");
    add("--sysex-size", device.sysexSize, isSysexSize, "BYTES", "with F0 and F7 (default 256)");
    add("--channel", device.channel, CLI::Range(1, 16), "N", "MIDI channel of what it plays (default 1)");
    app.add_flag("--clock", device.startsClock, "start clock exchanges too, every 10 s");
    app.add_flag("--wait-for-clock", device.waitsForClock, "play once such an exchange was answered");

    app.option_defaults()->group("How it misbehaves (SECONDS count from the start unless said otherwise)");
    add("--reject", device.rejects, isPort, "PORT", "reject the invitations to one port: control or data");
    app.add_flag("--silent", device.isSilent, "never answer anything");
    add("--answer-delay", device.answerDelay, CLI::Range(0, 3'600'000), "MS",
        "answer so many milliseconds late");
    app.add_flag("--wrong-token", device.hasWrongToken, "accept invitations with a token that is not theirs");
    add("--bye-after", device.byeAfter, isTime, "SECONDS", "end a session that has run that long");
    add("--open-after", device.openAfter, isTime, "SECONDS",
        "announce at once, but open the ports that late");
    add("--close-after", device.closeAfter, isTime, "SECONDS", "close the ports without a BY");
    add("--withdraw-after", line.withdrawAfter, isTime, "SECONDS", "withdraw the announcement, nothing else");
    add("--garbage", device.garbageRate, CLI::Range(0.0, 1e5) & isReal, "R",
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
    for (const IPv4Host& host : ownAddresses())
        if (addresses.empty() && host.bytes[0] != 127) addresses.push_back(host);
    if (addresses.empty()) addresses.push_back(IPv4Host{{127, 0, 0, 1}});
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

void run(const CommandLine& line) {
    static EventLoop loop; // until the process ends, because a signal may come after the devices have gone
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        std::signal(number, [](int) { loop.stop(); });

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
        announcement.report = [&device](const std::string& event) {
            loop.post([&device, event] { device.print(event); });
        };
        announcements.push_back(announcement);
    }
    std::optional<Announcer> announcer;
    if (!line.isNotAnnounced) announcer.emplace(std::move(announcements));
    const auto withdraw = [&] {
        announcer.reset();
        for (const Device& device : devices)
            device.print("announcement withdrawn");
    };
    if (line.withdrawAfter) loop.at(EventLoop::Clock::now() + ticks(*line.withdrawAfter), withdraw);
    loop.run();

    for (Device& device : devices)
        device.stop();
}

} // namespace

} // namespace tessary::device

int main(int argc, char** argv) {
    using namespace tessary::device;
    std::signal(SIGPIPE, SIG_IGN);
    try {
        CLI::App app(description, "tessary-device");
        app.set_help_flag("--help", "print this and exit");
        app.set_version_flag("--version", "tessary-device " TESSARY_VERSION, "print the version and exit");
        CommandLine line;
        addOptions(app, line);
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success& request) { // --help or --version
            return app.exit(request);
        }
        complete(line);
        run(line);
        return 0;
    } catch (const std::exception& error) {
        const bool isUsage = dynamic_cast<const CLI::ParseError*>(&error);
        std::fprintf(stderr, "tessary-device: %s%s\n", tessary::escapedControls(error.what()).c_str(),
                     isUsage ? " (--help explains)" : "");
        return isUsage ? 2 : 1;
    }
}
