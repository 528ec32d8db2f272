// The preferences file, which the user may have edited: what is loaded from it, and what is left of it after
// a write.
#include "Fuzz.h"
#include "Platform/qt/JSONPreferences.h"
#include "support/TemporaryFolder.h"

using namespace tessary;
using fuzz::require;
using test::read;

namespace {

constexpr const char* numberKey = "TessaryLink.localSSRC.v1";
constexpr const char* textsKey = "TessaryLink.trustedPeerIPs.v1";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const test::TemporaryFolder folder;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto file = folder / "preferences.json", aside = folder / "preferences.json.unreadable";
    std::filesystem::remove(aside);
    test::write(file, text);

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
    const bool isSetAside = std::filesystem::exists(aside);
    require(!isSetAside || read(aside) == text, "what was no object is kept as it was");
    require(test::listed(folder.path()).size() == (isSetAside ? 2 : 1), "no leftovers");
    return 0;
}
