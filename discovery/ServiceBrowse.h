// One browse for a service type, across restarts of the daemon.
#pragma once

#include "Backend.h"
#include "Platform/discovery/Messages.h"

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>

namespace tessary::discovery {

class ServiceBrowse : public std::enable_shared_from_this<ServiceBrowse> {
  public:
    ServiceBrowse(Loop& loop, const Browse& request, std::function<void(const Report&)> report);

    /// Begins browsing, or continues with a new daemon.
    void begin(Backend& backend);

    /// The daemon has ended.
    void interrupt();

  private:
    /// Name, domain and interface.
    using Result = std::tuple<std::string, std::string, int>;

    void handle(const ServiceEvent& event);
    void handleFailure(int error);
    void retry();
    void scheduleReport();
    void reportChanges();
    void reportCompleteLater();

    Loop& loop_;
    const std::uint32_t number_;
    const std::string type_;
    const std::function<void(const Report&)> report_;

    Backend* backend_ = nullptr; // present while there is a daemon
    Lookup lookup_;
    std::set<std::pair<Result, int>> seen_; // for each protocol
    std::set<Result> reported_;
    Loop::Clock::time_point lastChange_;
    bool isReportScheduled_ = false;
    bool hasFailed_ = false;
    std::chrono::seconds retryDelay_{1};
};

} // namespace tessary::discovery
