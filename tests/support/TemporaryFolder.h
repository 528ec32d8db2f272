// Files and folders of a test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <set>
#include <string>
#include <sys/mount.h>

namespace tessary::test {

/// A folder that is removed with everything in it when the test ends.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "tessary-test-XXXXXX").string();
        path_ = std::filesystem::canonical(mkdtemp(name.data()));
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        if (isMounted_) umount2(path_.c_str(), MNT_DETACH);
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

    /// Makes the folder a file system of 64 KiB, which only this process sees. Needs root.
    bool mountSmallFileSystem() {
        isMounted_ = unshare(CLONE_NEWNS) == 0 &&
                     mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount("none", path_.c_str(), "tmpfs", 0, "size=64k") == 0;
        return isMounted_;
    }
    bool makeReadOnly() const {
        return mount("none", path_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }
    /// Takes all the room that is left, with a file of that name.
    void fill(const std::filesystem::path& name) const {
        std::ofstream file(path_ / name);
        while (file.put('x').flush()) {
        }
    }

  private:
    std::filesystem::path path_;
    bool isMounted_ = false;
};

/// Writes a file, and makes its folder if there is none.
inline void write(const std::filesystem::path& path, const std::string& text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

inline std::string read(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The names of everything in a folder.
inline std::set<std::string> listed(const std::filesystem::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename());
    return names;
}

} // namespace tessary::test
