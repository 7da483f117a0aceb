// The console's bounded line store: the printed lines and the command history.
#pragma once

#include <cstdint>

#include "zu/memory.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace dm {

// A bounded store of lines, newest last: up to `maxLines` slots that become a ring once they
// are all used. `lineCounter` counts every line added since the last clear. Line k (0 is the
// newest) lives in slot lineCounter - k - 1 while the store is filling and in slot
// (lineCounter - k - 1 + maxLines) mod maxLines once it is full.
template <typename Line>
struct BoundedLineStore {
    zu::Vector<Line, zu::HeapAllocator> lines;  // the slots
    uint32_t maxLines = 0;
    uint32_t lineCounter = 0;

    // Number of stored lines (at most maxLines in normal use).
    uint64_t count() const { return lines.size(); }

    // Stores a copy of `line`, overwriting the oldest once the store is full. The slots grow
    // as a zu::Vector does but never beyond maxLines, so a full store allocates nothing more.
    // With a limit of 0 nothing is stored.
    void add(const zu::String& line) {
        if (maxLines == 0) {
            return;
        }
        if (lines.size() >= maxLines) {
            lines[(lineCounter + maxLines) % maxLines] = line;
        } else {
            if (lines.size() == lines.capacity()) {
                size_t grown = lines.grownCapacity(lines.capacity());
                lines.reserve(grown < maxLines ? grown : maxLines);
            }
            lines.emplace_back(line);
        }
        ++lineCounter;
    }

    // Line k counted from the newest (k = 0). A k at or beyond count(), or a slot that the
    // counters place outside the stored lines, gives an empty line rather than a stray read.
    const Line& line(uint64_t k) const {
        const uint64_t stored = lines.size();
        if (k >= stored) {
            return emptyLine();
        }
        const uint32_t fromNewest = lineCounter - static_cast<uint32_t>(k) - 1;
        const uint32_t slot =
            (maxLines != 0 && stored >= maxLines) ? (fromNewest + maxLines) % maxLines : fromNewest;
        return slot < stored ? lines[slot] : emptyLine();
    }

    // Forgets every line and restarts the counter; the slots' memory is kept.
    void clear() {
        lines.clear();
        lineCounter = 0;
    }

    static const Line& emptyLine() {
        static const Line empty;
        return empty;
    }
};

}  // namespace dm
