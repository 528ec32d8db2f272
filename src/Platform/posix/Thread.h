// Threads of the platform layer.
#pragma once

#include <functional>
#include <thread>

namespace tessary {

/// Starts a thread that no signal is delivered to: signals are the main thread's affair.
///
/// @param name  what debuggers and `ps -L` show, at most 15 characters
std::thread startThread(const char* name, std::function<void()> body);

} // namespace tessary
