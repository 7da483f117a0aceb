// Counts what a console benchmark allocates, by replacing the runtime's allocator
// (zu::allocateMemory and zu::deleteMemory, which dm and zul use for all their memory) and
// operator new/delete: the executable's definitions take precedence over the shared libraries'
// own. Include it in exactly one source file of a benchmark program.
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "zu/memory.h"

namespace bench_alloc {

inline std::atomic<uint64_t> g_allocations{0};
inline std::atomic<uint64_t> g_allocatedBytes{0};

inline void countAllocation(size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    g_allocatedBytes.fetch_add(size, std::memory_order_relaxed);
}

// Whether the replaced allocator really sees what `allocate` allocates inside the libraries,
// so that a count of 0 means that nothing was allocated rather than that nothing was counted.
template <typename Allocate>
bool seesAllocationsOf(Allocate&& allocate) {
    const uint64_t atStart = g_allocations.load();
    allocate();
    return g_allocations.load() > atStart;
}

// The benchmark program's main: refuses to measure when `counted` is false, then runs the
// benchmarks the command line names.
inline int runBenchmarks(const char* program, bool counted, int argc, char** argv) {
    if (!counted) {
        std::fprintf(stderr, "%s: allocations made by the libraries are not counted\n", program);
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace bench_alloc

namespace zu {

void* allocateMemory(size_t size, size_t alignment) {
    bench_alloc::countAllocation(size);
    if (alignment < kDefaultAlignment) {
        alignment = kDefaultAlignment;
    }
    void* memory = nullptr;
    if (posix_memalign(&memory, alignment, size == 0 ? 1 : size) != 0) {
        throw std::bad_alloc();
    }
    return memory;
}

void deleteMemory(void* memory) {
    std::free(memory);
}

}  // namespace zu

// GCC takes the replaced pair for a mismatch once it inlines both into one function.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t size) {
    bench_alloc::countAllocation(size);
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
