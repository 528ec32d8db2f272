#include "Platform/discovery/DiscoveryClient.h"

#include "Platform/discovery/DiscoveryProcess.h"

#include <algorithm>
#include <chrono>
#include <compare>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

namespace tessary {

using namespace discovery;

namespace {

std::string withoutFullStop(std::string text) {
    if (text.ends_with('.')) text.pop_back();
    return text;
}

struct ServiceName {
    std::string type, name, domain;
    friend auto operator<=>(const ServiceName&, const ServiceName&) = default;
};

} // namespace

/// The requests to the discovery process and its results. Holds all that is needed to repeat the requests to
/// a new process.
class DiscoveryClient::Directory {
  public:
    Directory(EventLoop& loop, Log& log, std::filesystem::path executable)
        : process_(std::in_place, loop, log, std::move(executable),
                   DiscoveryProcess::Handlers{
                       .started = [this] { askAgain(); },
                       .reported =
                           [this](const Report& report) {
                               return std::visit([this](const auto& each) { return handle(each); }, report);
                           }}) {}

    /// Starts a browse. The handlers run on `queue`, as long as the returned pointer is held.
    std::shared_ptr<BrowserHandlers> browse(const std::string& type, const std::shared_ptr<Queue>& queue,
                                            BrowserHandlers handlers);
    void endBrowse(const std::shared_ptr<BrowserHandlers>& handlers);

    /// Ends the process. Later requests have no effect.
    void end() { process_.reset(); }

    /// Returns the number of the service, for `stop`.
    std::uint32_t resolve(const std::shared_ptr<Resolver>& resolver, std::chrono::milliseconds timeout);
    void stop(std::uint32_t number, const Resolver& resolver);

  private:
    /// Name, domain and interface.
    using Result = std::tuple<std::string, std::string, std::uint32_t>;

    struct BrowseState {
        std::string type;
        std::shared_ptr<Queue> queue;
        std::shared_ptr<BrowserHandlers> handlers;
        std::set<Result> seen{};
        std::set<Result> kept{}; // found before a restart; kept until the new set is complete
        std::set<std::string> reported{};
        std::set<std::string> renewed{}; // to be reported as gone and then as new
        bool isReportDue = false;
    };
    struct ServiceState {
        ServiceName name;
        std::chrono::milliseconds timeout{};
        std::vector<std::weak_ptr<Resolver>> waiting{};
        std::optional<Resolved> told{}; // the result last delivered to a resolver
    };
    using Services = std::map<std::uint32_t, ServiceState>;

    void send(const Request& request) {
        if (process_) process_->send(request);
    }
    void askAgain();
    bool handle(const Started&) { return false; }
    bool handle(const Pong&) { return true; }
    bool handle(const Listed& report);
    bool handle(const Unlisted& report);
    bool handle(const Changed& report);
    bool handle(const Restarted& report);
    bool handle(const Complete& report);
    bool handle(const BrowseFailed& report);
    bool handle(const Resolved& report);
    bool handle(const Unresolved& report);

    void restart(BrowseState& browse);
    void reportSoon(BrowseState& browse);
    void report(BrowseState& browse);
    bool isListed(const std::string& type, const std::string& name) const;
    void ask(const Services::value_type& service);
    void renew(const ServiceState& service);
    void endIfUnused(Services::iterator service);
    void endUnlisted(const std::string& type, const std::string& name);

    std::map<std::uint32_t, BrowseState> browses_;
    Services services_;
    std::map<ServiceName, std::uint32_t> numberOf_;
    std::uint32_t numbers_ = 0;
    std::optional<DiscoveryProcess> process_;
};

/// The handle of a browse: dropping it ends the browse.
class DiscoveryClient::Browser : public ServiceBrowser {
  public:
    Browser(std::shared_ptr<Directory> directory, std::string type)
        : directory_(std::move(directory))
        , type_(std::move(type)) {}
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;
    ~Browser() override {
        if (handlers_) directory_->endBrowse(handlers_);
    }

    void start(const std::shared_ptr<Queue>& queue, BrowserHandlers handlers) override {
        if (!handlers_) handlers_ = directory_->browse(type_, queue, std::move(handlers));
    }

