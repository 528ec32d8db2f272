// The application object on Qt, around the main thread's event loop.
#pragma once

#include "Platform/Application.h"
#include "Platform/network/EventLoop.h"

#include <functional>
#include <memory>

namespace tessary {

/// An application without a window. Must be constructed before any other thread exists, because it blocks the
/// signals that end the program in all threads. Works without a display too.
///
/// `run` serves the main thread's event loop at once. When the display server has answered, it creates Qt's
/// application object, and Qt's event loop then serves ours.
class QtApplication : public Application {
  public:
    struct Handlers {
        /// Qt objects can be created from now on. Called once; never if the display server does not answer.
        std::function<void()> displayAnswered;
        /// The display server has not answered for ten seconds.
        std::function<void()> displayIsSilent;
        /// Called once after the loop has ended. Three seconds later the process is ended if it still runs.
        std::function<void()> willTerminate;
    };

    /// @param loop  the main thread's; must outlive the process's last thread
    QtApplication(EventLoop& loop, char* programName);
    QtApplication(const QtApplication&) = delete;
    QtApplication& operator=(const QtApplication&) = delete;
    ~QtApplication() override;

    /// Runs the loop until `terminate`, SIGTERM, SIGINT, SIGHUP (unless it was ignored at the start) or the
    /// end of the desktop session.
    int run(Handlers handlers);

    void terminate() override;

    /// To be called by an exit handler, because Qt calls `exit` when the display server dies. If the loop has
    /// not ended yet, calls `willTerminate` and ends the process at once, because other threads still use the
    /// objects that `exit` would destroy. Otherwise does nothing.
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
