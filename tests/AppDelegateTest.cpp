#include "AppDelegate.h"

#include "support/Fakes.h"
#include "support/Packet.h"

#include <gtest/gtest.h>

using namespace tessary;
using namespace tessary::test;

namespace {

class AppDelegateTest : public testing::Test {
  protected:
    void launch() {
        delegate->applicationDidFinishLaunching();
        machine.time.run();
    }
    FakeStatusItem& item() { return *machine.statusBar.item; }

    /// A peer at 10.0.0.`host` appears.
    void appear(const std::string& name, int host) {
        names.push_back(name);
        for (const std::string type : {"_apple-midi._udp", "_tessarylink._tcp"}) {
            machine.serviceDiscovery.browser(type).see(names);
            machine.time.run();
            machine.serviceDiscovery.resolver(type, name)->succeed({"10.0.0." + std::to_string(host)}, 5004);
        }
        machine.time.run();
    }
    std::shared_ptr<FakeConnection> connection(const std::string& ip, std::uint16_t localPort) {
        for (auto weak = machine.network.made.rbegin(); weak != machine.network.made.rend(); ++weak)
            if (const auto made = weak->lock();
                made && made->localPort == localPort && made->host.text() == ip)
                return made;
        return nullptr;
    }
    /// The peer accepts, and completes the clock exchange: its session runs.
    void accept(const std::string& ip) {
        for (const std::uint16_t port : {std::uint16_t{51204}, std::uint16_t{51205}}) {
            const auto made = connection(ip, port);
            made->deliver(
                {AppleMIDIPacket::Accept{made->sentOf<AppleMIDIPacket::Invitation>().back().token, 1, ""}});
            machine.time.run();
        }
        connection(ip, 51205)->deliver({AppleMIDIPacket::ClockSync{1, 1, {}, {}, {}}});
        machine.time.run();
    }

    /// The menu, a line each: "-" for a separator, "title" for a line that does nothing, "[title]" for one
    /// that can be chosen, with "x" behind it if it is marked and "_" if it is not.
    static std::vector<std::string> lines(const std::vector<MenuItem>& items) {
        std::vector<std::string> found;
        for (const MenuItem& each : items) {
            std::string line = each.isSeparator ? "-" : each.title;
            if (each.isEnabled) line = "[" + line + "]";
            if (each.isOn) line += *each.isOn ? "x" : "_";
            found.push_back(line);
        }
        return found;
    }
    std::vector<std::string> open() { return lines(machine.statusBar.menu->open()); }
    std::vector<std::string> peers() {
        const auto all = open();
        const auto end = std::find(all.begin() + 2, all.end(), "-");
        return {all.begin() + 2, end};
    }

    FakeMachine machine;
    std::shared_ptr<AppDelegate> delegate = std::make_shared<AppDelegate>(machine.platform());
    std::vector<std::string> names;
};

using Lines = std::vector<std::string>;

TEST_F(AppDelegateTest, LaunchShowsASquareItemWithIconAndMenuAndKeepsItVisible) {
    launch();
    EXPECT_EQ(machine.midiOutput.calls.front(), "client Tessary Link");
    EXPECT_EQ(machine.statusBar.length, StatusItemLength::square);
    EXPECT_EQ(item().behavior, StatusItemBehavior::none);
    EXPECT_EQ(item().autosaveName, "TessaryLinkStatusItem");
    EXPECT_EQ(item().image.accessibilityDescription, "Tessary Link");
    EXPECT_EQ(item().menu, machine.statusBar.menu);
    EXPECT_FALSE(machine.statusBar.menu->items.empty()) << "filled before it is opened for the first time";
    EXPECT_TRUE(item().visible);

    machine.time.advance(std::chrono::seconds(5));
    EXPECT_EQ(item().showings, 1) << "a visible item is left alone";
    item().visible = false;
    machine.time.advance(std::chrono::milliseconds(1001));
    EXPECT_TRUE(item().visible);
    EXPECT_EQ(item().showings, 2);
}

TEST_F(AppDelegateTest, BrowsersRunBeforeTheTrayIsTouched) {
    struct Bar : FakeStatusBar {
        std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength given) override {
            for (const auto* browser : browsers)
                startedBefore += browser->starts;
            return FakeStatusBar::makeStatusItem(given);
        }
        const std::vector<FakeBrowser*>& browsers;
        int startedBefore = 0;
        explicit Bar(const std::vector<FakeBrowser*>& given)
            : browsers(given) {}
    } bar(machine.serviceDiscovery.browsers);
    Platform p = machine.platform();
    delegate = std::make_shared<AppDelegate>(Platform{p.application, p.mainQueue, p.network,
                                                      p.serviceDiscovery, p.midiOutput, p.preferences, bar,
                                                      p.loginService, p.clock, p.random, p.text, p.log});
    delegate->applicationDidFinishLaunching();
    EXPECT_EQ(bar.startedBefore, 2);
}

TEST_F(AppDelegateTest, MenuWithoutPeers) {
    launch();
    EXPECT_EQ(open(), (Lines{"○ No Tessary on network", "-", "No peers visible", "-", "[Auto-connect]x",
                             "[Reconnect Now]", "-", "[Start at Login]_", "-", "[Quit Tessary Link]"}));
    const MenuItem& quit = machine.statusBar.menu->items.back();
    EXPECT_EQ(quit.keyEquivalent, "q");
    machine.statusBar.menu->choose("Quit Tessary Link");
    EXPECT_EQ(machine.application.terminations, 1);
}

