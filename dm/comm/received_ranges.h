// ReceivedRanges: which bytes of a chunked message have arrived, so that a message is handed out
// only once every byte of it came from a chunk, and no byte counts twice. A sender sends a
// message's chunks in order, which keeps one range; chunks may still land out of order, up to a
// few gaps at a time. It holds no memory of its own, so records that carry it copy cheaply.
#pragma once

#include <cstddef>
#include <cstdint>

namespace dm {

class ReceivedRanges {
public:
    // Disjoint ranges kept at once; a chunk that would open one more is refused.
    static constexpr size_t kMaxRanges = 8;

    // Records [offset, offset + size). False, recording nothing, when it overlaps bytes that
    // arrived before or would leave more than kMaxRanges ranges. An empty chunk adds nothing.
    bool add(uint32_t offset, uint32_t size) {
        if (size == 0) {
            return true;
        }
        const uint64_t end = static_cast<uint64_t>(offset) + size;
        size_t at = 0;
        while (at < m_count && m_end[at] <= offset) {
            ++at;
        }
        if (at < m_count && m_begin[at] < end) {
            return false;  // overlaps the range at `at`
        }
        const bool joinsPrevious = at > 0 && m_end[at - 1] == offset;
        const bool joinsNext = at < m_count && m_begin[at] == end;
        if (joinsPrevious && joinsNext) {
            m_end[at - 1] = m_end[at];
            erase(at);
        } else if (joinsPrevious) {
            m_end[at - 1] = static_cast<uint32_t>(end);
        } else if (joinsNext) {
            m_begin[at] = offset;
        } else if (!insert(at, offset, static_cast<uint32_t>(end))) {
            return false;
        }
        m_bytes += size;
        return true;
    }

    // Every byte of a payload of `size` bytes has arrived.
    bool covers(uint32_t size) const {
        return size == 0 || (m_count == 1 && m_begin[0] == 0 && m_end[0] == size);
    }
    // Bytes that arrived, each counted once.
    uint32_t bytes() const { return m_bytes; }
    // End of the last range: no byte at or beyond it has arrived.
    uint32_t end() const { return m_count ? m_end[m_count - 1] : 0; }
    void clear() { m_count = 0, m_bytes = 0; }

private:
    bool insert(size_t at, uint32_t begin, uint32_t end) {
        if (m_count == kMaxRanges) {
            return false;
        }
        for (size_t i = m_count; i > at; --i) {
            m_begin[i] = m_begin[i - 1];
            m_end[i] = m_end[i - 1];
        }
        m_begin[at] = begin;
        m_end[at] = end;
        ++m_count;
        return true;
    }
    void erase(size_t at) {
        for (size_t i = at; i + 1 < m_count; ++i) {
            m_begin[i] = m_begin[i + 1];
            m_end[i] = m_end[i + 1];
        }
        --m_count;
    }

    uint32_t m_begin[kMaxRanges] = {};
    uint32_t m_end[kMaxRanges] = {};
    size_t m_count = 0;
    uint32_t m_bytes = 0;
};

}  // namespace dm
