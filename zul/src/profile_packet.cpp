// The thread profiler's packet format (docs/profile-packet.md): writing a bounded snapshot of
// all threads, and reading it back.
#include <algorithm>
#include <limits>
#include <vector>

#include "d/profile.h"
#include "net/packet.h"
#include "profile_internal.h"

namespace d {
namespace Profile {

namespace {

constexpr uint32_t kFormatVersion = 1;

void writeU64(net::Packet& packet, uint64_t value) {
    packet << static_cast<uint32_t>(value) << static_cast<uint32_t>(value >> 32);
}

uint64_t readU64(net::Packet& packet) {
    uint32_t low = 0;
    uint32_t high = 0;
    packet >> low >> high;
    return (static_cast<uint64_t>(high) << 32) | low;
}

uint32_t clampToU32(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, std::numeric_limits<uint32_t>::max()));
}

// The packet leaves the field encoding to itself, so sizes are measured rather than assumed.
class FieldSizes {
public:
    FieldSizes() {
        m_probe << uint32_t(0);
        m_word = m_probe.getSize();
    }
    uint32_t word() const { return m_word; }
    uint32_t text(const char* value) {
        m_probe.reset(0);
        m_probe << value;
        return m_probe.getSize();
    }
    uint32_t header() const { return 4 * m_word; }
    uint32_t threadHeader(const char* name) { return 4 * m_word + text(name); }
    uint32_t scope(const char* name) { return 5 * m_word + text(name); }

private:
    net::Packet m_probe;
    uint32_t m_word = 0;
};

// A thread that made it into the packet, and the first of its scopes that did.
struct ThreadPlan {
    const ThreadScopes* thread;
    zu::InplaceString<128> name;
    size_t firstKept;
};

struct ScopeCandidate {
    uint64_t endMicroseconds;
    uint32_t index;  // within its thread
    uint32_t plan;
    uint32_t size;
};

// Chooses what fits into `budget` bytes: every thread header that fits (in order), then the
// scopes newest first across all threads until the next one would not fit. A thread's scopes
// end in the order they are stored, so what is kept of each thread is always its newest part.
std::vector<ThreadPlan> planSnapshot(const std::vector<ThreadScopes>& threads, uint64_t budget) {
    FieldSizes sizes;
    uint64_t used = sizes.header();
    std::vector<ThreadPlan> plans;
    for (const ThreadScopes& thread : threads) {
        zu::InplaceString<128> name = zu::getThreadName(thread.threadId);
        const uint32_t size = sizes.threadHeader(name.c_str());
        if (used + size <= budget) {
            used += size;
            plans.push_back({&thread, name, thread.scopes.size()});
        }
    }
    std::vector<ScopeCandidate> candidates;
    for (uint32_t plan = 0; plan < plans.size(); ++plan) {
        const std::vector<FinishedScope>& scopes = plans[plan].thread->scopes;
        for (uint32_t index = 0; index < scopes.size(); ++index) {
            candidates.push_back(
                {scopes[index].endMicroseconds, index, plan, sizes.scope(scopes[index].name)});
        }
    }
    std::sort(candidates.begin(), candidates.end(),
              [](const ScopeCandidate& a, const ScopeCandidate& b) {
                  if (a.endMicroseconds != b.endMicroseconds) {
                      return a.endMicroseconds > b.endMicroseconds;
                  }
                  return a.index > b.index;
              });
    for (const ScopeCandidate& candidate : candidates) {
        if (used + candidate.size > budget) {
            break;
        }
        used += candidate.size;
        plans[candidate.plan].firstKept = candidate.index;
    }
    return plans;
}

void writeThread(net::Packet& packet, const ThreadPlan& plan) {
    const std::vector<FinishedScope>& scopes = plan.thread->scopes;
    const uint64_t kept = scopes.size() - plan.firstKept;
    writeU64(packet, plan.thread->threadId);
    packet << plan.name.c_str();
    packet << clampToU32(plan.thread->finishedTotal - kept);
    packet << static_cast<uint32_t>(kept);
    for (size_t index = plan.firstKept; index < scopes.size(); ++index) {
        const FinishedScope& scope = scopes[index];
        packet << scope.name << scope.depth;
        writeU64(packet, scope.beginMicroseconds);
        writeU64(packet, scope.endMicroseconds);
    }
}

// The packet only reports faults of its own reads and writes; a read past the end is how a
// reader that finds nonsense marks the packet as malformed.
void markMalformed(net::Packet& packet) {
    packet.setPos(packet.getSize());
    uint32_t ignored = 0;
    packet >> ignored;
}

// Counts come from the wire: one larger than the bytes left could hold is a lie, and is
// refused before anything is allocated for it.
bool countFits(net::Packet& packet, uint32_t count, uint32_t smallestItem) {
    if (static_cast<uint64_t>(count) * smallestItem > packet.getRemaining()) {
        markMalformed(packet);
        return false;
    }
    return true;
}

bool readScope(net::Packet& packet, ProfileScopeRecord& scope) {
    const char* name = "";
    packet >> name >> scope.depth;
    scope.name = name;
    scope.beginMicroseconds = readU64(packet);
    scope.endMicroseconds = readU64(packet);
    return !packet.hasError();
}

bool readThread(net::Packet& packet, FieldSizes& sizes, ProfileThreadRecord& thread) {
    const char* name = "";
    uint32_t scopeCount = 0;
    thread.threadId = readU64(packet);
    packet >> name >> thread.droppedScopes >> scopeCount;
    thread.name = name;
    if (packet.hasError() || !countFits(packet, scopeCount, sizes.scope(""))) {
        return false;
    }
    thread.scopes.reserve(scopeCount);
    for (uint32_t i = 0; i < scopeCount; ++i) {
        ProfileScopeRecord scope;
        if (!readScope(packet, scope)) {
            return false;
        }
        thread.scopes.push_back(std::move(scope));
    }
    return true;
}

}  // namespace

net::Packet& operator<<(net::Packet& packet, const ThreadProfiler&) {
    std::vector<ThreadScopes> threads;
    snapshotAllThreads(threads);
    const uint32_t position = packet.getPos();
    const uint64_t budget =
        position < net::Packet::kMaxPayload ? net::Packet::kMaxPayload - position : 0;
    const std::vector<ThreadPlan> plans = planSnapshot(threads, budget);

    packet << kFormatVersion;
    writeU64(packet, ThreadProfiler::nowMicroseconds());
    packet << static_cast<uint32_t>(plans.size());
    for (const ThreadPlan& plan : plans) {
        writeThread(packet, plan);
    }
    return packet;
}

net::Packet& operator>>(net::Packet& packet, ProfileSnapshot& snapshot) {
    snapshot.takenMicroseconds = 0;
    snapshot.threads.clear();
    uint32_t version = 0;
    uint32_t threadCount = 0;
    packet >> version;
    snapshot.takenMicroseconds = readU64(packet);
    packet >> threadCount;
    if (packet.hasError()) {
        return packet;
    }
    FieldSizes sizes;
    if (version != kFormatVersion || !countFits(packet, threadCount, sizes.threadHeader(""))) {
        markMalformed(packet);
        return packet;
    }
    snapshot.threads.reserve(threadCount);
    for (uint32_t i = 0; i < threadCount; ++i) {
        ProfileThreadRecord thread;
        const bool complete = readThread(packet, sizes, thread);
        snapshot.threads.push_back(std::move(thread));
        if (!complete) {
            break;
        }
    }
    return packet;
}

}  // namespace Profile
}  // namespace d
