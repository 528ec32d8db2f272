// Log lines on standard output.
#pragma once

#include "Platform/Log.h"

#include <memory>

namespace tessary {

/// Writes each line at once, by a thread of its own, so that a reader who stalls holds up nobody else. What
/// waits for such a reader is bounded; lines past that are dropped. Once the reader is gone all are.
class StandardOutputLog : public Log {
  public:
    explicit StandardOutputLog(int fileDescriptor);

    StandardOutputLog(const StandardOutputLog&) = delete;
    StandardOutputLog& operator=(const StandardOutputLog&) = delete;
    /// Waits a moment until everything is written, but not for a reader who takes nothing.
    ~StandardOutputLog() override;

    void line(std::string_view text) override;

  private:
    struct Lines;
    const std::shared_ptr<Lines> lines_; ///< shared with the writer, which may be stuck and then outlives us
};

} // namespace tessary
