// Threads of the platform layer.
#pragma once

#include <functional>
#include <thread>

namespace tessary {

/// Starts a thread with all signals blocked: the main thread handles signals.
///
/// @param name  what debuggers and `ps -L` show, at most 15 characters
/// Errors: throws std::system_error if no thread can be created.
std::thread startThread(const char* name, std::function<void()> body);

/// Starts a detached thread; returns whether that was possible.
bool startDetachedThread(const char* name, std::function<void()> body);

} // namespace tessary
