// Whether the display answers.
#pragma once

#include "Platform/network/EventLoop.h"

#include <functional>

namespace tessary {

/// Qt waits for the display server without end. So the server is asked first, on a thread of its own, whether
/// it answers at all: a server that is stopped or out of reach holds up that thread alone.
///
/// Chooses where Qt shows things, too: on the display that there is, else nowhere.
class Display {
  public:
    /// Calls `answered` on the loop's thread, inside this call if there is no server to ask, else once the
    /// server has answered or refused; never if it does not answer.
    ///
    /// @param loop  outlives the process's last thread
    static void ask(EventLoop& loop, const std::function<void()>& answered);
};

} // namespace tessary
