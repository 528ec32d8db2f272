#include "Platform/qt/QtApplication.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <array>
#include <csignal>
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

} // namespace

struct QtApplication::Parts {
    explicit Parts(char* programName)
        : arguments{programName, nullptr}
        , application(argumentCount, arguments.data())
        , notifier(signals.file(), QSocketNotifier::Read) {
        QObject::connect(&notifier, &QSocketNotifier::activated, &application, &QCoreApplication::quit);
    }

    TerminationSignals signals;
    int argumentCount = 1; // the program has no options, not even Qt's
    std::array<char*, 2> arguments;
    QCoreApplication application;
    QSocketNotifier notifier;
};

QtApplication::QtApplication(char* programName)
    : parts_(std::make_unique<Parts>(programName)) {
    signal(SIGPIPE, SIG_IGN); // a reader of our output that leaves is no reason to stop playing
}

QtApplication::~QtApplication() = default;

int QtApplication::run(std::function<void()> didFinishLaunching, const std::function<void()>& willTerminate) {
    QMetaObject::invokeMethod(&parts_->application, std::move(didFinishLaunching), Qt::QueuedConnection);
    const int status = QCoreApplication::exec();
    willTerminate();
    return status;
}

} // namespace tessary
