// The preferences file, which the user may have edited: what is loaded from it, and what is left of it after
// a write.
#include "Platform/qt/JSONPreferences.h"
#include "Require.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

using namespace tessary;
using fuzz::require;
namespace fs = std::filesystem;

namespace {

constexpr const char* numberKey = "TessaryLink.localSSRC.v1";
constexpr const char* textsKey = "TessaryLink.trustedPeerIPs.v1";

/// In memory where there is such a folder, and removed at the end of the process.
struct Folder {
    fs::path path = [] {
        std::string name =
            (fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path().string()) + "/tessary-XXXXXX";
        return fs::path(mkdtemp(name.data()));
    }();
    ~Folder() { fs::remove_all(path); }
};

std::string read(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Folder folder;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const fs::path file = folder.path / "preferences.json", aside = file.string() + ".unreadable";
    fs::remove(aside);
    std::ofstream(file, std::ios::binary) << text;

    JSONPreferences preferences(file);
    const auto number = preferences.number(numberKey);
    require(!number || !preferences.array(numberKey), "a number is no array");
    require(!preferences.array(textsKey) || !preferences.number(textsKey), "an array is no number");
    require(read(file) == text, "reading changes nothing");

    preferences.setTexts(textsKey, {"10.0.0.99"});
    JSONPreferences next(file);
    require(next.array(textsKey) == std::vector<std::optional<std::string>>{"10.0.0.99"},
            "what is written is read");
    require(next.number(numberKey) == number, "a write keeps the other values");
    require(!fs::exists(aside) || read(aside) == text, "what was no object is kept as it was");
    require(std::distance(fs::directory_iterator(folder.path), {}) == (fs::exists(aside) ? 2 : 1),
            "no leftovers");
    return 0;
}
