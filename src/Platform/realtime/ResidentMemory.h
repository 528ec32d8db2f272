// Memory that causes no page faults.
#pragma once

#include <cstddef>

namespace tessary {

/// Allocates the pages of this memory now, and locks them as far as the user's limit (RLIMIT_MEMLOCK) allows.
/// Failures are ignored.
void keepResident(void* memory, std::size_t size);

/// The same for the calling thread's stack, as deep as the packet path needs it.
void keepStackResident();

/// The same for the program's own code and variables.
void keepProgramResident();

} // namespace tessary
