// How a fuzz target says that something does not hold.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace tessary::fuzz {

/// Ends the process, which the fuzzer records as a finding, unless `holds`.
inline void require(bool holds, const std::string& what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what.c_str());
    std::abort();
}

} // namespace tessary::fuzz
