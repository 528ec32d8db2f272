// Decides which peers the program has sessions with, and summarizes them for the menu.
#pragma once

#include "Models/PeerHost.h"
#include "Models/Published.h"
#include "Platform/Platform.h"
#include "Services/CoreMIDIBridge.h"
#include "Services/PeerDiscovery.h"
#include "Services/RTPMIDISession.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tessary {

/// A tagged value; two are equal when case and text are.
struct DialerStatus {
    enum class Case { idle, searching, connecting, connected, failed };
    Case which = Case::idle;
    std::string text; ///< the address of `connecting` and `connected`, the reason of `failed`

    friend bool operator==(const DialerStatus&, const DialerStatus&) = default;
};

/// Holds exactly one session for each address of the discovery's peers. It looks once a second, whenever the
/// peers change, and on demand; a session that has ended is dropped and its peer dialled again the next time.
///
/// Observable. Runs on: the main thread, except for MIDI, which goes from each session's queue straight to
/// the bridge. All its callbacks hold it weakly.
class RTPMIDIDialer : public std::enable_shared_from_this<RTPMIDIDialer> {
  public:
    /// Makes a dialer and starts it.
    static std::shared_ptr<RTPMIDIDialer> make(const Platform& platform,
                                               std::shared_ptr<PeerDiscovery> discovery,
                                               std::shared_ptr<CoreMIDIBridge> coreMIDI,
                                               std::string localName);

    RTPMIDIDialer(const RTPMIDIDialer&) = delete;
    RTPMIDIDialer& operator=(const RTPMIDIDialer&) = delete;
    ~RTPMIDIDialer();

    const Published<DialerStatus>& status() const { return status_; }
    /// The last logged message after its UTC time, as in "2026-11-16T21:08:03Z 10.0.0.2 running".
    const Published<std::string>& lastEvent() const { return lastEvent_; }
    /// The addresses whose session is running, in ascending text order.
    const Published<std::vector<std::string>>& connectedPeerIPs() const { return connectedPeerIPs_; }

    /// Whether the dialer dials and stops at all; on at every launch. Each assignment of true looks at once.
    const Published<bool>& autoConnectEnabled() const { return autoConnectEnabled_; }
    void setAutoConnectEnabled(bool enabled);

    /// Stops every session and dials again.
    void reconnectNow();

    /// Stops every session and forgets them.
    void shutdownAll();

  private:
    RTPMIDIDialer(const Platform& platform, std::shared_ptr<PeerDiscovery> discovery,
                  std::shared_ptr<CoreMIDIBridge> coreMIDI, std::string localName);

    void startWorking();
    void startPolling();
    void reconcile();
    void startSession(const PeerHost& peer);
    void handleSessionState(const std::string& ip, const RTPMIDISession::State& state);
    void stopAll();
    void refreshStatus();
    void log(const std::string& message);

    const Platform platform_;
    Published<DialerStatus> status_;
    Published<std::string> lastEvent_;
    Published<std::vector<std::string>> connectedPeerIPs_;
    Published<bool> autoConnectEnabled_{true};
    const std::shared_ptr<PeerDiscovery> discovery_;
    const std::string localName_;
    const std::shared_ptr<CoreMIDIBridge> coreMIDI_;
    std::map<std::string, std::shared_ptr<RTPMIDISession>> sessions_; ///< by address
    std::shared_ptr<Timer> pollTimer_;
};

} // namespace tessary
