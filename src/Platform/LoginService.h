// What the services need from the machine: starting the program at login.
#pragma once

#include <optional>
#include <string>

namespace tessary {

struct LoginServiceError {
    std::string message;     ///< the reason, one short phrase in the user's language
    std::string description; ///< what was tried, on what, and the reason
};

/// Other values than `enabled` all mean that the program will not start.
enum class LoginServiceStatus : int { notRegistered = 0, enabled = 1 };

/// Runs on: the main thread; waits for the file system.
class LoginService {
  public:
    virtual ~LoginService() = default;

    /// Has the running program started at each login of its user. Absent on success.
    virtual std::optional<LoginServiceError> registerProgram() = 0;

    /// Has it started at login no more. Absent on success, also if it was not registered.
    virtual std::optional<LoginServiceError> unregisterProgram() = 0;

    /// What the next login would do, read afresh each time: others may change it too.
    virtual LoginServiceStatus status() const = 0;
};

} // namespace tessary
