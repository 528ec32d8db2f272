#include "Platform/xdg/AutostartEntry.h"

#include "support/TemporaryFolder.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace tessary;
using namespace tessary::test;
namespace fs = std::filesystem;

namespace {

constexpr auto enabled = LoginServiceStatus::enabled;
constexpr auto notRegistered = LoginServiceStatus::notRegistered;

/// The lines that every entry of a user's own has here, without a command.
const std::string entryOfUser = "[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\n";

bool has(const char* tool) {
    return std::system(("command -v " + std::string(tool) + " >/dev/null").c_str()) == 0;
}

class AutostartEntryTest : public testing::Test {
  protected:
    AutostartEntry entry() const { return entry(program); }
    AutostartEntry entry(const fs::path& executable) const {
        return AutostartEntry(executable, {file.parent_path(), {folder / "important", folder / "system"}});
    }
    /// A program that writes a line to the file that STARTED names.
    static fs::path makeProgram(const fs::path& path) {
        write(path, "#!/bin/sh\necho >\"$STARTED\"\n");
        fs::permissions(path, fs::perms::all);
        return path;
    }
    static std::string writtenFor(const std::string& command) {
        return "[Desktop Entry]\nType=Application\nName=Tessary Link\n"
               "Comment=Play music programs from Tessary devices on the local network\n"
               "Icon=tessary-link\nExec=" +
               command + "\n";
    }
    void expectValid() const {
        if (!has("desktop-file-validate")) return;
        const std::string command = "test -z \"$(desktop-file-validate '" + file.string() + "' 2>&1)\"";
        EXPECT_EQ(std::system(command.c_str()), 0) << read(file);
    }
    static void expectFailure(const std::optional<LoginServiceError>& error, int number,
                              const fs::path& path) {
        ASSERT_TRUE(error);
        EXPECT_EQ(error->message, std::generic_category().message(number));
        EXPECT_NE(error->description.find(path.string()), std::string::npos) << error->description;
        EXPECT_NE(error->description.find(error->message), std::string::npos) << error->description;
    }

    TemporaryFolder folder;
    const fs::path file = folder / "home/deep/autostart/tessary-link.desktop";
    const fs::path program = makeProgram(folder / "bin/tessary-link");
};

} // namespace

TEST_F(AutostartEntryTest, RegistersAndLeavesNothingBehind) {
    AutostartEntry login = entry();
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);

    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(read(file), writtenFor(program));
    expectValid();
    EXPECT_EQ(listed(file.parent_path()).size(), 1);

    // A desktop's settings switch the entry off, then on.
    write(file, read(file) + "Hidden=true\nX-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    write(file, read(file) + "X-GNOME-Autostart-enabled=true\n");
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_TRUE(listed(file.parent_path()).empty());
}

