#include "Platform/avahi/PreferredAddresses.h"

#include <algorithm>

namespace tessary {

std::optional<IPv4Host> PreferredAddresses::find(const std::string& host) {
    const auto found = entries_.find(host);
    if (found == entries_.end()) return std::nullopt;
    found->second.lastUse = ++uses_;
    return found->second.address;
}

void PreferredAddresses::store(const std::string& host, IPv4Host address) {
    if (entries_.size() >= capacity && !entries_.contains(host))
        entries_.erase(std::min_element(entries_.begin(), entries_.end(), [](const auto& a, const auto& b) {
            return a.second.lastUse < b.second.lastUse;
        }));
    entries_.insert_or_assign(host, Entry{address, ++uses_});
}

} // namespace tessary
