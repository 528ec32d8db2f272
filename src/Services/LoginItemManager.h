// The switch "Start at Login".
#pragma once

#include "Models/Published.h"
#include "Platform/Platform.h"

#include <optional>
#include <string>

namespace tessary {

/// Stores nothing itself: the login service is the only source of truth.
///
/// Observable. Runs on: the main thread.
class LoginItemManager {
  public:
    explicit LoginItemManager(const Platform& platform);

    LoginItemManager(const LoginItemManager&) = delete;
    LoginItemManager& operator=(const LoginItemManager&) = delete;
    ~LoginItemManager() = default;

    /// Passes this to the login service, whatever it reports now, and refreshes. Errors: `lastError` and a
    /// line.
    void setEnabled(bool enabled);

    /// Reads the login service's status: others may have changed it.
    void refresh();

    Published<bool> isEnabled;
    Published<std::optional<std::string>> lastError; ///< why the last change failed; absent if it did not

  private:
    const Platform platform_;
};

} // namespace tessary
