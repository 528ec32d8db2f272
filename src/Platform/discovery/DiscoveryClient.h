// DNS-SD in a separate process.
#pragma once

#include "Platform/ServiceDiscovery.h"

#include <filesystem>
#include <memory>

namespace tessary {

class EventLoop;
class Log;

/// Browses and resolves in the discovery process. When that process fails, results are kept until a new
/// process has had the time to find them, and pending resolutions continue there. A service that has moved is
/// reported as gone and immediately afterwards as new, so that it is resolved again.
///
/// Runs on: the loop's thread, which is the main thread.
class DiscoveryClient : public ServiceDiscovery {
  public:
    /// Starts the process later, never inside this call.
    ///
    /// @param mainQueue   of the loop; must outlive this object, as must the loop and the log
    /// @param executable  of the discovery process
    DiscoveryClient(EventLoop& loop, Queue& mainQueue, Log& log, std::filesystem::path executable);
    /// Ends the process. Browsers and resolvers may still be used, without effect.
    ~DiscoveryClient() override;

    /// The path of the discovery process: beside the program in a build, in libexec once installed.
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
