#include "Platform/system/StandardOutputLog.h"

#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using namespace tessary;

namespace {

struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(files, O_CLOEXEC), 0); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        if (files[0] >= 0) close(files[0]);
        close(files[1]);
    }
    std::string read(std::size_t most = 4096) const {
        std::string text(most, '\0');
        const ssize_t size = ::read(files[0], text.data(), text.size());
        text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return text;
    }
    int files[2] = {-1, -1};
};

} // namespace

TEST(StandardOutputLogTest, EachLineIsThereAtOnceAndIsOneLine) {
    Pipe pipe;
    StandardOutputLog log(pipe.files[1]);
    log.line("dialing evil\nname");
    EXPECT_EQ(pipe.read(), "dialing evil\\nname\n"); // without waiting for the end or for more
}

TEST(StandardOutputLogTest, AStalledReaderHoldsNothingUpAndLosesWholeLinesOnly) {
    Pipe pipe;
    auto* log = new StandardOutputLog(pipe.files[1]);
    const std::string line(99, 'x');
    for (int i = 0; i < 20'000; ++i)
        log->line(line); // 2 MB; this returns
    const auto before = std::chrono::steady_clock::now();
    delete log; // and so does this
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));

    fcntl(pipe.files[0], F_SETFL, O_NONBLOCK);
    std::string text, chunk;
    for (int idle = 0; idle < 50;) {
        chunk = pipe.read(65'536);
        text += chunk;
        chunk.empty() ? (usleep(1000), ++idle) : idle = 0;
    }
    EXPECT_GT(text.size(), 256u * 1024);
    for (std::size_t at = 0; at < text.size(); at += 100)
        ASSERT_EQ(text.substr(at, 100), line + "\n");
}

TEST(StandardOutputLogTest, AClosedPipeIsNoReasonToEnd) {
    signal(SIGPIPE, SIG_IGN); // as the program does
    Pipe pipe;
    close(std::exchange(pipe.files[0], -1));
    StandardOutputLog log(pipe.files[1]);
    for (int i = 0; i < 100; ++i)
        log.line("nobody reads this");
}
