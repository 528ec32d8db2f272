// Memory that is never waited for.
#pragma once

#include <cstddef>

namespace tessary {

/// Takes the pages of this memory now, and keeps them from being swapped out as far as the user's limit
/// (RLIMIT_MEMLOCK) allows. What cannot be had is left as it is.
void keepResident(void* memory, std::size_t size);

/// The same for the calling thread's stack, from here down as far as the road of a MIDI message goes.
void keepStackResident();

/// The same for the program's own code and variables.
void keepProgramResident();

} // namespace tessary
