// Threads of the platform layer.
#pragma once

#include <functional>
#include <thread>

namespace tessary {

/// Starts a thread that no signal is delivered to: signals are the main thread's affair.
///
/// @param name  what debuggers and `ps -L` show, at most 15 characters
/// Errors: throws std::system_error if the system has no room for another thread.
std::thread startThread(const char* name, std::function<void()> body);

/// Starts a thread that nothing waits for, and answers whether there was room for it.
bool startDetachedThread(const char* name, std::function<void()> body);

} // namespace tessary
