// Start at login on a desktop: an entry in the user's autostart folder.
#pragma once

#include "Platform/LoginService.h"

#include <filesystem>
#include <vector>

namespace tessary {

/// The entry `tessary-link.desktop` (freedesktop.org: Desktop Entry, Autostart). The user's file overrides
/// system-wide ones of the same name. It is replaced atomically and keeps all that this class does not
/// change.
class AutostartEntry : public LoginService {
  public:
    /// @param executable  the program to start, an absolute path
    /// @param folders     where desktops look for entries: the user's folder, made if need be, then the
    ///                    system's, the more important ones first
    explicit AutostartEntry(std::filesystem::path executable,
                            const std::vector<std::filesystem::path>& folders = defaultFolders());

    /// `autostart` in the configuration folders of the XDG Base Directory specification.
    static std::vector<std::filesystem::path> defaultFolders();

    /// Makes the entry start the program. A command line that already does so stays, with its options.
    /// Errors: a file that cannot be read, parsed or written, which is left as it is.
    std::optional<LoginServiceError> registerProgram() override;

    /// Hides the entry: the file stays, and overrides system-wide ones. Errors: as for `registerProgram`.
    std::optional<LoginServiceError> unregisterProgram() override;

    /// Enabled if the file that counts is neither hidden nor disabled by a desktop's settings, and names a
    /// program that is installed.
    LoginServiceStatus status() const override;

  private:
    const std::filesystem::path executable_;
    std::vector<std::filesystem::path>
        files_; ///< the user's, then the system's: the first that exists counts
};

} // namespace tessary
