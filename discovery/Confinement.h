// The confinement of the discovery process, before it reads its first datagram.
#pragma once

#include <cstdint>

namespace tessary::discovery {

/// Ends this process, rather than the machine, when its cache is flooded.
constexpr std::uint64_t maxAddressSpace = std::uint64_t{128} << 20;

/// Confines the calling process for good: no new privileges; only the system calls that it needs, which run
/// no program, trace no process, open no file, and open no sockets but datagrams, netlink and local streams
/// (the system bus); bounded memory, files and processes; low priority; and the process dies with its parent.
/// A forbidden call fails with EPERM.
///
/// @return the parts that the kernel has refused, a sum of `Refusal`
/// Runs on: the process's only thread.
std::uint8_t confine();

} // namespace tessary::discovery
