#include "Lookups.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>

#include <algorithm>
#include <chrono>

namespace tessary::discovery {

namespace {

using namespace std::chrono_literals;

/// The minimum time between two attempts to connect to the daemon.
constexpr auto reconnectInterval = 2s;

struct ClientAPI {
    using Context = AvahiClient;
    using ServiceBrowser = AvahiServiceBrowser;
    using ServiceResolver = AvahiServiceResolver;
    using RecordBrowser = AvahiRecordBrowser;
    using AddressLookup = AvahiLookup<ClientAPI, RecordBrowser, AddressEvent>;

    static constexpr auto newServiceBrowser = avahi_service_browser_new;
    static constexpr auto newServiceResolver = avahi_service_resolver_new;

    static RecordBrowser* newRecordBrowser(Context* client, const char* host, std::uint16_t recordType,
                                           AddressLookup* lookup) {
        return avahi_record_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, host, AVAHI_DNS_CLASS_IN,
                                        recordType, AVAHI_LOOKUP_USE_MULTICAST, addressChanged, lookup);
    }

    static void addressChanged(RecordBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                               AvahiBrowserEvent event, const char*, std::uint16_t, std::uint16_t,
                               const void* bytes, std::size_t size, AvahiLookupResultFlags, void* userData) {
        auto& lookup = AddressLookup::of(userData);
        if (event == AVAHI_BROWSER_FAILURE) return lookup.deliverFailure();
        lookup.deliver({event, interface, protocol,
                        bytes ? std::string(static_cast<const char*>(bytes), size) : std::string(),
                        AVAHI_OK});
    }

    static int error(Context* client) { return avahi_client_errno(client); }
    static void free(ServiceBrowser* browser) { avahi_service_browser_free(browser); }
    static void free(ServiceResolver* resolver) { avahi_service_resolver_free(resolver); }
    static void free(RecordBrowser* browser) { avahi_record_browser_free(browser); }
};

/// An Avahi client becomes unusable when its daemon ends, so a new client is created, which waits for a
/// daemon.
class ClientBackend : public AvahiLookups<ClientAPI>, public std::enable_shared_from_this<ClientBackend> {
  public:
    ClientBackend(Loop& loop, BackendHandlers handlers)
        : AvahiLookups(loop)
        , handlers_(std::move(handlers)) {}

    /// Creates the client; returns false if the bus refuses or is not available.
    bool connect(AvahiClientFlags flags) {
        connected_ = std::chrono::steady_clock::now();
        AvahiClient* const client = avahi_client_new(loop_.poll(), flags, stateChanged, this, nullptr);
        if (client) context_.reset(client, avahi_client_free);
        return client;
    }

    bool isReady() const override { return isReady_; }
    bool isExhausted() const override { return false; }

    bool mayRecover(int error) const override {
        return error == AVAHI_ERR_DISCONNECTED || error == AVAHI_ERR_NO_DAEMON ||
               error == AVAHI_ERR_DBUS_ERROR || error == AVAHI_ERR_BAD_STATE;
    }

    /// Creates a new client, and retries until that succeeds.
    void reconnect() {
        const auto wait = connected_ + reconnectInterval - std::chrono::steady_clock::now();
        loop_.after(std::max(wait, decltype(wait){}), [weak = weak_from_this()] {
            const auto self = weak.lock();
            if (self && !self->connect(AVAHI_CLIENT_NO_FAIL)) self->reconnect(); // no bus either
        });
    }

  private:
    /// Called by Avahi, the first time inside avahi_client_new.
    static void stateChanged(AvahiClient* client, AvahiClientState state, void* userData) {
        auto& self = *static_cast<ClientBackend*>(userData);
        self.loop_.post([weak = self.weak_from_this(), client, state] {
            const auto backend = weak.lock();
            if (backend && client == backend->context_.get()) backend->handle(state);
        });
    }

    void handle(AvahiClientState state) {
        if (state == AVAHI_CLIENT_FAILURE) {
            isReady_ = false;
            context_.reset();
            handlers_.lost();
            reconnect();
        } else if (state != AVAHI_CLIENT_CONNECTING && !isReady_) {
            isReady_ = true;
            handlers_.ready();
        }
    }

    const BackendHandlers handlers_;
    std::chrono::steady_clock::time_point connected_;
    bool isReady_ = false;
};

} // namespace

std::shared_ptr<Backend> makeClientBackend(Loop& loop, BackendHandlers handlers, bool waits) {
    const auto backend = std::make_shared<ClientBackend>(loop, std::move(handlers));
    if (backend->connect(waits ? AVAHI_CLIENT_NO_FAIL : AvahiClientFlags{})) return backend;
    if (!waits) return nullptr;
    backend->reconnect();
    return backend;
}

} // namespace tessary::discovery
