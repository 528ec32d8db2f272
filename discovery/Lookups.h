// What the two Avahi libraries have in common: their lookups differ in the names of their functions alone.
#pragma once

#include "Backend.h"

#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <utility>

namespace tessary::discovery {

/// One Avahi object and the handler of its events.
template <typename API, typename Object, typename Event>
class AvahiLookup : public std::enable_shared_from_this<AvahiLookup<API, Object, Event>> {
  public:
    AvahiLookup(Loop& loop, const std::shared_ptr<typename API::Context>& context,
                std::shared_ptr<std::size_t> count, std::function<void(const Event&)> handler)
        : loop_(loop)
        , context_(context)
        , count_(std::move(count))
        , handler_(std::move(handler)) {
        ++*count_;
    }
    AvahiLookup(const AvahiLookup&) = delete;
    AvahiLookup& operator=(const AvahiLookup&) = delete;
    /// A context that has gone took its lookups along.
    ~AvahiLookup() {
        if (object_ && context_.lock()) API::free(object_);
        --*count_;
    }

    /// Takes the object that was made for this lookup, or the news that none could be.
    void adopt(Object* object) {
        object_ = object;
        if (!object) deliverFailure();
    }

    /// Hands an event on outside of Avahi's callback, in which no object may be freed.
    void deliver(Event event) {
        loop_.post([weak = this->weak_from_this(), event = std::move(event)] {
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
    Loop& loop_;
    const std::weak_ptr<typename API::Context> context_;
    const std::shared_ptr<std::size_t> count_;
    const std::function<void(const Event&)> handler_;
    Object* object_ = nullptr;
};

/// The lookups of one of the libraries. `API` names its types and functions.
template <typename API>
class AvahiLookups : public Backend {
  public:
    using ServiceLookup = AvahiLookup<API, typename API::ServiceBrowser, ServiceEvent>;
    using HostLookup = AvahiLookup<API, typename API::ServiceResolver, HostEvent>;
    using AddressLookup = AvahiLookup<API, typename API::RecordBrowser, AddressEvent>;

    std::size_t lookups() const override { return *count_; }

    Lookup browseServices(const std::string& type,
                          std::function<void(const ServiceEvent&)> handler) override {
        const auto lookup = std::make_shared<ServiceLookup>(loop_, context_, count_, std::move(handler));
        lookup->adopt(API::newServiceBrowser(context_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                             type.c_str(), nullptr, AvahiLookupFlags{}, serviceChanged,
                                             lookup.get()));
        return lookup;
    }

    Lookup resolveService(const std::string& name, const std::string& type, const std::string& domain,
                          std::function<void(const HostEvent&)> handler) override {
        const auto lookup = std::make_shared<HostLookup>(loop_, context_, count_, std::move(handler));
        constexpr auto flags = AvahiLookupFlags(AVAHI_LOOKUP_NO_TXT | AVAHI_LOOKUP_NO_ADDRESS);
        lookup->adopt(API::newServiceResolver(context_.get(), AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                              name.c_str(), type.c_str(), domain.c_str(), AVAHI_PROTO_UNSPEC,
                                              flags, hostFound, lookup.get()));
        return lookup;
    }

    Lookup browseAddresses(const std::string& host, std::uint16_t recordType,
                           std::function<void(const AddressEvent&)> handler) override {
        const auto lookup = std::make_shared<AddressLookup>(loop_, context_, count_, std::move(handler));
        lookup->adopt(API::newRecordBrowser(context_.get(), host.c_str(), recordType, lookup.get()));
        return lookup;
    }

  protected:
    explicit AvahiLookups(Loop& loop)
        : loop_(loop) {}

    Loop& loop_;
    std::shared_ptr<typename API::Context> context_; // present when ready
    const std::shared_ptr<std::size_t> count_ = std::make_shared<std::size_t>(0);

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

} // namespace tessary::discovery
