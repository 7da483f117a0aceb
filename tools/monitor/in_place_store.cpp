#include "monitor/in_place_store.h"

#include <cmath>
#include <cstdlib>

namespace dm_tools {

const InPlaceEntry& InPlaceStore::set(int group, const std::string& name, const std::string& text) {
    InPlaceKey key{group, name.substr(0, kMaxNameBytes)};
    auto found = m_entries.find(key);
    if (found == m_entries.end()) {
        if (m_entries.size() >= m_maxNames) {
            evictOldest();
        }
        found = m_entries.emplace(key, InPlaceEntry{}).first;
    } else {
        m_byAge.erase(found->second.lastUpdate);
    }
    InPlaceEntry& entry = found->second;
    entry.text = text.substr(0, kMaxTextBytes);
    entry.lastUpdate = ++m_updates;
    m_byAge.emplace(entry.lastUpdate, std::move(key));
    double number = 0;
    if (leadingNumber(text, number)) {
        entry.history.push_back(number);
        if (entry.history.size() > kHistoryLength) {
            entry.history.pop_front();
        }
    }
    return entry;
}

void InPlaceStore::evictOldest() {
    const auto oldest = m_byAge.begin();
    m_entries.erase(oldest->second);
    m_byAge.erase(oldest);
    ++m_evicted;
}

bool InPlaceStore::leadingNumber(const std::string& text, double& number) {
    const char* start = text.c_str();
    char* end = nullptr;
    number = std::strtod(start, &end);
    return end != start && std::isfinite(number);
}

}  // namespace dm_tools
