// Memory of the runtime: aligned allocation, the allocator policies of zu::Vector and an
// allocator for standard containers. Allocation failure throws zu::OutOfMemoryException.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

#include "zu/export.h"

namespace zu {

constexpr size_t kDefaultAlignment = 16;

// Allocates `size` bytes aligned to `alignment` (a power of two; at least the default).
// Never returns null: throws zu::OutOfMemoryException instead. A size of 0 is allowed.
ZUL_API void* allocateMemory(size_t size, size_t alignment = kDefaultAlignment);

// Releases memory from allocateMemory. Null is allowed.
ZUL_API void deleteMemory(void* memory);

// Constructs a T in memory from allocateMemory. Pair with deleteObject.
template <typename T, typename... Args>
T* newObject(Args&&... args) {
    void* memory =
        allocateMemory(sizeof(T), alignof(T) > kDefaultAlignment ? alignof(T) : kDefaultAlignment);
    try {
        return new (memory) T(std::forward<Args>(args)...);
    } catch (...) {
        deleteMemory(memory);
        throw;
    }
}

// Runs the destructor of an object made by newObject and gives its memory back.
template <typename T>
void deleteObject(T* object) {
    if (object) {
        object->~T();
        deleteMemory(object);
    }
}

// Allocation policy of zu::Vector: the runtime's heap.
struct HeapAllocator {
    static void* allocate(size_t size, size_t alignment) { return allocateMemory(size, alignment); }
    static void deallocate(void* memory) { deleteMemory(memory); }
};

// Standard-library allocator over the runtime's heap, for std::map and friends. Also usable as
// the allocation policy of zu::Vector.
template <typename T>
struct Allocator {
    using value_type = T;

    Allocator() noexcept = default;
    template <typename U>
    Allocator(const Allocator<U>&) noexcept {}

    T* allocate(size_t count) {
        return static_cast<T*>(allocateMemory(
            count * sizeof(T), alignof(T) > kDefaultAlignment ? alignof(T) : kDefaultAlignment));
    }
    void deallocate(T* memory, size_t) noexcept { deleteMemory(memory); }

    static void* allocate(size_t size, size_t alignment) { return allocateMemory(size, alignment); }
    static void deallocate(void* memory) { deleteMemory(memory); }

    template <typename U>
    bool operator==(const Allocator<U>&) const noexcept {
        return true;
    }
    template <typename U>
    bool operator!=(const Allocator<U>&) const noexcept {
        return false;
    }
};

}  // namespace zu
