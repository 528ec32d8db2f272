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
    std::vector<std::string> lines;
    std::function<void(std::string_view)> observer;
};

/// Draws 1, 2, 3, … so that tokens can be told apart.
struct FakeRandom : Random {
    std::uint32_t nonzero() override { return ++last; }
    std::uint32_t last = 0;
};

struct FakePreferences : Preferences {
    using Array = std::vector<std::optional<std::string>>;
    std::optional<std::uint32_t> number(std::string_view key) const override { return find(numbers, key); }
    std::optional<Array> array(std::string_view key) const override { return find(arrays, key); }
    void setNumber(std::string_view key, std::uint32_t value) override {
        numbers[std::string(key)] = value;
        ++writes;
    }
    void setTexts(std::string_view key, const std::vector<std::string>& texts) override {
        arrays[std::string(key)] = Array(texts.begin(), texts.end());
        ++writes;
    }
    template <typename Value>
    static std::optional<Value> find(const std::map<std::string, Value>& values, std::string_view key) {
        const auto found = values.find(std::string(key));
        return found == values.end() ? std::nullopt : std::optional(found->second);
    }
    std::map<std::string, std::uint32_t> numbers;
    std::map<std::string, Array> arrays;
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

/// One connection as the network and its peer see it. The session does not hold it, but a `FakeSocket`.
class FakeConnection : public std::enable_shared_from_this<FakeConnection> {
  public:
    FakeConnection(std::uint16_t local, IPv4Host host, std::uint16_t remote)
        : localPort(local)
        , ip(host.text())
        , remotePort(remote) {}

    bool isInvited() const { return !invitations.empty(); }
    bool isEnded() const { return bye.has_value(); }

    /// It happens on the connection's queue, unless the connection is closed by then.
    void post(std::function<void(FakeConnection&)> event) {
        queue->post([weak = weak_from_this(), event = std::move(event)] {
            const auto self = weak.lock();
            if (self && self->isOpen) event(*self);
        });
    }
    void becomeReady() {
        isReady = true;
        handlers.stateDidChange(ConnectionState::ready, {});
    }
    void fail(std::errc error) const {
        handlers.stateDidChange(ConnectionState::failed, std::make_error_code(error));
    }
    void failSend(std::errc error) const { handlers.sendFailed(std::make_error_code(error)); }

    /// A datagram arrives, or an error. There is no socket before the connection is ready.
    void deliver(Bytes datagram, std::error_code error = {}) {
        post([datagram = std::move(datagram), error](FakeConnection& self) {
            if (!self.isReady) return;
            self.isReceiving = self.isReceiving && self.handlers.received(datagram, error) == Receive::again;
        });
    }
    void deliver(const AppleMIDIPacket& packet) { deliver(packet.encode()); }
    /// The peer accepts the last invitation.
    void accept() { deliver({AppleMIDIPacket::Accept{invitations.back(), 7, "iPad"}}); }

    /// The session sends this.
    void take(std::span<const std::uint8_t> datagram) {
        sent.emplace_back(datagram.begin(), datagram.end());
        isSentAfterBye = isSentAfterBye || isEnded();
        const auto packet = AppleMIDIPacket::decode(datagram);
        if (!packet) return;
        if (const auto* invitation = std::get_if<AppleMIDIPacket::Invitation>(&packet->value))
            invitations.push_back(invitation->token);
        if (const auto* end = std::get_if<AppleMIDIPacket::Bye>(&packet->value)) bye = end->token;
    }
    /// The packets of one kind that were sent here.
    template <typename Kind>
    std::vector<Kind> sentOf() const {
        std::vector<Kind> found;
        for (const Bytes& datagram : sent)
            if (const auto packet = AppleMIDIPacket::decode(datagram))
                if (const auto* kind = std::get_if<Kind>(&packet->value)) found.push_back(*kind);
        return found;
    }

    const std::uint16_t localPort;
    const std::string ip;
    const std::uint16_t remotePort;
    UDPHandlers handlers;
    std::shared_ptr<VirtualQueue> queue; ///< its session's
    std::vector<Bytes> sent;
    std::vector<std::uint32_t> invitations; ///< their tokens
    std::optional<std::uint32_t> bye;       ///< its token
    bool isSentAfterBye = false;
    bool isReady = false;
    bool isReceiving = true;
    bool isOpen = true;
};

class FakeNetwork : public UDPNetwork {
  public:
    explicit FakeNetwork(VirtualTime& time)
        : time_(time)
        , background_(time.makeQueue()) {}

