#include "Lookups.h"

#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <avahi-core/lookup.h>
#include <avahi-core/rr.h>

#include <algorithm>
#include <array>

namespace tessary::discovery {

namespace {

struct ServerAPI {
    using Context = AvahiServer;
    using ServiceBrowser = AvahiSServiceBrowser;
    using ServiceResolver = AvahiSServiceResolver;
    using RecordBrowser = AvahiSRecordBrowser;
    using AddressLookup = AvahiLookup<ServerAPI, RecordBrowser, AddressEvent>;

    static constexpr auto newServiceBrowser = avahi_s_service_browser_new;
    static constexpr auto newServiceResolver = avahi_s_service_resolver_new;

    static RecordBrowser* newRecordBrowser(Context* server, const char* host, std::uint16_t recordType,
                                           AddressLookup* lookup) {
        AvahiKey* const key = avahi_key_new(host, AVAHI_DNS_CLASS_IN, recordType);
        if (!key) return nullptr;
        RecordBrowser* const browser =
            avahi_s_record_browser_new(server, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, key,
                                       AVAHI_LOOKUP_USE_MULTICAST, addressChanged, lookup);
        avahi_key_unref(key);
        return browser;
    }

    static void addressChanged(RecordBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                               AvahiBrowserEvent event, AvahiRecord* record, AvahiLookupResultFlags,
                               void* userData) {
        auto& lookup = AddressLookup::of(userData);
        if (event == AVAHI_BROWSER_FAILURE) return lookup.deliverFailure();
        std::array<char, sizeof(AvahiIPv6Address)> bytes{};
        const std::size_t size = record ? avahi_rdata_serialize(record, bytes.data(), bytes.size()) : 0;
        if (size > bytes.size()) return; // (size_t) -1: the record does not fit
        lookup.deliver({event, interface, protocol, std::string(bytes.data(), size), AVAHI_OK});
    }

    static int error(Context* server) { return avahi_server_errno(server); }
    static void free(ServiceBrowser* browser) { avahi_s_service_browser_free(browser); }
    static void free(ServiceResolver* resolver) { avahi_s_service_resolver_free(resolver); }
    static void free(RecordBrowser* browser) { avahi_s_record_browser_free(browser); }
};

/// The maximum number of cached records per interface. A device has about eight, so the default of 4096 would
/// be reached with a few hundred devices.
constexpr unsigned maxCacheEntries = 16'384;

/// Counts the records in the largest cache. avahi_server_dump lists one cache per interface, each after a
/// heading that starts with a semicolon.
struct CacheCount {
    unsigned count = 0;
    unsigned largest = 0;

    static void add(const char* line, void* userData) {
        auto& self = *static_cast<CacheCount*>(userData);
        self.count = *line == ';' ? 0 : self.count + 1;
        self.largest = std::max(self.largest, self.count);
    }
};

class ServerBackend : public AvahiLookups<ServerAPI> {
  public:
    ServerBackend(Loop& loop, AvahiServer* server)
        : AvahiLookups(loop) {
        context_.reset(server, avahi_server_free);
    }

    bool isReady() const override { return true; }
    bool mayRecover(int) const override { return false; }

    /// libavahi-core keeps records for the time to live that their sender chose, even for years, and accepts
    /// no new record when a cache is full.
    bool isExhausted() const override {
        CacheCount records;
        return avahi_server_dump(context_.get(), CacheCount::add, &records) < 0 ||
               records.largest >= maxCacheEntries;
    }
};

} // namespace

std::shared_ptr<Backend> makeServerBackend(Loop& loop, int& error) {
    avahi_set_log_function([](AvahiLogLevel, const char*) {}); // the default writes to standard error
    AvahiServerConfig config;
    avahi_server_config_init(&config);
    // Publishing is not needed, and would not be safe: both Avahi libraries export avahi_entry_group_free,
    // and in a process that loads both, the core's entry groups may be freed by the client library's
    // function.
    config.disable_publishing = 1;
    config.publish_hinfo = 0;
    config.publish_addresses = 0;
    config.publish_workstation = 0;
    config.publish_domain = 0;
    config.enable_wide_area = 0;
    config.n_cache_entries_max = maxCacheEntries;
    const auto stateChanged = [](AvahiServer*, AvahiServerState, void*) {};
    AvahiServer* const server = avahi_server_new(loop.poll(), &config, stateChanged, nullptr, &error);
    avahi_server_config_free(&config);
    return server ? std::make_shared<ServerBackend>(loop, server) : nullptr;
}

} // namespace tessary::discovery
