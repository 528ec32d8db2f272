// The machine as the tests have it: everything is in memory, nothing happens by itself.
#pragma once

#include "Models/UTF8.h"
#include "Platform/Application.h"
#include "Platform/Log.h"
#include "Platform/LoginService.h"
#include "Platform/MIDIOutput.h"
#include "Platform/Platform.h"
#include "Platform/Preferences.h"
#include "Platform/Random.h"
#include "Platform/ServiceDiscovery.h"
#include "Platform/StatusItem.h"
#include "Platform/Text.h"
#include "Platform/UDPConnection.h"
#include "Services/AppleMIDIPacket.h"
#include "support/VirtualTime.h"

#include <map>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tessary::test {

using Bytes = std::vector<std::uint8_t>;

struct FakeLog : Log {
    void line(std::string_view text) override {
        lines.emplace_back(text);
        if (observer) observer(text);
    }
    std::size_t count(const std::string& line) const {
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
    }
    std::vector<std::string> lines;
    std::function<void(std::string_view)> observer;
};

/// Draws 1, 2, 3, … so that tokens can be told apart.
struct FakeRandom : Random {
    std::uint32_t nonzero() override { return ++last; }
    std::uint32_t last = 0;
};

struct FakePreferences : Preferences {
    using Value = std::variant<std::uint32_t, std::vector<std::optional<std::string>>>;
    std::optional<std::uint32_t> number(std::string_view key) const override {
        return get<std::uint32_t>(key);
    }
    std::optional<std::vector<std::optional<std::string>>> array(std::string_view key) const override {
        return get<std::vector<std::optional<std::string>>>(key);
    }
    void setNumber(std::string_view key, std::uint32_t value) override {
        values[std::string(key)] = value, ++writes;
    }
    void setTexts(std::string_view key, const std::vector<std::string>& texts) override {
        values[std::string(key)] = std::vector<std::optional<std::string>>(texts.begin(), texts.end());
        ++writes;
    }
    template <typename T>
    std::optional<T> get(std::string_view key) const {
        const auto found = values.find(std::string(key));
        if (found == values.end() || !std::holds_alternative<T>(found->second)) return std::nullopt;
        return std::get<T>(found->second);
    }
    std::map<std::string, Value> values;
    int writes = 0;
};

struct FakeMIDIOutput : MIDIOutput {
    MIDIStatus createClient(std::string_view name, MIDIObjectRef& client) override {
        calls.push_back("client " + std::string(name));
        if (clientStatus == 0) client = 7;
        return clientStatus;
    }
    MIDIStatus createSource(MIDIObjectRef client, std::string_view name, std::int32_t protocol,
                            MIDIObjectRef& source) override {
        calls.push_back("source " + std::to_string(client) + " " + std::string(name) + " " +
                        std::to_string(protocol));
        if (sourceStatus == 0) source = 9;
        return sourceStatus;
    }
    void setUniqueID(MIDIObjectRef source, std::int32_t id) override {
        calls.push_back("id " + std::to_string(source) + " " + std::to_string(id));
    }
    void disposeSource(MIDIObjectRef source) override {
        calls.push_back("dispose source " + std::to_string(source));
    }
    void disposeClient(MIDIObjectRef client) override {
        calls.push_back("dispose client " + std::to_string(client));
    }
    void publish(MIDIObjectRef, std::uint64_t hostTime, std::span<const std::uint8_t> message) override {
        messages.emplace_back(message.begin(), message.end());
        stamps.push_back(hostTime);
        if (duringPublish) duringPublish();
    }
    MIDIStatus clientStatus = 0;
    MIDIStatus sourceStatus = 0;
    std::vector<std::string> calls;
    std::vector<Bytes> messages;
    std::vector<std::uint64_t> stamps;
    std::function<void()> duringPublish; ///< happens while the network thread is inside `publish`
};

class FakeNetwork;
class FakeConnection;

