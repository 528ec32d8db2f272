#include "Platform/xdg/AutostartEntry.h"

#include <algorithm>
#include <cerrno>
#include <glib.h>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace tessary {

namespace {

namespace fs = std::filesystem;

constexpr const char* group = G_KEY_FILE_DESKTOP_GROUP;
constexpr const char* hiddenKey = G_KEY_FILE_DESKTOP_KEY_HIDDEN;
constexpr const char* execKey = G_KEY_FILE_DESKTOP_KEY_EXEC;
constexpr const char* tryExecKey = G_KEY_FILE_DESKTOP_KEY_TRY_EXEC;
/// Several desktops disable an entry with this key instead of `Hidden`.
constexpr const char* enabledKey = "X-GNOME-Autostart-enabled";

LoginServiceError failure(const std::string& attempt, const fs::path& path, const std::string& reason) {
    return {reason, attempt + " " + path.string() + ": " + reason};
}

struct Unref {
    void operator()(GKeyFile* entry) const { g_key_file_unref(entry); }
};
using KeyFile = std::unique_ptr<GKeyFile, Unref>;

/// Leaves `entry` null if there is no file.
std::optional<LoginServiceError> load(const fs::path& path, KeyFile& entry) {
    std::error_code ignored; // reading then fails with the same error
    const fs::file_status file = fs::status(path, ignored);
    if (file.type() == fs::file_type::not_found) return std::nullopt;
    if (fs::is_fifo(file)) return failure("cannot read", path, "a pipe"); // opening would block
    KeyFile content(g_key_file_new());
    constexpr auto flags = GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
    g_autoptr(GError) error = nullptr;
    if (!g_key_file_load_from_file(content.get(), path.c_str(), flags, &error))
        return failure("cannot read", path, error->message);
    entry = std::move(content);
    return std::nullopt;
}

std::optional<LoginServiceError> save(GKeyFile& entry, const fs::path& path) {
    if (g_mkdir_with_parents(path.parent_path().c_str(), 0700) != 0)
        return failure("cannot make the folder", path.parent_path(), g_strerror(errno));
    std::error_code unresolved;
    const fs::path target = fs::canonical(path, unresolved); // so that a symbolic link is kept
    gsize size = 0;
    g_autofree gchar* bytes = g_key_file_to_data(&entry, &size, nullptr);
    g_autoptr(GError) error = nullptr;
    if (!g_file_set_contents_full((unresolved ? path : target).c_str(), bytes, static_cast<gssize>(size),
                                  G_FILE_SET_CONTENTS_CONSISTENT, 0644, &error))
        return failure("cannot write", path, error->message);
    return std::nullopt;
}

std::string text(GKeyFile& entry, const char* key) {
    g_autofree gchar* value = g_key_file_get_string(&entry, group, key, nullptr);
    return value ? value : "";
}

/// The path of the program; empty if it is not installed.
fs::path find(const std::string& program) {
    g_autofree gchar* path = g_find_program_in_path(program.c_str());
    return path ? path : "";
}

/// The arguments of the entry's command line; none if the program that it names is not installed.
std::vector<std::string> command(GKeyFile& entry) {
    g_auto(GStrv) words = nullptr;
    if (!g_shell_parse_argv(text(entry, execKey).c_str(), nullptr, &words, nullptr)) return {};
    if (find(words[0]).empty()) return {};
    return {words, words + g_strv_length(words)};
}

/// The `Exec` value that starts a program, quoted where Desktop Entry requires it.
std::string commandLine(const std::string& path) {
    std::string escaped;
    for (const char character : path) {
        if (std::string_view(R"("`$\)").find(character) != std::string_view::npos) escaped += '\\';
        if (character == '%') escaped += '%';
        escaped += character;
    }
    if (path.find_first_of(" \t\n\"'\\><~|&;$*?#()`") != std::string::npos) escaped = '"' + escaped + '"';
    // Some desktops search for the program before they replace "%%" by a percent sign.
    return path.find('%') == std::string::npos ? escaped : "env " + escaped;
}

bool isStarted(GKeyFile& entry) {
    const auto isSet = [&](const char* key) { return g_key_file_get_boolean(&entry, group, key, nullptr); };
    if (isSet(hiddenKey)) return false;
    if (g_key_file_has_key(&entry, group, enabledKey, nullptr) && !isSet(enabledKey)) return false;
    const std::string tryExec = text(entry, tryExecKey);
    return !command(entry).empty() && (tryExec.empty() || !find(tryExec).empty());
}

bool runs(GKeyFile& entry, const fs::path& executable) {
    const auto words = command(entry); // all of them, because of "env NAME=value program"
    return std::any_of(words.begin(), words.end(), [&](const std::string& word) {
        std::error_code ignored;
        return fs::equivalent(find(word), executable, ignored);
    });
}

/// Adds the keys that the entry lacks to start the program.
void complete(GKeyFile& entry, const fs::path& executable) {
    constexpr std::pair<const char*, const char*> constants[] = {
        {G_KEY_FILE_DESKTOP_KEY_TYPE, "Application"},
        {G_KEY_FILE_DESKTOP_KEY_NAME, "Tessary Link"},
        {G_KEY_FILE_DESKTOP_KEY_COMMENT, "Play music programs from Tessary devices on the local network"},
        {G_KEY_FILE_DESKTOP_KEY_ICON, "tessary-link"},
    };
    for (const auto& [key, value] : constants)
        if (!g_key_file_has_key(&entry, group, key, nullptr))
            g_key_file_set_string(&entry, group, key, value);
    if (runs(entry, executable)) return;
    g_key_file_set_string(&entry, group, execKey, commandLine(executable.string()).c_str());
    // With TryExec, desktops ignore the entry once the program is uninstalled.
    g_key_file_set_string(&entry, group, tryExecKey, executable.c_str());
}

} // namespace

AutostartEntry::AutostartEntry(fs::path executable, const std::vector<fs::path>& folders)
    : executable_(std::move(executable)) {
    for (const fs::path& folder : folders)
        files_.push_back(folder / "tessary-link.desktop");
}

std::vector<fs::path> AutostartEntry::defaultFolders() {
    std::vector<fs::path> folders{fs::path(g_get_user_config_dir()) / "autostart"};
    for (const gchar* const* folder = g_get_system_config_dirs(); *folder; ++folder)
        folders.push_back(fs::path(*folder) / "autostart");
    return folders;
}

std::optional<LoginServiceError> AutostartEntry::registerProgram() {
    if (executable_.empty()) return failure("cannot find", "/proc/self/exe", g_strerror(ENOENT));
    KeyFile entry;
    if (auto error = load(files_.front(), entry)) return error;
    if (!entry) entry.reset(g_key_file_new());
    complete(*entry, executable_);
    g_key_file_set_boolean(entry.get(), group, hiddenKey, FALSE);
    g_key_file_remove_key(entry.get(), group, enabledKey, nullptr);
    return save(*entry, files_.front());
}

std::optional<LoginServiceError> AutostartEntry::unregisterProgram() {
    KeyFile entry;
    if (auto error = load(files_.front(), entry)) return error;
    if (!entry && status() != LoginServiceStatus::enabled) return std::nullopt;
    if (!entry) entry.reset(g_key_file_new());
    g_key_file_set_boolean(entry.get(), group, hiddenKey, TRUE);
    return save(*entry, files_.front());
}

LoginServiceStatus AutostartEntry::status() const {
    for (const fs::path& file : files_) {
        KeyFile entry;
        const auto error = load(file, entry);
        if (entry && isStarted(*entry)) return LoginServiceStatus::enabled;
        if (entry || error) break;
    }
    return LoginServiceStatus::notRegistered;
}

} // namespace tessary
