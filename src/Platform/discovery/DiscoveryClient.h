// DNS-SD by a process of its own.
#pragma once

#include "Platform/ServiceDiscovery.h"

#include <filesystem>
#include <memory>

namespace tessary {

class EventLoop;
class Log;

/// Browses and resolves by the discovery process, whose faults and end it survives: what was found stays
/// found until a new process has had the time to find it, and what was being resolved is resolved then. A
/// service that has moved is reported as gone and, at once, as new, so that it is resolved again.
///
/// Everything runs on the loop's thread, the main thread.
class DiscoveryClient : public ServiceDiscovery {
  public:
    /// Starts the process soon, never inside this call.
    ///
    /// @param mainQueue   of the loop; outlives the discovery, as the loop and the log do
    /// @param executable  of the discovery process
    DiscoveryClient(EventLoop& loop, Queue& mainQueue, Log& log, std::filesystem::path executable);
    /// Ends the process. Browsers and resolvers may still be used, to no effect.
    ~DiscoveryClient() override;

    /// Where the discovery process is: beside the program in a build, in libexec once installed.
    static std::filesystem::path defaultExecutable();

    /// The main queue.
    std::shared_ptr<Queue> makeQueue(std::string label) override;
    std::unique_ptr<ServiceBrowser> makeBrowser(const std::string& type) override;
    std::shared_ptr<ServiceResolver> makeResolver(const std::string& domain, const std::string& type,
                                                  const std::string& name) override;

  private:
    class Directory;
    class Browser;
    class Resolver;
    Queue& mainQueue_;
    const std::shared_ptr<Directory> directory_;
};

} // namespace tessary
