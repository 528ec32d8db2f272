#include "Platform/posix/InstanceLock.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

namespace tessary {

InstanceLock::InstanceLock(const std::vector<std::string>& folders) {
    for (const std::string& folder : folders) {
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
        const std::string path = folder + "/tessary-link.lock";
        file_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (file_ < 0) continue;
        if (flock(file_, LOCK_EX | LOCK_NB) == 0) return;
        isHeldElsewhere_ = errno == EWOULDBLOCK;
        if (isHeldElsewhere_) return;
        close(std::exchange(file_, -1)); // no locks on this file system
    }
}

InstanceLock::~InstanceLock() {
    if (file_ >= 0) close(file_);
}

std::vector<std::string> InstanceLock::defaultFolders(const std::string& preferences) {
    std::vector<std::string> folders;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && std::filesystem::path(runtime).is_absolute() && std::filesystem::is_directory(runtime))
        folders.emplace_back(runtime);
    folders.push_back(preferences);
    return folders;
}

} // namespace tessary
