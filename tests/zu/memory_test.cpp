#include <gtest/gtest.h>

#include <cstdint>

#include "zu/exception.h"
#include "zu/memory.h"

namespace {

TEST(Memory, HonoursAlignmentOrThrows) {
    for (size_t alignment : {16u, 64u, 4096u, 65536u}) {
        void* memory = zu::allocateMemory(100, alignment);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % alignment, 0u) << alignment;
        zu::deleteMemory(memory);
    }
    zu::deleteMemory(zu::allocateMemory(0));
    zu::deleteMemory(nullptr);
    // Failure throws the runtime's exception.
    EXPECT_THROW(zu::allocateMemory(SIZE_MAX / 2), zu::OutOfMemoryException);
    EXPECT_THROW(zu::allocateMemory(16, 48), zu::OutOfMemoryException);
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
