// What the two Avahi libraries have in common: their lookups are twins but for the names of their functions.
#pragma once

#include "Platform/avahi/AvahiBackend.h"

#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <utility>

namespace tessary {

/// One Avahi object and whom its events go to.
template <typename API, typename Object, typename Event>
class AvahiLookup : public std::enable_shared_from_this<AvahiLookup<API, Object, Event>> {
  public:
    AvahiLookup(AvahiThread& thread, const std::shared_ptr<typename API::Context>& context,
                std::function<void(const Event&)> handler)
        : thread_(thread)
        , context_(context)
        , handler_(std::move(handler)) {}
    AvahiLookup(const AvahiLookup&) = delete;
    AvahiLookup& operator=(const AvahiLookup&) = delete;
    /// A context that has gone took its lookups along.
    ~AvahiLookup() {
        if (object_ && context_.lock()) API::free(object_);
    }

    /// Takes the object that was made for this lookup, or the news that none could be.
    void adopt(Object* object) {
        object_ = object;
        if (!object) deliverFailure();
    }

    /// Hands an event on outside of Avahi's callback, in which no object may be freed.
    void deliver(Event event) {
        thread_.post([weak = this->weak_from_this(), event = std::move(event)] {
            if (const auto self = weak.lock()) self->handler_(event);
        });
    }

    void deliverFailure() {
        Event event;
        const auto context = context_.lock();
        event.error = context ? API::error(context.get()) : AVAHI_ERR_DISCONNECTED;
        deliver(std::move(event));
    }

    static AvahiLookup& of(void* userData) { return *static_cast<AvahiLookup*>(userData); }

  private:
    AvahiThread& thread_;
    const std::weak_ptr<typename API::Context> context_;
    const std::function<void(const Event&)> handler_;
    Object* object_ = nullptr;
};

/// The lookups of one of the libraries. `API` names its types and functions.
template <typename API>
class AvahiLookups : public AvahiBackend {
  public:
    using ServiceLookup = AvahiLookup<API, typename API::ServiceBrowser, ServiceEvent>;
    using HostLookup = AvahiLookup<API, typename API::ServiceResolver, HostEvent>;
    using AddressLookup = AvahiLookup<API, typename API::RecordBrowser, AddressEvent>;

    Lookup browseServices(const std::string& type,
                          std::function<void(const ServiceEvent&)> handler) override {
        const auto lookup = std::make_shared<ServiceLookup>(thread_, context_, std::move(handler));
        lookup->adopt(API::newServiceBrowser(context_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                             type.c_str(), nullptr, AvahiLookupFlags{}, serviceChanged,
                                             lookup.get()));
        return lookup;
    }

    Lookup resolveService(const std::string& name, const std::string& type, const std::string& domain,
                          std::function<void(const HostEvent&)> handler) override {
        const auto lookup = std::make_shared<HostLookup>(thread_, context_, std::move(handler));
        constexpr auto flags = AvahiLookupFlags(AVAHI_LOOKUP_NO_TXT | AVAHI_LOOKUP_NO_ADDRESS);
        lookup->adopt(API::newServiceResolver(context_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                              name.c_str(), type.c_str(), domain.c_str(), AVAHI_PROTO_UNSPEC,
                                              flags, hostFound, lookup.get()));
        return lookup;
    }

    Lookup browseAddresses(const std::string& host, std::uint16_t recordType,
                           std::function<void(const AddressEvent&)> handler) override {
        const auto lookup = std::make_shared<AddressLookup>(thread_, context_, std::move(handler));
        lookup->adopt(API::newRecordBrowser(context_.get(), host.c_str(), recordType, lookup.get()));
        return lookup;
    }

  protected:
    explicit AvahiLookups(AvahiThread& thread)
        : thread_(thread) {}

    AvahiThread& thread_;
    std::shared_ptr<typename API::Context> context_; // present when ready

  private:
    static void serviceChanged(typename API::ServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                               AvahiBrowserEvent event, const char* name, const char*, const char* domain,
                               AvahiLookupResultFlags, void* userData) {
        auto& lookup = ServiceLookup::of(userData);
        if (event == AVAHI_BROWSER_FAILURE) return lookup.deliverFailure();
        lookup.deliver({event, interface, protocol, name ? name : "", domain ? domain : "", AVAHI_OK});
    }

    static void hostFound(typename API::ServiceResolver*, AvahiIfIndex, AvahiProtocol,
                          AvahiResolverEvent event, const char*, const char*, const char*, const char* host,
                          const AvahiAddress*, std::uint16_t port, AvahiStringList*, AvahiLookupResultFlags,
                          void* userData) {
        auto& lookup = HostLookup::of(userData);
        if (event == AVAHI_RESOLVER_FAILURE) return lookup.deliverFailure();
        lookup.deliver({host ? host : "", port, AVAHI_OK});
    }
};

} // namespace tessary
