// What zu::Signal needs from the operating system: sleeping on a word of memory until another
// thread changes it. One implementation per OS (a futex on Linux), and a portable one.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zu::platform {

// Sleeps while `word` holds `expected`, until wakeOneWaiter(word), `timeout` (null: no limit)
// or a spurious wake-up; returns at once when `word` holds something else already. Callers
// check the word again after every return.
void waitOnWord(std::atomic<uint32_t>& word, uint32_t expected,
                const std::chrono::nanoseconds* timeout);
// Wakes at least one thread asleep in waitOnWord on `word`, after `word` was changed.
void wakeOneWaiter(std::atomic<uint32_t>& word);

}  // namespace zu::platform
