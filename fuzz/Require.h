// How a fuzz target reports that a property does not hold.
#pragma once

#include <stdexcept>
#include <string>

namespace tessary::fuzz {

/// Throws unless `holds`. In the fuzzer nothing catches it, so the process aborts and the fuzzer records a
/// finding; where the corpus is replayed, the test of this input fails.
inline void require(bool holds, const std::string& what) {
    if (!holds) throw std::logic_error("does not hold: " + what);
}

} // namespace tessary::fuzz
