// What the services need from the machine: a place for diagnostic lines.
#pragma once

#include <string_view>

namespace tessary {

class Log {
  public:
    virtual ~Log() = default;

    /// Writes one line; the line's end is added here. Control characters in `text` come out escaped, so that
    /// a name from the network never breaks a line in two. Never waits for the reader: lines that a stalled
    /// reader leaves no room for are dropped whole.
    ///
    /// Runs on: any thread. Errors: none reported.
    virtual void line(std::string_view text) = 0;
};

} // namespace tessary
