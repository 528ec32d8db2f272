// Runs each input in a target's corpus through the target, as an ordinary test that is named after the input.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* count, char*** arguments);

namespace {

struct Replay : testing::Test {
    explicit Replay(std::filesystem::path file)
        : file_(std::move(file)) {}

    void TestBody() override {
        std::ifstream stream(file_, std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(stream), {}};
        ASSERT_FALSE(stream.bad());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }

  private:
    const std::filesystem::path file_;
};

} // namespace

int main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    for (const auto& entry : std::filesystem::directory_iterator(TESSARY_CORPUS))
        testing::RegisterTest(TESSARY_TARGET, entry.path().filename().c_str(), nullptr, nullptr, __FILE__,
                              __LINE__, [file = entry.path()] { return new Replay(file); });
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&count, &arguments);
    return RUN_ALL_TESTS();
}
