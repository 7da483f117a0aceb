#include "fileserver/mapped_read.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace fileserver_tool {

namespace {

// The range of the current mapping, for the signal handler (lock-free atomics only).
std::atomic<char*> g_guardedBegin{nullptr};
std::atomic<char*> g_guardedEnd{nullptr};
std::atomic<size_t> g_pageSize{4096};

void onBusError(int, siginfo_t* info, void*) {
    char* const address = static_cast<char*>(info->si_addr);
    char* const begin = g_guardedBegin.load();
    char* const end = g_guardedEnd.load();
    if (begin != nullptr && address >= begin && address < end) {
        // The file shrank under the mapping: what it lost reads as zeros from here to the end.
        const size_t pageSize = g_pageSize.load();
        char* const page = begin + static_cast<size_t>(address - begin) / pageSize * pageSize;
        const size_t length = static_cast<size_t>(end - page);
        if (mmap(page, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) !=
            MAP_FAILED) {
            return;  // the faulting access runs again, on the zero pages
        }
    }
    // Not ours: the access runs again and ends the process as without the guard.
    signal(SIGBUS, SIG_DFL);
}

}  // namespace

bool MappedRead::map(int fd, uint64_t position, size_t count) {
    unmap();
    const uint64_t pageSize = g_pageSize.load();
    const uint64_t start = position / pageSize * pageSize;
    const size_t length = static_cast<size_t>(position - start) + count;
    // Populated at once: the pages are the file's cached ones, and the send then takes no
    // faults one page at a time.
    void* base =
        mmap(nullptr, length, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, static_cast<off_t>(start));
    if (base == MAP_FAILED) {
        return false;
    }
    m_base = base;
    m_length = length;
    m_data = static_cast<const char*>(base) + (position - start);
    g_guardedEnd = static_cast<char*>(base) + length;
    g_guardedBegin = static_cast<char*>(base);
    return true;
}

void MappedRead::unmap() {
    if (m_base == nullptr) {
        return;
    }
    g_guardedBegin = nullptr;
    g_guardedEnd = nullptr;
    munmap(m_base, m_length);
    m_base = nullptr;
    m_length = 0;
    m_data = nullptr;
}

void MappedRead::installBusErrorGuard() {
    g_pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, nullptr);
}

}  // namespace fileserver_tool
