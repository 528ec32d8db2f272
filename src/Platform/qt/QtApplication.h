// The application object on Qt, around the main thread's event loop.
#pragma once

#include "Platform/Application.h"
#include "Platform/network/EventLoop.h"

#include <functional>
#include <memory>

namespace tessary {

/// A program without a window: its presence is a status item. The first object of the main thread: it takes
/// the signals that end the program before any other thread exists. Works without a display too.
///
/// The main thread's work is served from the first moment on. Qt's own objects come once the display has
/// answered, and from then on Qt's loop serves the work.
class QtApplication : public Application {
  public:
    struct Handlers {
        /// Qt's objects can be made from now on. Called once, or never if the display does not answer.
        std::function<void()> displayAnswered;
        /// The display has not answered for ten seconds.
        std::function<void()> displayIsSilent;
        /// Called once after the loop; from then on the process has three seconds to end by itself.
        std::function<void()> willTerminate;
    };

    /// @param loop  the main thread's; outlives the process's last thread
    QtApplication(EventLoop& loop, char* programName);
    QtApplication(const QtApplication&) = delete;
    QtApplication& operator=(const QtApplication&) = delete;
    ~QtApplication() override;

    /// Runs the loop until `terminate`, SIGTERM, SIGINT, SIGHUP (unless the starter had that one ignored) or
    /// the end of the desktop session.
    int run(Handlers handlers);

    void terminate() override;

    /// The process is ending although the loop has not: Qt calls `exit` when the display server dies. Does
    /// what has to be done before the end, and ends the process at once, because other threads still use what
    /// `exit` is about to destroy. Does nothing when the loop was left properly.
    void processIsExiting();

  private:
    class TerminationSignals;
    struct Qt;

    EventLoop& loop_;
    char* const programName_;
    const std::unique_ptr<TerminationSignals> signals_;
    Handlers handlers_;
    bool isDisplayThere_ = false;
    bool isTerminating_ = false;
    std::unique_ptr<Qt> qt_;
};

} // namespace tessary
