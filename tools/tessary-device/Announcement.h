// Announces devices by multicast DNS (RFC 6762, 6763), with a responder of this process's own: no daemon, no
// D-Bus.
#pragma once

#include "Models/IPv4Host.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tessary::device {

/// What one device announces: `_apple-midi._udp` and, unless `markerName` is empty, `_tessarylink._tcp`, both
/// on a host name of the device's own that stands for `addresses`.
struct Announcement {
    /// At most 63 bytes each, as the label of an instance name is.
    std::string name;
    std::string markerName;
    /// Each interface announces those in its own subnet, or all of them if none is.
    std::vector<IPv4Host> addresses;
    std::uint16_t port = 0;
};

/// What becomes of an announcement.
struct AnnouncementHandlers {
    /// It is on the network, under this name: another than wished for if that one was taken.
    std::function<void(const std::string& name)> announced;
    std::function<void(const std::string& reason)> failed;
};

/// One multicast DNS responder on a thread of its own, begun with the first announcement. Others may run on
/// the same machine.
class Announcer {
  public:
    using ID = std::size_t;

    Announcer();
    /// Withdraws everything and returns when the goodbyes are sent.
    ~Announcer();
    Announcer(const Announcer&) = delete;
    Announcer& operator=(const Announcer&) = delete;

    /// Runs on: one thread; the handlers on that one, before this returns, or on the responder's. They must
    /// not call back.
    ID announce(Announcement announcement, AnnouncementHandlers handlers);

    /// Takes an announcement back: the network is told (a goodbye, TTL 0) at once.
    ///
    /// Runs on: the thread of `announce`.
    void withdraw(ID id);

  private:
    struct Responder;
    std::unique_ptr<Responder> responder_;
};

} // namespace tessary::device
