// What the program and its discovery process say to each other, over one stream socket.
//
// A frame is the length of the rest (4 bytes), the message's number in its variant (1 byte), and the
// message's fields in their order. All numbers are big-endian; a text is its length (2 bytes) and UTF-8; a
// list is its length (1 byte) and its elements.
#pragma once

#include "Models/IPv4Host.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

namespace tessary::discovery {

/// Both processes come from one package, but an upgrade may replace one of them under the other.
constexpr std::uint16_t protocolVersion = 1;

/// The descriptor of the socket in the discovery process.
constexpr int socketDescriptor = 3;

/// Exit statuses of the discovery process: it can find nothing new any more; the daemon that it uses has gone
/// twice within a minute, and the embedded responder would do better.
constexpr int exhaustedStatus = 3;
constexpr int unstableDaemonStatus = 4;

/// A domain name has at most 1,014 bytes in its escaped form.
constexpr std::size_t maxTextSize = 1014;
/// Of one host; a device has a few.
constexpr std::size_t maxAddresses = 64;
/// Service instances of one type; further ones are not listed.
constexpr std::size_t maxListed = 8192;
constexpr std::size_t maxFrameSize = 4096;

/// Which mDNS responder serves the lookups.
enum class Responder : std::uint8_t {
    any,      ///< a request: the daemon if there is one, else the embedded one
    daemon,   ///< avahi-daemon, over the system bus
    embedded, ///< one in the discovery process
};

/// Parts of the confinement that the kernel has refused; a sum of these.
enum Refusal : std::uint8_t {
    refusedPrivileges = 1, ///< no new privileges
    refusedFilter = 2,     ///< the filter of system calls
    refusedLimits = 4,     ///< resource limits
    refusedParentDeath = 8 ///< to end with its parent
};

// Requests, from the program. Numbers of browses and resolutions are the program's to choose.

/// The first message.
struct Start {
    std::uint16_t version = protocolVersion;
    Responder responder = Responder::any;
    auto fields() { return std::tie(version, responder); }
};

struct Browse {
    std::uint32_t browse = 0;
    std::string type; ///< such as "_apple-midi._udp"
    auto fields() { return std::tie(browse, type); }
};

struct EndBrowse {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// Answered by `Resolved` or `Unresolved` once. From then on each change is reported by another `Resolved`,
/// until `EndResolve`. The same number may be asked for again, with the same service, to be answered again.
struct Resolve {
    std::uint32_t resolution = 0;
    std::string name;
    std::string type;
    std::string domain;
    std::uint32_t timeout = 0; ///< in milliseconds, from the moment the question is on the network
    IPv4Host known;            ///< the host's address as last reported; 0.0.0.0: none
    auto fields() { return std::tie(resolution, name, type, domain, timeout, known); }
};

struct EndResolve {
    std::uint32_t resolution = 0;
    auto fields() { return std::tie(resolution); }
};

struct Ping {
    auto fields() { return std::tie(); }
};

using Request = std::variant<Start, Browse, EndBrowse, Resolve, EndResolve, Ping>;

// Reports, from the discovery process.

/// The answer to `Start`.
struct Started {
    std::uint16_t version = protocolVersion;
    Responder responder = Responder::daemon; ///< never `any`
    std::uint8_t refused = 0;                ///< a sum of `Refusal`
    auto fields() { return std::tie(version, responder, refused); }
};

struct Listed {
    std::uint32_t browse = 0;
    std::string name;
    std::string domain;
    std::uint32_t interface = 0;
    auto fields() { return std::tie(browse, name, domain, interface); }
};

struct Unlisted {
    std::uint32_t browse = 0;
    std::string name;
    std::string domain;
    std::uint32_t interface = 0;
    auto fields() { return std::tie(browse, name, domain, interface); }
};

/// All that was listed and unlisted so far makes a set worth telling.
struct Changed {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// The daemon has gone: nothing is listed any more, and what is there will be listed anew.
struct Restarted {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// Since the start or restart every service that is there has had the time to answer.
struct Complete {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// The browse is tried again, without another report of this kind.
struct BrowseFailed {
    std::uint32_t browse = 0;
    std::string reason;
    auto fields() { return std::tie(browse, reason); }
};

struct Resolved {
    std::uint32_t resolution = 0;
    std::uint16_t port = 0;
    std::vector<IPv4Host> addresses; ///< the preferred one first; none: the host has IPv6 addresses alone
    auto fields() { return std::tie(resolution, port, addresses); }
};

struct Unresolved {
    std::uint32_t resolution = 0;
    std::string reason;
    auto fields() { return std::tie(resolution, reason); }
};

struct Pong {
    auto fields() { return std::tie(); }
};

using Report = std::variant<Started, Listed, Unlisted, Changed, Restarted, Complete, BrowseFailed, Resolved,
                            Unresolved, Pong>;

/// Appends the message's frame to `out`. Texts are cut to `maxTextSize`, lists to `maxAddresses`.
void encode(const Request& message, std::vector<std::uint8_t>& out);
void encode(const Report& message, std::vector<std::uint8_t>& out);

/// Takes a stream of frames apart. Nothing that is not exactly one of the messages comes out: lengths,
/// counts, enumerated values and UTF-8 are checked here.
///
/// Not thread-safe. Memory: at most one frame beside what `append` was last given.
template <typename Message>
class MessageReader {
  public:
    void append(std::span<const std::uint8_t> bytes) {
        waiting_.insert(waiting_.end(), bytes.begin(), bytes.end());
    }

    /// The next message; absent if none is complete, or for good once the stream is broken.
    std::optional<Message> next();

    /// Whether something has arrived that is no message.
    bool isBroken() const { return isBroken_; }

  private:
    std::vector<std::uint8_t> waiting_;
    std::size_t begin_ = 0; ///< of what has not been taken yet
    bool isBroken_ = false;
};

extern template class MessageReader<Request>;
extern template class MessageReader<Report>;

} // namespace tessary::discovery