TEST_F(AppDelegateTest, MenuFromDialingToConnected) {
    launch();
    appear("iPad", 2);
    auto now = open();
    EXPECT_EQ(now[0], "◐ Connecting to 10.0.0.2…");
    EXPECT_EQ(peers(), Lines{"○ iPad"});

    accept("10.0.0.2");
    now = open();
    EXPECT_EQ(now[0], "● Connected: 10.0.0.2");
    EXPECT_EQ(peers(), Lines{"● iPad"});
    const auto& items = machine.statusBar.menu->items;
    const MenuItem& event = items[items.size() - 3];
    EXPECT_TRUE(event.title.ends_with(" 10.0.0.2 running")) << event.title;
    EXPECT_EQ(event.style, (TextStyle{10.0, true}));
    EXPECT_TRUE(items[items.size() - 2].isSeparator);
    EXPECT_FALSE(event.isEnabled);
}

TEST_F(AppDelegateTest, PeersAreSortedByCodePointsAfterCanonicalEquivalence) {
    launch();
    appear("beta", 1);
    appear("Alpha", 2);
    appear("alpha", 3);
    appear("e\u0301z", 4); // decomposed: before U+00EA, though its first letter would come earlier
    appear("f", 5);
    accept("10.0.0.3");
    EXPECT_EQ(peers(), (Lines{"○ Alpha", "● alpha", "○ beta", "○ f", "○ e\u0301z"}));
}

TEST_F(AppDelegateTest, SwitchesDoWhatTheySayAndShowItAtTheNextOpening) {
    launch();
    appear("iPad", 2);
    accept("10.0.0.2");
    open();
    machine.statusBar.menu->choose("Auto-connect");
    machine.time.run();
    EXPECT_EQ(open()[4], "[Auto-connect]_");
    machine.statusBar.menu->choose("Auto-connect");
    machine.time.run();
    EXPECT_EQ(open()[4], "[Auto-connect]x");

    const auto before = machine.network.made.size();
    machine.statusBar.menu->choose("Reconnect Now");
    machine.time.run();
    EXPECT_GT(machine.network.made.size(), before) << "dialled again";

    machine.statusBar.menu->choose("Start at Login");
    EXPECT_EQ(open()[7], "[Start at Login]x");
    machine.loginService.isRegistered = false; // by hand, in the desktop's settings
    EXPECT_EQ(open()[7], "[Start at Login]_");
}

TEST_F(AppDelegateTest, WhatTheMenuShowsIsObserved) {
    launch();
    int changes = 0;
    const auto changesBy = [&](const std::function<void()>& work) {
        const int before = changes;
        work();
        return changes - before;
    };
    const auto observations = delegate->observeMenuContent([&] { ++changes; });
    EXPECT_GT(changesBy([&] { appear("iPad", 2); }), 0);
    EXPECT_GT(changesBy([&] { accept("10.0.0.2"); }), 0);
    EXPECT_GT(changesBy([&] { machine.statusBar.menu->choose("Start at Login"); }), 0);
    EXPECT_GT(changesBy([&] { machine.statusBar.menu->choose("Auto-connect"); }), 0);
    EXPECT_EQ(changesBy([&] { machine.time.advance(std::chrono::milliseconds(300)); }), 0);
}

TEST_F(AppDelegateTest, TerminationSaysGoodbyeAndTouchesNothingElse) {
    launch();
    appear("iPad", 2);
    const auto control = connection("10.0.0.2", 51204);
    machine.statusBar.menu->open();
    delegate->applicationWillTerminate();
    EXPECT_EQ(control->sentOf<AppleMIDIPacket::Invitation>().at(0).name, "Tessary Link");
    EXPECT_EQ(control->sentOf<AppleMIDIPacket::Bye>().size(), 1u) << "it has left before the process ends";
    EXPECT_TRUE(item().visible);
    EXPECT_EQ(machine.loginService.calls, 0);
}

TEST_F(AppDelegateTest, TerminationBeforeLaunchDoesNothing) {
    delegate->applicationWillTerminate();
    EXPECT_TRUE(machine.network.made.empty());
}

TEST(StatusBarIconTest, IsTheOneOfEighteenPoints) {
    const Image image = AppDelegate::makeStatusBarIcon();
    EXPECT_TRUE(image.isTemplate);
    EXPECT_EQ(image.accessibilityDescription, "Tessary Link");
    const auto shapes = image.draw({{5, 5}, 18, 40}); // only the width counts
    ASSERT_EQ(shapes.size(), 4u);
    const std::vector<Point> origins{{1.2, 1.2}, {9.8, 1.2}, {1.2, 9.8}, {9.8, 9.8}};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto& cell = std::get<RoundedRectangle>(shapes[i].subpaths.at(0));
        EXPECT_NEAR(cell.rectangle.origin.x, origins[i].x, 1e-12);
        EXPECT_NEAR(cell.rectangle.origin.y, origins[i].y, 1e-12);
        EXPECT_NEAR(cell.rectangle.width, 7.0, 1e-12);
        EXPECT_NEAR(cell.rectangle.height, 7.0, 1e-12);
        EXPECT_NEAR(cell.radius, 2.1, 1e-12);
        EXPECT_EQ(shapes[i].lineWidth, i < 3 ? 1.2 : 0.0);
    }
    const auto& triangle = std::get<Polygon>(shapes[3].subpaths.at(1));
    const std::vector<Point> corners{{12.4432, 14.84}, {14.9632, 13.3}, {12.4432, 11.76}};
    ASSERT_EQ(triangle.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(triangle[i].x, corners[i].x, 1e-9);
        EXPECT_NEAR(triangle[i].y, corners[i].y, 1e-9);
    }
}

} // namespace
