// One running program per user.
#pragma once

#include "Platform/system/OpenFile.h"

#include <string>
#include <utility>
#include <vector>

namespace tessary {

/// Holds lock files for as long as it lives, and removes them then. The kernel drops the locks with the
/// process, however that ends.
class InstanceLock {
  public:
    /// Locks `tessary-link.lock` in each of these folders where that works, because a program that was
    /// started by ssh or cron may have fewer of them than the desktop's. They are made if need be.
    explicit InstanceLock(const std::vector<std::string>& folders);
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;
    /// Releases it.
    ~InstanceLock();

    /// Whether another process holds one of them. A machine on which no file can be locked has no other.
    bool isHeldElsewhere() const { return isHeldElsewhere_; }

    /// Removes the files; another process may lock them from then on.
    void release();

    /// The user's runtime folder (XDG Base Directory) and `preferences`, the folder of the preferences.
    static std::vector<std::string> defaultFolders(const std::string& preferences);

  private:
    void lock(const std::string& path);

    std::vector<std::pair<std::string, OpenFile>> locked_;
    bool isHeldElsewhere_ = false;
};

} // namespace tessary
