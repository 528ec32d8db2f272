// Timers of an event loop.
#pragma once

#include "Platform/Queue.h"
#include "Platform/epoll/EventLoop.h"

#include <functional>
#include <memory>

namespace tessary {

/// Runs on: any thread.
std::shared_ptr<Timer> makeLoopTimer(EventLoop& loop, std::function<void(Timer&)> handler);

} // namespace tessary
