// One running program per user.
#pragma once

#include <string>
#include <vector>

namespace tessary {

/// Holds a lock file for as long as it lives, and removes it then. The kernel drops the lock with the
/// process, however that ends.
class InstanceLock {
  public:
    /// Locks `tessary-link.lock` in the first of these folders where that works; they are made if need be.
    explicit InstanceLock(const std::vector<std::string>& folders);
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    /// Releases it.
    ~InstanceLock();

    /// Whether another process holds it. A machine on which no file can be locked has no other.
    bool isHeldElsewhere() const { return isHeldElsewhere_; }

    /// Removes the file; another process may lock it from then on.
    void release();

    /// The user's runtime folder (XDG Base Directory), then `preferences`, the folder of the preferences.
    static std::vector<std::string> defaultFolders(const std::string& preferences);

  private:
    bool lock();

    std::string path_;
    int file_ = -1; ///< locked by us
    bool isHeldElsewhere_ = false;
};

} // namespace tessary
