#include "Announcement.h"

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-common/thread-watch.h>
#include <avahi-core/core.h>
#include <avahi-core/log.h>
#include <avahi-core/publish.h>

#include <arpa/inet.h>
#include <cstdio>
#include <ifaddrs.h>
#include <map>
#include <net/if.h>
#include <utility>

namespace tessary::device {

namespace {

std::uint32_t hostOrder(const in_addr& address) {
    return ntohl(address.s_addr);
}

std::uint32_t hostOrder(const sockaddr* address) {
    return hostOrder(reinterpret_cast<const sockaddr_in*>(address)->sin_addr);
}

in_addr networkOrder(const IPv4Host& host) {
    in_addr address{};
    inet_pton(AF_INET, host.text().c_str(), &address);
    return address;
}

/// The addresses that each interface announces, by interface index.
std::multimap<AvahiIfIndex, IPv4Host> addressesByInterface(const std::vector<IPv4Host>& addresses) {
    std::multimap<AvahiIfIndex, IPv4Host> result;
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) return result;
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_netmask) continue;
        const std::uint32_t mask = hostOrder(entry->ifa_netmask);
        const auto index = static_cast<AvahiIfIndex>(if_nametoindex(entry->ifa_name));
        for (const IPv4Host& address : addresses) {
            if (((hostOrder(networkOrder(address)) ^ hostOrder(entry->ifa_addr)) & mask) != 0) continue;
            const auto [first, last] = result.equal_range(index);
            bool known = false;
            for (auto at = first; at != last; ++at)
                known = known || at->second == address;
            if (!known) result.emplace(index, address);
        }
    }
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
        const auto index = static_cast<AvahiIfIndex>(if_nametoindex(entry->ifa_name));
        if (index == 0 || result.contains(index)) continue;
        for (const IPv4Host& address : addresses)
            result.emplace(index, address);
    }
    freeifaddrs(interfaces);
    return result;
}

/// A host label that no other device shares: the name's letters and digits, the port and the address's end.
std::string hostLabel(const Announcement& announcement) {
    std::string label;
    for (const char c : announcement.name.substr(0, 40)) {
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))
            label += c;
        else if (c >= 'A' && c <= 'Z')
            label += static_cast<char>(c - 'A' + 'a');
        else if (!label.empty() && label.back() != '-')
            label += '-';
    }
    if (label.empty()) label = "device";
    if (label.back() != '-') label += '-';
    label += std::to_string(announcement.port);
    if (!announcement.addresses.empty()) {
        const auto& bytes = announcement.addresses.front().bytes;
        // No plain number at the end: renaming would count it up, to the name of the next address.
        label.append("-").append(std::to_string(bytes[2])).append("x").append(std::to_string(bytes[3]));
    }
    return label;
}

std::string takeText(char* text) {
    std::string result = text ? text : "";
    avahi_free(text);
    return result;
}

void logErrorsOnly(AvahiLogLevel level, const char* text) {
    if (level == AVAHI_LOG_ERROR) fprintf(stderr, "tessary-device: %s\n", text);
}

} // namespace

/// The library's objects, which the poll's lock guards: its thread holds it whenever it calls back.
struct Announcer::Responder {
    struct Entry {
        Responder* responder;
        Announcement announcement;
        AnnouncementHandlers handlers;
        std::string host;
        AvahiSEntryGroup* group = nullptr;
    };

    class Lock {
      public:
        explicit Lock(AvahiThreadedPoll* poll)
            : poll_(poll) {
            avahi_threaded_poll_lock(poll_);
        }
        ~Lock() { avahi_threaded_poll_unlock(poll_); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        AvahiThreadedPoll* poll_;
    };

    Responder()
        : poll(avahi_threaded_poll_new()) {
        avahi_set_log_function(logErrorsOnly);
        startServer();
        avahi_threaded_poll_start(poll);
    }

    ~Responder() {
        avahi_threaded_poll_stop(poll);
        if (server) avahi_server_free(server);
        avahi_threaded_poll_free(poll);
    }

    void startServer() {
        AvahiServerConfig config;
        avahi_server_config_init(&config);
        config.use_ipv4 = 1;
        config.use_ipv6 = 0;
        config.publish_hinfo = 0;
        config.publish_addresses = 0;
        config.publish_workstation = 0;
        config.publish_domain = 0;
        config.enable_wide_area = 0;
        int error = AVAHI_OK;
        server = avahi_server_new(avahi_threaded_poll_get(poll), &config, serverChanged, this, &error);
        if (!server) problem = avahi_strerror(error);
        avahi_server_config_free(&config);
    }

