#include "Platform/system/InstanceLock.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tessary;

namespace {

class InstanceLockTest : public testing::Test {
  protected:
    InstanceLockTest() {
        std::string pattern = testing::TempDir() + "tessary-lock-XXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~InstanceLockTest() override { std::filesystem::remove_all(folder); }
    std::string in(const std::string& name) const { return folder / name; }

    std::filesystem::path folder;
};

TEST_F(InstanceLockTest, TheSecondFindsTheFirstAndChangesNothing) {
    const InstanceLock first({in("run")});
    EXPECT_FALSE(first.isHeldElsewhere());
    {
        const InstanceLock second({in("run")});
        EXPECT_TRUE(second.isHeldElsewhere());
    }
    EXPECT_TRUE(InstanceLock({in("run")}).isHeldElsewhere())
        << "the second has not let go of the first's lock";
    EXPECT_FALSE(InstanceLock({in("another user's")}).isHeldElsewhere());
}

TEST_F(InstanceLockTest, ALockLeftByAKilledProgramIsNoObstacle) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        const InstanceLock lock({in("run")});
        const char isHeld = lock.isHeldElsewhere() ? 'n' : 'y';
        [[maybe_unused]] const auto size = write(ready[1], &isHeld, 1);
        pause();
    }
    char isHeld = 0;
    ASSERT_EQ(read(ready[0], &isHeld, 1), 1);
    EXPECT_EQ(isHeld, 'y');
    EXPECT_TRUE(InstanceLock({in("run")}).isHeldElsewhere());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
    EXPECT_TRUE(std::filesystem::exists(in("run/tessary-link.lock")));
    EXPECT_FALSE(InstanceLock({in("run")}).isHeldElsewhere());
    EXPECT_FALSE(std::filesystem::exists(in("run/tessary-link.lock"))) << "nothing is left behind";
}

TEST_F(InstanceLockTest, AFolderThatCannotBeUsedGivesWayToTheNext) {
    { std::ofstream(in("file")) << "no folder"; }
    const std::vector<std::string> folders{in("file"), in("config/tessary-link")};
    const InstanceLock first(folders);
    EXPECT_FALSE(first.isHeldElsewhere());
    EXPECT_TRUE(InstanceLock(folders).isHeldElsewhere());
    EXPECT_FALSE(InstanceLock({in("file")}).isHeldElsewhere())
        << "where nothing can be locked the program runs";
}

TEST_F(InstanceLockTest, TheRuntimeFolderComesFirst) {
    const char* before = std::getenv("XDG_RUNTIME_DIR");
    const std::string kept = before ? before : "";
    setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
    EXPECT_EQ(InstanceLock::defaultFolders("/p"), (std::vector<std::string>{folder, "/p"}));
    for (const std::string& useless :
         {std::string("relative"), in("missing"), in(std::string(300, 'x')), std::string()}) {
        setenv("XDG_RUNTIME_DIR", useless.c_str(), 1);
        EXPECT_EQ(InstanceLock::defaultFolders("/p"), std::vector<std::string>{"/p"});
    }
    before ? setenv("XDG_RUNTIME_DIR", kept.c_str(), 1) : unsetenv("XDG_RUNTIME_DIR");
}

} // namespace
