#include "Services/LoginItemManager.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

struct LoginItemManagerTest : testing::Test, FakeMachine {
    LoginItemManager manager{platform()};
};

} // namespace

TEST_F(LoginItemManagerTest, ShowsWhatTheServiceReports) {
    loginService.isRegistered = true; // changed in the desktop's settings
    EXPECT_TRUE(*LoginItemManager(platform()).isEnabled);
    manager.refresh();
    EXPECT_TRUE(*manager.isEnabled);
    manager.setEnabled(true); // asked although it is registered
    EXPECT_EQ(loginService.calls, 1);
    manager.setEnabled(false);
    EXPECT_FALSE(*manager.isEnabled);
    EXPECT_EQ(*manager.lastError, std::nullopt);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(LoginItemManagerTest, AFailureIsKeptUntilTheNextSuccess) {
    loginService.error = LoginServiceError{"No space", "cannot write /x: No space"};
    loginService.isRegistered = true; // the change fails, and another program has registered it meanwhile
    manager.setEnabled(false);
    EXPECT_TRUE(*manager.isEnabled);
    manager.refresh();
    EXPECT_EQ(*manager.lastError, "No space");
    EXPECT_EQ(log.lines, std::vector<std::string>{"[LoginItem] toggle failed: cannot write /x: No space"});

    loginService.error.reset();
    manager.setEnabled(true);
    EXPECT_EQ(*manager.lastError, std::nullopt);
}
