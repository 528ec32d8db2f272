#include "Platform/posix/Thread.h"

#include <csignal>
#include <pthread.h>
#include <utility>

namespace tessary {

std::thread startThread(const char* name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // the new thread inherits it from its first instruction on
    std::thread thread([name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        body();
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

} // namespace tessary
