// One browse for a service type, across restarts of the daemon. On the Avahi thread but for its reports.
#pragma once

#include "Platform/ServiceDiscovery.h"
#include "Platform/avahi/AvahiBackend.h"

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <tuple>

namespace tessary {

class ServiceBrowse : public std::enable_shared_from_this<ServiceBrowse> {
  public:
    ServiceBrowse(AvahiThread& thread, std::string type, std::shared_ptr<Queue> queue,
                  BrowserHandlers handlers);

    /// Begins, or goes on with a new daemon.
    void begin(AvahiBackend& backend);

    const std::string& type() const { return type_; }

    /// Called when names have left the list, on the Avahi thread.
    void whenGone(std::function<void(const std::set<std::string>&)> handler) {
        goneHandler_ = std::move(handler);
    }

    /// Whether the name is among the results.
    bool lists(const std::string& name) const;

    /// Reports a name that is still listed as gone, and then as new: what it was resolved to holds no more.
    void renew(const std::string& name);

    /// The daemon has gone: what it saw is kept until the next one had the time to find it again.
    void daemonLost();

    /// Ends it for good, with a text for its owner.
    void fail(const std::string& error);

    /// From here on no handler is entered.
    ///
    /// Runs on: any thread.
    void silence() { isSilent_ = true; }

  private:
    /// Name, domain and interface.
    using Result = std::tuple<std::string, std::string, int>;

    void handle(AvahiBackend& backend, const ServiceEvent& event);
    void handleFailure(AvahiBackend& backend, int error);
    void scheduleReport();
    void report();
    void report(std::set<Result> now);
    std::set<Result> visible() const;

    AvahiThread& thread_;
    const std::string type_;
    const std::shared_ptr<Queue> queue_;
    const BrowserHandlers handlers_;
    std::atomic<bool> isSilent_ = false;

    Lookup lookup_;
    std::set<std::pair<Result, int>> seen_; // what this lookup sees, for each protocol
    std::set<Result> kept_;                 // what the lookup before it saw
    std::set<Result> reported_;
    std::set<std::string> renewed_; // to be reported as gone first
    bool isReportScheduled_ = false;
    bool hasFailed_ = false;
    std::function<void(const std::set<std::string>&)> goneHandler_;
};

} // namespace tessary
