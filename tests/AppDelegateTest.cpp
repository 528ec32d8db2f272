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
    /// A peer at 10.0.0.`host` appears.
    void appear(const std::string& name, int host) {
        names.push_back(name);
        for (const std::string type : {"_apple-midi._udp", "_tessarylink._tcp"}) {
            serviceDiscovery.browser(type).see(names);
            time.run();
            serviceDiscovery.resolver(type, name)->succeed({"10.0.0." + std::to_string(host)}, 5004);
        }
        time.run();
    }
    /// The peer that is being dialled accepts and completes the clock exchange: its session runs.
    void accept() {
        for (const std::uint16_t port : {std::uint16_t{51204}, std::uint16_t{51205}}) {
            const auto connection = network.newest(port);
            const auto token = connection->sentOf<AppleMIDIPacket::Invitation>().back().token;
            connection->deliver({AppleMIDIPacket::Accept{token, 1, ""}});
            time.run();
        }
        network.newest(51205)->deliver({AppleMIDIPacket::ClockSync{1, 1, {}, {}, {}}});
        time.run();
    }

    std::shared_ptr<AppDelegate> delegate = std::make_shared<AppDelegate>(platform());
    std::vector<std::string> names;
};

} // namespace

TEST_F(AppDelegateTest, LaunchBrowsesBeforeItShowsAnItemWithAFilledMenuAndKeepsItVisible) {
    int startedBefore = 0;
    statusBar.duringMakeStatusItem = [&] {
        for (const FakeBrowser* browser : serviceDiscovery.browsers)
            startedBefore += browser->starts;
    };
    launch();
    EXPECT_EQ(startedBefore, 2);
    EXPECT_EQ(midiOutput.calls.front(), "client Tessary Link");
    FakeStatusItem& item = *statusBar.item;
    EXPECT_EQ(statusBar.length, StatusItemLength::square);
    EXPECT_EQ(item.behavior, StatusItemBehavior::none);
    EXPECT_EQ(item.autosaveName, "TessaryLinkStatusItem");
    EXPECT_EQ(item.image.accessibilityDescription, "Tessary Link");
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
    appear("beta", 1);
    appear("Alpha", 2);
    appear("alpha", 3);
    appear("e\u0301z", 4); // decomposed: before U+00EA, though its first letter would come earlier
    appear("f", 5);
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
    EXPECT_TRUE(isTold([&] { appear("iPad", 2); }));
    EXPECT_TRUE(isTold([&] { accept(); }));
    EXPECT_TRUE(isTold([&] { statusBar.menu->choose("Start at Login"); }));
    EXPECT_TRUE(isTold([&] { statusBar.menu->choose("Auto-connect"); }));
    EXPECT_FALSE(isTold([&] { time.advance(300ms); }));
}

// A panel that reads the menu over D-Bus gets no fonts, so test_tray cannot see this.
TEST_F(AppDelegateTest, ShowsTheLastEventInSmallSecondaryMonospacedText) {
    launch();
    appear("iPad", 2);
    accept();
    const auto& items = statusBar.menu->open();
    EXPECT_EQ(items[items.size() - 3].style, (TextStyle{10.0, true}));
}

TEST_F(AppDelegateTest, TerminationEndsTheSessionsAndTouchesNothingElse) {
    delegate->applicationWillTerminate(); // before launch: nothing
    launch();
    appear("iPad", 2);
    const auto control = network.newest(51204);
    delegate->applicationWillTerminate();
    EXPECT_EQ(control->sentOf<AppleMIDIPacket::Invitation>().at(0).name, "Tessary Link");
    EXPECT_EQ(control->sentOf<AppleMIDIPacket::Bye>().size(), 1u);
    EXPECT_TRUE(statusBar.item->visible);
    EXPECT_EQ(loginService.calls, 0);
}
