// Timers of the network thread.
#pragma once

#include "Platform/Queue.h"

#include <asio/io_context.hpp>

#include <memory>

namespace tessary {

std::shared_ptr<Timer> makeAsioTimer(asio::io_context& context, std::function<void(Timer&)> handler);

/// Runs `work` once, `delay` after this is called on the network thread.
void asioPostAfter(asio::io_context& context, std::chrono::nanoseconds delay, std::function<void()> work);

} // namespace tessary
