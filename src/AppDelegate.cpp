#include "AppDelegate.h"

#include "Platform/Application.h"
#include "Platform/Queue.h"
#include "Platform/Text.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace tessary {

namespace {

/// A line that cannot be chosen.
MenuItem information(std::string title) {
    MenuItem item;
    item.title = std::move(title);
    item.isEnabled = false;
    return item;
}

MenuItem command(std::string title, std::string action, std::function<void()> choose) {
    MenuItem item;
    item.title = std::move(title);
    item.action = std::move(action);
    item.choose = std::move(choose);
    return item;
}

} // namespace

AppDelegate::AppDelegate(const Platform& platform)
    : platform_(platform) {}

void AppDelegate::applicationDidFinishLaunching() {
    auto coreMIDI = std::make_shared<CoreMIDIBridge>(platform_);
    auto discovery = std::make_shared<PeerDiscovery>(platform_);
    discovery->start();
    auto dialer = RTPMIDIDialer::make(platform_, discovery, coreMIDI, "Tessary Link");
    auto loginItem = std::make_shared<LoginItemManager>(platform_);

    coreMIDI_ = std::move(coreMIDI);
    discovery_ = std::move(discovery);
    dialer_ = std::move(dialer);
    loginItem_ = std::move(loginItem);

    auto statusItem = platform_.statusBar.makeStatusItem(StatusItemLength::square);
    statusItem->setBehavior(StatusItemBehavior::none);
    statusItem->setAutosaveName("TessaryLinkStatusItem");
    statusItem->setImage(makeStatusBarIcon());
    statusItem->setVisible(true);
    statusItem_ = std::move(statusItem);

    auto menu = platform_.statusBar.makeMenu();
    menu->setDelegate(weak_from_this());
    statusItem_->setMenu(menu);
    menu_ = std::move(menu);
    rebuildMenu();

    keepAliveTimer_ = platform_.mainQueue.makeTimer([weak = weak_from_this()](Timer&) {
        if (const auto self = weak.lock()) self->keepStatusItemVisible();
    });
    keepAliveTimer_->schedule(std::chrono::seconds(1), std::chrono::seconds(1));
}

void AppDelegate::keepStatusItemVisible() {
    if (statusItem_ && !statusItem_->isVisible()) statusItem_->setVisible(true);
}

void AppDelegate::applicationWillTerminate() {
    if (dialer_) dialer_->shutdownAll();
}

void AppDelegate::menuNeedsUpdate(Menu&) {
    loginItem_->refresh();
    rebuildMenu();
}

std::vector<Observation> AppDelegate::observeMenuContent(const std::function<void()>& observer) const {
    // Two peer sets are equal when their addresses are; a new name shows in the resolved services alone.
    return {dialer_->status().observe(observer),
            dialer_->connectedPeerIPs().observe(observer),
            dialer_->autoConnectEnabled().observe(observer),
            dialer_->lastEvent().observe(observer),
            discovery_->tessaryPeers.observe(observer),
            discovery_->appleMidiResolved.observe(observer),
            loginItem_->isEnabled.observe(observer)};
}

void AppDelegate::rebuildMenu() {
    const auto calling = [weak = weak_from_this()](void (AppDelegate::*method)()) {
        return [weak, method] {
            if (const auto self = weak.lock()) ((*self).*method)();
        };
    };
    std::vector<MenuItem> items;
    items.push_back(information(currentStatusText()));
    items.push_back(MenuItem::separator());
    std::ranges::move(peerLines(), std::back_inserter(items));
    items.push_back(MenuItem::separator());

    items.push_back(command("Auto-connect", "toggleAutoConnect", calling(&AppDelegate::toggleAutoConnect)));
    items.back().isOn = *dialer_->autoConnectEnabled();
    items.push_back(command("Reconnect Now", "reconnectNow", calling(&AppDelegate::reconnectNow)));
    items.push_back(MenuItem::separator());

    items.push_back(
        command("Start at Login", "toggleStartAtLogin", calling(&AppDelegate::toggleStartAtLogin)));
    items.back().isOn = *loginItem_->isEnabled;
    items.push_back(MenuItem::separator());

    if (const std::string& lastEvent = *dialer_->lastEvent(); !lastEvent.empty()) {
        items.push_back(information(lastEvent));
        items.back().style = TextStyle{.points = 10.0, .isMonospaced = true};
        items.push_back(MenuItem::separator());
    }
    items.push_back(command("Quit Tessary Link", "terminate",
                            [&application = platform_.application] { application.terminate(); }));
    items.back().keyEquivalent = std::string("q");
    menu_->setItems(std::move(items));
}

