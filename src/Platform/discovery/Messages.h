// The messages between the program and its discovery process, over one stream socket.
//
// A frame is the length of the rest (4 bytes), the index of the message in its variant (1 byte), and the
// message's fields in order. All numbers are big-endian. A text is its length (2 bytes) and UTF-8; a list is
// its count (1 byte) and its elements.
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

/// Both processes belong to one package, but an upgrade may replace the executables while the program runs,
/// so that the next discovery process has another version.
constexpr std::uint16_t protocolVersion = 1;

/// The descriptor of the socket in the discovery process.
constexpr int socketDescriptor = 3;

/// Exit status of the discovery process: its cache is full, so it can find no new services.
constexpr int exhaustedStatus = 3;
/// Exit status of the discovery process: the daemon has ended twice within a minute, so the next process
/// should use the embedded responder.
constexpr int unstableDaemonStatus = 4;

/// A domain name has at most 1,014 bytes in its escaped form.
constexpr std::size_t maxTextSize = 1014;
/// The limit of addresses of one host; a device has a few.
constexpr std::size_t maxAddresses = 64;
/// The limit of service instances of one type: as many as the cache of the embedded responder holds.
constexpr std::size_t maxListed = 16'384;
constexpr std::size_t maxFrameSize = 4096;

/// The mDNS responder that performs the lookups.
enum class Responder : std::uint8_t {
    any,      ///< only in a request: the daemon if there is one, otherwise the embedded one
    daemon,   ///< avahi-daemon, over the system bus
    embedded, ///< libavahi-core in the discovery process
};

/// Parts of the confinement that the kernel has refused: a bit mask.
enum Refusal : std::uint8_t {
    refusedPrivileges = 1, ///< no new privileges (PR_SET_NO_NEW_PRIVS)
    refusedFilter = 2,     ///< the system call filter (seccomp)
    refusedLimits = 4,     ///< resource limits
    refusedParentDeath = 8 ///< termination with the parent (PR_SET_PDEATHSIG)
};

// Requests, from the program. The program chooses the numbers of browses and resolutions.

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

/// Answered once by `Resolved` or `Unresolved`. After that, each change is reported by another `Resolved`
/// until `EndResolve`. The request may be repeated with the same number and service to obtain another answer.
struct Resolve {
    std::uint32_t resolution = 0;
    std::string name;
    std::string type;
    std::string domain;
    std::uint32_t timeout = 0; ///< in milliseconds, from the time the query is sent on the network
    IPv4Host known;            ///< the last reported address of the host; 0.0.0.0: none
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

/// Answers `Start`.
struct Started {
    std::uint16_t version = protocolVersion;
    Responder responder = Responder::daemon; ///< never `any`
    std::uint8_t refused = 0;                ///< a bit mask of `Refusal`
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

/// The preceding `Listed` and `Unlisted` messages form a consistent set, which can be reported.
struct Changed {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// The daemon has ended: the list is now empty, and available services will be listed again.
struct Restarted {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// Every available service has had the time to answer since the start or restart.
struct Complete {
    std::uint32_t browse = 0;
    auto fields() { return std::tie(browse); }
};

/// The browse has failed. It is retried, and further failures are not reported.
struct BrowseFailed {
    std::uint32_t browse = 0;
    std::string reason;
    auto fields() { return std::tie(browse, reason); }
};

struct Resolved {
    std::uint32_t resolution = 0;
    std::uint16_t port = 0;
    std::vector<IPv4Host> addresses; ///< the preferred one first; empty if the host has IPv6 addresses only
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

/// Splits a stream of frames into messages. Only valid messages are returned: lengths, counts, enumerated
/// values and UTF-8 are checked here.
///
/// Not thread-safe. Memory: at most one frame in addition to the bytes last passed to `append`, if `next` is
/// called until it returns nothing.
template <typename Message>
class MessageReader {
  public:
    void append(std::span<const std::uint8_t> bytes) {
        waiting_.insert(waiting_.end(), bytes.begin(), bytes.end());
    }

    /// Returns the next message; absent if none is complete yet, and always absent once the stream is broken.
    std::optional<Message> next();

    /// Whether an invalid message has arrived.
    bool isBroken() const { return isBroken_; }

  private:
    std::vector<std::uint8_t> waiting_;
    std::size_t begin_ = 0; ///< of the bytes that `next` has not consumed yet
    bool isBroken_ = false;
};

extern template class MessageReader<Request>;
extern template class MessageReader<Report>;

} // namespace tessary::discovery
