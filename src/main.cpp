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
#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace tessary {

namespace {

QtApplication* app = nullptr;

/// Every music program sees the ALSA sequencer's ports, and bridges show them to JACK's programs too. Only
/// one of the two, or each device would play twice.
std::unique_ptr<MIDIOutput> makeMIDIOutput(Log& log) {
    if (AlsaOutput::isAvailable()) return std::make_unique<AlsaOutput>(log);
    return std::make_unique<JackOutput>(log);
}

int runApplication(char* programName) {
    // Output that leads nowhere, or to a full file, is no reason to stop playing.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    raiseOpenFileLimit();
    const std::string preferencesPath = JSONPreferences::defaultPath();
    const InstanceLock lock(
        InstanceLock::defaultFolders(std::filesystem::path(preferencesPath).parent_path()));
    if (lock.isHeldElsewhere()) {
        StandardOutputLog(STDOUT_FILENO).line("Tessary Link is already running");
        return 0;
    }

    static EventLoop& mainLoop =
        *new EventLoop; // never destroyed: a thread that asks a silent display may be left
    // Takes the signals, so it comes before every thread of ours.
    auto application = std::make_unique<QtApplication>(mainLoop, programName);
    StandardOutputLog log(STDOUT_FILENO);
    LoopQueue mainQueue(mainLoop, TimerAlignment::wholeSeconds);
    EpollNetwork network({RTPMIDISession::controlLocalPort, RTPMIDISession::dataLocalPort},
                         Scheduling::realTime);
    DiscoveryClient serviceDiscovery(mainLoop, mainQueue, log, DiscoveryClient::defaultExecutable());
    const std::unique_ptr<MIDIOutput> midiOutput = makeMIDIOutput(log);
    JSONPreferences preferences(preferencesPath);
    QtStatusBar statusBar;
    std::error_code ignored; // without /proc there is no path, and registering reports that
    AutostartEntry loginService(std::filesystem::read_symlink("/proc/self/exe", ignored));
    const SystemClock clock;
    SystemRandom random;
    const QtText text;

    app = application.get();
    auto delegate = std::make_shared<AppDelegate>(Platform{*application, mainQueue, network, serviceDiscovery,
                                                           *midiOutput, preferences, statusBar, loginService,
                                                           clock, random, text, log});
    std::atexit([] {
        if (app) app->processIsExiting();
    });

    delegate->applicationDidFinishLaunching();
    const std::vector<Observation> menuContent =
        delegate->observeMenuContent([&] { statusBar.menuContentDidChange(); });
    const int status = application->run(
        {.displayAnswered = [&] { statusBar.displayAnswered(); },
         .displayIsSilent =
             [&] { log.line("[StatusItem] the display does not answer; the icon appears once it does"); },
         .willTerminate =
             [&] {
                 delegate->applicationWillTerminate();
                 network.stop(); // nothing arrives any more while the rest comes down
             }});
    delegate.reset();
    app = nullptr;
    // Qt's own end would read all fonts, and wait for a bus that does not answer.
    if (!isSanitized) static_cast<void>(application.release());
    return status;
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
    if (const auto status = tessary::answerArgument(argv[0] ? argv[1] : nullptr)) return *status;
    try {
        const int status = tessary::runApplication(argv[0]);
        if (!tessary::isSanitized) _exit(status);
        return status;
    } catch (const std::exception& error) { // limits on threads, files or memory
        std::fprintf(stderr, "tessary-link: cannot run: %s\n", error.what());
        std::_Exit(EXIT_FAILURE);
    }
}
