/* The times at which messages reached an output, in memory that the processes of a measurement share. */
#pragma once

#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

/* Measured messages are on channel 16. Their two data bytes hold their number; the second is never 0. */
enum { STAMP_COUNT = 128 * 127, STAMP_BYTES = STAMP_COUNT * 8, STAMP_CHANNEL = 15 };

/* The monotonic clock in nanoseconds. */
static inline int64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

static inline void stamp(int64_t* stamps, unsigned first, unsigned second) {
    __atomic_store_n(&stamps[first + 128 * (second - 1)], now(), __ATOMIC_RELEASE);
}

/* Maps a file of STAMP_BYTES; returns a null pointer on failure. */
static inline int64_t* open_stamps(const char* path) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) return 0;
    void* memory = mmap(0, STAMP_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
    close(file);
    return memory == MAP_FAILED ? 0 : (int64_t*)memory;
}
