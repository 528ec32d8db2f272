#include "Platform/qt/QtApplication.h"

#include <QApplication>
#include <QSessionManager>
#include <QSocketNotifier>
#include <array>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

/// A file that becomes readable when the program is asked to end.
class TerminationSignals {
  public:
    TerminationSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        struct sigaction hangup {};
        sigaction(SIGHUP, nullptr, &hangup);
        if (hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP); // not under nohup
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        file_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
        if (file_ < 0)
            pthread_sigmask(SIG_UNBLOCK, &signals, nullptr); // then they end the program the hard way
    }
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;
    ~TerminationSignals() { close(file_); }

    int file() const { return file_; }

  private:
    int file_ = -1;
};

/// Where to show things: on the display that there is, else nowhere, which lets the program do its job all
/// the same. X11 comes first, because with it the program says goodbye even when the display server dies: on
/// a lost Wayland connection Qt ends the process at once. A user's own choice stays.
///
/// The look is Qt's plain one. A theme of the desktop would load its whole toolkit, 14 MB, for one menu that
/// most panels draw themselves; and GTK too ends the process at once when the display server dies.
void choosePlatform() {
    std::string platforms;
    if (!qEnvironmentVariableIsEmpty("DISPLAY")) platforms += "xcb;";
    if (!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) platforms += "wayland;";
    setenv("QT_QPA_PLATFORM", (platforms + "offscreen").c_str(), 0);
    setenv("XDG_CURRENT_DESKTOP", "X-Generic", 1);
    unsetenv("QT_QPA_PLATFORMTHEME");
}

/// Lets the process end in any case: what is still to be taken down may wait for others, as Qt does for its
/// D-Bus thread, and that one for a bus that does not answer.
void endSoon() {
    signal(SIGALRM, [](int) { _exit(EXIT_SUCCESS); });
    alarm(3);
}

} // namespace

struct QtApplication::Parts {
    explicit Parts(char* programName)
        : arguments{programName, nullptr}
        , application((choosePlatform(), argumentCount), arguments.data())
        , notifier(signals.file(), QSocketNotifier::Read) {
        QCoreApplication::setApplicationName(QStringLiteral("Tessary Link"));
        QApplication::setDesktopFileName(QStringLiteral("tessary-link"));
        QApplication::setQuitOnLastWindowClosed(false);
        QCoreApplication::setQuitLockEnabled(false);
        QObject::connect(&notifier, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
        // The next session starts the program exactly if its user wants it started at login.
        QObject::connect(
            &application, &QGuiApplication::saveStateRequest, &application,
            [](QSessionManager& session) { session.setRestartHint(QSessionManager::RestartNever); },
            Qt::DirectConnection);
    }

    TerminationSignals signals;
    int argumentCount = 1; // the program has no options, not even Qt's
    std::array<char*, 2> arguments;
    QApplication application;
    QSocketNotifier notifier;
};

QtApplication::QtApplication(char* programName)
    : parts_(std::make_unique<Parts>(programName)) {}

QtApplication::~QtApplication() = default;

int QtApplication::run(std::function<void()> didFinishLaunching, std::function<void()> willTerminate) {
    willTerminate_ = std::move(willTerminate);
    QMetaObject::invokeMethod(&parts_->application, std::move(didFinishLaunching), Qt::QueuedConnection);
    const int status = QCoreApplication::exec();
    std::exchange(willTerminate_, nullptr)();
    endSoon();
    return status;
}

void QtApplication::terminate() {
    QCoreApplication::quit();
}

void QtApplication::processIsExiting() {
    if (!willTerminate_) return;
    std::exchange(willTerminate_, nullptr)();
    _exit(EXIT_FAILURE);
}

} // namespace tessary
