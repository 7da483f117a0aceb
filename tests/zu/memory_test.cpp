#include <gtest/gtest.h>

#include <cstdint>
#include <map>

#include "zu/exception.h"
#include "zu/memory.h"

namespace {

TEST(Memory, HonoursAlignment) {
    for (size_t alignment : {16u, 64u, 4096u, 65536u}) {
        void* memory = zu::allocateMemory(100, alignment);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % alignment, 0u) << alignment;
        zu::deleteMemory(memory);
    }
    zu::deleteMemory(zu::allocateMemory(0));
    zu::deleteMemory(nullptr);
}

TEST(Memory, FailureThrowsTheRuntimeException) {
    EXPECT_THROW(zu::allocateMemory(SIZE_MAX / 2), zu::OutOfMemoryException);
    EXPECT_THROW(zu::allocateMemory(16, 48), zu::OutOfMemoryException);
}

struct Counted {
    explicit Counted(int* aliveCounter) : counter(aliveCounter) { ++*counter; }
    ~Counted() { --*counter; }
    int* counter;
};

TEST(Memory, NewAndDeleteObjectRunConstructorAndDestructor) {
    int alive = 0;
    Counted* object = zu::newObject<Counted>(&alive);
    EXPECT_EQ(alive, 1);
    zu::deleteObject(object);
    EXPECT_EQ(alive, 0);
}

TEST(Memory, StandardContainersUseTheRuntimeAllocator) {
    std::map<int, int, std::less<int>, zu::Allocator<std::pair<const int, int>>> values;
    for (int i = 0; i < 100; ++i) {
        values[i] = i * i;
    }
    EXPECT_EQ(values[9], 81);
}

TEST(Exception, CarriesFormattedText) {
    try {
        throw zu::FileException_FileOpenFailed("cannot open \"%s\" (%d)", "a.bin", 2);
    } catch (const zu::FileException& error) {
        EXPECT_STREQ(error.getError(), "cannot open \"a.bin\" (2)");
        EXPECT_STREQ(error.what(), error.getError());
    }
    zu::Exception error;
    error.setError("code %u", 7u);
    EXPECT_STREQ(error.what(), "code 7");
}

}  // namespace