/// What happened on one connection; outlives it.
struct Journal {
    std::weak_ptr<FakeConnection> connection;
    std::string ip;
    std::uint16_t localPort = 0;
    std::shared_ptr<VirtualTime::VirtualQueue> queue; ///< its session's
    std::vector<std::uint32_t> invitations, byes;     ///< tokens
    std::size_t number = 0;                           ///< counts the network's connections
    std::size_t numberAtBye = 0;                      ///< of the network's next connection, at the first BY
    bool isSentAfterBye = false;

    bool isOpen() const;
    bool isInvited() const { return !invitations.empty(); }
    bool isEnded() const { return !byes.empty(); }
};

/// A connection that becomes ready as soon as its queue runs, unless the network says otherwise.
class FakeConnection : public UDPConnection, public std::enable_shared_from_this<FakeConnection> {
  public:
    FakeConnection(FakeNetwork& network, std::optional<std::uint16_t> local, IPv4Host remote,
                   std::uint16_t port)
        : network_(network)
        , localPort(local)
        , host(remote)
        , remotePort(port) {}

    void setHandlers(UDPHandlers handlers) override { handlers_ = std::move(handlers); }
    void start(const std::shared_ptr<TimerQueue>& queue) override;
    void send(std::span<const std::uint8_t> datagram) override;
    void cancel() override {
        isCancelled = true;
        handlers_ = {};
    }

    void becomeReady() { report(ConnectionState::ready); }
    void fail(std::errc error) { report(ConnectionState::failed, std::make_error_code(error)); }
    void failSend(std::errc error) {
        if (handlers_.sendFailed) handlers_.sendFailed(std::make_error_code(error));
    }

    /// What a thread that is entering them in the moment of their end still calls.
    const UDPHandlers& handlers() const { return handlers_; }

    /// A datagram arrives, or an error; on the connection's queue.
    void deliver(Bytes datagram, std::error_code error = {}) {
        queue_->post([weak = weak_from_this(), datagram = std::move(datagram), error] {
            const auto self = weak.lock();
            if (!self || !self->isReceiving || !self->handlers_.received) return;
            self->isReceiving = self->handlers_.received(datagram, error) == Receive::again;
        });
    }
    void deliver(const AppleMIDIPacket& packet) { deliver(packet.encode()); }
    /// The peer accepts the last invitation.
    void accept() { deliver({AppleMIDIPacket::Accept{journal->invitations.back(), 7, "iPad"}}); }

    /// The packets of one kind that were sent here.
    template <typename Kind>
    std::vector<Kind> sentOf() const {
        std::vector<Kind> found;
        for (const Bytes& datagram : sent)
            if (const auto packet = AppleMIDIPacket::decode(datagram))
                if (const auto* kind = std::get_if<Kind>(&packet->value)) found.push_back(*kind);
        return found;
    }

  private:
    void report(ConnectionState state, std::error_code error = {}) {
        if (handlers_.stateDidChange) handlers_.stateDidChange(state, error);
    }

    FakeNetwork& network_;
    UDPHandlers handlers_;
    std::shared_ptr<TimerQueue> queue_;

  public:
    const std::shared_ptr<Journal> journal = std::make_shared<Journal>();
    const std::optional<std::uint16_t> localPort;
    const IPv4Host host;
    const std::uint16_t remotePort;
    std::vector<Bytes> sent;
    bool isStarted = false;
    bool isCancelled = false;
    bool isReceiving = true;
};

class FakeNetwork : public UDPNetwork {
  public:
    explicit FakeNetwork(VirtualTime& time)
        : time_(time)
        , background_(time.makeQueue()) {}

