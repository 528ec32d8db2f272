// A real JACK server without sound hardware, for tests.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace tessary {

/// `jackd` with its dummy driver: 256 frames a period, 48,000 frames a second, a server name of its own. The
/// process's JACK clients, and the programs that it starts, find it by JACK_DEFAULT_SERVER. Dies with its
/// owner.
class JackServer {
  public:
    static constexpr unsigned rate = 48'000;

    /// Names the server; does not start it. To be made before any other thread is.
    JackServer() {
        setenv("JACK_DEFAULT_SERVER", name_.c_str(), 1);
        setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
        setenv("JACK_NO_START_SERVER", "1", 1);
    }
    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;
    /// Clears away what a killed server left behind. It would keep its place in libjack's list of eight
    /// servers until one of its name comes and goes, and the semaphores of its clients stay even then.
    ~JackServer() {
        const bool wasKilled = wasKilled_;
        if (wasKilled) start();
        end(SIGTERM);
        if (!wasKilled) return;
        std::error_code error;
        for (const auto& file : std::filesystem::directory_iterator("/dev/shm", error))
            if (file.path().string().find(name_ + "_") != std::string::npos)
                std::filesystem::remove(file, error);
    }

    static bool isInstalled() { return access("/usr/bin/jackd", X_OK) == 0; }

    /// Starts the server and waits until a client can join, at most 20 seconds; answers whether one could.
    bool start() {
        end(SIGTERM);
        // Synchronous: no client misses a cycle, however busy the machine is.
        process_ = run({"jackd", "-S", "-t", "2000", "-r", "-n", name_.c_str(), "-d", "dummy", "-r", "48000",
                        "-p", "256", nullptr});
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            // Nothing tells when a server has come. Asking is left to another program, because a client
            // opened here would make libjack delete those that this process has at a server that died.
            int status = -1;
            waitpid(run({"jack_lsp", nullptr}), &status, 0);
            if (status == 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    void signal(int number) const {
        if (process_ > 0) kill(process_, number);
    }

    /// Ends the server with the signal given and waits until it is gone.
    void end(int number) {
        if (process_ <= 0) return;
        kill(process_, number);
        waitpid(process_, nullptr, 0);
        process_ = -1;
        wasKilled_ = number == SIGKILL;
    }

  private:
    static pid_t run(std::vector<const char*> arguments) {
        const pid_t process = fork();
        if (process != 0) return process;
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        const int null = open("/dev/null", O_RDWR);
        for (int descriptor = 0; descriptor <= 2; ++descriptor)
            dup2(null, descriptor);
        execvp(arguments[0], const_cast<char* const*>(arguments.data()));
        _exit(127);
    }

    const std::string name_ = "tessary-test-" + std::to_string(getpid());
    pid_t process_ = -1;
    bool wasKilled_ = false;
};

} // namespace tessary
