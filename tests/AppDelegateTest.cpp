// Launch, the end, and what is observed. test_tray reads the menu as a panel does; TemplateIconTest looks at
// the icon.
#include "AppDelegate.h"

#include "support/Fakes.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

struct AppDelegateTest : testing::Test, FakeMachine {
    void launch() {
        delegate->applicationDidFinishLaunching();
        time.run();
    }
    std::shared_ptr<AppDelegate> delegate = std::make_shared<AppDelegate>(platform());
};

} // namespace

TEST_F(AppDelegateTest, LaunchBrowsesBeforeItShowsAnItemWithAFilledMenuAndKeepsItVisible) {
    bool isBrowsing = false;
    statusBar.duringMakeStatusItem = [&] {
        isBrowsing = serviceDiscovery.browser("_apple-midi._udp").queue &&
                     serviceDiscovery.browser("_tessarylink._tcp").queue;
    };
    launch();
    EXPECT_TRUE(isBrowsing);
    EXPECT_EQ(midiOutput.calls.front(), "client Tessary Link");
    FakeStatusItem& item = *statusBar.item;
    EXPECT_EQ(item.menu, statusBar.menu);
    EXPECT_FALSE(statusBar.menu->items.empty());

    time.advance(5s);
    EXPECT_EQ(item.showings, 1);
    item.visible = false;
    time.advance(1001ms);
    EXPECT_TRUE(item.visible);
}

TEST_F(AppDelegateTest, SortsPeersByCodePointsAfterCanonicalEquivalence) {
    launch();
    appear("10.0.0.1", "beta");
    appear("10.0.0.2", "Alpha");
    appear("10.0.0.3", "alpha");
    appear("10.0.0.4", "e\u0301z"); // decomposed: by U+00E9, though its first letter would come earlier
    appear("10.0.0.5", "f");
    std::vector<std::string> titles;
    for (const MenuItem& each : statusBar.menu->open())
        titles.push_back(each.title);
    EXPECT_EQ(std::vector(titles.begin() + 2, titles.begin() + 7),
              (std::vector<std::string>{"○ Alpha", "○ alpha", "○ beta", "○ f", "○ e\u0301z"}));
}

TEST_F(AppDelegateTest, ObserversAreToldOfWhateverTheMenuShows) {
    launch();
    int changes = 0;
    const auto observations = delegate->observeMenuContent([&] { ++changes; });
    const auto isTold = [&](const std::function<void()>& work) {
        const int before = changes;
        work();
        return changes > before;
    };
    EXPECT_TRUE(isTold([&] { appear("10.0.0.2"); }));
    EXPECT_TRUE(isTold([&] { accept("10.0.0.2"); }));
    EXPECT_TRUE(isTold([&] { statusBar.menu->choose("Start at Login"); }));
    EXPECT_TRUE(isTold([&] { statusBar.menu->choose("Auto-connect"); }));
    EXPECT_FALSE(isTold([&] { time.advance(5s); })); // looks that change nothing
    // A panel that reads the menu over D-Bus gets no fonts, so test_tray cannot see this.
    const auto& items = statusBar.menu->open();
    EXPECT_EQ(items[items.size() - 3].style, (TextStyle{10.0, true}));
}

TEST_F(AppDelegateTest, TerminationEndsTheSessionsAndTouchesNothingElse) {
    delegate->applicationWillTerminate(); // before launch: nothing
    launch();
    appear("10.0.0.2");
    const auto control = network.newest(51204);
    delegate->applicationWillTerminate();
    EXPECT_EQ(control->sentOf<AppleMIDIPacket::Invitation>().at(0).name, "Tessary Link");
    EXPECT_EQ(control->sentOf<AppleMIDIPacket::Bye>().size(), 1u);
    EXPECT_TRUE(statusBar.item->visible);
    EXPECT_EQ(loginService.calls, 0);
}
