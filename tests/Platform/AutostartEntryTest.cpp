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
                              {file.parent_path(), folder / "etc" / "important", folder / "etc" / "xdg"});
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
    static std::string writtenFor(const fs::path& executable, const std::string& hidden = "false") {
        return "[Desktop Entry]\nType=Application\nName=Tessary Link\n"
               "Comment=Play music programs from Tessary devices on the local network\n"
               "Icon=tessary-link\nExec=" +
               executable.string() + "\nTryExec=" + executable.string() + "\nHidden=" + hidden + "\n";
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

    void expectBothFail(AutostartEntry login, const std::string& reason) const {
        for (const auto& error : {login.registerProgram(), login.unregisterProgram()}) {
            ASSERT_TRUE(error);
            EXPECT_NE(error->message.find(reason), std::string::npos) << error->message;
            EXPECT_NE(error->description.find(file.string() + ": " + error->message), std::string::npos)
                << error->description;
        }
        EXPECT_EQ(login.status(), notRegistered);
    }

    fs::path folder, file, program;
    std::error_code ignored;
};

} // namespace

TEST_F(AutostartEntryTest, RegistersAndHides) {
    AutostartEntry login = entry();
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_FALSE(fs::exists(file)) << "nothing to hide";

    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(read(file), writtenFor(program));
    EXPECT_TRUE(isValid());

    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(read(file), writtenFor(program, "true"));
    EXPECT_TRUE(isValid());

    // Of another place, and disabled by two desktops' settings.
    write(writtenFor("/opt/old/tessary-link", "true") + "X-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(read(file), writtenFor(program));

    fs::remove(program); // the package is removed
    EXPECT_EQ(login.status(), notRegistered);
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
        fs::remove(file);
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
        {start + "Exec=" + path + "\nHidden=false\nX-GNOME-Autostart-enabled=true", enabled},
        {start + "Exec=" + path + "\nTryExec=sh", enabled},
        {start + "Exec=" + path + "\n[Other]\nHidden=true", enabled},
        {start + "Exec=" + path + "\nTryExec=/no/such/program", notRegistered},
        {start + "Exec=" + path + "\nHidden=true", notRegistered},
        {start + "Exec=" + path + "\nX-GNOME-Autostart-enabled=false", notRegistered},
        {start + "Exec=no-such-program-anywhere", notRegistered},
        {start + "Exec=\"" + path, notRegistered},
        {start + "Exec=" + (folder / "bin").string(), notRegistered},
        {start + "Exec=" + (folder / "bin" / "not-executable").string(), notRegistered},
        {start + "Exec=", notRegistered},
        {start, notRegistered},
        {"[Other]\nExec=" + path, notRegistered},
        {"", notRegistered},
    };
    for (const auto& [text, expected] : cases) {
        write(text);
        EXPECT_EQ(entry().status(), expected) << text;
    }
}

TEST_F(AutostartEntryTest, TheUsersFileOverridesASystemWideOne) {
    write(folder / "etc" / "xdg" / file.filename(), writtenFor(program));
    AutostartEntry login = entry();
    EXPECT_EQ(login.status(), enabled);
    EXPECT_EQ(login.unregisterProgram(), std::nullopt);
    EXPECT_EQ(login.status(), notRegistered);
    EXPECT_EQ(login.registerProgram(), std::nullopt);
    EXPECT_EQ(login.status(), enabled);
    EXPECT_TRUE(isValid());

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
    AutostartEntry login = entry();
    for (const auto& [command, replacement] : cases) {
        SCOPED_TRACE(command);
        write(dotfile, before + command + after);
        EXPECT_EQ(login.unregisterProgram(), std::nullopt);
        EXPECT_EQ(login.status(), notRegistered);
        const std::string off = read(dotfile);
        EXPECT_TRUE(off.starts_with(before + command) && off.ends_with(after)) << off;
        EXPECT_EQ(login.registerProgram(), std::nullopt);
        EXPECT_EQ(login.status(), enabled);
        const std::string on = read(dotfile);
        EXPECT_TRUE(on.starts_with(before + replacement) && on.ends_with(after)) << on;
    }
    EXPECT_TRUE(fs::is_symlink(file));
}

TEST_F(AutostartEntryTest, WhatCannotBeReadIsAnErrorAndStays) {
    write("keep me");
    expectBothFail(entry(), "");
    EXPECT_EQ(read(file), "keep me");

    fs::remove(file);
    fs::create_directories(file / "a folder where the file should be");
    expectBothFail(entry(), "");
    EXPECT_TRUE(fs::exists(file / "a folder where the file should be"));

    fs::remove_all(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    expectBothFail(entry(), "");

    fs::remove(file);
    fs::create_symlink(file.filename(), file);
    expectBothFail(entry(), std::generic_category().message(ELOOP));

    fs::remove_all(file.parent_path());
    write(file.parent_path(), "a file where the folder should be");
    EXPECT_EQ(entry().unregisterProgram(), std::nullopt);
    EXPECT_NE(entry().registerProgram(), std::nullopt);
    EXPECT_EQ(read(file.parent_path()), "a file where the folder should be");

    const auto error = entry({}).registerProgram(); // a program that cannot find itself
    ASSERT_TRUE(error);
    EXPECT_EQ(error->message, std::generic_category().message(ENOENT));
}

TEST_F(AutostartEntryTest, AFolderThatCannotBeWrittenIsAnErrorAndTheFileStays) {
    const std::string theirs = "[Desktop Entry]\nType=Application\nName=x\nX-Theirs=1\nExec=/gone\n";
    if (geteuid() == 0) { // a file system of our own, which ends with the process
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", folder.c_str(), "tmpfs", 0, nullptr) != 0)
            GTEST_SKIP() << "no file system of our own";
        write(theirs);
        makeProgram(program);
        ASSERT_EQ(mount("none", folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
        expectBothFail(entry(), std::generic_category().message(EROFS));
    } else {
        write(theirs);
        fs::permissions(file.parent_path(), fs::perms::owner_read | fs::perms::owner_exec);
        expectBothFail(entry(), std::generic_category().message(EACCES));
    }
    EXPECT_EQ(read(file), theirs);
}
