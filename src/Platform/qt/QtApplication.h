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
        /// An exit handler: Qt calls `exit` when the display server dies.
        void (*processIsExiting)();
        /// Qt objects can be created from now on. Called once; never if the display server does not answer.
        std::function<void()> displayAnswered;
        /// The display server has not answered for ten seconds.
        std::function<void()> displayIsSilent;
    };

    /// @param loop  the main thread's
    QtApplication(EventLoop& loop, char* programName);
    QtApplication(const QtApplication&) = delete;
    QtApplication& operator=(const QtApplication&) = delete;
    ~QtApplication() override;

    /// Runs the loop until `terminate`, SIGTERM, SIGINT, SIGHUP (unless it was ignored at the start) or the
    /// end of the desktop session. Does not return if Qt ends the process.
    void run(const Handlers& handlers);

    void terminate() override;

  private:
    class TerminationSignals;
    struct Qt;

    EventLoop& loop_;
    char* const programName_;
    const std::unique_ptr<TerminationSignals> signals_;
    bool isDisplayThere_ = false;
    bool isTerminating_ = false;
    std::unique_ptr<Qt> qt_;
};

} // namespace tessary