  private:
    const std::shared_ptr<Directory> directory_;
    const std::string type_;
    std::shared_ptr<BrowserHandlers> handlers_;
};

/// The handle of a resolution: dropping it ends the resolution.
class DiscoveryClient::Resolver : public ServiceResolver, public std::enable_shared_from_this<Resolver> {
  public:
    Resolver(std::shared_ptr<Directory> directory, ServiceName service)
        : directory_(std::move(directory))
        , service_(std::move(service)) {}
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;
    ~Resolver() override { Resolver::stop(); }

    const ServiceName& service() const { return service_; }
    const std::string& name() const override { return service_.name; }

    void resolve(std::chrono::nanoseconds timeout, ResolverHandlers handlers) override {
        stop();
        handlers_ = std::move(handlers);
        number_ =
            directory_->resolve(shared_from_this(), std::chrono::ceil<std::chrono::milliseconds>(timeout));
    }
    void stop() override {
        handlers_ = {};
        if (number_ != 0) directory_->stop(std::exchange(number_, 0), *this);
    }

    const std::optional<std::vector<IPv4Host>>& addresses() const override { return addresses_; }
    int port() const override { return port_; }

    void succeed(const Resolved& resolved) {
        number_ = 0;
        addresses_ = resolved.addresses;
        port_ = resolved.port;
        const ResolverHandlers handlers = std::exchange(handlers_, {});
        if (handlers.didResolve) handlers.didResolve(*this);
    }
    void fail(const std::string& reason) {
        number_ = 0;
        const ResolverHandlers handlers = std::exchange(handlers_, {});
        if (handlers.didNotResolve) handlers.didNotResolve(*this, reason);
    }

