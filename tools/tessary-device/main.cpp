// tessary-device: one or many simulated companion devices in one process.
#include "Announcement.h"
#include "Device.h"

#include "Models/UTF8.h"

#include <asio.hpp>

#include <arpa/inet.h>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ifaddrs.h>
#include <iomanip>
#include <map>
#include <net/if.h>
#include <sstream>
#include <stdexcept>

namespace tessary::device {

namespace {

constexpr const char* help =
    R"(Usage: tessary-device [OPTION]...

Simulates one or many companion devices: announces them by multicast DNS, accepts the RTP-MIDI
sessions of any number of initiators and plays to each session from the moment that its clock
exchange has completed. Prints one line for each event. SIGTERM or SIGINT ends it: it says BY to
every session and withdraws its announcements.

Who it is
  --name NAME           name of the device (default "Tessary Device")
  --marker-name NAME    name of its marker service (default: as the device)
  --address A.B.C.D     address to announce and to listen on (default: the machine's first that is
                        not the loopback). Repeat it for a device on several links: each interface
                        then announces the address in its own subnet
  --port P              control port; the data port is the next one (default 5004)
  --count N             N devices, named NAME 1 to NAME N, at N consecutive addresses from
                        --address on, which the machine must have
  --no-marker           announce _apple-midi._udp, but not the marker service _tessarylink._tcp
  --no-announce         announce nothing

What it plays
  --play TUNE           scale, chords, sweep, sysex, mixed or nothing (default scale). Each message
                        follows from its number, see Player.h
  --rate R              messages a second, up to 100000 (default 4)
  --per-datagram N      messages in one datagram (default 1; chords: whole chords of 3)
  --messages N          stop playing after N messages to a session (default 0: never)
  --sysex-size BYTES    length of a System Exclusive, F0 and F7 included (default 256); one above
                        1200 goes in segments
  --channel N           MIDI channel of what it plays, 1 to 16 (default 1)
  --clock               start clock exchanges too: after the data invitation and every 10 s
  --wait-for-clock      play nothing before such an exchange was answered (implies --clock)

How it misbehaves (SECONDS count from the start unless said otherwise; fractions are welcome)
  --reject PORT         reject the invitations to one port: control or data
  --silent              never answer anything
  --answer-delay MS     answer that many milliseconds late
  --wrong-token         accept invitations with a token that is not theirs
  --bye-after SECONDS   say BY on both ports when a session has run that long
  --open-after SECONDS  announce at once, but open the ports that late
  --close-after SECONDS    close the ports, without a word
  --withdraw-after SECONDS withdraw the announcement (goodbye) and go on otherwise
  --garbage R           send R random datagrams a second to the data port of each session
  --other-ssrc          use different SSRCs on the control and the data port

  --help                print this

Examples
  tessary-device
        a device that plays a scale to whoever connects
  tessary-device --rate 1000 --messages 5000 --wait-for-clock
        5000 notes in 5 seconds; the velocities 1 to 127, over and over, show each loss
  tessary-device --address 127.0.0.10 --count 64 --play chords
        64 devices on the loopback network
  tessary-device --play sysex --sysex-size 20000 --rate 2
        long System Exclusive in segments
  tessary-device --open-after 3 --bye-after 10
        a device whose port opens late and that hangs up after 10 seconds
)";

/// What is wrong with the command line, for the person who wrote it.
struct UsageError : std::runtime_error {
    using runtime_error::runtime_error;
};

struct CommandLine {
    DeviceOptions device;
    std::optional<std::string> markerName;
    bool marker = true;
    std::uint64_t count = 1;
    bool help = false;
};

template <typename Number>
Number numberFrom(const std::string& option, const std::string& value, Number least, Number most) {
    Number number{};
    const char* end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc{} || stop != end || !(number >= least && number <= most))
        throw UsageError(option + ": \"" + value + "\" is no number from " +
                         (std::ostringstream() << std::setprecision(9) << least << " to " << most).str());
    return number;
}

/// At most three years: far more, and the clock's type would have no room.
Seconds secondsFrom(const std::string& option, const std::string& value) {
    return Seconds(numberFrom(option, value, 0.0, 1e8));
}

std::string nameFrom(const std::string& option, const std::string& value) {
    if (value.empty() || value.size() > 63 || !isUTF8(value))
        throw UsageError(option + ": a name has 1 to 63 bytes of UTF-8");
    return value;
}

std::uint32_t numberOf(const IPv4Host& host) {
    std::uint32_t number = 0;
    for (const std::uint8_t byte : host.bytes)
        number = number << 8 | byte;
    return number;
}

IPv4Host hostOf(std::uint32_t number) {
    IPv4Host host;
    for (std::size_t i = 0; i < 4; ++i)
        host.bytes[i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
    return host;
}

IPv4Host firstOwnAddress() {
    IPv4Host result{{127, 0, 0, 1}};
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) return result;
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || (entry->ifa_flags & IFF_LOOPBACK))
            continue;
        result = hostOf(ntohl(reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr.s_addr));
        break;
    }
    freeifaddrs(interfaces);
    return result;
}