    static void serverChanged(AvahiServer* changed, AvahiServerState state, void* user) {
        auto* self = static_cast<Responder*>(user);
        self->server = changed; // the first call comes from inside avahi_server_new
        self->running = state == AVAHI_SERVER_RUNNING;
        if (state == AVAHI_SERVER_FAILURE) self->problem = avahi_strerror(avahi_server_errno(changed));
        for (auto& [id, entry] : self->entries) {
            if (self->running && !entry.group) self->publish(entry);
            if (state == AVAHI_SERVER_FAILURE) entry.handlers.failed(self->problem);
        }
    }

    ID add(Announcement announcement, AnnouncementHandlers handlers) {
        const ID id = nextID++;
        Entry& entry = entries[id];
        entry = {this, std::move(announcement), std::move(handlers), {}, nullptr};
        entry.host = hostLabel(entry.announcement);
        if (!problem.empty())
            entry.handlers.failed(problem);
        else if (running)
            publish(entry);
        return id;
    }

    void remove(ID id) {
        const auto found = entries.find(id);
        if (found == entries.end()) return;
        if (found->second.group) avahi_s_entry_group_free(found->second.group);
        entries.erase(found);
    }

    void publish(Entry& entry) {
        if (!entry.group) entry.group = avahi_s_entry_group_new(server, groupChanged, &entry);
        if (!entry.group) return entry.handlers.failed(avahi_strerror(avahi_server_errno(server)));
        int result = addRecords(entry);
        while (result == AVAHI_ERR_COLLISION) { // with another announcement of this process
            rename(entry);
            result = addRecords(entry);
        }
        if (result == AVAHI_OK) result = avahi_s_entry_group_commit(entry.group);
        if (result != AVAHI_OK) entry.handlers.failed(avahi_strerror(result));
    }

    int addRecords(Entry& entry) {
        avahi_s_entry_group_reset(entry.group);
        const Announcement& announcement = entry.announcement;
        const std::string host = entry.host + ".local";
        for (const auto& [interface, address] : addressesByInterface(announcement.addresses)) {
            AvahiAddress record{};
            record.proto = AVAHI_PROTO_INET;
            record.data.ipv4.address = networkOrder(address).s_addr;
            // Without the reverse record: on one machine many names may stand for one address.
            const int result = avahi_server_add_address(server, entry.group, interface, AVAHI_PROTO_INET,
                                                        AVAHI_PUBLISH_NO_REVERSE, host.c_str(), &record);
            if (result != AVAHI_OK) return result;
        }
        const auto addService = [&](const std::string& name, const char* type) {
            if (name.empty()) return static_cast<int>(AVAHI_OK);
            return avahi_server_add_service(server, entry.group, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET,
                                            AvahiPublishFlags{}, name.c_str(), type, nullptr, host.c_str(),
                                            announcement.port, static_cast<char*>(nullptr));
        };
        const int result = addService(announcement.name, "_apple-midi._udp");
        return result == AVAHI_OK ? addService(announcement.markerName, "_tessarylink._tcp") : result;
    }

    /// Which of the names was taken is not known: all get the next number.
    static void rename(Entry& entry) {
        entry.announcement.name = takeText(avahi_alternative_service_name(entry.announcement.name.c_str()));
        if (!entry.announcement.markerName.empty())
            entry.announcement.markerName =
                takeText(avahi_alternative_service_name(entry.announcement.markerName.c_str()));
        entry.host = takeText(avahi_alternative_host_name(entry.host.c_str()));
    }

    static void groupChanged(AvahiServer* changed, AvahiSEntryGroup* group, AvahiEntryGroupState state,
                             void* user) {
        auto& entry = *static_cast<Entry*>(user);
        entry.group = group;
        if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) entry.handlers.announced(entry.announcement.name);
        if (state == AVAHI_ENTRY_GROUP_FAILURE)
            entry.handlers.failed(avahi_strerror(avahi_server_errno(changed)));
        if (state == AVAHI_ENTRY_GROUP_COLLISION) {
            rename(entry);
            entry.responder->publish(entry);
        }
    }

    AvahiThreadedPoll* const poll;
    AvahiServer* server = nullptr;
    bool running = false;
    std::string problem;
    std::map<ID, Entry> entries; // a map: entries are pointed to
    ID nextID = 1;
};

Announcer::Announcer() = default;
Announcer::~Announcer() = default;

Announcer::ID Announcer::announce(Announcement announcement, AnnouncementHandlers handlers) {
    if (!responder_) responder_ = std::make_unique<Responder>();
    const Responder::Lock lock(responder_->poll);
    return responder_->add(std::move(announcement), std::move(handlers));
}

void Announcer::withdraw(ID id) {
    if (!responder_) return;
    const Responder::Lock lock(responder_->poll);
    responder_->remove(id);
}

} // namespace tessary::device