    std::shared_ptr<TimerQueue> makeQueue(std::string label) override {
        labels.push_back(std::move(label));
        lastQueue = time_.makeQueue();
        return lastQueue;
    }
    TimerQueue& backgroundQueue() override { return *background_; }
    std::shared_ptr<UDPConnection> makeConnection(std::optional<std::uint16_t> localPort, IPv4Host host,
                                                  std::uint16_t remotePort) override {
        auto connection = std::make_shared<FakeConnection>(*this, localPort, host, remotePort);
        Journal& journal = *connection->journal;
        journal.connection = connection;
        journal.ip = host.text();
        journal.localPort = localPort.value_or(0);
        journal.number = nextNumber++;
        made.push_back(connection);
        journals.push_back(connection->journal);
        return connection;
    }

    /// The newest connection from this local port that still exists, to this address or to any.
    std::shared_ptr<FakeConnection> newest(std::uint16_t localPort, const std::string& ip = {}) const {
        for (auto each = journals.rbegin(); each != journals.rend(); ++each)
            if ((*each)->localPort == localPort && (ip.empty() || (*each)->ip == ip))
                if (const auto connection = (*each)->connection.lock()) return connection;
        return nullptr;
    }

    std::vector<std::weak_ptr<FakeConnection>> made;
    std::vector<std::shared_ptr<Journal>> journals; ///< of all that were made
    std::size_t nextNumber = 0;
    std::vector<std::string> labels;
    std::shared_ptr<VirtualTime::VirtualQueue> lastQueue;
    bool isReadyByItself = true;

  private:
    VirtualTime& time_;
    std::shared_ptr<VirtualTime::VirtualQueue> background_;
};

inline bool Journal::isOpen() const {
    const auto existing = connection.lock();
    return existing && !existing->isCancelled;
}

inline void FakeConnection::send(std::span<const std::uint8_t> datagram) {
    sent.emplace_back(datagram.begin(), datagram.end());
    if (journal->isEnded()) journal->isSentAfterBye = true;
    const auto packet = AppleMIDIPacket::decode(datagram);
    if (!packet) return;
    if (const auto* invitation = std::get_if<AppleMIDIPacket::Invitation>(&packet->value))
        journal->invitations.push_back(invitation->token);
    if (const auto* bye = std::get_if<AppleMIDIPacket::Bye>(&packet->value)) {
        if (!journal->isEnded()) journal->numberAtBye = network_.nextNumber;
        journal->byes.push_back(bye->token);
    }
}

inline void FakeConnection::start(const std::shared_ptr<TimerQueue>& queue) {
    isStarted = true;
    queue_ = queue;
    journal->queue = std::static_pointer_cast<VirtualTime::VirtualQueue>(queue);
    if (!network_.isReadyByItself) return;
    queue_->post([weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->becomeReady();
    });
}

struct FakeBrowser : ServiceBrowser {
    void start(const std::shared_ptr<Queue>& onQueue, BrowserHandlers given) override {
        queue = onQueue;
        handlers = std::move(given);
        ++starts;
    }
    /// The names that the browser sees now.
    void see(const std::vector<std::string>& names) {
        std::vector<BrowseResult> results;
        for (const auto& name : names)
            results.push_back({name, type, "local.", 2});
        queue->post([handler = handlers.resultsChanged, results] { handler(results); });
    }
    std::string type;
    std::shared_ptr<Queue> queue;
    BrowserHandlers handlers;
    int starts = 0;
};

struct FakeResolver : ServiceResolver {
    const std::string& name() const override { return name_; }
    void resolve(std::chrono::nanoseconds after, ResolverHandlers given) override {
        timeout = after;
        handlers = std::move(given);
    }
    void stop() override { isStopped = true; }
    const std::optional<std::vector<IPv4Host>>& addresses() const override { return addresses_; }
    int port() const override { return port_; }

    /// Success, with these IPv4 addresses; the handler is called even if it was called before.
    void succeed(const std::vector<std::string>& ips, int port) {
        addresses_.emplace();
        for (const auto& ip : ips)
            addresses_->push_back(IPv4Host::parse(ip).value());
        port_ = port;
        const auto handler = handlers.didResolve;
        handler(*this);
    }
    void fail(const std::string& error) {
        const auto handler = handlers.didNotResolve;
        handler(*this, error);
    }

