#include "Platform/qt/JSONPreferences.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace tessary;
namespace fs = std::filesystem;

namespace {

class JSONPreferencesTest : public testing::Test {
  protected:
    JSONPreferencesTest() {
        std::string name = (fs::temp_directory_path() / "tessary-preferences-XXXXXX").string();
        folder = mkdtemp(name.data());
        file = folder / "deep" / "tessary-link" / "preferences.json";
    }
    ~JSONPreferencesTest() override { fs::remove_all(folder); }

    void write(const std::string& text) const {
        fs::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }
    /// Everything in the file's folder, for what must not be there.
    std::set<std::string> listed() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(file.parent_path()))
            names.insert(entry.path().filename());
        return names;
    }
    static std::string read(const fs::path& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    fs::path folder, file;
};

} // namespace

TEST_F(JSONPreferencesTest, KeepsWhatWasSetAcrossRuns) {
    {
        JSONPreferences preferences(file);
        EXPECT_EQ(preferences.number("a"), std::nullopt);
        preferences.setNumber("a", 4294967295);
        preferences.setTexts("b", {"10.0.0.2", "ü"});
        EXPECT_EQ(preferences.number("a"), 4294967295);
    }
    const JSONPreferences preferences(file);
    EXPECT_EQ(preferences.number("a"), 4294967295);
    EXPECT_EQ(preferences.array("b"), (std::vector<std::optional<std::string>>{"10.0.0.2", "ü"}));
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1); // no leftovers
}

TEST_F(JSONPreferencesTest, TellsWholeNumbersFromEverythingElse) {
    write(R"({"zero": 0, "seven": 7.0, "half": 0.5, "negative": -1, "large": 4294967296, "true": true,
              "text": "7", "mixed": ["a", 1], "none": null})");
    const JSONPreferences preferences(file);
    EXPECT_EQ(preferences.number("zero"), 0);
    EXPECT_EQ(preferences.number("seven"), 7);
    for (const char* key : {"half", "negative", "large", "true", "text", "mixed", "none", "absent"})
        EXPECT_EQ(preferences.number(key), std::nullopt) << key;
    EXPECT_EQ(preferences.array("mixed"), (std::vector<std::optional<std::string>>{"a", std::nullopt}));
    EXPECT_EQ(preferences.array("text"), std::nullopt);
}

TEST_F(JSONPreferencesTest, KeepsUnknownMembersAndLaterEdits) {
    write(R"({"theirs": {"deep": [1, 9007199254740993]}, "a": 1})");
    JSONPreferences preferences(file);
    write(R"({"theirs": {"deep": [1, 9007199254740993]}, "a": 1, "edited": true})");
    preferences.setNumber("a", 2);
    const std::string text = read(file);
    EXPECT_NE(text.find("9007199254740993"), std::string::npos);
    EXPECT_NE(text.find("edited"), std::string::npos);
    EXPECT_EQ(JSONPreferences(file).number("a"), 2);
}

TEST_F(JSONPreferencesTest, AFileThatIsNoObjectIsSetAsideAtTheNextWrite) {
    for (const char* text : {"{\"a\": 1", "[1]", ""}) {
        write(text);
        JSONPreferences preferences(file);
        EXPECT_EQ(preferences.number("a"), std::nullopt);
        EXPECT_EQ(read(file), text); // reading alone changes nothing
        preferences.setNumber("a", 1);
        EXPECT_EQ(JSONPreferences(file).number("a"), 1);
    }
    EXPECT_EQ(read(file.string() + ".unreadable"), "{\"a\": 1");
    EXPECT_EQ(read(file.string() + ".unreadable-2"), "[1]");
    EXPECT_EQ(read(file.string() + ".unreadable-3"), "");

    write(R"({"a": 2})" + std::string(1 << 20, ' ')); // too large to be ours
    EXPECT_EQ(JSONPreferences(file).number("a"), std::nullopt);
}

TEST_F(JSONPreferencesTest, ALinkStaysALink) {
    write("{");
    const fs::path link = folder / "link.json";
    fs::create_symlink(file, link);
    JSONPreferences(link).setNumber("a", 1);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(JSONPreferences(file).number("a"), 1);
    EXPECT_EQ(read(file.string() + ".unreadable"), "{");

    fs::remove(file); // and one that leads nowhere yet
    JSONPreferences(link).setNumber("a", 2);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(JSONPreferences(file).number("a"), 2);
}

TEST_F(JSONPreferencesTest, WhatElseLiesThereIsLeftAlone) {
    write("{}");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    const std::set<std::string> theirs{"preferences.json.backup", "preferences.json.Backup",
                                       "preferences.json~"};
    for (const std::string& name : theirs)
        std::ofstream(file.parent_path() / name) << "theirs";
    JSONPreferences(file).setNumber("a", 1);
    for (const std::string& name : theirs)
        EXPECT_EQ(read(file.parent_path() / name), "theirs");
    EXPECT_EQ(listed().size(), 1 + theirs.size());
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(JSONPreferencesTest, WhatIsNoFileIsNeitherWaitedForNorReplaced) {
    fs::create_directories(file.parent_path());
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const fs::path& there : {folder / "pipe", folder, fs::path("/dev/zero")}) {
        fs::create_symlink(there, file);
        JSONPreferences preferences(file);
        preferences.setNumber("a", 1);
        EXPECT_EQ(preferences.number("a"), 1);
        EXPECT_FALSE(fs::is_regular_file(there));
        EXPECT_EQ(listed(), std::set<std::string>{"preferences.json"});
        fs::remove(file);
    }
}

