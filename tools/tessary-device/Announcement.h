// Announces devices by multicast DNS (RFC 6762, 6763) with a responder inside this process: no daemon, no
// D-Bus.
#pragma once

#include "Models/IPv4Host.h"

#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <vector>

namespace tessary::device {

/// What one device announces: `_apple-midi._udp` and, unless `markerName` is empty, `_tessarylink._tcp`, both
/// on a host name of the device's own with the given addresses.
struct Announcement {
    /// At most 63 bytes each, the limit of a DNS label.
    std::string name{};
    std::string markerName{};
    /// At least one. Each interface announces those in its own subnet, or all of them if none is.
    std::vector<IPv4Host> addresses{};
    std::uint16_t port = 0;
    /// Called with one line for each event: which name was announced at which address, or why none was.
    std::function<void(const std::string& event)> report{};
};

struct AnnouncedDevice;

/// One multicast DNS responder on a thread of its own. Several responders can run on one machine.
class Announcer {
  public:
    /// Announces everything in the list. If a name is taken, all names of its device get the next free
    /// number.
    ///
    /// Runs on: any thread; `report` on that one, before this returns, or on the responder's. Errors:
    /// reported.
    explicit Announcer(std::vector<Announcement> announcements);
    /// Withdraws everything: sends its records with TTL 0 (RFC 6762, section 10.1) before it
    /// returns.
    ~Announcer();
    Announcer(const Announcer&) = delete;
    Announcer& operator=(const Announcer&) = delete;

  private:
    AvahiThreadedPoll* const poll_ = avahi_threaded_poll_new();
    AvahiServer* server_ = nullptr;
    std::list<AnnouncedDevice> devices_; ///< a list, because Avahi holds pointers to its elements
};

} // namespace tessary::device
