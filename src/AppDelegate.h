// What happens at launch and at the end, what the menu shows, and which object owns which.
#pragma once

#include "Models/Image.h"
#include "Platform/Platform.h"
#include "Platform/StatusItem.h"
#include "Services/CoreMIDIBridge.h"
#include "Services/LoginItemManager.h"
#include "Services/PeerDiscovery.h"
#include "Services/RTPMIDIDialer.h"

#include <memory>
#include <string>
#include <vector>

namespace tessary {

/// Owns the long-lived objects from launch to the end of the process. Runs on: the main thread.
class AppDelegate : public MenuDelegate, public std::enable_shared_from_this<AppDelegate> {
  public:
    explicit AppDelegate(const Platform& platform);

    /// Launch: the MIDI source, then discovery, which browses before anything else exists, then the dialer
    /// and the login item, and last the status item with its menu.
    void applicationDidFinishLaunching();

    /// The end: every session sends BY. Everything else ends with the process.
    void applicationWillTerminate();

    /// The menu is about to be shown: reads what other programs may have changed.
    void menuNeedsUpdate(Menu& menu) override;

    /// Calls `observer` whenever something that the menu shows has changed. After launch only.
    [[nodiscard]] std::vector<Observation> observeMenuContent(const std::function<void()>& observer) const;

    /// The icon: two by two rounded squares, the top right one filled, with a triangle cut out that points to
    /// the right. A template image of 18 by 18 points.
    static Image makeStatusBarIcon();

  private:
    void rebuildMenu();
    std::vector<MenuItem> peerLines() const;
    std::string currentStatusText() const;
    void toggleAutoConnect();
    void reconnectNow();
    void toggleStartAtLogin();
    void keepStatusItemVisible();

    const Platform platform_;
    std::shared_ptr<StatusItem> statusItem_;
    std::shared_ptr<Menu> menu_;
    std::shared_ptr<PeerDiscovery> discovery_;
    std::shared_ptr<RTPMIDIDialer> dialer_;
    std::shared_ptr<LoginItemManager> loginItem_;
    std::shared_ptr<CoreMIDIBridge> coreMIDI_;
    std::shared_ptr<Timer> keepAliveTimer_;
};

} // namespace tessary
