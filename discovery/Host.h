// The addresses of one host, and the preferred one.
#pragma once

#include "Backend.h"
#include "Models/IPv4Host.h"

#include <compare>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tessary::discovery {

/// Lives for as long as a service points to it, across restarts of the daemon. All services of a host see the
/// same addresses in the same order, because the program joins the services of a device by their first
/// address.
class Host : public std::enable_shared_from_this<Host> {
  public:
    /// @param changed  called when the addresses have settled, and each time that they settle differently
    Host(Loop& loop, std::string name, std::function<void(const Host&)> changed);

    const std::string& name() const { return name_; }

    /// Looks the addresses up. Called again with a new daemon.
    void begin(Backend& backend);

    /// The daemon has ended. The addresses stay known until others have settled.
    void interrupt();

    /// The program already knows the host by this address, so it comes first while it exists. Only the first
    /// call counts.
    void prefer(IPv4Host address);

    /// A service cannot wait any longer: settles for the addresses found so far, or queries IPv6 addresses
    /// too.
    void hurry();

    /// The IPv4 addresses, the preferred one first; none if the host has IPv6 addresses alone. Absent until
    /// they have settled.
    const std::optional<std::vector<IPv4Host>>& addresses() const { return settled_; }

  private:
    struct Address {
        int interface = 0;
        int protocol = 0;
        std::array<std::uint8_t, 4> bytes{};
        friend auto operator<=>(const Address&, const Address&) = default;
    };

    void browse(std::uint16_t recordType);
    void browseAgain();
    void handle(const AddressEvent& event);
    void decide();
    void settle();
    std::chrono::milliseconds settleTime() const;
    std::vector<IPv4Host> inOrder() const;

    Loop& loop_;
    const std::string name_;
    const std::function<void(const Host&)> changed_;
    Backend* backend_ = nullptr; // present while lookups can be made
    std::vector<Lookup> lookups_;
    std::set<Address> addresses_;
    bool isTruncated_ = false; // more than `maxAddresses` were seen
    bool hasIPv6_ = false;
    bool isAskedForIPv6_ = false;
    Loop::Clock::time_point lastChange_;
    bool isDecisionDue_ = false;
    std::optional<IPv4Host> preferred_;
    bool isKnown_ = false; // to the program, by an address reported to it
    std::optional<std::vector<IPv4Host>> settled_;
};

} // namespace tessary::discovery
