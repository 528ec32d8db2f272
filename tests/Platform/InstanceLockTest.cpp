#include "Platform/system/InstanceLock.h"

#include "support/TemporaryFolder.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tessary;
using test::TemporaryFolder;

namespace {

struct InstanceLockTest : testing::Test {
    TemporaryFolder folder;
    const std::vector<std::string> folders{folder / "run"};
};

TEST_F(InstanceLockTest, OneProgramHoldsTheLockAtATime) {
    const InstanceLock first(folders);
    EXPECT_FALSE(first.isHeldElsewhere());
    EXPECT_TRUE(InstanceLock(folders).isHeldElsewhere());
    EXPECT_TRUE(InstanceLock(folders).isHeldElsewhere()) << "the second released the first's lock";
    EXPECT_FALSE(InstanceLock({folder / "another user's"}).isHeldElsewhere());
}

TEST_F(InstanceLockTest, ALockOfAKilledProgramIsFree) {
    const pid_t child = fork();
    if (child == 0) {
        const InstanceLock lock(folders);
        raise(SIGSTOP);
    }
    waitpid(child, nullptr, WUNTRACED);
    EXPECT_TRUE(InstanceLock(folders).isHeldElsewhere());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(test::listed(folder / "run"), std::set<std::string>{"tessary-link.lock"});
    EXPECT_FALSE(InstanceLock(folders).isHeldElsewhere());
    EXPECT_TRUE(test::listed(folder / "run").empty());
}

TEST_F(InstanceLockTest, EveryFolderThatCanBeUsedIsLocked) {
    const std::string unusable = folder / "file", config = folder / "config/tessary-link";
    test::write(unusable, "no folder");
    const InstanceLock first({unusable, folders.front(), config});
    EXPECT_FALSE(first.isHeldElsewhere());
    EXPECT_TRUE(InstanceLock({config}).isHeldElsewhere()) << "as started by ssh, without a runtime folder";
    EXPECT_TRUE(InstanceLock({folder / "other", config}).isHeldElsewhere());
    EXPECT_TRUE(test::listed(folder / "other").empty());
    EXPECT_FALSE(InstanceLock({unusable}).isHeldElsewhere()) << "without any lock the program runs";
}

TEST_F(InstanceLockTest, TheFoldersAreTheRuntimeFolderAndThatOfThePreferences) {
    const std::string usable = folder.path();
    setenv("XDG_RUNTIME_DIR", usable.c_str(), 1);
    EXPECT_EQ(InstanceLock::defaultFolders("/p"), (std::vector<std::string>{usable, "/p"}));
    for (const std::string& useless :
         {std::string("relative"), usable + "/missing", usable + std::string(300, 'x'), std::string()}) {
        setenv("XDG_RUNTIME_DIR", useless.c_str(), 1);
        EXPECT_EQ(InstanceLock::defaultFolders("/p"), std::vector<std::string>{"/p"});
    }
    unsetenv("XDG_RUNTIME_DIR");
}

} // namespace
