#include "Platform/system/InstanceLock.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

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
        lock(folder + "/tessary-link.lock");
    }
    if (isHeldElsewhere_) release();
}

InstanceLock::~InstanceLock() {
    release();
}

void InstanceLock::release() {
    for (const auto& [path, file] : locked_)
        unlink(path.c_str()); // before it is closed, while no other process can hold it
    locked_.clear();
}

void InstanceLock::lock(const std::string& path) {
    while (true) {
        OpenFile file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file) return;
        if (flock(file.file(), LOCK_EX | LOCK_NB) != 0) {
            isHeldElsewhere_ |= errno == EWOULDBLOCK; // otherwise this file system has no locks
            return;
        }
        if (isAt(file.file(), path)) {
            locked_.emplace_back(path, std::move(file));
            return;
        }
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
