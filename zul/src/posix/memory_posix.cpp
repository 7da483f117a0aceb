#include <cstdlib>

#include "zu/exception.h"
#include "zu/memory.h"

namespace zu {

void* allocateMemory(size_t size, size_t alignment) {
    if (alignment < kDefaultAlignment) {
        alignment = kDefaultAlignment;
    }
    if ((alignment & (alignment - 1)) != 0) {
        throw OutOfMemoryException("allocateMemory: alignment %zu is not a power of two",
                                   alignment);
    }
    void* memory = nullptr;
    if (posix_memalign(&memory, alignment, size == 0 ? 1 : size) != 0) {
        throw OutOfMemoryException("allocateMemory: out of memory allocating %zu bytes", size);
    }
    return memory;
}

void deleteMemory(void* memory) {
    std::free(memory);
}

}  // namespace zu
