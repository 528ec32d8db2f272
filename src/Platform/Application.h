// What the services need from the machine: the end of the program.
#pragma once

namespace tessary {

class Application {
  public:
    virtual ~Application() = default;

    /// Ends the program in good order, soon after this call.
    ///
    /// Runs on: the main thread.
    virtual void terminate() = 0;
};

} // namespace tessary