    std::shared_ptr<TimerQueue> makeQueue(std::string) override { return lastQueue = time_.makeQueue(); }
    TimerQueue& backgroundQueue() override { return *background_; }
    std::shared_ptr<UDPConnection> makeConnection(std::optional<std::uint16_t> localPort, IPv4Host host,
                                                  std::uint16_t remotePort) override {
        connections.push_back(std::make_shared<FakeConnection>(localPort.value(), host, remotePort));
        return std::make_shared<FakeSocket>(*this, connections.back());
    }

    /// The newest open connection from this local port that has sent an invitation, to this address or to
    /// any; if it has ended, one that has sent BY but is not closed yet.
    std::shared_ptr<FakeConnection> newest(std::uint16_t localPort, const std::string& ip = {},
                                           bool isEnded = false) const {
        const auto found = std::find_if(connections.rbegin(), connections.rend(), [&](const auto& each) {
            return each->localPort == localPort && (ip.empty() || each->ip == ip) && each->isOpen &&
                   each->isInvited() && each->isEnded() == isEnded;
        });
        return found == connections.rend() ? nullptr : *found;
    }

    std::vector<std::shared_ptr<FakeConnection>> connections; ///< all that were made
    std::shared_ptr<VirtualQueue> lastQueue;
    bool isReadyByItself = true; ///< as soon as the connection's queue runs

  private:
    /// What a session holds of a connection: dropping it closes the connection.
    struct FakeSocket : UDPConnection {
        FakeSocket(const FakeNetwork& itsNetwork, std::shared_ptr<FakeConnection> itsConnection)
            : network(itsNetwork)
            , connection(std::move(itsConnection)) {}
        FakeSocket(const FakeSocket&) = delete;
        FakeSocket& operator=(const FakeSocket&) = delete;
        ~FakeSocket() override { connection->isOpen = false; }

        void setHandlers(UDPHandlers handlers) override { connection->handlers = std::move(handlers); }
        void start(const std::shared_ptr<TimerQueue>& queue) override {
            connection->queue = std::static_pointer_cast<VirtualQueue>(queue);
            if (network.isReadyByItself) connection->post(std::mem_fn(&FakeConnection::becomeReady));
        }
        void send(std::span<const std::uint8_t> datagram) override { connection->take(datagram); }
        void cancel() override { connection->isOpen = false; }

        const FakeNetwork& network;
        const std::shared_ptr<FakeConnection> connection;
    };

    VirtualTime& time_;
    std::shared_ptr<VirtualQueue> background_;
};

struct FakeBrowser : ServiceBrowser {
    void start(const std::shared_ptr<Queue>& onQueue, BrowserHandlers given) override {
        queue = onQueue;
        handlers = std::move(given);
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
        handlers.didResolve(*this);
    }
    void fail(const std::string& error) { handlers.didNotResolve(*this, error); }

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
    std::shared_ptr<Queue> makeQueue(std::string) override { return queue = time_.makeQueue(); }
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
    std::shared_ptr<VirtualQueue> queue;

  private:
    VirtualTime& time_;
};

struct FakeApplication : Application {
    void terminate() override {}
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
        item->choose();
    }

    std::weak_ptr<MenuDelegate> delegate;
    std::vector<MenuItem> items;
};

struct FakeStatusItem : StatusItem {
    void setBehavior(StatusItemBehavior) override {}
    void setAutosaveName(const std::string&) override {}
    void setImage(const Image&) override {}
    bool isVisible() const override { return visible; }
    void setVisible(bool isVisible) override { visible = isVisible, ++showings; }
    void setMenu(std::shared_ptr<Menu> given) override { menu = std::move(given); }

    bool visible = false;
    int showings = 0;
    std::shared_ptr<Menu> menu;
};

struct FakeStatusBar : StatusBar {
    std::shared_ptr<StatusItem> makeStatusItem(StatusItemLength) override {
        if (duringMakeStatusItem) duringMakeStatusItem();
        return item = std::make_shared<FakeStatusItem>();
    }
    std::shared_ptr<Menu> makeMenu() override { return menu = std::make_shared<FakeMenu>(); }

    std::function<void()> duringMakeStatusItem;
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
        return isRegistered ? LoginServiceStatus::enabled : LoginServiceStatus::notRegistered;
    }
    std::optional<LoginServiceError> change(bool registers) {
        ++calls;
        if (!error) isRegistered = registers;
        return error;
    }
    bool isRegistered = false;
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
    std::shared_ptr<VirtualQueue> mainQueue = time.makeQueue();
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
