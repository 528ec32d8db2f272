// What happens at launch and at the end, and who owns whom.
#pragma once

#include "Platform/Platform.h"
#include "Services/CoreMIDIBridge.h"
#include "Services/PeerDiscovery.h"
#include "Services/RTPMIDIDialer.h"

#include <memory>

namespace tessary {

/// Owns the long-lived objects from launch to the end of the process. Runs on: the main thread.
class AppDelegate {
  public:
    explicit AppDelegate(const Platform& platform);

    /// Launch: the MIDI source, then discovery, which browses before anything else exists, then the dialer.
    void applicationDidFinishLaunching();

    /// The end: every session says goodbye. The rest ends with the process.
    void applicationWillTerminate();

  private:
    const Platform platform_;
    std::shared_ptr<PeerDiscovery> discovery_;
    std::shared_ptr<RTPMIDIDialer> dialer_;
    std::shared_ptr<CoreMIDIBridge> coreMIDI_;
};

} // namespace tessary
