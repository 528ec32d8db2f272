#include "Platform/xdg/AutostartEntry.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

namespace fs = std::filesystem;

constexpr const char* fileName = "tessary-link.desktop";
constexpr const char* group = G_KEY_FILE_DESKTOP_GROUP;
constexpr const char* hiddenKey = G_KEY_FILE_DESKTOP_KEY_HIDDEN;
constexpr const char* execKey = G_KEY_FILE_DESKTOP_KEY_EXEC;
constexpr const char* tryExecKey = G_KEY_FILE_DESKTOP_KEY_TRY_EXEC;
/// How several desktops' settings switch an entry off without hiding it.
constexpr const char* switchKey = "X-GNOME-Autostart-enabled";

/// An entry is a few hundred bytes; what is larger by far is none.
constexpr off_t maxFileSize = off_t{1024} * 1024;

LoginServiceError failure(const std::string& attempt, const fs::path& path, int number) {
    const std::string reason = std::generic_category().message(number);
    return {reason, attempt + " " + path.string() + ": " + reason};
}

struct GFree {
    void operator()(void* memory) const { g_free(memory); }
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, GFree>;
using GText = std::unique_ptr<gchar, GFree>;

std::optional<std::string> text(GKeyFile& file, const char* key) {
    const GText value(g_key_file_get_string(&file, group, key, nullptr));
    return value ? std::optional<std::string>(value.get()) : std::nullopt;
}

std::string data(GKeyFile& file) {
    gsize length = 0;
    const GText bytes(g_key_file_to_data(&file, &length, nullptr));
    return {bytes.get(), length};
}

class FileDescriptor {
  public:
    explicit FileDescriptor(int number)
        : number_(number) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (number_ >= 0) ::close(number_);
    }
    int number() const { return number_; }

  private:
    const int number_;
};

// What is there

struct Content {
    enum class Kind { absent, entry, malformed, unreadable };
    Kind kind = Kind::absent;
    int error = 0; ///< of what is unreadable
    std::optional<mode_t> mode;
    std::string bytes;
    KeyFile entry;
};

Content parsed(std::string bytes) {
    Content content;
    content.kind = Content::Kind::malformed;
    content.entry.reset(g_key_file_new());
    constexpr auto all = GKeyFileFlags(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
    if (g_key_file_load_from_data(content.entry.get(), bytes.data(), bytes.size(), all, nullptr) &&
        g_key_file_has_group(content.entry.get(), group))
        content.kind = Content::Kind::entry;
    content.bytes = std::move(bytes);
    return content;
}

Content read(const fs::path& path) {
    Content content;
    const auto failed = [&](int number) {
        content.kind =
            number == ENOENT || number == ENOTDIR ? Content::Kind::absent : Content::Kind::unreadable;
        content.error = number;
        return std::move(content);
    };
    // A pipe would otherwise wait for its writer.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat about {};
    if (file.number() < 0 || fstat(file.number(), &about) != 0) return failed(errno);
    if (S_ISDIR(about.st_mode)) return failed(EISDIR);
    content.kind = Content::Kind::malformed;
    if (!S_ISREG(about.st_mode) || about.st_size > maxFileSize) return content;

    std::string bytes(static_cast<std::size_t>(about.st_size), '\0');
    const ssize_t length = ::read(file.number(), bytes.data(), bytes.size());
    if (length < 0) return failed(errno);
    bytes.resize(static_cast<std::size_t>(length));
    content = parsed(std::move(bytes));
    content.mode = about.st_mode & 0777;
    return content;
}

// Commands

/// The words of a command line, unquoted; absent if a quotation has no end.
std::optional<std::vector<std::string>> words(std::string_view line) {
    std::vector<std::string> all;
    bool isInWord = false;
    bool isQuoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        char character = line[i];
        if (!isQuoted && (character == ' ' || character == '\t' || character == '\n')) {
            isInWord = false;
            continue;
        }
        if (!std::exchange(isInWord, true)) all.emplace_back();
        if (character == '"') {
            isQuoted = !isQuoted;
            continue;
        }
        const bool isPair = i + 1 < line.size();
        if (isPair && ((isQuoted && character == '\\') || (character == '%' && line[i + 1] == '%')))
            character = line[++i];
        all.back() += character;
    }
    if (isQuoted) return std::nullopt;
    return all;
}

