#include "Platform/xdg/AutostartEntry.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tessary;
namespace fs = std::filesystem;

namespace {

constexpr auto enabled = LoginServiceStatus::enabled;
constexpr auto notRegistered = LoginServiceStatus::notRegistered;

class AutostartEntryTest : public testing::Test {
  protected:
    AutostartEntryTest() {
        std::string name = (fs::temp_directory_path() / "tessary-autostart-XXXXXX").string();
        folder = fs::canonical(mkdtemp(name.data()));
        file = folder / "home" / "deep" / "autostart" / "tessary-link.desktop";
        program = makeProgram(folder / "bin" / "tessary-link");
    }
    ~AutostartEntryTest() override {
        umount2(folder.c_str(), MNT_DETACH);
        fs::permissions(file.parent_path(), fs::perms::owner_all, ignored);
        fs::remove_all(folder, ignored);
    }

    AutostartEntry entry() const { return entry(program); }
    AutostartEntry entry(const fs::path& executable) const {
        return AutostartEntry(executable,
                              {file.parent_path(), {folder / "etc" / "important", folder / "etc" / "xdg"}});
    }

    static void write(const fs::path& path, const std::string& text) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }
    void write(const std::string& text) const { write(file, text); }
    static std::string read(const fs::path& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    /// A program that says that it was started.
    static fs::path makeProgram(const fs::path& path) {
        write(path, "#!/bin/sh\necho >\"$STARTED\"\n");
        fs::permissions(path, fs::perms::all);
        return path;
    }
    std::string writtenFor(const fs::path& executable) const {
        return "[Desktop Entry]\nType=Application\nName=Tessary Link\n"
               "Comment=Play music programs from Tessary devices on the local network\n"
               "Icon=tessary-link\nExec=" +
               executable.string() + "\n";
    }
    std::size_t filesThere() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(file.parent_path()), {}));
    }
    static bool has(const char* tool) {
        return std::system(("command -v " + std::string(tool) + " >/dev/null").c_str()) == 0;
    }
    bool isValid() const {
        if (!has("desktop-file-validate")) return true;
        const std::string command =
            "out=$(desktop-file-validate '" + file.string() + "' 2>&1); [ -z \"$out\" ]";
        return std::system(command.c_str()) == 0;
    }

    /// A file system of its own for the test's folder, of which nobody else knows and which goes with the
    /// process.
    bool mountFileSystem(const char* options) const {
        return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("none", folder.c_str(), "tmpfs", 0, options) == 0;
    }
    void expectFailure(const std::optional<LoginServiceError>& error, int number,
                       const fs::path& path) const {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->message, std::generic_category().message(number));
        EXPECT_NE(error->description.find(path.string()), std::string::npos) << error->description;
        EXPECT_NE(error->description.find(error->message), std::string::npos) << error->description;
    }

    fs::path folder, file, program;
    std::error_code ignored;
};

} // namespace

TEST_F(AutostartEntryTest, RegistersAndLeavesNothingBehind) {
    AutostartEntry login = entry();
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);

    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(read(file), writtenFor(program));
    EXPECT_TRUE(isValid());
    EXPECT_EQ(filesThere(), 1);

    write(read(file) + "Hidden=true\nX-GNOME-Autostart-enabled=false\n"); // the desktop's settings
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(read(file), writtenFor(program));

    write(read(file) + "X-GNOME-Autostart-enabled=true\n");
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(filesThere(), 0);
}

