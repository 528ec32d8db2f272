#include "Services/LoginItemManager.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

struct LoginItemManagerTest : testing::Test {
    FakeMachine machine;
    FakeLoginService& service = machine.loginService;

    /// How often observers are told while `action` runs.
    static int notifications(LoginItemManager& manager, const std::function<void()>& action) {
        int count = 0;
        const auto flag = manager.isEnabled.observe([&] { ++count; });
        const auto error = manager.lastError.observe([&] { ++count; });
        action();
        return count;
    }
};

} // namespace

TEST_F(LoginItemManagerTest, ShowsWhatTheServiceReports) {
    service.isRegistered = true;
    LoginItemManager manager(machine.platform());
    EXPECT_TRUE(*manager.isEnabled);
    EXPECT_EQ(*manager.lastError, std::nullopt);

    service.isRegistered = false; // by hand, in the desktop's settings
    EXPECT_EQ(notifications(manager, [&] { manager.refresh(); }), 1);
    EXPECT_FALSE(*manager.isEnabled);

    service.registeredStatus = LoginServiceStatus{2}; // registered, but the user has to approve it
    manager.setEnabled(true);
    EXPECT_FALSE(*manager.isEnabled);
    EXPECT_EQ(*manager.lastError, std::nullopt);
    EXPECT_TRUE(machine.log.lines.empty());
}

TEST_F(LoginItemManagerTest, AFailureIsKeptUntilTheNextSuccess) {
    LoginItemManager manager(machine.platform());
    service.error = LoginServiceError{"No space", "cannot write /x: No space"};
    EXPECT_EQ(notifications(manager, [&] { manager.setEnabled(true); }), 1);
    EXPECT_FALSE(*manager.isEnabled);
    EXPECT_EQ(*manager.lastError, "No space");
    EXPECT_EQ(machine.log.lines,
              (std::vector<std::string>{"[LoginItem] toggle failed: cannot write /x: No space"}));

    manager.refresh();
    EXPECT_EQ(*manager.lastError, "No space");
    service.isRegistered = true; // somehow, although the change fails again
    manager.setEnabled(false);
    EXPECT_TRUE(*manager.isEnabled);

    service.error.reset();
    EXPECT_EQ(notifications(manager, [&] { manager.setEnabled(true); }), 1);
    EXPECT_EQ(*manager.lastError, std::nullopt);
}

TEST_F(LoginItemManagerTest, AsksTheServiceEvenForWhatItAlreadyHas) {
    service.isRegistered = true;
    LoginItemManager manager(machine.platform());
    EXPECT_EQ(notifications(manager, [&] { manager.setEnabled(true); }), 0);
    EXPECT_EQ(service.calls, 1);
    manager.setEnabled(false);
    EXPECT_EQ(service.calls, 2);
    EXPECT_FALSE(*manager.isEnabled);
}
