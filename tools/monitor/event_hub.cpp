#include "monitor/event_hub.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "dm/monitor.h"

namespace dm_tools {

namespace {

using nlohmann::json;

// Game texts are bytes, not necessarily UTF-8: invalid sequences become U+FFFD.
std::string dump(const json& event) {
    return event.dump(-1, ' ', false, json::error_handler_t::replace);
}

const char* stateName(LinkState state) {
    switch (state) {
        case LinkState::Connecting:
            return "connecting";
        case LinkState::Connected:
            return "connected";
        case LinkState::Lost:
            return "lost";
    }
    return "connecting";
}

json inPlaceJson(const InPlaceKey& key, const InPlaceEntry& entry) {
    return json{{"type", "inplace"},
                {"group", key.group},
                {"groupName", dm::getInPlaceGroupName(key.group)},
                {"name", key.name},
                {"text", entry.text}};
}

json profileJson(const d::Profile::ProfileSnapshot& snapshot) {
    json threads = json::array();
    for (const d::Profile::ProfileThreadRecord& thread : snapshot.threads) {
        json scopes = json::array();
        for (const d::Profile::ProfileScopeRecord& scope : thread.scopes) {
            scopes.push_back(json::array(
                {scope.name.c_str(), scope.depth, scope.beginMicroseconds, scope.endMicroseconds}));
        }
        threads.push_back(json{{"id", std::to_string(thread.threadId)},
                               {"name", thread.name.c_str()},
                               {"dropped", thread.droppedScopes},
                               {"scopes", std::move(scopes)}});
    }
    return json{{"type", "profile"},
                {"taken", snapshot.takenMicroseconds},
                {"threads", std::move(threads)}};
}

// What a queued event takes in memory: its text, the string and the queue's bookkeeping.
size_t costOf(const std::string& event) {
    return event.size() + 64;
}

// The most one takeEvents hands out (a little more when a single event is larger).
constexpr size_t kMaxSliceBytes = 256 * 1024;

void appendEvent(std::string& out, const std::string& event) {
    out += "data: ";
    out += event;
    out += "\n\n";
}

}  // namespace

EventHub::EventHub(std::string gameHost, uint32_t gamePort, size_t maxPendingBytes)
    : m_gameHost(std::move(gameHost)), m_gamePort(gamePort), m_maxPendingBytes(maxPendingBytes) {}

std::shared_ptr<EventHub::Page> EventHub::openPage() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_pages.size() >= kMaxPages || m_shuttingDown) {
        return nullptr;
    }
    m_pages.push_back(std::make_shared<Page>());
    return m_pages.back();
}

void EventHub::closePage(const std::shared_ptr<Page>& page) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pages.erase(std::remove(m_pages.begin(), m_pages.end(), page), m_pages.end());
}

bool EventHub::takeEvents(Page& page, std::string& out, std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, wait,
                       [&] { return m_shuttingDown || page.startOver || !page.pending.empty(); });
    if (m_shuttingDown) {
        return false;
    }
    if (page.startOver) {
        page.startOver = false;
        page.pending.clear();
        page.pendingBytes = 0;
        appendState(out);
        return true;
    }
    // In slices, so that a page far behind does not make the tool copy its whole queue at once.
    while (!page.pending.empty() && out.size() < kMaxSliceBytes) {
        appendEvent(out, page.pending.front());
        page.pendingBytes -= costOf(page.pending.front());
        page.pending.pop_front();
    }
    return true;
}

void EventHub::shutDown() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_shuttingDown = true;
    }
    m_changed.notify_all();
}

void EventHub::appendState(std::string& out) const {
    appendEvent(out, dump(json{{"type", "reset"}}));
    appendEvent(out, linkJson());
    for (const std::string& line : m_lines) {
        appendEvent(out, line);
    }
    for (const auto& [key, entry] : m_inPlace.entries()) {
        json event = inPlaceJson(key, entry);
        event["history"] = entry.history;
        appendEvent(out, dump(event));
    }
    for (const std::string& snapshot : m_profiles) {
        appendEvent(out, snapshot);
    }
}

std::string EventHub::linkJson() const {
    return dump(json{{"type", "link"},
                     {"state", stateName(m_state)},
                     {"host", m_gameHost},
                     {"port", m_gamePort},
                     {"connects", m_connects}});
}

std::string EventHub::stateJson() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return dump(json{{"link", json::parse(linkJson())},
                     {"pages", m_pages.size()},
                     {"lines", m_counters.lines},
                     {"pagesRestarted", m_counters.pagesRestarted}});
}

EventHub::Counters EventHub::counters() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_counters;
}

// Called with m_mutex held.
void EventHub::publish(std::string event) {
    for (const std::shared_ptr<Page>& page : m_pages) {
        if (page->startOver) {
            continue;  // it gets the whole state anyway
        }
        page->pendingBytes += costOf(event);
        page->pending.push_back(event);
        if (page->pendingBytes > m_maxPendingBytes) {
            page->startOver = true;  // too far behind: it starts again from the state so far
            page->pending.clear();
            page->pendingBytes = 0;
            ++m_counters.pagesRestarted;
        }
    }
    m_changed.notify_all();
}

void EventHub::keepLine(std::string event) {
    m_lineBytes += event.size();
    m_lines.push_back(event);
    while (m_lines.size() > kMaxLines || (m_lineBytes > kMaxLineBytes && m_lines.size() > 1)) {
        m_lineBytes -= m_lines.front().size();
        m_lines.pop_front();
    }
    publish(std::move(event));
}

void EventHub::linkState(LinkState state, uint64_t connects) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_state = state;
    m_connects = connects;
    publish(linkJson());
}

void EventHub::textLine(int channel, const std::string& line) {
    std::string event = dump(json{{"type", "text"}, {"channel", channel}, {"text", line}});
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_counters.lines;
    keepLine(std::move(event));
}

void EventHub::noteCommand(const std::string& what) {
    std::string event = dump(json{{"type", "note"}, {"text", what}});
    std::lock_guard<std::mutex> lock(m_mutex);
    keepLine(std::move(event));
}

void EventHub::inPlace(int group, const std::string& name, const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const InPlaceEntry& entry = m_inPlace.set(group, name, text);
    json event = inPlaceJson(InPlaceKey{group, name.substr(0, InPlaceStore::kMaxNameBytes)}, entry);
    double number = 0;
    if (InPlaceStore::leadingNumber(text, number)) {
        event["value"] = number;
    }
    publish(dump(event));
}

void EventHub::profile(const d::Profile::ProfileSnapshot& snapshot) {
    std::string event = dump(profileJson(snapshot));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_profileBytes += event.size();
    m_profiles.push_back(event);
    while (m_profiles.size() > kMaxProfiles ||
           (m_profileBytes > kMaxProfileBytes && m_profiles.size() > 1)) {
        m_profileBytes -= m_profiles.front().size();
        m_profiles.pop_front();
    }
    publish(std::move(event));
}

void EventHub::malformed(const char* kind) {
    noteCommand(std::string("malformed ") + kind + " packet ignored");
}

void EventHub::unknown(int id, uint32_t size) {
    noteCommand("packet " + std::to_string(id) + " (" + std::to_string(size) + " bytes) not shown");
}

}  // namespace dm_tools
