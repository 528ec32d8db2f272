#include "Platform/system/StandardOutputLog.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using namespace tessary;

namespace {

class StandardOutputLogTest : public testing::Test {
  protected:
    StandardOutputLogTest() { EXPECT_EQ(pipe(files), 0); }
    ~StandardOutputLogTest() override { close(files[0]); } // the log's thread may still write to the other
    std::string read() const {
        std::string text(65'536, '\0');
        const ssize_t size = ::read(files[0], text.data(), text.size());
        text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return text;
    }
    int files[2] = {-1, -1};
};

} // namespace

TEST_F(StandardOutputLogTest, EachLineIsWrittenAtOnceAndOnceAndIsOneLine) {
    StandardOutputLog log(files[1]);
    for (const std::string line : {"first", "second", "third"}) {
        log.line(line + " device\nof an evil name");
        EXPECT_EQ(read(), line + " device\\nof an evil name\n");
    }
}

TEST_F(StandardOutputLogTest, AReaderThatStallsBlocksNeitherLinesNorTheEndAndLosesWholeLinesOnly) {
    {
        StandardOutputLog log(files[1]);
        for (int i = 0; i < 20'000; ++i)
            log.line(std::string(99, 'x')); // 2 MB, far more than is kept
    }
    std::string text;
    while (text.size() < std::size_t{256} * 1024)
        text += read();
    for (std::size_t at = 0; at + 100 <= text.size(); at += 100)
        ASSERT_EQ(text.substr(at, 100), std::string(99, 'x') + "\n");
}