    std::string domain, type, name_;
    std::chrono::nanoseconds timeout{};
    ResolverHandlers handlers;
    bool isStopped = false;
    std::optional<std::vector<IPv4Host>> addresses_;
    int port_ = -1;
};

class FakeDiscovery : public ServiceDiscovery {
  public:
    explicit FakeDiscovery(VirtualTime& time)
        : time_(time) {}
    std::shared_ptr<Queue> makeQueue(std::string label) override {
        labels.push_back(std::move(label));
        return queue = time_.makeQueue();
    }
    std::unique_ptr<ServiceBrowser> makeBrowser(const std::string& type) override {
        auto browser = std::make_unique<FakeBrowser>();
        browser->type = type;
        browsers.push_back(browser.get());
        return browser;
    }
    std::shared_ptr<ServiceResolver> makeResolver(const std::string& domain, const std::string& type,
                                                  const std::string& name) override {
        auto resolver = std::make_shared<FakeResolver>();
        resolver->domain = domain, resolver->type = type, resolver->name_ = name;
        resolvers.push_back(resolver);
        return resolver;
    }
    FakeBrowser& browser(const std::string& type) {
        for (auto* browser : browsers)
            if (browser->type == type) return *browser;
        throw std::out_of_range(type);
    }
    /// The newest resolver for an instance of a type.
    std::shared_ptr<FakeResolver> resolver(const std::string& type, const std::string& name) const {
        for (auto it = resolvers.rbegin(); it != resolvers.rend(); ++it)
            if ((*it)->type == type + "." && (*it)->name_ == name) return *it;
        return nullptr;
    }

    std::vector<FakeBrowser*> browsers;
    std::vector<std::shared_ptr<FakeResolver>> resolvers;
    std::vector<std::string> labels;
    std::shared_ptr<VirtualTime::VirtualQueue> queue;

  private:
    VirtualTime& time_;
};

struct FakeApplication : Application {
    void terminate() override { ++terminations; }
    int terminations = 0;
};

struct FakeMenu : Menu {
    void setDelegate(std::weak_ptr<MenuDelegate> given) override { delegate = std::move(given); }
    void setItems(std::vector<MenuItem> given) override { items = std::move(given); }

    /// Opens it, as a panel does.
    const std::vector<MenuItem>& open() {
        delegate.lock()->menuNeedsUpdate(*this);
        return items;
    }
    void choose(const std::string& title) {
        const auto item = std::find_if(items.begin(), items.end(),
                                       [&](const MenuItem& each) { return each.title == title; });
        if (item == items.end() || !item->isEnabled) throw std::out_of_range(title);
        const auto choose = item->choose;
        choose();
    }

    std::weak_ptr<MenuDelegate> delegate;
    std::vector<MenuItem> items;
};

struct FakeStatusItem : StatusItem {
    void setBehavior(StatusItemBehavior given) override { behavior = given; }
    void setAutosaveName(const std::string& name) override { autosaveName = name; }
    void setImage(const Image& given) override { image = given; }
    bool isVisible() const override { return visible; }
    void setVisible(bool isVisible) override { visible = isVisible, ++showings; }
    void setMenu(std::shared_ptr<Menu> given) override { menu = std::move(given); }

    std::optional<StatusItemBehavior> behavior;
    std::string autosaveName;
    Image image;
    bool visible = false;
    int showings = 0;
    std::shared_ptr<Menu> menu;
};

struct FakeStatusBar : StatusBar {
    std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength given) override {
        length = given;
        if (duringMakeStatusItem) duringMakeStatusItem();
        return item = std::make_shared<FakeStatusItem>();
    }
    std::shared_ptr<Menu> makeMenu() override { return menu = std::make_shared<FakeMenu>(); }

    std::function<void()> duringMakeStatusItem;
    std::optional<StatusItemLength> length;
    std::shared_ptr<FakeStatusItem> item;
    std::shared_ptr<FakeMenu> menu;
};

