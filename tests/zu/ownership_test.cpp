// The runtime's heap: raw blocks, zu::UniquePtr and zu::Buffer owning objects and bytes, and the
// exceptions it throws.
#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

#include "zu/buffer.h"
#include "zu/exception.h"
#include "zu/memory.h"
#include "zu/vector.h"

namespace {

struct Counted {
    explicit Counted(int* destroyed) : m_destroyed(destroyed) {}
    virtual ~Counted() { ++*m_destroyed; }
    int* m_destroyed;
};

// A derived object whose Counted part does not start where its memory does.
struct Padding {
    virtual ~Padding() = default;
    char bytes[40] = {};
};
struct Offset : Padding, Counted {
    explicit Offset(int* destroyed) : Counted(destroyed) {}
};

// Its constructor fails after the memory was taken.
struct Failing {
    Failing() { throw zu::Exception("no"); }
};

TEST(Memory, HonoursAlignmentOrThrowsTheRuntimesException) {
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

    // The runtime's exceptions carry formatted text.
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

TEST(Ownership, BuffersAndUniquePtrsFreeWhatTheyOwnAndHandItOverOnMove) {
    zu::Buffer buffer(1000, 4096);
    ASSERT_FALSE(buffer.empty());
    EXPECT_EQ(buffer.size(), 1000u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()) % 4096, 0u);
    buffer.data()[999] = 7;

    zu::Buffer taken(std::move(buffer));
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(taken.data()[999], 7);

    zu::Buffer other(16);
    other = std::move(taken);  // the 16 bytes go back, the 1000 move in
    EXPECT_EQ(other.size(), 1000u);
    other.reset();
    EXPECT_TRUE(other.empty());
    EXPECT_THROW(zu::Buffer(SIZE_MAX / 2), zu::OutOfMemoryException);

    // A UniquePtr destroys through a base whose part lies inside the object.
    int destroyed = 0;
    {
        zu::UniquePtr<Counted> base = zu::makeUnique<Offset>(&destroyed);
        ASSERT_NE(static_cast<void*>(base.get()), dynamic_cast<void*>(base.get()));
        zu::Vector<zu::UniquePtr<Counted>> owners;
        owners.push_back(std::move(base));
        owners.push_back(zu::makeUnique<Counted>(&destroyed));
        owners.erase(0);
        EXPECT_EQ(destroyed, 1);
    }
    EXPECT_EQ(destroyed, 2);
    // A failing constructor gives the memory back; an empty owner frees nothing.
    EXPECT_THROW(zu::makeUnique<Failing>(), zu::Exception);
    zu::UniquePtr<Counted> none;
    none.reset();  // an empty owner frees nothing
}

}  // namespace
