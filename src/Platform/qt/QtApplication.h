// The application object and its event loop, on Qt.
#pragma once

#include <functional>
#include <memory>

namespace tessary {

/// The first object of the main thread: it takes the signals that end the program before any other thread
/// exists.
class QtApplication {
  public:
    explicit QtApplication(char* programName);
    ~QtApplication();

    /// Runs the event loop until SIGTERM, SIGINT or SIGHUP (unless the starter had that one ignored).
    ///
    /// @param didFinishLaunching  called once from the loop
    /// @param willTerminate       called once after the loop, before this returns 0
    int run(std::function<void()> didFinishLaunching, const std::function<void()>& willTerminate);

  private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace tessary
