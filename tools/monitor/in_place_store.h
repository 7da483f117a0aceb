// The in-place values a monitor shows, keyed by group and name. A game may send any number of
// names, so the store keeps at most kMaxNames: a new name beyond that replaces the one that was
// updated longest ago. Each value keeps a short history of its numbers for plotting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace dm_tools {

struct InPlaceKey {
    int group = 0;
    std::string name;
    bool operator<(const InPlaceKey& other) const {
        return group != other.group ? group < other.group : name < other.name;
    }
};

struct InPlaceEntry {
    std::string text;
    std::deque<double> history;  // the numbers the text started with, oldest first
    uint64_t lastUpdate = 0;     // the store's update count when it last changed
};

class InPlaceStore {
public:
    static constexpr size_t kMaxNames = 1024;
    static constexpr size_t kMaxNameBytes = 255;
    static constexpr size_t kMaxTextBytes = 4096;
    static constexpr size_t kHistoryLength = 120;

    explicit InPlaceStore(size_t maxNames = kMaxNames) : m_maxNames(maxNames) {}

    // Sets a value; long names are cut to kMaxNameBytes, long texts to kMaxTextBytes. Returns the
    // stored entry.
    const InPlaceEntry& set(int group, const std::string& name, const std::string& text);

    const std::map<InPlaceKey, InPlaceEntry>& entries() const { return m_entries; }
    // Names dropped to keep within the bound.
    uint64_t evicted() const { return m_evicted; }

    // The number a value text starts with ("16.6 ms" gives 16.6); false when it has none.
    static bool leadingNumber(const std::string& text, double& number);

private:
    void evictOldest();

    const size_t m_maxNames;
    std::map<InPlaceKey, InPlaceEntry> m_entries;
    std::map<uint64_t, InPlaceKey> m_byAge;  // lastUpdate -> key, oldest first
    uint64_t m_updates = 0;
    uint64_t m_evicted = 0;
};

}  // namespace dm_tools