TEST_F(AutostartEntryTest, ADesktopStartsAProgramOfAnyName) {
    const fs::path started = folder / "started";
    ASSERT_EQ(mkfifo(started.c_str(), 0600), 0);
    setenv("STARTED", started.c_str(), 1);
    pollfd news{.fd = open(started.c_str(), O_RDWR | O_NONBLOCK), .events = POLLIN, .revents = 0};
    for (const char* name : {"two words", "quote\"d", "apostrophe'", "dollar$HOME", "grave`id`",
                             "back\\slash", "100%u", "%%", "a;b&c|d", "~tilde*?#()<>", "ünïcode", "plain"}) {
        SCOPED_TRACE(name);
        const fs::path path = makeProgram(folder / "odd" / name / "tessary link");
        AutostartEntry login = entry(path);
        ASSERT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        EXPECT_TRUE(isValid()) << read(file);
        if (has("gio")) {
            EXPECT_EQ(std::system(("gio launch '" + file.string() + "'").c_str()), 0) << read(file);
            EXPECT_EQ(poll(&news, 1, 10'000), 1) << read(file);
            char byte = 0;
            EXPECT_EQ(::read(news.fd, &byte, 1), 1);
        }
        EXPECT_EQ(login.unregisterProgram(), std::nullopt);
        EXPECT_EQ(filesThere(), 0);
    }
    close(news.fd);
    unsetenv("STARTED");
}

TEST_F(AutostartEntryTest, ReadsAnEntryAsADesktopDoes) {
    const std::string path = program.string();
    const std::string start = "[Desktop Entry]\nType=Application\nName=x\n";
    fs::permissions(makeProgram(folder / "bin" / "not-executable"), fs::perms::owner_read);
    const std::pair<std::string, LoginServiceStatus> cases[] = {
        {start + "Exec=" + path, enabled},
        {start + "Exec=" + path + " --more %u", enabled},
        {start + "Exec=\"" + path + "\" more", enabled},
        {start + "Exec=sh -c 'tessary-link'", enabled}, // a name in PATH
        {start + "Exec=env A=b " + path, enabled},
        {start + "Exec=" + path + "\nHidden=false\nX-GNOME-Autostart-enabled=true", enabled},
        {start + "Exec=" + path + "\nX-GNOME-Autostart-enabled=maybe", enabled},
        {start + "Exec=" + path + "\nTryExec=sh", enabled},
        {start + "Exec=" + path + "\n[Other]\nHidden=true", enabled},
        {start + "Exec=" + path + "\nTryExec=/no/such/program", notRegistered},
        {start + "Exec=" + path + "\nHidden=true", notRegistered},
        {start + "Exec=" + path + "\nX-GNOME-Autostart-enabled=false", notRegistered},
        {start + "Exec=" + path + "-gone", notRegistered},
        {start + "Exec=no-such-program-anywhere", notRegistered},
        {start + "Exec=bin/tessary-link", notRegistered},
        {start + "Exec=\"" + path, notRegistered},
        {start + "Exec=" + (folder / "bin").string(), notRegistered},
        {start + "Exec=" + (folder / "bin" / "not-executable").string(), notRegistered},
        {start + "Exec=", notRegistered},
        {start, notRegistered},
        {"[Other]\nExec=" + path, notRegistered},
        {"Exec=" + path, notRegistered},
        {"", notRegistered},
    };
    const fs::path before = fs::current_path();
    fs::current_path(folder); // a desktop starts nothing from where it happens to be
    for (const auto& [text, expected] : cases) {
        write(text);
        EXPECT_EQ(entry().status(), expected) << text;
    }
    fs::current_path(before);
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    fs::remove(file);
    fs::create_symlink(folder / "pipe", file);
    EXPECT_EQ(entry().status(), notRegistered); // and does not wait for a writer
}

TEST_F(AutostartEntryTest, TheUsersFileOverridesASystemWideOne) {
    const fs::path system = folder / "etc" / "xdg" / file.filename();
    write(system, writtenFor(program));
    AutostartEntry login = entry();
    EXPECT_EQ(login.status(), enabled);

    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(read(file), writtenFor(program) + "Hidden=true\n");
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_TRUE(isValid());
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt); // a file of ours alone, but needed
    EXPECT_EQ(login.status(), notRegistered);

    // The more important of the system's folders counts, and once that hides the entry, ours need not.
    write(folder / "etc" / "important" / file.filename(), "[Desktop Entry]\nHidden=true\n");
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(read(system), writtenFor(program));
}

TEST_F(AutostartEntryTest, KeepsWhatAUserHasPutIntoTheFile) {
    const std::string theirs = "# my own\n\n[Desktop Entry]\nType=Application\n"
                               "Name=My synthesizer's ears\nName[de]=Ohren\nName[ja]=耳\n# slow machine\n"
                               "X-GNOME-Autostart-Delay=10\nExec=env QT_SCALE_FACTOR=2 " +
                               program.string() +
                               " %%x\nX-Spaces=  a \\s b\nComment=Mine\nIcon=mine\n\n"
                               "[Desktop Action quiet]\nName=Quiet\nExec=true\n\n# the end\n";
    write(theirs);
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    AutostartEntry login = entry();
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    const std::string off = read(file);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    const std::string on = read(file);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    // Line by line, so that it shows what is missing.
    std::istringstream lines(theirs);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("X-Spaces=")) line = "X-Spaces=a \\s b"; // blanks around "=" mean nothing
        EXPECT_NE(off.find(line + "\n"), std::string::npos) << line;
        EXPECT_NE(on.find(line + "\n"), std::string::npos) << line;
    }
    EXPECT_EQ(on.find("Hidden"), std::string::npos);

    // A command that starts nothing, or something else, is what the switch is there to mend.
    for (const char* stale : {"/gone/tessary-link --old", "/bin/true"}) {
        write("[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\nTryExec=/gone/tessary-link\nExec=" +
              std::string(stale) + "\n");
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        EXPECT_NE(read(file).find("Exec=" + program.string() + "\n"), std::string::npos);
        EXPECT_NE(read(file).find("X-Theirs=1\n"), std::string::npos);
    }

    // An option is the user's too.
    write(writtenFor(program.string() + " -platform wayland"));
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(read(file), writtenFor(program.string() + " -platform wayland") + "Hidden=true\n");

    // Our own file of another place is still ours alone, and removed.
    write(writtenFor("/opt/old/tessary-link"));
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(AutostartEntryTest, AFileThatIsNoEntryIsSetAsideAtTheNextChange) {
    AutostartEntry login = entry();
    write("keep me");
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(read(file.string() + ".unreadable"), "keep me");

    write("and me");
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(read(file.string() + ".unreadable-2"), "and me");
    EXPECT_EQ(filesThere(), 2);
}

