// The application object and its event loop, on Qt.
#pragma once

#include "Platform/Application.h"

#include <functional>
#include <memory>

namespace tessary {

/// A program without a window: its presence is a status item. The first object of the main thread: it takes
/// the signals that end the program before any other thread exists. Works without a display too.
class QtApplication : public Application {
  public:
    explicit QtApplication(char* programName);
    QtApplication(const QtApplication&) = delete;
    QtApplication& operator=(const QtApplication&) = delete;
    ~QtApplication() override;

    /// Runs the event loop until `terminate`, SIGTERM, SIGINT, SIGHUP (unless the starter had that one
    /// ignored) or the end of the desktop session.
    ///
    /// @param didFinishLaunching  called once from the loop
    /// @param willTerminate       called once after the loop, before this returns 0; from then on the process
    ///                            has three seconds to end by itself
    int run(std::function<void()> didFinishLaunching, std::function<void()> willTerminate);

    void terminate() override;

    /// The process is ending although the loop has not: Qt calls `exit` when the display server dies. Does
    /// what has to be done before the end, and ends the process at once, because other threads still use what
    /// `exit` is about to destroy. Does nothing when the loop was left properly.
    void processIsExiting();

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
    std::function<void()> willTerminate_; ///< while the loop runs
};

} // namespace tessary