/// The command line that starts a program, its path quoted where it must be.
std::string commandLine(const std::string& path) {
    std::string escaped;
    for (const char character : path) {
        if (std::string_view(R"("`$\)").find(character) != std::string_view::npos) escaped += '\\';
        if (character == '%') escaped += '%';
        escaped += character;
    }
    if (path.find_first_of(" \t\n\"'\\><~|&;$*?#()`") != std::string::npos) escaped = '"' + escaped + '"';
    // Some desktops look for the program before they read "%%" as a percent sign.
    return path.find('%') == std::string::npos ? escaped : "env " + escaped;
}

/// The file that a word of a command line stands for; absent if there is none that can be run.
std::optional<fs::path> program(const std::string& word) {
    const fs::path path = word;
    if (path.is_relative() && path.has_parent_path()) return std::nullopt;
    const GText found(g_find_program_in_path(word.c_str()));
    return found ? std::optional<fs::path>(found.get()) : std::nullopt;
}

/// The command line's words if it can be run.
std::optional<std::vector<std::string>> command(GKeyFile& entry) {
    const auto line = text(entry, execKey);
    auto all = line ? words(*line) : std::nullopt;
    if (!all || all->empty() || !program(all->front())) return std::nullopt;
    return all;
}

bool isStarted(GKeyFile& entry) {
    if (g_key_file_get_boolean(&entry, group, hiddenKey, nullptr)) return false;
    GError* error = nullptr;
    const bool isOn = g_key_file_get_boolean(&entry, group, switchKey, &error) != 0;
    if (!isOn && !error) return false;
    g_clear_error(&error);
    const auto tryExec = text(entry, tryExecKey);
    return command(entry) && (!tryExec || program(*tryExec));
}

bool runs(GKeyFile& entry, const fs::path& executable) {
    const auto all = command(entry);
    if (!all) return false;
    for (const std::string& word : *all) { // "env NAME=value program" runs it too
        std::error_code ignored;
        const auto path = program(word);
        if (path && fs::equivalent(*path, executable, ignored)) return true;
    }
    return false;
}

/// What this class writes, and no more.
void complete(GKeyFile& entry) {
    constexpr std::pair<const char*, const char*> constants[] = {
        {G_KEY_FILE_DESKTOP_KEY_TYPE, "Application"},
        {G_KEY_FILE_DESKTOP_KEY_NAME, "Tessary Link"},
        {G_KEY_FILE_DESKTOP_KEY_COMMENT, "Play music programs from Tessary devices on the local network"},
        {G_KEY_FILE_DESKTOP_KEY_ICON, "tessary-link"},
    };
    for (const auto& [key, value] : constants)
        if (!g_key_file_has_key(&entry, group, key, nullptr))
            g_key_file_set_string(&entry, group, key, value);
}

void setCommand(GKeyFile& entry, const std::string& line) {
    g_key_file_set_string(&entry, group, execKey, line.c_str());
}

void removeSwitches(GKeyFile& entry) {
    g_key_file_remove_key(&entry, group, hiddenKey, nullptr);
    g_key_file_remove_key(&entry, group, switchKey, nullptr);
}

/// Whether the file is one that this class wrote, apart from what settings switch in it and from where the
/// program was then.
bool isOurs(const Content& content) {
    const Content stripped = parsed(content.bytes);
    removeSwitches(*stripped.entry);
    const std::string exec = text(*stripped.entry, execKey).value_or("");
    const auto all = words(exec);
    const KeyFile fresh(g_key_file_new());
    complete(*fresh);
    setCommand(*fresh, exec);
    return all && !all->empty() && exec == commandLine(all->back()) && data(*stripped.entry) == data(*fresh);
}

// Changes

/// Where a symbolic link leads, if to a file: that one is replaced, and the link stays.
fs::path target(const fs::path& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) return path;
    const fs::path real = fs::canonical(path, error);
    return error ? path : real;
}

/// Gives the file another name, one that no desktop reads; answers the error number.
int setAside(const fs::path& path) {
    std::string other = path.string() + ".unreadable";
    std::error_code ignored;
    for (int i = 2; fs::symlink_status(other, ignored).type() != fs::file_type::not_found; ++i)
        other = path.string() + ".unreadable-" + std::to_string(i);
    return rename(path.c_str(), other.c_str()) == 0 ? 0 : errno;
}

int writeAndSync(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(file, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) return errno;
        if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return fsync(file) == 0 ? 0 : errno;
}

/// Puts `entry` in the place of what was there.
std::optional<LoginServiceError> replace(const fs::path& link, const Content& old, GKeyFile& entry) {
    const fs::path path = target(link);
    const std::string bytes = data(entry);
    if (old.kind == Content::Kind::entry && old.bytes == bytes) return std::nullopt;
    if (g_mkdir_with_parents(path.parent_path().c_str(), 0700) != 0)
        return failure("cannot make the folder", path.parent_path(), errno);

    std::string temporary = path.string() + ".XXXXXX";
    const FileDescriptor file(g_mkstemp_full(temporary.data(), O_RDWR | O_CLOEXEC, 0644));
    if (file.number() < 0) return failure("cannot write", path, errno);
    int error = writeAndSync(file.number(), bytes);
    if (error == 0 && old.mode && fchmod(file.number(), *old.mode) != 0) error = errno;
    if (error == 0 && old.kind == Content::Kind::malformed) error = setAside(path);
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error == 0) return std::nullopt;
    unlink(temporary.c_str());
    return failure("cannot write", path, error);
}

/// The entry that is to be changed.
KeyFile entryOf(const Content& content) {
    return std::move(
        parsed(content.kind == Content::Kind::entry ? content.bytes : "[Desktop Entry]\n").entry);
}

fs::path folderFrom(const char* variable, const fs::path& otherwise) {
    const char* value = std::getenv(variable);
    return value && fs::path(value).is_absolute() ? fs::path(value) : otherwise;
}

} // namespace

