#include "Platform/xdg/AutostartEntry.h"

#include "support/TemporaryFolder.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace tessary;
using namespace tessary::test;
namespace fs = std::filesystem;

namespace {

constexpr auto enabled = LoginServiceStatus::enabled;
constexpr auto notRegistered = LoginServiceStatus::notRegistered;

/// A program that says that it was started.
fs::path makeProgram(const fs::path& path) {
    write(path, "#!/bin/sh\necho >\"$STARTED\"\n");
    fs::permissions(path, fs::perms::all);
    return path;
}

/// Whether the command succeeds or is not installed.
bool succeeds(const std::string& command) {
    const std::string tool = command.substr(0, command.find(' '));
    return std::system(("! command -v " + tool + " >/dev/null || " + command).c_str()) == 0;
}

class AutostartEntryTest : public testing::Test {
  protected:
    AutostartEntry entry(const fs::path& executable) const {
        return AutostartEntry(executable, {file.parent_path(), folder / "etc/important", folder / "etc/xdg"});
    }
    static std::string writtenFor(const fs::path& executable, const std::string& hidden = "false") {
        return "[Desktop Entry]\nType=Application\nName=Tessary Link\n"
               "Comment=Play music programs from Tessary devices on the local network\n"
               "Icon=tessary-link\nExec=" +
               executable.string() + "\nTryExec=" + executable.string() + "\nHidden=" + hidden + "\n";
    }
    void expectValid() const {
        EXPECT_TRUE(succeeds("desktop-file-validate '" + file.string() + "' | (! grep .)")) << read(file);
    }
    void expectBothFail(const std::string& reason) {
        for (const auto& error : {login.registerProgram(), login.unregisterProgram()}) {
            ASSERT_TRUE(error);
            EXPECT_NE(error->message.find(reason), std::string::npos) << error->message;
            EXPECT_TRUE(error->description.ends_with(file.string() + ": " + error->message))
                << error->description;
        }
        EXPECT_EQ(login.status(), notRegistered);
    }

    TemporaryFolder folder;
    const fs::path file = folder / "home/deep/autostart/tessary-link.desktop";
    const fs::path program = makeProgram(folder / "bin/tessary-link");
    AutostartEntry login = entry(program);
};

} // namespace

