// The bytes of one read, answered straight from the file's pages: a shared read-only mapping
// of the range is the response data, so the file's bytes reach the socket without a copy into
// a buffer of ours first.
//
// Another program may shorten the file while its bytes are being sent. Touching a mapped page
// past the file's new end raises SIGBUS; with installBusErrorGuard() such pages of the current
// mapping read as zeros instead, and the server goes on serving. (The system's own copies from
// such pages fail the send instead, which ends the connection; the game's request is sent
// again when it reconnects.)
#pragma once

#include <cstddef>
#include <cstdint>

namespace fileserver_tool {

class MappedRead {
public:
    MappedRead() = default;
    ~MappedRead() { unmap(); }
    MappedRead(const MappedRead&) = delete;
    MappedRead& operator=(const MappedRead&) = delete;

    // Maps `count` (> 0) bytes of `fd` from `position` on, in place of the range mapped before;
    // false (nothing mapped) when the system refuses, for instance for want of address space.
    // One MappedRead at a time may be mapped in the process: the guard knows one range.
    bool map(int fd, uint64_t position, size_t count);
    // The first byte of the range; valid until unmap or the next map.
    const char* data() const { return m_data; }
    void unmap();

    // Installs the process's SIGBUS handler; a bus error anywhere else ends the process as
    // it would without it.
    static void installBusErrorGuard();

private:
    void* m_base = nullptr;  // page-aligned start of the mapping
    size_t m_length = 0;
    const char* m_data = nullptr;
};

}  // namespace fileserver_tool
