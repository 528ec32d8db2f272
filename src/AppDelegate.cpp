#include "AppDelegate.h"

namespace tessary {

AppDelegate::AppDelegate(const Platform& platform)
    : platform_(platform) {}

void AppDelegate::applicationDidFinishLaunching() {
    auto coreMIDI = std::make_shared<CoreMIDIBridge>(platform_);
    auto discovery = std::make_shared<PeerDiscovery>(platform_);
    discovery->start();
    auto dialer = RTPMIDIDialer::make(platform_, discovery, coreMIDI, "Tessary Link");

    coreMIDI_ = std::move(coreMIDI);
    discovery_ = std::move(discovery);
    dialer_ = std::move(dialer);
}

void AppDelegate::applicationWillTerminate() {
    if (dialer_) dialer_->shutdownAll();
}

} // namespace tessary
