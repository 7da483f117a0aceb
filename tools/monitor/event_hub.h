// What the web monitor knows about the game, and the pages that watch it. Everything the game
// sends becomes an event (a line of JSON, see docs/monitor-web.md) that goes to every open
// page; a page that opens later first gets the state so far: the newest text lines, the
// in-place values with their recent history, the latest profile snapshots and the link state.
//
// Memory stays bounded however long the game runs: the hub keeps kMaxLines lines (kMaxLineBytes at
// most), kMaxProfiles snapshots and InPlaceStore's names, and a page that falls more than
// kMaxPendingBytes behind loses its queue and starts again from the state so far.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "monitor/game_link.h"
#include "monitor/in_place_store.h"

namespace dm_tools {

class EventHub : public GameLinkListener {
public:
    static constexpr size_t kMaxLines = 2000;
    static constexpr size_t kMaxLineBytes = 4 * 1024 * 1024;  // of the kept lines, as JSON
    static constexpr size_t kMaxProfiles = 16;
    static constexpr size_t kMaxProfileBytes = 16 * 1024 * 1024;
    static constexpr size_t kMaxPendingBytes = 8 * 1024 * 1024;
    static constexpr size_t kMaxPages = 16;

    // A page's place in the stream of events.
    class Page {
    private:
        friend class EventHub;
        std::deque<std::string> pending;
        size_t pendingBytes = 0;
        bool startOver = true;  // send the whole state before the next event
    };

    EventHub(std::string gameHost, uint32_t gamePort, size_t maxPendingBytes = kMaxPendingBytes);

    // A new page, or null when kMaxPages are open.
    std::shared_ptr<Page> openPage();
    void closePage(const std::shared_ptr<Page>& page);

    // Waits up to `wait` for events for `page` and appends them (up to about 256 KiB at a
    // time) to `out` as server-sent events. False once the hub is shutting down.
    bool takeEvents(Page& page, std::string& out, std::chrono::milliseconds wait);

    // Wakes every waiting page and makes takeEvents return false from now on.
    void shutDown();

    // A short line for the page's log when it sent something to the game.
    void noteCommand(const std::string& what);

    // The link state, open pages and counters as JSON (for /api/state).
    std::string stateJson() const;

    // GameLinkListener:
    void linkState(LinkState state, uint64_t connects) override;
    void textLine(int channel, const std::string& line) override;
    void inPlace(int group, const std::string& name, const std::string& text) override;
    void profile(const d::Profile::ProfileSnapshot& snapshot) override;
    void malformed(const char* kind) override;
    void unknown(int id, uint32_t size) override;

    struct Counters {
        uint64_t lines = 0;
        uint64_t pagesRestarted = 0;
    };
    Counters counters() const;

private:
    void publish(std::string event);
    void keepLine(std::string event);
    void appendState(std::string& out) const;
    std::string linkJson() const;

    const std::string m_gameHost;
    const uint32_t m_gamePort;
    const size_t m_maxPendingBytes;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_shuttingDown = false;
    LinkState m_state = LinkState::Connecting;
    uint64_t m_connects = 0;
    std::deque<std::string> m_lines;  // text events, newest last
    size_t m_lineBytes = 0;
    std::deque<std::string> m_profiles;
    size_t m_profileBytes = 0;
    InPlaceStore m_inPlace;
    std::vector<std::shared_ptr<Page>> m_pages;
    Counters m_counters;
};

}  // namespace dm_tools
