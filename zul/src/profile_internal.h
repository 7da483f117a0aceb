// What the profiler's recording side hands to its packet writer.
#pragma once

#include <cstdint>
#include <vector>

#include "d/profile.h"
#include "zu/thread.h"

namespace d {
namespace Profile {

struct FinishedScope {
    char name[ThreadProfiler::kMaxNameLength + 1];
    uint32_t depth;
    uint64_t beginMicroseconds;
    uint64_t endMicroseconds;
};

// A copy of one thread's ring, oldest scope first.
struct ThreadScopes {
    zu::ThreadId threadId = 0;
    uint64_t finishedTotal = 0;  // all scopes the thread finished, kept or overwritten
    std::vector<FinishedScope> scopes;
};

// Copies the rings of all live threads.
void snapshotAllThreads(std::vector<ThreadScopes>& out);

}  // namespace Profile
}  // namespace d