TEST_F(AutostartEntryTest, RegistersAndHides) {
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_FALSE(fs::exists(file)) << "nothing to hide";

    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(read(file), writtenFor(program));
    expectValid();

    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(read(file), writtenFor(program, "true"));
    expectValid();

    // Of another place, and disabled by two desktops' settings.
    write(file, writtenFor("/opt/old/tessary-link", "true") + "X-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(read(file), writtenFor(program));

    fs::remove(program); // the package is removed
    EXPECT_EQ(login.status(), notRegistered);
}

TEST_F(AutostartEntryTest, ADesktopStartsAProgramOfAnyName) {
    const std::string started = folder / "started";
    ASSERT_EQ(mkfifo(started.c_str(), 0600), 0);
    setenv("STARTED", started.c_str(), 1);
    for (const char* name : {"two words", "quote\"d", "apostrophe'", "dollar$HOME", "grave`id`",
                             "back\\slash", "100%u", "%%", "a;b&c|d", "~tilde*?#()<>", "ünïcode", "plain"}) {
        SCOPED_TRACE(name);
        AutostartEntry odd = entry(makeProgram(folder / "odd" / name / "tessary-link"));
        ASSERT_EQ(odd.registerProgram(), std::nullopt);
        EXPECT_EQ(odd.status(), enabled);
        expectValid();
        EXPECT_TRUE(
            succeeds("gio launch '" + file.string() + "' && timeout 10 cat " + started + " >/dev/null"))
            << read(file);
        fs::remove(file);
    }
    unsetenv("STARTED");
}

TEST_F(AutostartEntryTest, ReadsAnEntryAsADesktopDoes) {
    const std::string path = program.string();
    const std::string start = "[Desktop Entry]\nType=Application\nName=x\nExec=";
    fs::permissions(makeProgram(folder / "bin" / "not-executable"), fs::perms::owner_read);
    const std::pair<std::string, LoginServiceStatus> cases[] = {
        {start + path, enabled},
        {start + "\"" + path + "\" --more %u", enabled},
        {start + "sh -c 'tessary-link'", enabled}, // a name in PATH
        {start + path + "\nHidden=false\nX-GNOME-Autostart-enabled=true", enabled},
        {start + path + "\nTryExec=sh", enabled},
        {start + path + "\n[Other]\nHidden=true", enabled},
        {start + path + "\nTryExec=/no/such/program", notRegistered},
        {start + path + "\nHidden=true", notRegistered},
        {start + path + "\nX-GNOME-Autostart-enabled=false", notRegistered},
        {start + "no-such-program-anywhere", notRegistered},
        {start + (folder / "bin" / "not-executable").string(), notRegistered},
        {start, notRegistered},
        {"[Other]\nExec=" + path, notRegistered},
    };
    for (const auto& [text, expected] : cases) {
        write(file, text);
        EXPECT_EQ(login.status(), expected) << text;
    }
}

TEST_F(AutostartEntryTest, TheUsersFileOverridesASystemWideOne) {
    write(folder / "etc" / "xdg" / file.filename(), writtenFor(program));
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    expectValid();

    // The more important of the system's folders counts.
    fs::remove(file);
    write(folder / "etc" / "important" / file.filename(), "[Desktop Entry]\nHidden=true\n");
    EXPECT_EQ(login.status(), notRegistered);
}

TEST_F(AutostartEntryTest, KeepsWhatAUserHasPutIntoTheFile) {
    const std::string before = "# my own\n\n[Desktop Entry]\nType=Application\nName=My synthesizer's ears\n"
                               "Name[ja]=耳\n# slow machine\nX-GNOME-Autostart-Delay=10\nX-Spaces=a \\s b\n"
                               "Comment=Mine\nIcon=mine\n";
    const std::string after = "\n[Desktop Action quiet]\nName=Quiet\nExec=true\n";
    const std::string written = "Exec=" + program.string() + "\n";
    const std::string scaled = "Exec=env QT_SCALE_FACTOR=2 " + program.string() + " %%x\n";
    const std::string quoted = "Exec=\"" + program.string() + "\" -platform wayland\n";
    // A command that starts nothing, or something else, is replaced.
    const std::pair<std::string, std::string> cases[] = {
        {scaled, scaled},
        {quoted, quoted},
        {"Exec=/bin/true\n", written},
        {"Exec=/gone/tessary-link\nTryExec=/gone/tessary-link\n", written},
        {"Exec=gone-wrapper " + program.string() + "\nTryExec=gone-wrapper\n", written},
    };
    const fs::path dotfile = folder / "dotfiles" / "link.desktop"; // a link stays a link
    fs::create_directories(file.parent_path());
    fs::create_symlink(dotfile, file);
    const auto isKept = [&](const std::string& command) {
        return read(dotfile).starts_with(before + command) && read(dotfile).ends_with(after);
    };
    for (const auto& [command, replacement] : cases) {
        SCOPED_TRACE(command);
        write(dotfile, before + command + after);
        EXPECT_EQ(login.unregisterProgram(), std::nullopt);
        EXPECT_EQ(login.status(), notRegistered);
        EXPECT_TRUE(isKept(command)) << read(dotfile);
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        EXPECT_TRUE(isKept(replacement)) << read(dotfile);
    }
    EXPECT_TRUE(fs::is_symlink(file));
}

TEST_F(AutostartEntryTest, WhatCannotBeReadOrWrittenIsAnErrorAndStays) {
    write(file, "keep me");
    expectBothFail("");
    EXPECT_EQ(read(file), "keep me");

    fs::remove(file);
    write(file / "in a folder where the file should be", "");
    expectBothFail("");
    EXPECT_FALSE(fs::is_empty(file));

    fs::remove_all(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    expectBothFail("a pipe");

    fs::remove(file);
    fs::create_symlink(file.filename(), file);
    expectBothFail(std::generic_category().message(ELOOP));

    fs::remove_all(file.parent_path());
    write(file.parent_path(), "a file where the folder should be");
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_NE(login.registerProgram(), std::nullopt);
    EXPECT_EQ(read(file.parent_path()), "a file where the folder should be");

    const auto error = entry({}).registerProgram(); // a program that cannot find itself
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, std::generic_category().message(ENOENT));

    if (!folder.mountSmallFileSystem()) GTEST_SKIP() << "needs root, for a file system that can be read only";
    const std::string theirs = "[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\nExec=/gone\n";
    write(file, theirs);
    makeProgram(program);
    ASSERT_TRUE(folder.makeReadOnly());
    expectBothFail(std::generic_category().message(EROFS));
    EXPECT_EQ(read(file), theirs);
}
