#include "Platform/avahi/AvahiDiscovery.h"

#include "Platform/avahi/AvahiEngine.h"
#include "Platform/posix/Thread.h"

#include <future>
#include <mutex>
#include <thread>
#include <utility>

namespace tessary {

namespace {

using namespace std::chrono_literals;

constexpr auto threadEndPatience = 300ms;

/// The way to the main queue, until the discovery closes it.
class MainQueueGate {
  public:
    explicit MainQueueGate(TimerQueue& queue)
        : queue_(&queue) {}

    void post(std::function<void()> work) {
        const std::lock_guard lock(mutex_);
        if (queue_) queue_->post(std::move(work));
    }

    void close() {
        const std::lock_guard lock(mutex_);
        queue_ = nullptr;
    }

  private:
    std::mutex mutex_;
    TimerQueue* queue_;
};

/// What the owner of a browser holds.
class AvahiBrowser : public ServiceBrowser {
  public:
    AvahiBrowser(std::shared_ptr<AvahiEngine> engine, std::string type)
        : engine_(std::move(engine))
        , type_(std::move(type)) {}
    AvahiBrowser(const AvahiBrowser&) = delete;
    AvahiBrowser& operator=(const AvahiBrowser&) = delete;
    ~AvahiBrowser() override {
        if (!browse_) return;
        browse_->silence();
        engine_->thread().post([engine = engine_, browse = browse_] { engine->remove(browse); });
    }

    void start(const std::shared_ptr<Queue>& queue, BrowserHandlers handlers) override {
        if (browse_) return;
        browse_ = std::make_shared<ServiceBrowse>(engine_->thread(), type_, queue, std::move(handlers));
        engine_->thread().post([engine = engine_, browse = browse_] { engine->add(browse); });
    }

  private:
    const std::shared_ptr<AvahiEngine> engine_;
    const std::string type_;
    std::shared_ptr<ServiceBrowse> browse_;
};

std::string withoutFullStop(std::string text) {
    if (text.ends_with('.')) text.pop_back();
    return text;
}

/// What the main thread holds of a resolution.
class AvahiResolver : public ServiceResolver, public std::enable_shared_from_this<AvahiResolver> {
  public:
    AvahiResolver(std::shared_ptr<AvahiEngine> engine, std::shared_ptr<MainQueueGate> mainQueue,
                  const std::string& domain, const std::string& type, std::string name)
        : engine_(std::move(engine))
        , mainQueue_(std::move(mainQueue))
        , domain_(withoutFullStop(domain))
        , type_(withoutFullStop(type))
        , name_(std::move(name)) {}
    AvahiResolver(const AvahiResolver&) = delete;
    AvahiResolver& operator=(const AvahiResolver&) = delete;
    ~AvahiResolver() override { AvahiResolver::stop(); }

    const std::string& name() const override { return name_; }

    void resolve(std::chrono::nanoseconds timeout, ResolverHandlers handlers) override {
        stop();
        handlers_ = std::move(handlers);
        resolution_ = std::make_shared<ServiceResolution>(
            engine_->thread(), engine_->preferred(),
            ServiceResolution::Request{name_, type_, domain_, timeout, reportTo(++attempt_)});
        engine_->thread().post([engine = engine_, resolution = resolution_] { engine->add(resolution); });
    }

    void stop() override {
        if (!resolution_) return;
        engine_->thread().post(
            [engine = engine_, resolution = std::move(resolution_)] { engine->remove(resolution); });
        resolution_.reset();
    }

    const std::optional<std::vector<SocketAddressRecord>>& addresses() const override { return addresses_; }
    int port() const override { return port_; }

  private:
    /// Carries the outcome over to the main thread.
    std::function<void(const ResolutionOutcome&)> reportTo(std::uint64_t attempt) {
        return [mainQueue = mainQueue_, weak = weak_from_this(), attempt](const ResolutionOutcome& outcome) {
            mainQueue->post([weak, attempt, outcome] {
                const auto self = weak.lock();
                if (self && self->resolution_ && self->attempt_ == attempt) self->report(outcome);
            });
        };
    }

    void report(const ResolutionOutcome& outcome) {
        resolution_.reset();
        const ResolverHandlers handlers = std::move(handlers_);
        if (!outcome.addresses.empty()) {
            addresses_ = outcome.addresses;
            port_ = outcome.port;
            if (handlers.didResolve) handlers.didResolve(*this);
        } else if (handlers.didNotResolve) {
            handlers.didNotResolve(*this, outcome.error);
        }
    }

    const std::shared_ptr<AvahiEngine> engine_;
    const std::shared_ptr<MainQueueGate> mainQueue_;
    const std::string domain_;
    const std::string type_;
    const std::string name_;
    ResolverHandlers handlers_;
    std::shared_ptr<ServiceResolution> resolution_; // present while one is under way
    std::uint64_t attempt_ = 0;
    std::optional<std::vector<SocketAddressRecord>> addresses_;
    int port_ = -1;
};

} // namespace

struct AvahiDiscovery::Parts {
    std::shared_ptr<AvahiEngine> engine = std::make_shared<AvahiEngine>();
    std::shared_ptr<MainQueueGate> mainQueue;
    std::future<void> threadEnd;
    std::thread thread;
};

AvahiDiscovery::AvahiDiscovery(TimerQueue& mainQueue)
    : parts_(std::make_unique<Parts>()) {
    parts_->mainQueue = std::make_shared<MainQueueGate>(mainQueue);
    const auto end = std::make_shared<std::promise<void>>();
    parts_->threadEnd = end->get_future();
    parts_->thread = startThread("tessary-avahi", [engine = parts_->engine, end] {
        engine->run();
        end->set_value();
    });
}

AvahiDiscovery::~AvahiDiscovery() {
    parts_->mainQueue->close();
    parts_->engine->thread().stop();
    if (parts_->threadEnd.wait_for(threadEndPatience) == std::future_status::ready)
        parts_->thread.join();
    else
        parts_->thread.detach(); // it owns what it still needs
}

std::shared_ptr<Queue> AvahiDiscovery::makeQueue(std::string) {
    return {parts_->engine, &parts_->engine->thread()};
}

std::unique_ptr<ServiceBrowser> AvahiDiscovery::makeBrowser(const std::string& type) {
    return std::make_unique<AvahiBrowser>(parts_->engine, type);
}

std::shared_ptr<ServiceResolver>
AvahiDiscovery::makeResolver(const std::string& domain, const std::string& type, const std::string& name) {
    return std::make_shared<AvahiResolver>(parts_->engine, parts_->mainQueue, domain, type, name);
}

} // namespace tessary
