// Start at login on a desktop: an entry in the user's autostart folder.
#pragma once

#include "Platform/LoginService.h"

#include <filesystem>
#include <vector>

namespace tessary {

/// The entry `tessary-link.desktop` (freedesktop.org: Desktop Entry, Autostart). The user's file overrides
/// system-wide files of the same name. It is replaced atomically, and keys that this class does not change
/// are kept.
class AutostartEntry : public LoginService {
  public:
    /// @param executable  the program to start, an absolute path
    /// @param folders     the autostart folders: the user's, which is created when needed, then the system's
    ///                    in descending order of precedence
    explicit AutostartEntry(std::filesystem::path executable,
                            const std::vector<std::filesystem::path>& folders = defaultFolders());

    /// `autostart` in the configuration folders of the XDG base directories.
    static std::vector<std::filesystem::path> defaultFolders();

    /// Makes the entry start the program. A command line that already does so is kept, with its options.
    /// Errors: the file cannot be read, parsed or written; it is then left unchanged.
    std::optional<LoginServiceError> registerProgram() override;

    /// Hides the entry: the file stays, and overrides system-wide ones. Errors: as for `registerProgram`.
    std::optional<LoginServiceError> unregisterProgram() override;

    /// Enabled if the effective file, the first that exists, is neither hidden nor disabled by a desktop's
    /// settings, and names a program that is installed.
    LoginServiceStatus status() const override;

  private:
    const std::filesystem::path executable_;
    /// The user's file, then the system's: the first that exists is effective.
    std::vector<std::filesystem::path> files_;
};

} // namespace tessary
