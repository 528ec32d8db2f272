// RealtimeKit, the service by which desktops give real-time priority to programs of ordinary users.
#pragma once

#include <chrono>
#include <functional>
#include <sys/types.h>

namespace tessary {

/// Asks the service on the system bus for real-time priority for one of this process's threads.
///
/// @param priority      at least 1; less is asked for where the service grants less
/// @param limitRunTime  puts the limit on this process that the service demands: how long a thread may run
///                      without ever waiting. Answers whether that worked.
/// @return whether the thread now has it
///
/// Runs on: a thread that may wait, up to 90 s for a bus that does not answer. Errors: none reported.
bool askRealtimeKit(pid_t thread, int priority,
                    const std::function<bool(std::chrono::microseconds)>& limitRunTime);

} // namespace tessary