TEST_F(AutostartEntryTest, ALinkStaysALink) {
    const fs::path dotfile = folder / "dotfiles" / "link.desktop";
    write(dotfile, writtenFor(program));
    fs::create_directories(file.parent_path());
    fs::create_symlink(dotfile, file);
    AutostartEntry login = entry();
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_EQ(read(dotfile), writtenFor(program) + "Hidden=true\n");
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_EQ(login.status(), enabled);

    // Unless it leads to what is no file.
    fs::remove(file);
    fs::create_symlink("/dev/null", file);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(AutostartEntryTest, AFolderThatCannotBeWrittenGivesTheErrorAndKeepsTheFile) {
    if (geteuid() == 0 && !mountFileSystem("size=1m")) GTEST_SKIP() << "no file system of our own";
    const std::string theirs = "[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\nExec=/gone\n";
    write(theirs);
    makeProgram(program);
    int number = EACCES;
    if (geteuid() == 0) {
        number = EROFS;
        ASSERT_EQ(mount("none", folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    } else {
        fs::permissions(file.parent_path(), fs::perms::owner_read | fs::perms::owner_exec);
    }
    AutostartEntry login = entry();
    expectFailure(login.registerProgram(), number, file);
    EXPECT_EQ(login.status(), notRegistered);
    expectFailure(login.unregisterProgram(), number, file);
    EXPECT_EQ(read(file), theirs);
}

TEST_F(AutostartEntryTest, AFullDiskGivesTheErrorAndKeepsTheFile) {
    if (geteuid() != 0 || !mountFileSystem("size=64k")) GTEST_SKIP() << "needs root, for a small file system";
    makeProgram(program);
    for (const std::string theirs :
         {"[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\nExec=/gone\n", "no entry"}) {
        write(theirs);
        {
            std::ofstream filler(folder / "filler");
            while (filler.put('x').flush()) {
            }
        }
        AutostartEntry login = entry();
        expectFailure(login.registerProgram(), ENOSPC, file);
        EXPECT_EQ(login.status(), notRegistered);
        EXPECT_EQ(read(file), theirs);
        EXPECT_EQ(filesThere(), 1);
        fs::remove(folder / "filler");
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        fs::remove(file);
    }
}

TEST_F(AutostartEntryTest, WhatIsInTheWayGivesTheError) {
    AutostartEntry login = entry();
    write(file.parent_path(), "a file where the folder should be");
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_NE(login.registerProgram(), std::nullopt);
    EXPECT_EQ(read(file.parent_path()), "a file where the folder should be");

    fs::remove(file.parent_path());
    fs::create_directories(file / "a folder where the file should be");
    EXPECT_EQ(login.status(), notRegistered);
    expectFailure(login.registerProgram(), EISDIR, file);
    expectFailure(login.unregisterProgram(), EISDIR, file);
    EXPECT_TRUE(fs::exists(file / "a folder where the file should be"));

    fs::remove_all(file);
    expectFailure(entry({}).registerProgram(), ENOENT, "/proc/self/exe"); // a program that cannot find itself
    EXPECT_EQ(filesThere(), 0);
}

TEST_F(AutostartEntryTest, FindsTheFoldersThroughTheEnvironment) {
    setenv("XDG_CONFIG_HOME", "/c", 1);
    setenv("XDG_CONFIG_DIRS", "/a:relative::/b", 1);
    AutostartEntry::Folders folders = AutostartEntry::defaultFolders();
    EXPECT_EQ(folders.user, "/c/autostart");
    EXPECT_EQ(folders.systems, (std::vector<fs::path>{"/a/autostart", "/b/autostart"}));

    setenv("XDG_CONFIG_HOME", "relative", 1);
    unsetenv("XDG_CONFIG_DIRS");
    folders = AutostartEntry::defaultFolders();
    EXPECT_TRUE(folders.user.is_absolute());
    EXPECT_TRUE(folders.user.string().ends_with("/.config/autostart"));
    EXPECT_EQ(folders.systems, std::vector<fs::path>{"/etc/xdg/autostart"});
    unsetenv("XDG_CONFIG_HOME");
}
