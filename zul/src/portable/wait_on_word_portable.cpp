// Sleeping on a word with only the standard library: sleepers park on one of a fixed set of
// condition variables chosen by the word's address. A waker takes the same mutex, so a sleeper
// that has just found the word unchanged is already waiting when the notification comes.
// Words that share a slot wake each other now and then; callers look again after every return.
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "wait_platform.h"

namespace zu::platform {

namespace {

struct ParkingSlot {
    std::mutex mutex;
    std::condition_variable sleepers;
};

ParkingSlot& slotOf(const std::atomic<uint32_t>& word) {
    static ParkingSlot slots[64];
    const auto address = reinterpret_cast<uintptr_t>(&word);
    return slots[(address >> 4) % 64];
}

}  // namespace

void waitOnWord(std::atomic<uint32_t>& word, uint32_t expected,
                const std::chrono::nanoseconds* timeout) {
    ParkingSlot& slot = slotOf(word);
    std::unique_lock<std::mutex> lock(slot.mutex);
    if (word.load() != expected) {
        return;
    }
    if (timeout) {
        slot.sleepers.wait_for(lock, *timeout);
    } else {
        slot.sleepers.wait(lock);
    }
}

void wakeOneWaiter(std::atomic<uint32_t>& word) {
    ParkingSlot& slot = slotOf(word);
    { std::lock_guard<std::mutex> lock(slot.mutex); }
    slot.sleepers.notify_all();  // the slot's sleepers may wait on other words too
}

}  // namespace zu::platform
