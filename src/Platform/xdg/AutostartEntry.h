// Start at login as desktops do it: a desktop entry in the user's autostart folder.
#pragma once

#include "Platform/LoginService.h"

#include <filesystem>
#include <vector>

namespace tessary {

/// The entry `tessary-link.desktop` (freedesktop.org: Desktop Entry, Autostart). The
/// user's file overrides a system-wide one of the same name whole. It is replaced at once, so that at every
/// moment it is the old one or the new one, and all that a user has put into it stays.
///
/// A file that is no desktop entry is set aside under another name at the next change: some desktops start
/// what they can make out in such a file, so it can neither be edited safely nor left in place.
class AutostartEntry : public LoginService {
  public:
    struct Folders {
        std::filesystem::path user;                 ///< made if need be
        std::vector<std::filesystem::path> systems; ///< the more important ones first
    };

    /// @param executable  the program to start, an absolute path
    explicit AutostartEntry(std::filesystem::path executable, const Folders& folders = defaultFolders());

    /// `autostart` in `$XDG_CONFIG_HOME` and in each of `$XDG_CONFIG_DIRS`, by default in `~/.config` and
    /// `/etc/xdg` (XDG Base Directory).
    static Folders defaultFolders();

    /// Makes the entry start the program; where it already does, through a command line of the user's own,
    /// that command line stays.
    std::optional<LoginServiceError> registerProgram() override;

    /// Removes the file, or hides the entry if the file holds more than this class writes or if a system-wide
    /// entry would come to light.
    std::optional<LoginServiceError> unregisterProgram() override;

    /// Enabled if the file that counts is an entry that is not hidden, not switched off, and names a program
    /// that is there.
    LoginServiceStatus status() const override;

  private:
    bool isStartedBySystem() const;

    const std::filesystem::path executable_;
    const std::filesystem::path file_;
    std::vector<std::filesystem::path> systemFiles_;
};

} // namespace tessary
