// Checks whether the display server answers.
#pragma once

#include "Platform/network/EventLoop.h"

#include <functional>

namespace tessary {

/// Qt waits for the display server without a timeout. A separate thread therefore checks first whether the
/// server answers: a server that is stopped or unreachable blocks that thread only.
///
/// Also sets the Qt platform plugin: that of the available display, otherwise "offscreen".
class Display {
  public:
    /// Calls `answered` on the loop's thread: inside this call if there is no display server, otherwise after
    /// the server has accepted or refused the connection. Never calls it if the server does not respond.
    ///
    /// @param loop  must outlive the process's last thread
    static void ask(EventLoop& loop, const std::function<void()>& answered);
};

} // namespace tessary
