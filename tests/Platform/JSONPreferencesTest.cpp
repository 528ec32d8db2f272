#include "Platform/qt/JSONPreferences.h"

#include "support/TemporaryFolder.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tessary;
using namespace tessary::test;
namespace fs = std::filesystem;

namespace {

const std::set<std::string> fileAlone{"preferences.json"};

class JSONPreferencesTest : public testing::Test {
  protected:
    std::set<std::string> listed() const { return test::listed(file.parent_path()); }

    TemporaryFolder folder;
    const fs::path file = folder / "deep/tessary-link/preferences.json";
};

/// Runs `work` in a process of its own, which is killed when its system call of that number has ended.
/// Answers whether `work` came to its end before.
bool isCompleteBeforeSystemCall(int number, const std::function<void()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    // Each call stops the process twice: when it begins and when it ends.
    for (int stop = 0; stop < 2 * number && WIFSTOPPED(status); ++stop) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        waitpid(child, &status, 0);
    }
    if (!WIFSTOPPED(status)) return true;
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return false;
}

} // namespace

TEST_F(JSONPreferencesTest, TellsWholeNumbersFromEverythingElse) {
    write(file, R"({"zero": 0, "seven": 7.0, "half": 0.5, "negative": -1, "large": 4294967296, "true": true,
                    "text": "7", "mixed": ["a", 1], "none": null})");
    const JSONPreferences preferences(file);
    EXPECT_EQ(preferences.number("zero"), 0);
    EXPECT_EQ(preferences.number("seven"), 7);
    for (const char* key : {"half", "negative", "large", "true", "text", "mixed", "none", "absent"})
        EXPECT_EQ(preferences.number(key), std::nullopt) << key;
    EXPECT_EQ(preferences.array("mixed"), (std::vector<std::optional<std::string>>{"a", std::nullopt}));
    EXPECT_EQ(preferences.array("text"), std::nullopt);
}

TEST_F(JSONPreferencesTest, KeepsWhatWasSetLaterEditsAndPermissions) {
    JSONPreferences preferences(file);
    EXPECT_EQ(preferences.number("a"), std::nullopt);
    preferences.setTexts("b", {"10.0.0.2", "ü"});
    EXPECT_EQ(listed(), fileAlone);
    write(file, R"({"theirs": {"deep": [1, 9007199254740993]}, "a": 1})");
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
    preferences.setNumber("a", 4294967295);
    EXPECT_EQ(preferences.number("a"), 4294967295);
    const JSONPreferences next(file);
    EXPECT_EQ(next.number("a"), 4294967295);
    EXPECT_EQ(next.array("b"), (std::vector<std::optional<std::string>>{"10.0.0.2", "ü"}));
    EXPECT_NE(read(file).find("9007199254740993"), std::string::npos);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

// What else is no object, and what a write makes of it, is in the corpus of fuzz_preferences.
TEST_F(JSONPreferencesTest, EachFileThatIsNoObjectIsSetAsideUnderANameOfItsOwn) {
    for (const std::string number : {"", "-2", "-3"}) {
        write(file, number);
        JSONPreferences(file).setNumber("a", 1);
        EXPECT_EQ(read(file.string() + ".unreadable" + number), number);
    }
    write(file, R"({"a": 2})" + std::string(64 << 20, ' ')); // too large to be ours
    EXPECT_EQ(JSONPreferences(file).number("a"), std::nullopt);
}

TEST_F(JSONPreferencesTest, ALinkStaysALink) {
    const fs::path link = folder / "link.json";
    fs::create_symlink(file, link);
    for (const bool isDangling : {false, true}) {
        isDangling ? void(fs::remove(file)) : write(file, "{");
        JSONPreferences(link).setNumber("a", isDangling);
        EXPECT_TRUE(fs::is_symlink(link));
        EXPECT_EQ(JSONPreferences(file).number("a"), isDangling);
    }
    EXPECT_EQ(read(file.string() + ".unreadable"), "{");
}

TEST_F(JSONPreferencesTest, WhatIsNoFileIsNeitherWaitedForNorReplaced) {
    fs::create_directories(file.parent_path());
    ASSERT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    for (const fs::path& there : {folder / "pipe", folder.path(), fs::path("/dev/zero")}) {
        fs::create_symlink(there, file);
        JSONPreferences preferences(file);
        preferences.setNumber("a", 1);
        EXPECT_EQ(preferences.number("a"), 1);
        EXPECT_FALSE(fs::is_regular_file(there));
        EXPECT_EQ(listed(), fileAlone);
        fs::remove(file);
    }
}

// A save that fails must lose neither the old file nor the value.
TEST_F(JSONPreferencesTest, WhatCannotBeSavedHoldsForThisRunAndTheOldFileStays) {
    write(folder / "deep", "a file where the folder should be");
    JSONPreferences nowhere(file);
    nowhere.setNumber("a", 5);
    EXPECT_EQ(nowhere.number("a"), 5);

    if (!folder.mountSmallFileSystem()) GTEST_SKIP() << "needs root, for a small file system";
    for (const std::string old : {R"({"a": 1})", "{\"a\": 1"}) {
        write(file, old);
        folder.fill("filler");
        JSONPreferences preferences(file);
        preferences.setNumber("a", 2);
        preferences.setTexts("b", {"10.0.0.2"});
        EXPECT_EQ(read(file), old);
        EXPECT_EQ(listed(), fileAlone);
        EXPECT_EQ(preferences.number("a"), 2);

        fs::remove(folder / "filler");
        preferences.setNumber("c", 3); // which also saves what could not be saved before
        const JSONPreferences next(file);
        EXPECT_EQ(next.number("a"), 2);
        EXPECT_EQ(next.number("c"), 3);
        EXPECT_TRUE(next.array("b"));
        fs::remove(file.string() + ".unreadable");
    }
}

TEST_F(JSONPreferencesTest, ASaveThatIsKilledLeavesTheOldFileOrTheNewOne) {
    const std::vector<std::string> many(2000, "10.0.0.2"); // some pages
    for (const std::string old : {R"({"number": 1, "theirs": true})", "{\"number\": 1"}) {
        const bool isObject = old.ends_with("}");
        bool isComplete = false;
        for (int call = 1; !isComplete; ++call) {
            SCOPED_TRACE(old + ", killed after system call " + std::to_string(call));
            fs::remove_all(file.parent_path());
            write(file, old);
            isComplete =
                isCompleteBeforeSystemCall(call, [&] { JSONPreferences(file).setTexts("many", many); });

            const bool isOld = read(file) == old;
            ASSERT_FALSE(isOld && isComplete);
            JSONPreferences after(file);
            after.setNumber("number", 2); // removes what the killed save has left
            EXPECT_EQ(read(file.string() + ".unreadable"), isObject ? "" : old);
            for (const std::string& name : listed())
                EXPECT_TRUE(name == "preferences.json" || name.starts_with("preferences.json.unreadable"))
                    << name;
            if (isOld) continue;
            ASSERT_TRUE(after.array("many")) << "neither the old file nor the new one";
            EXPECT_EQ(after.array("many")->size(), many.size());
            EXPECT_EQ(read(file).find("theirs") != std::string::npos, isObject);
        }
    }
}