/// Knows of one equivalence, which is enough to see that it is asked: e with a combining acute accent.
struct FakeText : Text {
    std::u32string collationKey(std::string_view utf8) const override {
        std::string text(utf8);
        if (const auto found = text.find("e\u0301"); found != std::string::npos) text.replace(found, 3, "é");
        return {text.begin(), text.end()};
    }
};

/// Does as it is told, unless `error` is set.
struct FakeLoginService : LoginService {
    std::optional<LoginServiceError> registerProgram() override { return change(true); }
    std::optional<LoginServiceError> unregisterProgram() override { return change(false); }
    LoginServiceStatus status() const override {
        return isRegistered ? registeredStatus : LoginServiceStatus::notRegistered;
    }
    std::optional<LoginServiceError> change(bool registers) {
        ++calls;
        if (!error) isRegistered = registers;
        return error;
    }
    bool isRegistered = false;
    LoginServiceStatus registeredStatus = LoginServiceStatus::enabled;
    std::optional<LoginServiceError> error;
    int calls = 0;
};

/// The parts of a `Platform` that a test brings itself; the others are fakes.
struct OwnParts {
    TimerQueue* mainQueue = nullptr;
    UDPNetwork* network = nullptr;
    ServiceDiscovery* serviceDiscovery = nullptr;
    MIDIOutput* midiOutput = nullptr;
    const Clock* clock = nullptr;
};

/// A whole machine of fakes.
struct FakeMachine {
    VirtualTime time;
    std::shared_ptr<VirtualTime::VirtualQueue> mainQueue = time.makeQueue();
    FakeNetwork network{time};
    FakeDiscovery serviceDiscovery{time};
    FakeMIDIOutput midiOutput;
    FakePreferences preferences;
    FakeRandom random;
    FakeLog log;
    FakeApplication application;
    FakeStatusBar statusBar;
    FakeLoginService loginService;
    FakeText text;

    Platform platform(const OwnParts& own = {}) {
        const auto choose = [](auto* given, auto& fake) -> auto& {
            return given ? *given : fake;
        };
        return {.application = application,
                .mainQueue = choose(own.mainQueue, *mainQueue),
                .network = choose(own.network, network),
                .serviceDiscovery = choose(own.serviceDiscovery, serviceDiscovery),
                .midiOutput = choose(own.midiOutput, midiOutput),
                .preferences = preferences,
                .statusBar = statusBar,
                .loginService = loginService,
                .clock = choose(own.clock, time),
                .random = random,
                .text = text,
                .log = log};
    }

    /// A device appears at an address, or shows itself with another name or port.
    void appear(const std::string& ip, const std::string& name = "iPad", int port = 5004) {
        for (const std::string type : {"_apple-midi._udp", "_tessarylink._tcp"}) {
            disappear(name, type);
            visible_[type].insert(name);
            browse(type);
            serviceDiscovery.resolver(type, name)->succeed({ip}, port);
        }
        time.run();
    }
    void disappear(const std::string& name = "iPad", const std::string& type = "_apple-midi._udp") {
        if (visible_[type].erase(name) == 1) browse(type);
    }

    /// The device at this address accepts both invitations and answers the clock: its session runs.
    void accept(const std::string& ip) {
        network.newest(51204, ip)->accept();
        time.run();
        const auto data = network.newest(51205, ip);
        data->accept();
        data->deliver({AppleMIDIPacket::ClockSync{7, 1, 0, 0, 0}});
        time.run();
    }

  private:
    void browse(const std::string& type) {
        const auto& names = visible_[type];
        serviceDiscovery.browser(type).see({names.begin(), names.end()});
        time.run();
    }
    std::map<std::string, std::set<std::string>> visible_; ///< names, by type
};

} // namespace tessary::test