  private:
    const std::shared_ptr<Directory> directory_;
    const ServiceName service_;
    ResolverHandlers handlers_;
    std::uint32_t number_ = 0; // of the service while a resolution is pending, otherwise 0
    std::optional<std::vector<IPv4Host>> addresses_;
    int port_ = -1;
};

// Browsing

std::shared_ptr<BrowserHandlers> DiscoveryClient::Directory::browse(const std::string& type,
                                                                    const std::shared_ptr<Queue>& queue,
                                                                    BrowserHandlers handlers) {
    auto shared = std::make_shared<BrowserHandlers>(std::move(handlers));
    browses_.emplace(++numbers_, BrowseState{type, queue, shared});
    send(Browse{numbers_, type});
    return shared;
}

void DiscoveryClient::Directory::endBrowse(const std::shared_ptr<BrowserHandlers>& handlers) {
    const auto found =
        std::ranges::find_if(browses_, [&](const auto& entry) { return entry.second.handlers == handlers; });
    send(EndBrowse{found->first});
    browses_.erase(found);
}

bool DiscoveryClient::Directory::handle(const Listed& report) {
    const auto found = browses_.find(report.browse);
    if (found == browses_.end()) return true; // the browse has just ended
    if (report.name.empty() || found->second.seen.size() >= maxListed) return false;
    found->second.seen.insert({report.name, report.domain, report.interface});
    return true;
}

bool DiscoveryClient::Directory::handle(const Unlisted& report) {
    const auto found = browses_.find(report.browse);
    if (found == browses_.end()) return true;
    const Result result{report.name, report.domain, report.interface};
    found->second.seen.erase(result);
    found->second.kept.erase(result);
    return true;
}

bool DiscoveryClient::Directory::handle(const Changed& report) {
    const auto found = browses_.find(report.browse);
    if (found != browses_.end()) reportSoon(found->second);
    return true;
}

bool DiscoveryClient::Directory::handle(const Restarted& report) {
    const auto found = browses_.find(report.browse);
    if (found != browses_.end()) restart(found->second);
    return true;
}

void DiscoveryClient::Directory::restart(BrowseState& browse) {
    for (const Result& result : std::exchange(browse.seen, {}))
        if (browse.kept.size() < maxListed) browse.kept.insert(result);
}

bool DiscoveryClient::Directory::handle(const Complete& report) {
    const auto found = browses_.find(report.browse);
    if (found != browses_.end() && !std::exchange(found->second.kept, {}).empty()) reportSoon(found->second);
    return true;
}

bool DiscoveryClient::Directory::handle(const BrowseFailed& report) {
    const auto found = browses_.find(report.browse);
    if (found == browses_.end()) return true;
    found->second.queue->post([weak = std::weak_ptr(found->second.handlers), reason = report.reason] {
        const auto handlers = weak.lock();
        if (handlers && handlers->failed) handlers->failed(reason);
    });
    return true;
}

/// Schedules one report for all changes until it runs: sets are large, and thousands of changes may arrive at
/// once.
void DiscoveryClient::Directory::reportSoon(BrowseState& browse) {
    if (std::exchange(browse.isReportDue, true)) return;
    browse.queue->post([this, weak = std::weak_ptr(browse.handlers)] {
        const auto handlers = weak.lock(); // held by a browser, which also holds this directory
        if (!handlers) return;
        const auto found = std::ranges::find_if(
            browses_, [&](const auto& entry) { return entry.second.handlers == handlers; });
        found->second.isReportDue = false;
        report(found->second);
    });
}

/// Reports the full set, preceded by a set without the names that must be resolved again, if there are any.
void DiscoveryClient::Directory::report(BrowseState& browse) {
    std::set<Result> visible = browse.kept;
    visible.insert(browse.seen.begin(), browse.seen.end());
    const auto before = std::exchange(browse.reported, {});
    std::vector<BrowseResult> results;
    for (const auto& [name, domain, interface] : visible) {
        browse.reported.insert(name);
        results.push_back({name, browse.type, domain, static_cast<int>(interface)});
    }
    const auto post = [&](std::vector<BrowseResult> set) {
        browse.queue->post([weak = std::weak_ptr(browse.handlers), set = std::move(set)] {
            const auto handlers = weak.lock();
            if (handlers && handlers->resultsChanged) handlers->resultsChanged(set);
        });
    };
    if (const auto renewed = std::exchange(browse.renewed, {}); !renewed.empty()) {
        auto rest = results;
        std::erase_if(rest, [&](const BrowseResult& result) { return renewed.contains(result.name); });
        post(std::move(rest));
    }
    post(std::move(results));
    for (const auto& name : before)
        if (!isListed(browse.type, name)) endUnlisted(browse.type, name);
}

bool DiscoveryClient::Directory::isListed(const std::string& type, const std::string& name) const {
    return std::ranges::any_of(browses_, [&](const auto& entry) {
        return entry.second.type == type && entry.second.reported.contains(name);
    });
}

// Resolving

std::uint32_t DiscoveryClient::Directory::resolve(const std::shared_ptr<Resolver>& resolver,
                                                  std::chrono::milliseconds timeout) {
    const auto [known, isNew] = numberOf_.try_emplace(resolver->service(), numbers_ + 1);
    if (isNew) services_.emplace(++numbers_, ServiceState{resolver->service()});
    const auto service = services_.find(known->second);
    service->second.timeout = timeout;
    service->second.waiting.push_back(resolver);
    ask(*service);
    return service->first;
}

void DiscoveryClient::Directory::ask(const Services::value_type& entry) {
    const auto& [number, service] = entry;
    const auto& [type, name, domain] = service.name;
    const bool isKnown = service.told && !service.told->addresses.empty();
    send(Resolve{number, name, type, domain, static_cast<std::uint32_t>(service.timeout.count()),
                 isKnown ? service.told->addresses.front() : IPv4Host{}});
}

void DiscoveryClient::Directory::stop(std::uint32_t number, const Resolver& resolver) {
    const auto service = services_.find(number);
    if (service == services_.end()) return;
    std::erase_if(service->second.waiting, [&](const auto& weak) {
        const auto waiting = weak.lock();
        return !waiting || waiting.get() == &resolver;
    });
    endIfUnused(service);
}

bool DiscoveryClient::Directory::handle(const Resolved& report) {
    if (!std::ranges::all_of(report.addresses, &IPv4Host::isUnicast)) return false;
    const auto found = services_.find(report.resolution);
    if (found == services_.end()) return true; // the resolution has just ended
    ServiceState& service = found->second;
    const auto place = [](const Resolved& resolved) {
        return std::pair(resolved.port, resolved.addresses.empty() ? IPv4Host{} : resolved.addresses.front());
    };
    if (service.waiting.empty()) {
        if (!service.told || place(*service.told) != place(report)) renew(service);
        return true;
    }
    service.told = report;
    const auto waiting = std::exchange(service.waiting, {});
    endIfUnused(found);
    for (const auto& weak : waiting)
        if (const auto resolver = weak.lock()) resolver->succeed(report);
    return true;
}

bool DiscoveryClient::Directory::handle(const Unresolved& report) {
    const auto found = services_.find(report.resolution);
    if (found == services_.end()) return true;
    const auto waiting = std::exchange(found->second.waiting, {});
    if (!waiting.empty()) found->second.told.reset(); // otherwise the delivered result stays valid
    endIfUnused(found);
    for (const auto& weak : waiting)
        if (const auto resolver = weak.lock()) resolver->fail(report.reason);
    return true;
}

/// The service has moved, or was found after its timeout: reports its name as gone and then as new.
void DiscoveryClient::Directory::renew(const ServiceState& service) {
    const auto& [type, name, domain] = service.name;
    for (auto& [number, browse] : browses_) {
        if (browse.type != type || !browse.reported.contains(name)) continue;
        browse.renewed.insert(name);
        reportSoon(browse);
    }
}

/// A service stays watched as long as its name is listed.
void DiscoveryClient::Directory::endIfUnused(Services::iterator service) {
    const auto& [type, name, domain] = service->second.name;
    if (!service->second.waiting.empty() || isListed(type, name)) return;
    send(EndResolve{service->first});
    numberOf_.erase(service->second.name);
    services_.erase(service);
}

void DiscoveryClient::Directory::endUnlisted(const std::string& type, const std::string& name) {
    std::vector<std::weak_ptr<Resolver>> waiting;
    for (auto next = numberOf_.lower_bound({type, name, {}}); next != numberOf_.end();) {
        if (next->first.type != type || next->first.name != name) break;
        const auto service = services_.find((next++)->second);
        std::ranges::move(std::exchange(service->second.waiting, {}), std::back_inserter(waiting));
        endIfUnused(service);
    }
    for (const auto& weak : waiting)
        if (const auto resolver = weak.lock()) resolver->fail("Not found");
}

/// Repeats all requests to a new process. The results of the previous process are kept.
void DiscoveryClient::Directory::askAgain() {
    for (auto& [number, browse] : browses_) {
        restart(browse);
        send(Browse{number, browse.type});
    }
    for (const auto& service : services_)
        ask(service);
}

// Interface

DiscoveryClient::DiscoveryClient(EventLoop& loop, Queue& mainQueue, Log& log,
                                 std::filesystem::path executable)
    : mainQueue_(mainQueue)
    , directory_(std::make_shared<Directory>(loop, log, std::move(executable))) {}

DiscoveryClient::~DiscoveryClient() {
    directory_->end();
}

std::filesystem::path DiscoveryClient::defaultExecutable() {
    // Without /proc the path is wrong, and starting the process fails with a log line.
    std::error_code ignored;
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    auto beside = folder / "tessary-discovery";
    if (std::filesystem::exists(beside, ignored)) return beside;
    return folder.parent_path() / TESSARY_LIBEXEC / "tessary-discovery";
}

std::shared_ptr<Queue> DiscoveryClient::makeQueue(std::string) {
    return {std::shared_ptr<void>(), &mainQueue_}; // not owned: the main queue outlives this object
}

std::unique_ptr<ServiceBrowser> DiscoveryClient::makeBrowser(const std::string& type) {
    return std::make_unique<Browser>(directory_, type);
}

std::shared_ptr<ServiceResolver>
DiscoveryClient::makeResolver(const std::string& domain, const std::string& type, const std::string& name) {
    return std::make_shared<Resolver>(directory_,
                                      ServiceName{withoutFullStop(type), name, withoutFullStop(domain)});
}

} // namespace tessary
