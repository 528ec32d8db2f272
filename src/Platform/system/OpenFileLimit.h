// How many files the process may hold open.
#pragma once

namespace tessary {

/// Raises the soft limit of open files to the hard one: each device takes two. Not beyond 65,536, because
/// some libraries visit every possible descriptor. A limit that cannot be raised stays.
void raiseOpenFileLimit();

} // namespace tessary
