// An open file that is closed with its owner.
#pragma once

#include <unistd.h>
#include <utility>

namespace tessary {

class OpenFile {
  public:
    OpenFile() = default;
    explicit OpenFile(int file)
        : file_(file) {}
    OpenFile(OpenFile&& other) noexcept
        : file_(std::exchange(other.file_, -1)) {}
    OpenFile& operator=(OpenFile&& other) noexcept {
        std::swap(file_, other.file_);
        return *this;
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() {
        if (file_ >= 0) ::close(file_);
    }

    /// The descriptor; -1: none.
    int file() const { return file_; }
    explicit operator bool() const { return file_ >= 0; }

  private:
    int file_ = -1;
};

} // namespace tessary
