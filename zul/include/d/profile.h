// d::Profile: a small thread profiler. Code marks named scopes; every thread keeps the last
// kScopesPerThread finished scopes (name, nesting depth, begin and end time) in a ring of its
// own. A snapshot of all threads is written into a net::Packet for the debug monitor; the
// bytes are described in docs/profile-packet.md.
//
// Recording is cheap: no allocation per scope and no lock beyond the calling thread's own
// buffer, which only a snapshot ever contends for.
#pragma once

#include <cstdint>

#include "zu/export.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace net {
class Packet;
}

namespace d {
namespace Profile {

// The process's profiler. There is exactly one; its data are the scopes of every thread.
class ZUL_API ThreadProfiler {
public:
    // Finished scopes a thread keeps; older ones are overwritten.
    static constexpr uint32_t kScopesPerThread = 256;
    // Open scopes a thread tracks; scopes nested deeper are not recorded (but still balanced).
    static constexpr uint32_t kMaxDepth = 32;
    // Characters of a scope name that are kept.
    static constexpr uint32_t kMaxNameLength = 31;

    // Marks a scope of the calling thread. Scopes nest: beginScope/endScope go in pairs, and an
    // endScope without an open scope is ignored. `name` must stay valid until the matching
    // endScope (it is copied then); null counts as "".
    static void beginScope(const char* name);
    static void endScope();

    // Marks a scope for the lifetime of the object.
    class ZUL_API Scope {
    public:
        explicit Scope(const char* name) { beginScope(name); }
        ~Scope() { endScope(); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
    };

    // The one profiler of this process.
    static const ThreadProfiler& instance();

    // Forgets the finished scopes of every thread (open scopes stay open).
    static void clear();

    // Microseconds since the runtime was loaded: the clock of all recorded times.
    static uint64_t nowMicroseconds();

    ThreadProfiler(const ThreadProfiler&) = delete;
    ThreadProfiler& operator=(const ThreadProfiler&) = delete;

private:
    ThreadProfiler() = default;
};

// A decoded profile packet (see operator>> below).
struct ProfileScopeRecord {
    zu::InplaceString<32> name;
    uint32_t depth = 0;  // 0 for an outermost scope
    uint64_t beginMicroseconds = 0;
    uint64_t endMicroseconds = 0;
};

struct ProfileThreadRecord {
    uint64_t threadId = 0;
    zu::InplaceString<128> name;  // the name given with zu::setThreadName, or ""
    uint32_t droppedScopes = 0;   // finished scopes of this thread that are not in the packet
    zu::Vector<ProfileScopeRecord> scopes;  // oldest first
};

struct ProfileSnapshot {
    uint64_t takenMicroseconds = 0;
    zu::Vector<ProfileThreadRecord> threads;
};

// Writes the finished scopes of every thread at the packet's cursor. The result never grows
// the payload beyond net::Packet::kMaxPayload: when everything does not fit, the oldest scopes
// (of all threads together) are left out first. The argument is the process's profiler; its
// data are taken at the time of the call.
ZUL_API net::Packet& operator<<(net::Packet& packet, const ThreadProfiler& profiler);

// Reads what operator<< wrote, from the packet's cursor. On malformed input the packet's
// hasError() turns true and `snapshot` holds what was read before the fault.
ZUL_API net::Packet& operator>>(net::Packet& packet, ProfileSnapshot& snapshot);

}  // namespace Profile
}  // namespace d
