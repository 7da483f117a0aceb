// Sleeping on a word with a futex: the kernel compares the word and queues the thread in one
// step, so a change made just before the sleep is never missed.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "wait_platform.h"

namespace zu::platform {

namespace {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex is a plain 32-bit word");

long futex(std::atomic<uint32_t>& word, int operation, uint32_t value, const timespec* timeout) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), operation, value, timeout,
                   nullptr, 0);
}

}  // namespace

void waitOnWord(std::atomic<uint32_t>& word, uint32_t expected,
                const std::chrono::nanoseconds* timeout) {
    timespec relative{};
    if (timeout) {
        relative.tv_sec = static_cast<time_t>(timeout->count() / 1000000000);
        relative.tv_nsec = static_cast<long>(timeout->count() % 1000000000);
    }
    // Interrupted, timed out or the word changed: the caller looks again in every case.
    futex(word, FUTEX_WAIT_PRIVATE, expected, timeout ? &relative : nullptr);
}

void wakeOneWaiter(std::atomic<uint32_t>& word) {
    futex(word, FUTEX_WAKE_PRIVATE, 1, nullptr);
}

}  // namespace zu::platform
