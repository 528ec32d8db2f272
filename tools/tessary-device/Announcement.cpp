#include "Announcement.h"

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-core/log.h>
#include <avahi-core/publish.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <ifaddrs.h>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <set>
#include <utility>

namespace tessary::device {

namespace {

/// An IPv4 address as Avahi wants it, in network byte order.
using Address = std::uint32_t;

Address addressOf(const sockaddr* address) {
    return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
}

/// The addresses that each interface announces, by interface index.
std::map<AvahiIfIndex, std::set<Address>> addressesByInterface(const std::vector<IPv4Host>& hosts) {
    std::set<Address> all;
    for (const IPv4Host& host : hosts)
        all.insert(std::bit_cast<Address>(host.bytes));

    std::map<AvahiIfIndex, std::set<Address>> result;
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) return result;
    for (const ifaddrs* entry = interfaces; entry; entry = entry->ifa_next) {
        const unsigned index = if_nametoindex(entry->ifa_name); // 0: it has just gone
        if (index == 0 || !entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_netmask)
            continue;
        auto& own = result[static_cast<AvahiIfIndex>(index)];
        for (const Address address : all)
            if (((address ^ addressOf(entry->ifa_addr)) & addressOf(entry->ifa_netmask)) == 0)
                own.insert(address);
    }
    freeifaddrs(interfaces);
    for (auto& [index, own] : result)
        if (own.empty()) own = all;
    return result;
}

/// A host label that no other device has, because no other has its address and port.
std::string hostLabel(const Announcement& announcement) {
    std::string address = announcement.addresses.front().text();
    // Not a plain number at the end: a rename would increment it to the name of the next address.
    std::ranges::replace(address, '.', 'x');
    return "device-" + std::to_string(announcement.port) + "-" + address;
}

std::string takeText(char* text) {
    std::string result = text ? text : "";
    avahi_free(text);
    return result;
}

} // namespace

struct AnnouncedDevice {
    void publish(AvahiServer* server);
    int addRecords(AvahiServer* server) const;
    void rename();
    void fail(int error) const {
        announcement.report(std::string("not announced: ") + avahi_strerror(error));
    }

    Announcement announcement;
    std::string host = hostLabel(announcement);
    AvahiSEntryGroup* group = nullptr;
};

namespace {

void serverChanged(AvahiServer* server, AvahiServerState state, void* devices) {
    for (AnnouncedDevice& device : *static_cast<std::list<AnnouncedDevice>*>(devices)) {
        if (state == AVAHI_SERVER_RUNNING && !device.group) device.publish(server);
        if (state == AVAHI_SERVER_FAILURE) device.fail(avahi_server_errno(server));
    }
}

void groupChanged(AvahiServer* server, AvahiSEntryGroup* group, AvahiEntryGroupState state, void* user) {
    auto& device = *static_cast<AnnouncedDevice*>(user);
    const Announcement& announcement = device.announcement;
    device.group = group;
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED)
        for (const IPv4Host& address : announcement.addresses)
            announcement.report("announced " + announcement.name + " at " + address.text() + ":" +
                                std::to_string(announcement.port));
    if (state == AVAHI_ENTRY_GROUP_FAILURE) device.fail(avahi_server_errno(server));
    if (state == AVAHI_ENTRY_GROUP_COLLISION) {
        device.rename();
        device.publish(server);
    }
}

} // namespace

Announcer::Announcer(std::vector<Announcement> announcements) {
    for (Announcement& announcement : announcements)
        devices_.push_back(AnnouncedDevice{std::move(announcement)});
    avahi_set_log_function([](AvahiLogLevel level, const char* text) {
        if (level == AVAHI_LOG_ERROR) std::fprintf(stderr, "tessary-device: %s\n", text);
    });
    AvahiServerConfig config;
    avahi_server_config_init(&config);
    config.use_ipv6 = config.enable_wide_area = 0;
    config.publish_hinfo = config.publish_addresses = config.publish_workstation = config.publish_domain = 0;
    int error = AVAHI_OK;
    server_ = avahi_server_new(avahi_threaded_poll_get(poll_), &config, serverChanged, &devices_, &error);
    avahi_server_config_free(&config);
    if (!server_)
        for (const AnnouncedDevice& device : devices_)
            device.fail(error);
    avahi_threaded_poll_start(poll_);
}

Announcer::~Announcer() {
    avahi_threaded_poll_stop(poll_);
    if (server_) avahi_server_free(server_);
    avahi_threaded_poll_free(poll_);
}

void AnnouncedDevice::publish(AvahiServer* server) {
    if (!group) group = avahi_s_entry_group_new(server, groupChanged, this);
    int result = group ? addRecords(server) : avahi_server_errno(server);
    while (result == AVAHI_ERR_COLLISION) { // with another announcement of this process
        rename();
        result = addRecords(server);
    }
    if (result == AVAHI_OK) result = avahi_s_entry_group_commit(group);
    if (result != AVAHI_OK) fail(result);
}

int AnnouncedDevice::addRecords(AvahiServer* server) const {
    avahi_s_entry_group_reset(group);
    const std::string hostName = host + ".local";
    int result = AVAHI_OK;
    for (const auto& [interface, addresses] : addressesByInterface(announcement.addresses))
        for (const Address address : addresses) {
            AvahiAddress record{};
            record.proto = AVAHI_PROTO_INET;
            record.data.ipv4.address = address;
            // Without the reverse record: several devices of one machine may share an address.
            if (result == AVAHI_OK)
                result = avahi_server_add_address(server, group, interface, AVAHI_PROTO_INET,
                                                  AVAHI_PUBLISH_NO_REVERSE, hostName.c_str(), &record);
        }
    const auto addService = [&](const std::string& name, const char* type) {
        if (result == AVAHI_OK && !name.empty())
            result = avahi_server_add_service(server, group, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET,
                                              AvahiPublishFlags{}, name.c_str(), type, nullptr,
                                              hostName.c_str(), announcement.port, nullptr);
    };
    addService(announcement.name, "_apple-midi._udp");
    addService(announcement.markerName, "_tessarylink._tcp");
    return result;
}

/// Avahi does not say which of the names was taken, so all get the next number.
void AnnouncedDevice::rename() {
    for (std::string* name : {&announcement.name, &announcement.markerName})
        if (!name->empty()) *name = takeText(avahi_alternative_service_name(name->c_str()));
    host = takeText(avahi_alternative_host_name(host.c_str()));
}

} // namespace tessary::device
