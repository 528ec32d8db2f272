/* When each message reached an output, by way of memory that the processes of the measurement share. */
#pragma once

#include <fcntl.h>
#include <stdint.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

/* A message of the measurement is on channel 16, and its two data bytes (of which the second is not 0) number
 * it. */
enum { STAMP_COUNT = 128 * 127, STAMP_BYTES = STAMP_COUNT * 8, STAMP_CHANNEL = 15 };

/* Nanoseconds of the monotonic clock. */
static inline int64_t now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (int64_t)time.tv_sec * 1000000000 + time.tv_nsec;
}

static inline void stamp(int64_t* stamps, unsigned first, unsigned second) {
    __atomic_store_n(&stamps[first + 128 * (second - 1)], now(), __ATOMIC_RELEASE);
}

/* The stamps in a file of STAMP_BYTES, or a null pointer. */
static inline int64_t* open_stamps(const char* path) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) return 0;
    void* memory = mmap(0, STAMP_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, file, 0);
    close(file);
    return memory == MAP_FAILED ? 0 : (int64_t*)memory;
}
