// The preferences file, which anybody may have edited: what is loaded from it, and what is left of it after a
// write.
#include "Platform/qt/JSONPreferences.h"
#include "Require.h"
#include "Services/PeerDiscovery.h"
#include "Services/RTPMIDISession.h"
#include "support/Fakes.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

using namespace tessary;
using fuzz::require;
namespace fs = std::filesystem;

namespace {

constexpr const char* ssrcKey = "TessaryLink.localSSRC.v1";
constexpr const char* trustedKey = "TessaryLink.trustedPeerIPs.v1";

/// In memory where there is such a folder, and gone at the end of the process.
struct Folder {
    fs::path path;
    Folder() {
        std::string name =
            (fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path().string()) + "/tessary-XXXXXX";
        path = mkdtemp(name.data());
    }
    ~Folder() { fs::remove_all(path); }
};

void write(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}
std::string read(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// The machine with these preferences in the place of its own.
Platform platform(test::FakeMachine& machine, Preferences& preferences) {
    const Platform fake = machine.platform();
    return {fake.application, fake.mainQueue, fake.network,   fake.serviceDiscovery,
            fake.midiOutput,  preferences,    fake.statusBar, fake.loginService,
            fake.clock,       fake.random,    fake.text,      fake.log};
}

/// The SSRC with which a session of this run would introduce itself.
std::uint32_t sessionSSRC(Preferences& preferences) {
    test::FakeMachine machine;
    const auto session = std::make_shared<RTPMIDISession>(
        platform(machine, preferences), "iPad", IPv4Host{{10, 0, 0, 2}}, std::uint16_t{5004}, "Link");
    session->start();
    machine.time.run();
    const auto sent =
        machine.network.newest(RTPMIDISession::controlLocalPort)->sentOf<AppleMIDIPacket::Invitation>();
    session->stop();
    return sent.at(0).ssrc;
}

std::set<std::string> trusted(Preferences& preferences) {
    test::FakeMachine machine;
    return *std::make_shared<PeerDiscovery>(platform(machine, preferences))->trustedIPs;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Folder folder;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const fs::path file = folder.path / "preferences.json", aside = file.string() + ".unreadable";
    fs::remove(aside);
    write(file, text);

    JSONPreferences preferences(file);
    const auto number = preferences.number(ssrcKey);
    const auto stored = preferences.array(trustedKey);
    require(!number || !preferences.array(ssrcKey), "a number is no array");
    const bool spoiled = !stored || std::ranges::any_of(*stored, [](const auto& each) { return !each; });
    const auto addresses = trusted(preferences);
    require(spoiled ? addresses.empty() : addresses.size() <= stored->size(),
            "all of the list or nothing of it");
    require(read(file) == text, "reading changes nothing");

    const std::uint32_t ssrc = sessionSSRC(preferences);
    require(ssrc == number.value_or(1), "the stored SSRC, or the first one drawn");
    require(number.has_value() == (read(file) == text), "a stored number is not written again");
    {
        test::FakeMachine machine;
        const auto discovery = std::make_shared<PeerDiscovery>(platform(machine, preferences));
        discovery->markIPTrusted("10.0.0.99");
        machine.time.run();
    }
    auto expected = addresses;
    expected.insert("10.0.0.99");
    require(trusted(preferences) == expected, "a new address is trusted");

    JSONPreferences next(file);
    require(next.number(ssrcKey) == ssrc, "the SSRC outlives the run");
    require(trusted(next) == expected, "so do the addresses");
    require(!fs::exists(aside) || read(aside) == text, "what was no object is kept as it was");
    require(std::distance(fs::directory_iterator(folder.path), {}) == (fs::exists(aside) ? 2 : 1),
            "no leftovers");
    return 0;
}