CommandLine parse(const std::vector<std::string>& arguments) {
    CommandLine result;
    DeviceOptions& device = result.device;
    using Text = const std::string&;
    const std::map<std::string, std::function<void()>> switches{
        {"--help", [&] { result.help = true; }},
        {"--no-marker", [&] { result.marker = false; }},
        {"--no-announce", [&] { device.announces = false; }},
        {"--clock", [&] { device.startsClock = true; }},
        {"--wait-for-clock", [&] { device.startsClock = device.waitsForClock = true; }},
        {"--silent", [&] { device.silent = true; }},
        {"--wrong-token", [&] { device.wrongToken = true; }},
        {"--other-ssrc", [&] { device.otherSSRC = true; }},
    };
    const std::map<std::string, std::function<void(Text, Text)>> settings{
        {"--name", [&](Text option, Text value) { device.name = nameFrom(option, value); }},
        {"--marker-name", [&](Text option, Text value) { result.markerName = nameFrom(option, value); }},
        {"--address",
         [&](Text option, Text value) {
             const auto host = IPv4Host::parse(value);
             if (!host) throw UsageError(option + ": \"" + value + "\" is no IPv4 address");
             device.addresses.push_back(*host);
         }},
        {"--port",
         [&](Text option, Text value) {
             device.controlPort = numberFrom<std::uint16_t>(option, value, 1, 65534);
         }},
        {"--count",
         [&](Text option, Text value) { result.count = numberFrom<std::uint64_t>(option, value, 1, 4096); }},
        {"--play",
         [&](Text option, Text value) {
             const auto play = playNamed(value);
             if (!play)
                 throw UsageError(option + ": \"" + value +
                                  "\" is none of scale, chords, sweep, sysex, mixed, nothing");
             device.play = *play;
         }},
        {"--rate",
         [&](Text option, Text value) { device.rate = numberFrom(option, value, 0.001, 100'000.0); }},
        {"--per-datagram",
         [&](Text option, Text value) {
             device.messagesPerDatagram = numberFrom<std::size_t>(option, value, 1, 1000);
         }},
        {"--messages",
         [&](Text option, Text value) {
             device.messages = numberFrom<std::uint64_t>(option, value, 0, 1'000'000'000'000);
         }},
        {"--channel",
         [&](Text option, Text value) {
             device.channel = static_cast<std::uint8_t>(numberFrom(option, value, 1, 16));
         }},
        {"--sysex-size",
         [&](Text option, Text value) {
             device.sysexSize = numberFrom<std::size_t>(option, value, smallestSysex, 1'000'000);
         }},
        {"--reject",
         [&](Text option, Text value) {
             if (value != "control" && value != "data")
                 throw UsageError(option + ": \"" + value + "\" is none of control, data");
             device.rejects = value == "control" ? Port::control : Port::data;
         }},
        {"--answer-delay",
         [&](Text option, Text value) {
             device.answerDelay = std::chrono::milliseconds(numberFrom(option, value, 0, 3'600'000));
         }},
        {"--bye-after", [&](Text option, Text value) { device.byeAfter = secondsFrom(option, value); }},
        {"--open-after", [&](Text option, Text value) { device.openAfter = secondsFrom(option, value); }},
        {"--close-after", [&](Text option, Text value) { device.closeAfter = secondsFrom(option, value); }},
        {"--withdraw-after",
         [&](Text option, Text value) { device.withdrawAfter = secondsFrom(option, value); }},
        {"--garbage",
         [&](Text option, Text value) { device.garbageRate = numberFrom(option, value, 0.0, 100'000.0); }},
    };

    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        const std::string option = argument->substr(0, argument->find('='));
        const bool joined = option.size() < argument->size();
        if (const auto found = switches.find(option); found != switches.end()) {
            if (joined) throw UsageError(option + " takes no value");
            found->second();
        } else if (const auto setting = settings.find(option); setting != settings.end()) {
            if (!joined && ++argument == arguments.end()) throw UsageError(option + " needs a value");
            setting->second(option, joined ? argument->substr(option.size() + 1) : *argument);
        } else {
            throw UsageError("there is no option " + *argument);
        }
    }
    return result;
}

/// The devices that the command line asks for.
std::vector<DeviceOptions> devicesOf(CommandLine line) {
    DeviceOptions& common = line.device;
    if (common.addresses.empty()) common.addresses.push_back(firstOwnAddress());
    if (line.count > 1 && common.addresses.size() > 1)
        throw UsageError("--count goes with one --address only");
    if (common.play == Play::chords) // whole chords
        common.messagesPerDatagram =
            (common.messagesPerDatagram + notesPerChord - 1) / notesPerChord * notesPerChord;

    std::vector<DeviceOptions> devices;
    const std::uint32_t first = numberOf(common.addresses.front());
    for (std::uint32_t i = 0; i < line.count; ++i) {
        DeviceOptions device = common;
        std::string suffix;
        if (line.count > 1) suffix.append(" ").append(std::to_string(i + 1));
        device.name = nameFrom("--name", common.name + suffix);
        if (line.marker)
            device.markerName =
                line.markerName ? nameFrom("--marker-name", *line.markerName + suffix) : device.name;
        if (line.count > 1) device.addresses = {hostOf(first + i)};
        devices.push_back(device);
    }
    return devices;
}

void run(const std::vector<DeviceOptions>& wanted) {
    asio::io_context context(1);
    std::vector<std::unique_ptr<Device>> devices;
    {
        Announcer announcer;
        asio::signal_set signals(context, SIGINT, SIGTERM, SIGHUP);
        signals.async_wait([&](std::error_code, int) { context.stop(); });
        for (const DeviceOptions& options : wanted) {
            devices.push_back(std::make_unique<Device>(context, announcer, options));
            devices.back()->start();
        }
        context.run();
        for (const auto& device : devices)
            device->sayBye();
    }
    for (const auto& device : devices)
        device->printTotals();
}

} // namespace

} // namespace tessary::device

int main(int argc, char** argv) {
    using namespace tessary::device;
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const CommandLine line = parse({argv + 1, argv + argc});
        if (line.help) {
            std::fputs(help, stdout);
            return 0;
        }
        run(devicesOf(line));
        return 0;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "tessary-device: %s (--help explains)\n",
                     tessary::escapedControls(error.what()).c_str());
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessary-device: %s\n", tessary::escapedControls(error.what()).c_str());
        return 1;
    }
}