// A character of the path that is not quoted would make desktops start nothing, or another program.
TEST_F(AutostartEntryTest, ADesktopStartsAProgramOfAnyName) {
    const fs::path started = folder / "started";
    ASSERT_EQ(mkfifo(started.c_str(), 0600), 0);
    setenv("STARTED", started.c_str(), 1);
    pollfd line{.fd = open(started.c_str(), O_RDWR | O_NONBLOCK), .events = POLLIN, .revents = 0};
    for (const char* name : {"two words", "quote\"d", "apostrophe'", "dollar$HOME", "grave`id`",
                             "back\\slash", "100%u", "%%", "a;b&c|d", "~tilde*?#()<>", "ünïcode", "plain"}) {
        SCOPED_TRACE(name);
        AutostartEntry login = entry(makeProgram(folder / name / "tessary link"));
        ASSERT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        expectValid();
        if (has("gio")) {
            EXPECT_EQ(std::system(("gio launch '" + file.string() + "'").c_str()), 0) << read(file);
            EXPECT_EQ(poll(&line, 1, 10'000), 1) << read(file);
            char byte = 0;
            EXPECT_EQ(::read(line.fd, &byte, 1), 1);
        }
        EXPECT_EQ(login.unregisterProgram(), std::nullopt);
        EXPECT_FALSE(fs::exists(file));
    }
    close(line.fd);
    unsetenv("STARTED");
}

TEST_F(AutostartEntryTest, ReadsAnEntryAsADesktopDoes) {
    const std::string command = entryOfUser + "Exec=" + program.string();
    const std::pair<std::string, LoginServiceStatus> cases[] = {
        {command, enabled},
        {command + " --more %u", enabled},
        {entryOfUser + "Exec=\"" + program.string() + "\" more", enabled},
        {entryOfUser + "Exec=sh -c 'tessary-link'", enabled}, // a name in PATH
        {command + "\nHidden=false\nX-GNOME-Autostart-enabled=true", enabled},
        {command + "\nX-GNOME-Autostart-enabled=maybe", enabled},
        {command + "\n[Other]\nHidden=true", enabled},
        {command + "\nTryExec=/no/such/program", notRegistered},
        {command + "\nHidden=true", notRegistered},
        {command + "\nX-GNOME-Autostart-enabled=false", notRegistered},
        {command + "-gone", notRegistered},
        {entryOfUser + "Exec=no-such-program-anywhere", notRegistered},
        {entryOfUser + "Exec=bin/tessary-link", notRegistered},
        {entryOfUser + "Exec=\"" + program.string(), notRegistered},
        {entryOfUser, notRegistered},
        {"[Other]\nExec=" + program.string(), notRegistered},
    };
    const fs::path before = fs::current_path();
    fs::current_path(folder.path()); // where bin/tessary-link is
    for (const auto& [text, expected] : cases) {
        write(file, text);
        EXPECT_EQ(entry().status(), expected) << text;
    }
    fs::current_path(before);
}

TEST_F(AutostartEntryTest, TheUsersFileOverridesASystemWideOne) {
    const fs::path system = folder / "system" / file.filename();
    write(system, writtenFor(program));
    AutostartEntry login = entry();
    EXPECT_EQ(login.status(), enabled);
    for (int i = 0; i < 2; ++i) { // without a file of the user's, then with one
        EXPECT_EQ(login.unregisterProgram(), std::nullopt);
        EXPECT_EQ(login.status(), notRegistered);
        expectValid();
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
    }
    EXPECT_EQ(read(system), writtenFor(program));

    // The more important of the system's folders counts.
    fs::remove(file);
    write(folder / "important" / file.filename(), "[Desktop Entry]\nHidden=true\n");
    EXPECT_EQ(login.status(), notRegistered);
}

// A user's name, translation, comment, command or action that a change removes would be lost for good.
TEST_F(AutostartEntryTest, KeepsWhatAUserHasPutIntoTheFile) {
    const std::string command = "env QT_SCALE_FACTOR=2 " + program.string() + " %%x";
    const std::string theirs = "# my own\n\n[Desktop Entry]\nType=Application\n"
                               "Name=My synthesizer's ears\nName[de]=Ohren\nName[ja]=耳\n# slow machine\n"
                               "X-GNOME-Autostart-Delay=10\nExec=" +
                               command +
                               "\nX-Spaces=a \\s b\nComment=Mine\nIcon=mine\n\n"
                               "[Desktop Action quiet]\nName=Quiet\nExec=true\n\n# the end\n";
    AutostartEntry login = entry();
    // The second is what this class writes, but for an option of the user's.
    for (const std::string& text : {theirs, writtenFor(program.string() + " -platform wayland")}) {
        write(file, text);
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
        for (const auto expected : {notRegistered, enabled}) {
            EXPECT_EQ(expected == enabled ? login.registerProgram() : login.unregisterProgram(),
                      std::nullopt);
            EXPECT_EQ(login.status(), expected);
            std::istringstream lines(text);
            for (std::string line; std::getline(lines, line);)
                EXPECT_NE(read(file).find(line + "\n"), std::string::npos) << line;
            EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
        }
    }

    // A command that starts nothing, or another program, is replaced; the rest stays.
    for (const char* stale : {"/gone/tessary-link --old", "/bin/true"}) {
        write(file, entryOfUser + "Exec=" + stale + "\n");
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        EXPECT_NE(read(file).find("Exec=" + program.string() + "\n"), std::string::npos);
        EXPECT_NE(read(file).find("X-Theirs=1\n"), std::string::npos);
    }

    // A symbolic link, as to a folder of configuration files under version control, stays one.
    fs::rename(file, folder / "version-controlled");
    fs::create_symlink(folder / "version-controlled", file);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_TRUE(fs::is_symlink(file));
    EXPECT_NE(read(folder / "version-controlled").find("X-Theirs=1\n"), std::string::npos);
}

TEST_F(AutostartEntryTest, AFileThatIsNoEntryIsNotOverwritten) {
    AutostartEntry login = entry();
    for (const std::string text : {"keep me", "and me"}) {
        write(file, text);
        text == "keep me" ? login.registerProgram() : login.unregisterProgram();
        bool isKept = false;
        for (const std::string& name : listed(file.parent_path()))
            isKept |= read(file.parent_path() / name) == text;
        EXPECT_TRUE(isKept) << text;
    }
}

TEST_F(AutostartEntryTest, WhatCannotBeReadOrWrittenGivesTheErrorAndStays) {
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
    expectFailure(entry({}).registerProgram(), ENOENT, "/proc/self/exe"); // as for a deleted executable
    EXPECT_TRUE(listed(file.parent_path()).empty());

    if (!folder.mountSmallFileSystem()) GTEST_SKIP() << "needs root, for a small file system";
    makeProgram(program);
    write(file, entryOfUser);
    folder.fill("filler");
    expectFailure(login.registerProgram(), ENOSPC, file);
    EXPECT_EQ(read(file), entryOfUser);
    EXPECT_EQ(listed(file.parent_path()).size(), 1);
    fs::remove(folder / "filler");
    EXPECT_EQ(login.registerProgram(), std::nullopt);

    const std::string on = read(file);
    ASSERT_TRUE(folder.makeReadOnly());
    expectFailure(login.unregisterProgram(), EROFS, file);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(read(file), on);
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
