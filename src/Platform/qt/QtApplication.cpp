#include "Platform/qt/QtApplication.h"

#include "Platform/qt/Display.h"
#include "Platform/system/OpenFile.h"

#include <QApplication>
#include <QDBusConnection>
#include <QSessionManager>
#include <QSocketNotifier>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

constexpr auto displayTimeout = std::chrono::seconds(10);

/// Qt calls abort() if it cannot load a platform plugin, for example because the process has too many open
/// files. Calls exit() instead, which ends the sessions.
void exitOnFatalError(QtMsgType type, const QMessageLogContext& context, const QString& text) {
    std::fprintf(stderr, "%s\n", qFormatLogMessage(type, context, text).toLocal8Bit().constData());
    if (type == QtFatalMsg) std::exit(EXIT_FAILURE);
}

} // namespace

/// Ends the program on SIGTERM, SIGINT and SIGHUP.
class QtApplication::TerminationSignals final : private EventLoop::Reader {
  public:
    explicit TerminationSignals(QtApplication& application)
        : application_(application) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        struct sigaction hangup {};
        sigaction(SIGHUP, nullptr, &hangup);
        if (hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP); // ignored under nohup
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        file_ = OpenFile(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
        if (file_)
            application.loop_.watch(file_.file(), *this);
        else
            pthread_sigmask(SIG_UNBLOCK, &signals, nullptr); // their default action then ends the process
    }

  private:
    void readable() override {
        signalfd_siginfo signal{};
        if (read(file_.file(), &signal, sizeof signal) == sizeof signal) application_.terminate();
    }

    QtApplication& application_;
    OpenFile file_;
};

/// Qt's application object. Its event loop serves ours.
struct QtApplication::Qt {
    Qt(EventLoop& loop, char* programName)
        : arguments{programName, nullptr}
        , application(argumentCount, arguments.data())
        , notifier(loop.file(), QSocketNotifier::Read) {
        QCoreApplication::setApplicationName(QStringLiteral("Tessary Link"));
        QApplication::setDesktopFileName(QStringLiteral("tessary-link"));
        QApplication::setQuitOnLastWindowClosed(false);
        QCoreApplication::setQuitLockEnabled(false);
        QObject::connect(&notifier, &QSocketNotifier::activated, &application, [&loop] { loop.serveOne(0); });
        // The session manager must not restart the program: "Start at Login" alone decides.
        QObject::connect(
            &application, &QGuiApplication::saveStateRequest, &application,
            [](QSessionManager& session) { session.setRestartHint(QSessionManager::RestartNever); },
            ::Qt::DirectConnection);
    }

    int argumentCount = 1; // the program's name only: Qt's own options are disabled
    std::array<char*, 2> arguments;
    QApplication application;
    QSocketNotifier notifier;
};

QtApplication::QtApplication(EventLoop& loop, char* programName)
    : loop_(loop)
    , programName_(programName)
    , signals_(std::make_unique<TerminationSignals>(*this)) {}

QtApplication::~QtApplication() = default;

void QtApplication::run(const Handlers& handlers) {
    Display::ask(loop_, [this] { isDisplayThere_ = true; });
    const auto silence = loop_.at(EventLoop::Clock::now() + displayTimeout, handlers.displayIsSilent);
    while (!isDisplayThere_ && !isTerminating_)
        loop_.serveOne(-1);
    loop_.cancel(silence);
    if (isTerminating_) return;
    qInstallMessageHandler(exitOnFatalError);
    qt_ = std::make_unique<Qt>(loop_, programName_);
    // Exit handlers run in the reverse order, and the one that Qt registers with its first use of D-Bus waits
    // for a bus that may not answer. So that use comes before ours.
    static_cast<void>(QDBusConnection(QString()));
    std::atexit(handlers.processIsExiting);
    handlers.displayAnswered();
    QCoreApplication::exec();
}

void QtApplication::terminate() {
    isTerminating_ = true;
    if (qt_) QCoreApplication::quit();
}

} // namespace tessary
