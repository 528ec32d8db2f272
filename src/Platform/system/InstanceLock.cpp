#include "Platform/system/InstanceLock.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tessary {

namespace {

/// Whether the path still leads to the open file: its last holder may have removed it just before we locked
/// it.
bool isAt(int file, const std::string& path) {
    struct stat opened {};
    struct stat named {};
    return fstat(file, &opened) == 0 && stat(path.c_str(), &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}

} // namespace

InstanceLock::InstanceLock(const std::vector<std::string>& folders) {
    for (const std::string& folder : folders) {
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
        path_ = folder + "/tessary-link.lock";
        if (lock()) return;
    }
}

InstanceLock::~InstanceLock() {
    release();
}

void InstanceLock::release() {
    if (file_ < 0) return;
    unlink(path_.c_str()); // first, while no other process can hold it
    close(std::exchange(file_, -1));
}

bool InstanceLock::lock() {
    while (true) {
        const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (file < 0) return false;
        const bool isLocked = flock(file, LOCK_EX | LOCK_NB) == 0;
        isHeldElsewhere_ = !isLocked && errno == EWOULDBLOCK;
        if (isLocked && isAt(file, path_)) {
            file_ = file;
            return true;
        }
        close(file);
        if (!isLocked) return isHeldElsewhere_; // else there are no locks on this file system
    }
}

std::vector<std::string> InstanceLock::defaultFolders(const std::string& preferences) {
    std::vector<std::string> folders;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code ignored; // an inaccessible folder cannot hold the lock
    if (runtime && std::filesystem::path(runtime).is_absolute() &&
        std::filesystem::is_directory(runtime, ignored))
        folders.emplace_back(runtime);
    folders.push_back(preferences);
    return folders;
}

} // namespace tessary