TEST_F(JSONPreferencesTest, WhatCannotBeSavedStillHoldsForThisRun) {
    std::ofstream(folder / "deep") << "a file where the folder should be";
    JSONPreferences preferences(file);
    preferences.setNumber("a", 5);
    EXPECT_EQ(preferences.number("a"), 5);
}

TEST_F(JSONPreferencesTest, OnAFullDiskTheOldFileStaysWhole) {
    fs::create_directories(file.parent_path());
    const pid_t child = fork(); // whose mounts are its own
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string place = file.parent_path();
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", place.c_str(), "tmpfs", 0, "size=16k") != 0)
            _exit(77);
        int wrong = 0;
        for (const std::string old : {R"({"a": 1})", "{\"a\": 1"}) {
            write(old);
            const fs::path filler = file.parent_path() / "filler";
            std::ofstream(filler) << std::string(16 * 1024, 'x'); // as much as there is room for
            JSONPreferences preferences(file);
            preferences.setNumber("a", 2);
            preferences.setTexts("b", {"10.0.0.2"});
            if (read(file) != old || listed() != std::set<std::string>{"filler", "preferences.json"})
                wrong |= 1;
            if (preferences.number("a") != 2) wrong |= 2;
            fs::remove(filler);
            preferences.setNumber("c", 3); // there is room again, and what was not saved is saved too
            const JSONPreferences next(file);
            if (next.number("a") != 2 || next.number("c") != 3 || !next.array("b")) wrong |= 4;
        }
        if (read(file.string() + ".unreadable") != "{\"a\": 1") wrong |= 8;
        _exit(wrong);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs root for a small file system of its own";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(JSONPreferencesTest, InAReadOnlyFolderTheOldFileStaysAndTheValueHolds) {
    for (const std::string old : {R"({"a": 1})", "{"}) {
        write(old);
        fs::permissions(file.parent_path(), fs::perms{0555});
        fs::permissions(folder, fs::perms{0755});
        const int self = setfsuid(65534); // root may write anywhere
        JSONPreferences preferences(file);
        preferences.setNumber("a", 2);
        setfsuid(static_cast<uid_t>(self));
        EXPECT_EQ(preferences.number("a"), 2);
        EXPECT_EQ(read(file), old);
        EXPECT_EQ(listed(), std::set<std::string>{"preferences.json"});
        fs::permissions(file.parent_path(), fs::perms{0755});
    }
}

TEST_F(JSONPreferencesTest, KilledWhileWritingItLeavesTheOldFileOrTheNewOne) {
    std::minstd_rand random(1);
    const std::vector<std::string> many(2000, "10.0.0.2"); // some pages
    int olds = 0, news = 0;
    using namespace std::chrono;
    // The first round is left alone, and tells how long a round takes here.
    microseconds whole{0};
    for (int round = 0; round < 200; ++round) {
        const std::string old = round % 2 == 0 ? R"({"number": 1, "theirs": true})" : "{\"number\": 1";
        fs::remove_all(file.parent_path());
        write(old);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            JSONPreferences preferences(file);
            if (::write(ready[1], "", 1) != 1) _exit(1);
            preferences.setTexts("many", many);
            _exit(0);
        }
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        const auto begin = steady_clock::now();
        if (round > 0) {
            // The moment of death is the point here, and is left to chance.
            std::this_thread::sleep_for(whole * (random() % 1000) / 1000);
            kill(child, SIGKILL);
        }
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        if (round == 0) whole = duration_cast<microseconds>(steady_clock::now() - begin) * 3 / 2;

        const bool isOld = read(file) == old;
        ++(isOld ? olds : news);
        JSONPreferences after(file);
        after.setNumber("number", 2); // this save leaves nothing of the killed one behind
        for (const std::string& name : listed())
            EXPECT_TRUE(name == "preferences.json" || name.starts_with("preferences.json.unreadable"))
                << name;
        if (isOld) continue;
        ASSERT_TRUE(after.array("many")) << "round " << round << ": neither the old nor the new, but "
                                         << (fs::exists(file) ? read(file).substr(0, 80) : "nothing");
        EXPECT_EQ(after.array("many")->size(), many.size());
        if (round % 2 == 0)
            EXPECT_NE(read(file).find("theirs"), std::string::npos);
        else
            EXPECT_EQ(read(file.string() + ".unreadable"), old);
    }
    EXPECT_GT(olds, 0); // or the moments say nothing
    EXPECT_GT(news, 1);
}
