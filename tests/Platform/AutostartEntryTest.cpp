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

class AutostartEntryTest : public testing::Test {
  protected:
    AutostartEntry entry(const fs::path& executable) const {
        return AutostartEntry(executable, {file.parent_path(), folder / "etc/important", folder / "etc/xdg"});
    }
    /// A program that says that it was started.
    static fs::path makeProgram(const fs::path& path) {
        write(path, "#!/bin/sh\necho >\"$STARTED\"\n");
        fs::permissions(path, fs::perms::all);
        return path;
    }
    static std::string writtenFor(const std::string& executable, const std::string& hidden = "false") {
        return "[Desktop Entry]\nType=Application\nName=Tessary Link\n"
               "Comment=Play music programs from Tessary devices on the local network\n"
               "Icon=tessary-link\nExec=" +
               executable + "\nTryExec=" + executable + "\nHidden=" + hidden + "\n";
    }
    /// Runs a shell command on the file, unless the tool that it needs is missing.
    void expectSuccess(const std::string& tool, const std::string& command) const {
        const std::string line =
            "file='" + file.string() + "'; ! command -v " + tool + " >/dev/null || " + command;
        EXPECT_EQ(std::system(line.c_str()), 0) << read(file);
    }
    void expectValid() const {
        expectSuccess("desktop-file-validate", "[ -z \"$(desktop-file-validate \"$file\" 2>&1)\" ]");
    }
    void expectBothFail(const std::string& reason = "") {
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
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(read(file), writtenFor(program, "true"));
    expectValid();

    // Of another place, and disabled by two desktops' settings.
    write(file, writtenFor("/opt/old/tessary-link", "true") + "X-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(read(file), writtenFor(program));
}

TEST_F(AutostartEntryTest, ADesktopStartsAProgramOfAnyName) {
    const fs::path started = folder / "started";
    ASSERT_EQ(mkfifo(started.c_str(), 0600), 0);
    setenv("STARTED", started.c_str(), 1);
    for (const char* name : {"two words", "quote\"d", "apostrophe'", "dollar$HOME", "grave`id`",
                             "back\\slash", "100%u", "%%", "a;b&c|d", "~tilde*?#()<>", "ünïcode", "plain"}) {
        SCOPED_TRACE(name);
        AutostartEntry odd = entry(makeProgram(folder / "odd" / name / "tessary link"));
        ASSERT_EQ(odd.registerProgram(), std::nullopt);
        EXPECT_EQ(odd.status(), enabled);
        expectValid();
        expectSuccess("gio", "gio launch \"$file\" && timeout 10 cat \"$STARTED\" >/dev/null");
        fs::remove(file);
    }
    unsetenv("STARTED");
}

TEST_F(AutostartEntryTest, ReadsAnEntryAsADesktopDoes) {
    const std::string start = "[Desktop Entry]\nType=Application\nName=x\n";
    const std::string exec = start + "Exec=" + program.string();
    fs::permissions(makeProgram(folder / "bin/not-executable"), fs::perms::owner_read);
    const std::pair<std::string, LoginServiceStatus> cases[] = {
        {exec + " --more %u", enabled},
        {start + "Exec=\"" + program.string() + "\" more", enabled},
        {start + "Exec=sh -c 'tessary-link'", enabled}, // a name in PATH
        {exec + "\nHidden=false\nX-GNOME-Autostart-enabled=true", enabled},
        {exec + "\nTryExec=sh", enabled},
        {exec + "\n[Other]\nHidden=true", enabled},
        {exec + "\nTryExec=/no/such/program", notRegistered},
        {exec + "\nHidden=true", notRegistered},
        {exec + "\nX-GNOME-Autostart-enabled=false", notRegistered},
        {start + "Exec=no-such-program-anywhere", notRegistered},
        {start + "Exec=\"" + program.string(), notRegistered},
        {start + "Exec=" + (folder / "bin").string(), notRegistered},
        {start + "Exec=" + (folder / "bin/not-executable").string(), notRegistered},
        {start, notRegistered},
        {"[Other]\nExec=" + program.string(), notRegistered},
        {"", notRegistered},
    };
    for (const auto& [text, expected] : cases) {
        write(file, text);
        EXPECT_EQ(login.status(), expected) << text;
    }
}

TEST_F(AutostartEntryTest, TheUsersFileOverridesASystemWideOne) {
    write(folder / "etc/xdg" / file.filename(), writtenFor(program));
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    expectValid();

    // The more important of the system's folders counts.
    fs::remove(file);
    write(folder / "etc/important" / file.filename(), "[Desktop Entry]\nHidden=true\n");
    EXPECT_EQ(login.status(), notRegistered);
}

TEST_F(AutostartEntryTest, KeepsWhatAUserHasPutIntoTheFile) {
    const std::string before = "# my own\n\n[Desktop Entry]\nType=Application\nName=My synthesizer's ears\n"
                               "Name[ja]=耳\n# slow machine\nX-GNOME-Autostart-Delay=10\nX-Spaces=a \\s b\n"
                               "Comment=Mine\nIcon=mine\n";
    const std::string after = "\n[Desktop Action quiet]\nName=Quiet\nExec=true\n";
    const std::string written = "Exec=" + program.string() + "\n";
    // A command that starts nothing, or something else, is replaced.
    const std::pair<std::string, bool> commands[] = {
        {"Exec=env QT_SCALE_FACTOR=2 " + program.string() + " %%x\n", true},
        {"Exec=\"" + program.string() + "\" -platform wayland\n", true},
        {"Exec=/bin/true\n", false},
        {"Exec=/gone/tessary-link\nTryExec=/gone/tessary-link\n", false},
        {"Exec=gone-wrapper " + program.string() + "\nTryExec=gone-wrapper\n", false},
    };
    const fs::path dotfile = folder / "dotfiles/link.desktop"; // a link stays a link
    fs::create_directories(file.parent_path());
    fs::create_symlink(dotfile, file);
    for (const auto& [command, isKept] : commands) {
        SCOPED_TRACE(command);
        write(dotfile, before + command + after);
        EXPECT_EQ(login.unregisterProgram(), std::nullopt);
        EXPECT_EQ(login.status(), notRegistered);
        const std::string off = read(dotfile);
        EXPECT_TRUE(off.starts_with(before + command) && off.ends_with(after)) << off;
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        const std::string on = read(dotfile);
        EXPECT_TRUE(on.starts_with(before + (isKept ? command : written)) && on.ends_with(after)) << on;
    }
    EXPECT_TRUE(fs::is_symlink(file));
}

TEST_F(AutostartEntryTest, WhatCannotBeReadIsAnErrorAndStays) {
    write(file, "keep me");
    expectBothFail();
    EXPECT_EQ(read(file), "keep me");

    fs::remove(file);
    fs::create_directories(file / "a folder where the file should be");
    expectBothFail();

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

    const auto error = entry({}).registerProgram(); // a program that cannot find itself
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, std::generic_category().message(ENOENT));
}

TEST_F(AutostartEntryTest, AFolderThatCannotBeWrittenIsAnErrorAndTheFileStays) {
    if (!folder.mountSmallFileSystem()) GTEST_SKIP() << "needs root, for a file system of its own";
    const std::string theirs = "[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\nExec=/gone\n";
    write(file, theirs);
    makeProgram(program);
    ASSERT_TRUE(folder.makeReadOnly());
    expectBothFail(std::generic_category().message(EROFS));
    EXPECT_EQ(read(file), theirs);
}
