#include "Platform/system/Thread.h"

#include <csignal>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace tessary {

std::thread startThread(const char* name, std::function<void()> body) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // the new thread inherits it from its first instruction on
    std::thread thread;
    int error = 0;
    try {
        thread = std::thread([name, body = std::move(body)] {
            pthread_setname_np(pthread_self(), name);
            body();
        });
    } catch (const std::system_error& failure) {
        error = failure.code().value();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) throw std::system_error(error, std::generic_category(), "cannot start a thread");
    return thread;
}

bool startDetachedThread(const char* name, std::function<void()> body) {
    try {
        startThread(name, std::move(body)).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

} // namespace tessary