std::vector<MenuItem> AppDelegate::peerLines() const {
    struct Line {
        std::u32string key;
        const PeerHost* peer;
    };
    std::vector<Line> lines;
    for (const PeerHost& peer : *discovery_->tessaryPeers)
        lines.push_back({platform_.text.collationKey(peer.displayName), &peer});
    if (lines.empty()) return {information("No peers visible")};
    std::ranges::stable_sort(lines, {}, &Line::key);

    const std::vector<std::string>& connected = *dialer_->connectedPeerIPs();
    std::vector<MenuItem> items;
    for (const Line& line : lines) {
        const bool isConnected = std::ranges::find(connected, line.peer->ip) != connected.end();
        items.push_back(information((isConnected ? "● " : "○ ") + line.peer->displayName));
    }
    return items;
}

std::string AppDelegate::currentStatusText() const {
    const DialerStatus& status = *dialer_->status();
    switch (status.which) {
    case DialerStatus::Case::idle:
        return "○ No Tessary on network";
    case DialerStatus::Case::searching:
        return "◌ Searching for Tessary…";
    case DialerStatus::Case::connecting:
        return "◐ Connecting to " + status.text + "…";
    case DialerStatus::Case::connected:
        return "● Connected: " + status.text;
    case DialerStatus::Case::failed:
        return "✕ Failed: " + status.text;
    }
    return {};
}

void AppDelegate::toggleAutoConnect() {
    dialer_->setAutoConnectEnabled(!*dialer_->autoConnectEnabled());
}

void AppDelegate::reconnectNow() {
    dialer_->reconnectNow();
}

void AppDelegate::toggleStartAtLogin() {
    loginItem_->setEnabled(!*loginItem_->isEnabled);
}

Image AppDelegate::makeStatusBarIcon() {
    const auto draw = [](const Rectangle& destination) -> std::vector<Shape> {
        const double margin = 1.2; // from the edge to the outer cells' paths
        const double gap = 1.6;
        const double lineWidth = 1.2;
        const double side = ((destination.width - 2.0 * margin) - gap) * 0.5;
        const double second = (side + margin) + gap; // where the second row and column begin
        const auto cell = [&](double x, double y) {
            return RoundedRectangle{{{x, y}, side, side}, side * 0.3};
        };
        const RoundedRectangle filled = cell(second, second);

        const double width = side * 0.36;
        const double height = side * 0.44;
        // A triangle looks centred a little to the right of where its bounds are.
        const Point centre{filled.rectangle.midX() + width * 0.16, filled.rectangle.midY()};
        const Polygon triangle{{centre.x - width * 0.5, centre.y + height * 0.5},
                               {centre.x + width * 0.5, centre.y},
                               {centre.x - width * 0.5, centre.y - height * 0.5}};
        return {{{cell(margin, margin)}, lineWidth},
                {{cell(second, margin)}, lineWidth},
                {{cell(margin, second)}, lineWidth},
                {{filled, triangle}}};
    };
    return {.width = 18.0,
            .height = 18.0,
            .isTemplate = true,
            .accessibilityDescription = "Tessary Link",
            .draw = draw};
}

} // namespace tessary