AutostartEntry::AutostartEntry(std::filesystem::path executable, const Folders& folders)
    : executable_(std::move(executable))
    , file_(folders.user / fileName) {
    for (const fs::path& folder : folders.systems)
        systemFiles_.push_back(folder / fileName);
}

AutostartEntry::Folders AutostartEntry::defaultFolders() {
    Folders folders;
    folders.user = folderFrom("XDG_CONFIG_HOME", fs::path(g_get_home_dir()) / ".config") / "autostart";
    const char* value = std::getenv("XDG_CONFIG_DIRS");
    std::string_view rest = value && *value ? value : "/etc/xdg";
    while (!rest.empty()) {
        const auto end = std::min(rest.find(':'), rest.size());
        const fs::path folder = rest.substr(0, end);
        if (folder.is_absolute()) folders.systems.push_back(folder / "autostart");
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return folders;
}

std::optional<LoginServiceError> AutostartEntry::registerProgram() {
    const Content old = read(file_);
    if (old.kind == Content::Kind::unreadable) return failure("cannot read", file_, old.error);
    if (executable_.empty()) return failure("cannot find", "/proc/self/exe", ENOENT);
    if (!g_utf8_validate(executable_.c_str(), -1, nullptr))
        return failure("no desktop entry can name", executable_, EILSEQ);

    const KeyFile entry = entryOf(old);
    complete(*entry);
    removeSwitches(*entry);
    if (!runs(*entry, executable_)) setCommand(*entry, commandLine(executable_.string()));
    if (const auto tryExec = text(*entry, tryExecKey); tryExec && !program(*tryExec))
        g_key_file_remove_key(entry.get(), group, tryExecKey, nullptr);
    return replace(file_, old, *entry);
}

std::optional<LoginServiceError> AutostartEntry::unregisterProgram() {
    const Content old = read(file_);
    const bool isHiding = isStartedBySystem(); // what would come to light without the user's file
    switch (old.kind) {
    case Content::Kind::unreadable:
        return failure("cannot read", file_, old.error);
    case Content::Kind::absent:
        if (!isHiding) return std::nullopt;
        break;
    case Content::Kind::malformed:
        if (isHiding) break;
        if (const int error = setAside(target(file_)); error != 0)
            return failure("cannot rename", file_, error);
        return std::nullopt;
    case Content::Kind::entry:
        std::error_code ignored;
        if (isHiding || fs::is_symlink(file_, ignored) || !isOurs(old)) break;
        if (unlink(file_.c_str()) != 0) return failure("cannot remove", file_, errno);
        return std::nullopt;
    }

    const KeyFile entry = entryOf(old);
    if (old.kind != Content::Kind::entry) {
        complete(*entry);
        setCommand(*entry, commandLine(executable_.string()));
    }
    g_key_file_set_boolean(entry.get(), group, hiddenKey, 1);
    return replace(file_, old, *entry);
}

LoginServiceStatus AutostartEntry::status() const {
    const Content content = read(file_);
    const bool isEnabled = content.kind == Content::Kind::absent
                               ? isStartedBySystem()
                               : content.kind == Content::Kind::entry && isStarted(*content.entry);
    return isEnabled ? LoginServiceStatus::enabled : LoginServiceStatus::notRegistered;
}

bool AutostartEntry::isStartedBySystem() const {
    for (const fs::path& file : systemFiles_) {
        const Content content = read(file);
        if (content.kind != Content::Kind::absent)
            return content.kind == Content::Kind::entry && isStarted(*content.entry);
    }
    return false;
}

} // namespace tessary
