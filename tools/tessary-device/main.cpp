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
#include <bit>
#include <csignal>
#include <cstdio>
#include <exception>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tessary {

// CLI11 reads the types of an option by functions of this name.
bool lexical_cast(const std::string& text, IPv4Host& host) {
    const auto parsed = IPv4Host::parse(text);
    if (parsed) host = *parsed;
    return parsed.has_value();
}

namespace device {

namespace {

const std::map<std::string, Play> tunes{{"scale", Play::scale}, {"chords", Play::chords},
                                        {"sweep", Play::sweep}, {"sysex", Play::sysex},
                                        {"mixed", Play::mixed}, {"nothing", Play::nothing}};

const std::map<std::string, Port> ports{{"control", Port::control}, {"data", Port::data}};

constexpr const char* description =
    R"(Simulates one or many companion devices: announces them by multicast DNS, accepts the RTP-MIDI
sessions of any number of initiators, and plays to each session once its clock exchange has
completed. Prints one line for each event. SIGTERM or SIGINT ends it: it ends every session and
withdraws its announcements.)";

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
    std::string markerName;
    bool hasMarker = true;
    bool isAnnounced = true;
    std::optional<Seconds> withdrawAfter;
    std::uint32_t count = 1;
};

/// Makes the options, which write their values into `line`.
void addOptions(CLI::App& app, CommandLine& line) {
    DeviceOptions& device = line.device;
    const auto add = [&app](const char* name, auto& variable, const CLI::Validator& check, const char* value,
                            const char* text) {
        return app.add_option(name, variable, text)->option_text(value)->transform(check);
    };
    const auto isOneOf = [](const auto& values) { return CLI::IsMember(values) & CLI::Transformer(values); };
    const CLI::Validator any;
    // More seconds than these (three years) could overflow the clock's type.
    const CLI::Validator isTime = isNumber(0, 1e8);

    app.option_defaults()->group("Identity");
    add("--name", device.name, any, "NAME", "name of the device (default \"Tessary Device\")");
    add("--marker-name", line.markerName, any, "NAME", "name of its marker service (default: the device's)");
    add("--address", device.addresses, any, "A.B.C.D",
        "address to announce and to listen on (default: the machine's first\n"
        "that is not the loopback). Repeat it for a device on several links:\n"
        "each interface then announces the address in its own subnet")
        ->allow_extra_args(false);
    add("--port", device.controlPort, isNumber(1, 65534), "P",
        "control port; the data port is the next one (default 5004)");
    add("--count", line.count, isNumber(1, 4096), "N",
        "N devices, named NAME 1 to NAME N, at N consecutive addresses from\n"
        "--address on, which the machine must have");
    app.add_flag_callback(
        "--no-marker", [&] { line.hasMarker = false; },
        "announce _apple-midi._udp, but not the marker service\n_tessarylink._tcp");
    app.add_flag_callback(
        "--no-announce", [&] { line.isAnnounced = false; }, "announce nothing");

    app.option_defaults()->group("What it plays");
    add("--play", device.play, isOneOf(tunes), "TUNE",
        "scale, chords, sweep, sysex, mixed or nothing (default scale). Each\n"
        "message follows from its number, see Player.h");
    add("--rate", device.rate, isNumber(0.001, 100'000), "R", "messages a second, up to 100000 (default 4)");
    add("--per-datagram", device.messagesPerDatagram, isNumber(1, 1000), "N",
        "messages in one datagram (default 1; chords: whole chords of 3)");
    add("--messages", device.messages, isNumber(0, 1e12), "N",
        "stop after N messages to a session (default 0: never)");
    add("--sysex-size", device.sysexSize, isNumber(minSysexSize, 1'000'000), "BYTES",
        "length of a System Exclusive, F0 and F7 included (default 256); one\n"
        "above 1200 goes in segments");
    add("--channel", device.channel, isNumber(1, 16), "N",
        "MIDI channel of what it plays, 1 to 16 (default 1)");
    app.add_flag("--clock", device.startsClock,
                 "start clock exchanges too: after the data invitation and every 10 s");
    app.add_flag("--wait-for-clock", device.waitsForClock,
                 "play nothing before such an exchange was answered (implies --clock)");

    app.option_defaults()->group("How it misbehaves (SECONDS count from the start unless said otherwise)");
    add("--reject", device.rejects, isOneOf(ports), "PORT",
        "reject the invitations to one port: control or data");
    app.add_flag("--silent", device.isSilent, "never answer anything");
    add("--answer-delay", device.answerDelay, isNumber(0, 3'600'000), "MS",
        "answer that many milliseconds late");
    app.add_flag("--wrong-token", device.hasWrongToken, "accept invitations with a token that is not theirs");
    add("--bye-after", device.byeAfter, isTime, "SECONDS", "end a session that has run that long");
    add("--open-after", device.openAfter, isTime, "SECONDS",
        "announce at once, but open the ports that late");
    add("--close-after", device.closeAfter, isTime, "SECONDS", "close the ports without a BY");
    add("--withdraw-after", line.withdrawAfter, isTime, "SECONDS",
        "withdraw the announcement (goodbye) and change nothing else");
    add("--garbage", device.garbageRate, isNumber(0, 100'000), "R",
        "send R random datagrams a second to the data port of each session");
    app.add_flag("--other-ssrc", device.hasOtherSSRC, "use different SSRCs on the control and the data port");
}

/// The addresses and names of `line` without those that it leaves to the program; whole chords.
///
/// Errors: throws CLI::ValidationError.
void complete(CommandLine& line) {
    DeviceOptions& device = line.device;
    if (device.addresses.empty()) {
        const auto own = ownAddresses();
        const auto first =
            std::ranges::find_if(own, [](const IPv4Host& host) { return host.bytes[0] != 127; });
        device.addresses.push_back(first == own.end() ? IPv4Host{{127, 0, 0, 1}} : *first);
    }
    if (line.count > 1 && device.addresses.size() > 1)
        throw CLI::ValidationError("--count", "goes with one --address only");
    if (line.markerName.empty()) line.markerName = device.name;
    const std::size_t maxName = 63 - (line.count > 1 ? 1 + std::to_string(line.count).size() : 0);
    for (const std::string& name : {device.name, line.markerName})
        if (name.empty() || name.size() > maxName || !isUTF8(name))
            throw CLI::ValidationError("--name", "a name has 1 to 63 bytes of UTF-8");
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
    const std::uint32_t firstAddress = ntohl(std::bit_cast<in_addr_t>(line.device.addresses.front().bytes));
    for (std::uint32_t i = 0; i < line.count; ++i) {
        DeviceOptions options = line.device;
        std::string suffix;
        if (line.count > 1) {
            options.addresses = {{std::bit_cast<decltype(IPv4Host::bytes)>(htonl(firstAddress + i))}};
            suffix = " " + std::to_string(i + 1);
        }
        options.name += suffix;
        Device& device = devices.emplace_back(loop, options);
        device.start();
        // Reports come on the announcer's thread.
        const auto report = [&loop, &device](const std::string& event) {
            loop.post([&device, event] { device.print(event); });
        };
        announcements.push_back({options.name, line.hasMarker ? line.markerName + suffix : "",
                                 options.addresses, options.controlPort, report});
    }
    std::optional<Announcer> announcer;
    if (line.isAnnounced) announcer.emplace(std::move(announcements));
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
    announcer.reset();
    for (const Device& device : devices)
        device.printTotals();
}

int runCommandLine(int argc, char** argv) {
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
        std::fprintf(stderr, "tessary-device: %s%s\n", escapedControls(error.what()).c_str(),
                     isUsage ? " (--help explains)" : "");
        return isUsage ? 2 : 1;
    }
}

} // namespace

} // namespace device

} // namespace tessary

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    return tessary::device::runCommandLine(argc, argv);
}
