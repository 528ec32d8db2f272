// Builds the platform and runs the application: the only place that chooses implementations.

#include "AppDelegate.h"
#include "Models/UTF8.h"
#include "Platform/alsa/AlsaOutput.h"
#include "Platform/discovery/DiscoveryClient.h"
#include "Platform/jack/JackOutput.h"
#include "Platform/network/EpollNetwork.h"
#include "Platform/network/LoopQueue.h"
#include "Platform/qt/JSONPreferences.h"
#include "Platform/qt/QtApplication.h"
#include "Platform/qt/QtStatusBar.h"
#include "Platform/qt/QtText.h"
#include "Platform/system/InstanceLock.h"
#include "Platform/system/OpenFileLimit.h"
#include "Platform/system/Sanitizers.h"
#include "Platform/system/StandardOutputLog.h"
#include "Platform/system/SystemClock.h"
#include "Platform/system/SystemRandom.h"
#include "Platform/xdg/AutostartEntry.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace tessary {

namespace {

/// Ends in order what devices, other programs and the user notice.
std::function<void()> endInOrder;

/// The one end of a running program. No destructors or exit handlers follow, because Qt's may wait for a bus
/// that does not answer.
[[noreturn]] void endProcess(int status) {
    std::exchange(endInOrder, nullptr)();
    _exit(status);
}

/// Every music program sees the ALSA sequencer's ports, and bridges show them to JACK's programs too. Only
/// one of the two, or each device would play twice.
std::unique_ptr<MIDIOutput> makeMIDIOutput(Log& log) {
    if (AlsaOutput::isAvailable()) return std::make_unique<AlsaOutput>(log);
    return std::make_unique<JackOutput>(log);
}

/// Opens /dev/null for each standard stream that is closed. Otherwise the next file that the program opens
/// would take its place, and the log would be written into that file.
void openStandardStreams() {
    int file = 0;
    do
        file = open("/dev/null", O_RDWR);
    while (file >= 0 && file <= STDERR_FILENO);
    if (file >= 0) close(file);
}

void runApplication(char* programName) {
    // Output that leads nowhere, or to a full file, is no reason to stop playing.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    raiseOpenFileLimit();
    EventLoop mainLoop;
    QtApplication application(mainLoop, programName); // blocks the signals, so it comes before all threads
    const std::string preferencesPath = JSONPreferences::defaultPath();
    InstanceLock lock(InstanceLock::defaultFolders(std::filesystem::path(preferencesPath).parent_path()));
    if (lock.isHeldElsewhere()) {
        StandardOutputLog(STDOUT_FILENO).line("Tessary Link is already running");
        return;
    }

    StandardOutputLog log(STDOUT_FILENO);
    LoopQueue mainQueue(mainLoop, TimerAlignment::wholeSeconds);
    EpollNetwork network({RTPMIDISession::controlLocalPort, RTPMIDISession::dataLocalPort},
                         Scheduling::realTime);
    DiscoveryClient serviceDiscovery(mainLoop, mainQueue, log, DiscoveryClient::defaultExecutable());
    std::unique_ptr<MIDIOutput> midiOutput = makeMIDIOutput(log);
    JSONPreferences preferences(preferencesPath);
    QtStatusBar statusBar(log);
    std::error_code ignored; // without /proc there is no path, and registering reports that
    AutostartEntry loginService(std::filesystem::read_symlink("/proc/self/exe", ignored));
    const SystemClock clock;
    SystemRandom random;
    const QtText text;

    const auto delegate = std::make_shared<AppDelegate>(
        Platform{application, mainQueue, network, serviceDiscovery, *midiOutput, preferences, statusBar,
                 loginService, clock, random, text, log});
    endInOrder = [&] {
        delegate->applicationWillTerminate(); // BY on every session
        network.stop();
        midiOutput.reset();
        log.flush();
        lock.release();
    };

    delegate->applicationDidFinishLaunching();
    const std::vector<Observation> menuContent =
        delegate->observeMenuContent([&] { statusBar.menuContentDidChange(); });
    application.run({.processIsExiting =
                         [] {
                             if (endInOrder) endProcess(EXIT_FAILURE);
                         },
                     .displayAnswered = [&] { statusBar.displayAnswered(); },
                     .displayIsSilent =
                         [&] {
                             log.line("[StatusItem] the display does not answer; the icon appears once it "
                                      "does");
                         }});
    if (!isSanitized) endProcess(EXIT_SUCCESS);
    // Under a sanitizer destructors do the rest, so that leaks show.
    endInOrder = nullptr;
    delegate->applicationWillTerminate();
    network.stop();
}

constexpr const char* help = R"(Usage: tessary-link [OPTION]

Publishes the MIDI of every Tessary device on the local network. Its menu is in the panel.

  --help     print this and exit
  --version  print the version and exit
)";

/// Answers the first argument and returns the exit status. Absent without arguments: the program shall run.
std::optional<int> answerArgument(const char* argument) {
    if (!argument) return std::nullopt;
    const std::string_view option = argument;
    if (option == "--help") return std::fputs(help, stdout), EXIT_SUCCESS;
    if (option == "--version") return std::puts("tessary-link " TESSARY_VERSION), EXIT_SUCCESS;
    std::fprintf(stderr, "tessary-link: unexpected argument \"%s\" (--help explains)\n",
                 escapedControls(option).c_str());
    return 2;
}

} // namespace

} // namespace tessary

int main(int, char** argv) {
    tessary::openStandardStreams();
    if (const auto status = tessary::answerArgument(argv[0] ? argv[1] : nullptr)) return *status;
    try {
        tessary::runApplication(argv[0]);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) { // limits on threads, files or memory
        std::fprintf(stderr, "tessary-link: cannot run: %s\n", error.what());
        std::_Exit(EXIT_FAILURE);
    }
}
