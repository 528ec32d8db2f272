#include "Models/IPv4Host.h"

#include <arpa/inet.h>

namespace tessary {

std::string IPv4Host::text() const {
    std::array<char, INET_ADDRSTRLEN> buffer{};
    inet_ntop(AF_INET, bytes.data(), buffer.data(), buffer.size());
    return buffer.data();
}

std::optional<IPv4Host> IPv4Host::parse(const std::string& text) {
    IPv4Host host;
    if (inet_pton(AF_INET, text.c_str(), host.bytes.data()) != 1) return std::nullopt;
    return host;
}

} // namespace tessary
