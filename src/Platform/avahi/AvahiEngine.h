// All that is looked up through Avahi, across restarts of its daemon.
#pragma once

#include "Platform/avahi/AvahiBackend.h"
#include "Platform/avahi/PreferredAddresses.h"
#include "Platform/avahi/ServiceBrowse.h"
#include "Platform/avahi/ServiceResolution.h"

#include <deque>
#include <memory>
#include <set>

namespace tessary {

class AvahiEngine {
  public:
    AvahiThread& thread() { return thread_; }
    PreferredAddresses& preferred() { return preferred_; }

    /// Chooses the backend, then serves the thread until it is stopped, and clears up. The caller's thread is
    /// the Avahi thread.
    void run();

    // On the Avahi thread.

    void add(const std::shared_ptr<ServiceBrowse>& browse);
    void remove(const std::shared_ptr<ServiceBrowse>& browse);

    /// Resolves as soon as there is room on the network.
    void add(const std::shared_ptr<ServiceResolution>& resolution);
    void remove(const std::shared_ptr<ServiceResolution>& resolution);

  private:
    /// A service that was resolved, and where it was then; or one that could not be found.
    struct Watch {
        std::string name;
        std::string type;
        std::string domain;
        bool isMissing = false;
        std::string host = {}; // empty until the lookup has found it
        std::uint16_t port = 0;
        Lookup lookup = nullptr;
    };

    void open();
    void ready();
    void lost();
    void beginResolutions();
    bool makeRoom();
    void drop(const std::string& type, const std::set<std::string>& names);
    bool hasFailed(const ServiceResolution& resolution) const;
    void noteFailure(const ServiceResolution& resolution);
    void noteOutcome(const ServiceResolution& resolution, ServiceResolution::Found found);
    void watch(const ServiceResolution::Request& request, bool isMissing);
    void begin(const std::shared_ptr<Watch>& watch);
    void handle(const std::shared_ptr<Watch>& watch, const HostEvent& event);

    AvahiThread thread_;
    std::shared_ptr<AvahiBackend> backend_;
    int error_ = AVAHI_OK; // why there is no backend
    std::set<std::shared_ptr<ServiceBrowse>> browses_;
    std::deque<std::shared_ptr<ServiceResolution>> waiting_;
    std::deque<std::shared_ptr<ServiceResolution>> inFlight_; // the newest last
    std::deque<std::shared_ptr<Watch>> watches_;
    std::deque<std::shared_ptr<Watch>> missing_;
    std::set<std::pair<std::string, std::string>> failed_; // types and names
    PreferredAddresses preferred_;
};

} // namespace tessary
