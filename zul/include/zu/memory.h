// Memory of the runtime: aligned allocation, objects on the runtime's heap and their owner
// zu::UniquePtr, the allocator policies of zu::Vector and an allocator for standard containers.
// Allocation failure throws zu::OutOfMemoryException.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "zu/export.h"

namespace zu {

constexpr size_t kDefaultAlignment = 16;

// Allocates `size` bytes aligned to `alignment` (a power of two; at least the default).
// Never returns null: throws zu::OutOfMemoryException instead. A size of 0 is allowed.
ZUL_API void* allocateMemory(size_t size, size_t alignment = kDefaultAlignment);

// Releases memory from allocateMemory. Null is allowed.
ZUL_API void deleteMemory(void* memory);

// Where the memory of `object` starts.
template <typename T>
void* mostDerivedObject(T* object) {
    if constexpr (std::is_polymorphic<T>::value) {
        return const_cast<void*>(dynamic_cast<const void*>(object));
    } else {
        return static_cast<void*>(const_cast<std::remove_cv_t<T>*>(object));
    }
}

// Constructs a T in memory from allocateMemory. Pair with deleteObject, or own it with
// UniquePtr (see makeUnique).
template <typename T, typename... Args>
T* newObject(Args&&... args) {
    void* memory =
        allocateMemory(sizeof(T), alignof(T) > kDefaultAlignment ? alignof(T) : kDefaultAlignment);
    try {
        return ::new (memory) T(std::forward<Args>(args)...);
    } catch (...) {
        deleteMemory(memory);
        throw;
    }
}

// Runs the destructor of an object made by newObject and gives its memory back. A pointer to a
// base of a polymorphic object is fine: the memory is found from the most derived object.
template <typename T>
void deleteObject(T* object) {
    if (object) {
        void* memory = mostDerivedObject(object);
        object->~T();
        deleteMemory(memory);
    }
}

// The deleter of UniquePtr: deleteObject.
struct ObjectDeleter {
    template <typename T>
    void operator()(T* object) const noexcept {
        deleteObject(object);
    }
};

// Sole ownership of an object on the runtime's heap (made by makeUnique or newObject). The
// runtime's one way to own an object: members of this type are destroyed in reverse order of
// declaration, so no destructor frees by hand.
template <typename T>
using UniquePtr = std::unique_ptr<T, ObjectDeleter>;

template <typename T, typename... Args>
UniquePtr<T> makeUnique(Args&&... args) {
    return UniquePtr<T>(newObject<T>(std::forward<Args>(args)...));
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
