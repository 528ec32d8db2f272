// Log lines on standard output.
#pragma once

#include "Platform/Log.h"

#include <memory>

namespace tessary {

/// A separate thread writes each line at once, so that a stalled reader blocks nothing else. The backlog is
/// bounded; further lines are dropped. Without a reader all are.
class StandardOutputLog : public Log {
  public:
    explicit StandardOutputLog(int fileDescriptor);

    StandardOutputLog(const StandardOutputLog&) = delete;
    StandardOutputLog& operator=(const StandardOutputLog&) = delete;
    /// Flushes.
    ~StandardOutputLog() override;

    void line(std::string_view text) override;

    /// Waits until everything is written, for at most 200 ms: the reader may not read.
    void flush();

  private:
    struct Lines;
    const std::shared_ptr<Lines> lines_; ///< shared with the writer, which may be stuck and then outlives us
};

} // namespace tessary
