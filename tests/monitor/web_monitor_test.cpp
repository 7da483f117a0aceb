// The web monitor's state and its bounds (EventHub, InPlaceStore through a seam: no sockets).
// The stand-in game and the terminal tool as processes are tool_test.cpp's.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "monitor/event_hub.h"
#include "monitor/in_place_store.h"
#include "support/test_support.h"

namespace {

using dm_tools::EventHub;
using dm_tools::InPlaceStore;
using nlohmann::json;

// The events a page receives, parsed from the server-sent-event text.
std::vector<json> takeAll(EventHub& hub, EventHub::Page& page) {
    std::string text;
    EXPECT_TRUE(hub.takeEvents(page, text, std::chrono::milliseconds(0)));
    std::vector<json> events;
    size_t start = 0;
    while ((start = text.find("data: ", start)) != std::string::npos) {
        const size_t end = text.find("\n\n", start);
        events.push_back(json::parse(text.substr(start + 6, end - start - 6)));
        start = end + 2;
    }
    return events;
}

std::vector<json> ofType(const std::vector<json>& events, const std::string& type) {
    std::vector<json> found;
    for (const json& event : events) {
        if (event["type"] == type) {
            found.push_back(event);
        }
    }
    return found;
}

d::Profile::ProfileSnapshot snapshotWithScope(const char* name) {
    d::Profile::ProfileSnapshot snapshot;
    d::Profile::ProfileThreadRecord thread;
    thread.threadId = 7;
    thread.name = "Main";
    d::Profile::ProfileScopeRecord scope;
    scope.name = name;
    scope.beginMicroseconds = 10;
    scope.endMicroseconds = 25;
    thread.scopes.push_back(scope);
    snapshot.threads.push_back(thread);
    return snapshot;
}

TEST(EventHub, APageOpenedLateGetsTheBoundedStateSoFar) {
    EventHub hub("127.0.0.1", 1234);
    hub.linkState(dm_tools::LinkState::Connected, 2);
    for (size_t i = 0; i < EventHub::kMaxLines + 500; ++i) {
        hub.textLine(static_cast<int>(i % 4), "line " + std::to_string(i));
    }
    for (size_t i = 0; i < InPlaceStore::kMaxNames + 300; ++i) {
        hub.inPlace(1, "value " + std::to_string(i), std::to_string(i) + " ms");
    }
    for (size_t i = 0; i < EventHub::kMaxProfiles + 5; ++i) {
        hub.profile(snapshotWithScope(("scope" + std::to_string(i)).c_str()));
    }

    auto page = hub.openPage();
    ASSERT_TRUE(page);
    const std::vector<json> events = takeAll(hub, *page);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0]["type"], "reset");
    EXPECT_EQ(events[1], json::parse(R"({"type":"link","state":"connected","host":"127.0.0.1",
                                         "port":1234,"connects":2})"));

    const std::vector<json> lines = ofType(events, "text");
    ASSERT_EQ(lines.size(), EventHub::kMaxLines);
    EXPECT_EQ(lines.front()["text"], "line 500");
    EXPECT_EQ(lines.back(), json::parse(R"({"type":"text","channel":3,"text":"line 2499"})"));

    const std::vector<json> values = ofType(events, "inplace");
    ASSERT_EQ(values.size(), InPlaceStore::kMaxNames);
    bool newestKept = false;
    for (const json& value : values) {
        EXPECT_EQ(value["groupName"], "Engine Statistics");
        EXPECT_NE(value["name"], "value 299") << "the oldest names make room";
        if (value["name"] == "value 1323") {
            newestKept = true;
            EXPECT_EQ(value["text"], "1323 ms");
            EXPECT_EQ(value["history"], json::array({1323.0}));
        }
    }
    EXPECT_TRUE(newestKept);

    const std::vector<json> profiles = ofType(events, "profile");
    ASSERT_EQ(profiles.size(), EventHub::kMaxProfiles);
    EXPECT_EQ(profiles.back()["threads"][0]["scopes"][0], json::parse(R"(["scope20",0,10,25])"));
    EXPECT_EQ(profiles.back()["threads"][0]["id"], "7");
}

TEST(EventHub, LongLinesAndValuesAreKeptWithinAByteBound) {
    EventHub hub("127.0.0.1", 1234);
    // Control bytes grow sixfold as JSON: full packets of them must not pile up gigabytes.
    const std::string packetOfControlBytes(200 * 1024, '\x01');
    for (int i = 0; i < 8; ++i) {
        hub.textLine(0, packetOfControlBytes);
        hub.inPlace(0, "value " + std::to_string(i), "7 " + packetOfControlBytes);
    }
    auto page = hub.openPage();
    ASSERT_TRUE(page);
    size_t lineBytes = 0;
    size_t valueBytes = 0;
    for (const json& event : takeAll(hub, *page)) {
        if (event["type"] == "text") {
            lineBytes += event.dump().size();
        } else if (event["type"] == "inplace") {
            valueBytes += event.dump().size();
            EXPECT_EQ(event["history"], json::array({7.0}));
        }
    }
    EXPECT_GT(lineBytes, 0u);
    EXPECT_LE(lineBytes, EventHub::kMaxLineBytes);
    EXPECT_LE(valueBytes, 8 * (InPlaceStore::kMaxTextBytes * 6 + 1024));
}

TEST(EventHub, PagesGetEachEventOnceAndAPageTooFarBehindStartsOver) {
    constexpr size_t kMaxPending = 64 * 1024;
    EventHub hub("localhost", 1, kMaxPending);
    auto keepingUp = hub.openPage();
    auto fallingBehind = hub.openPage();
    takeAll(hub, *keepingUp);
    takeAll(hub, *fallingBehind);

    hub.textLine(0, "first");
    hub.inPlace(2, "queued files", "3");
    hub.textLine(5, std::string("bad \xff utf-8"));
    std::vector<json> events = takeAll(hub, *keepingUp);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]["text"], "first");
    EXPECT_EQ(events[1],
              json::parse(R"({"type":"inplace","group":2,"groupName":"Streaming Statistics",
                                         "name":"queued files","text":"3","value":3.0})"));
    EXPECT_EQ(events[2]["text"], "bad \xEF\xBF\xBD utf-8");
    EXPECT_TRUE(takeAll(hub, *keepingUp).empty());

    const std::string big(1000, 'x');
    for (size_t sent = 0; sent <= kMaxPending; sent += big.size()) {
        hub.textLine(1, big);
        std::string text;
        ASSERT_TRUE(hub.takeEvents(*keepingUp, text, std::chrono::milliseconds(0)));
        EXPECT_NE(text.find(big), std::string::npos);
    }
    EXPECT_EQ(hub.counters().pagesRestarted, 1u);
    const json state = json::parse(hub.stateJson());
    EXPECT_EQ(state["pagesRestarted"], 1);
    EXPECT_EQ(state["pages"], 2);
    EXPECT_EQ(state["link"]["state"], "connecting");
    events = takeAll(hub, *fallingBehind);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events[0]["type"], "reset");
    EXPECT_EQ(ofType(events, "text").size(), hub.counters().lines);
}

TEST(EventHub, AQueueIsHandedOutInSlicesInOrder) {
    EventHub hub("localhost", 1);
    auto page = hub.openPage();
    takeAll(hub, *page);
    constexpr size_t kLines = 1000;
    for (size_t i = 0; i < kLines; ++i) {
        hub.textLine(0, std::to_string(i) + ":" + std::string(1000, '.'));
    }
    std::vector<json> all = takeAll(hub, *page);
    EXPECT_GT(all.size(), 0u);
    EXPECT_LT(all.size(), kLines) << "one call hands out a slice, not the whole queue";
    for (size_t slice = 0; slice < kLines && all.size() < kLines; ++slice) {
        const std::vector<json> more = takeAll(hub, *page);
        ASSERT_FALSE(more.empty());
        all.insert(all.end(), more.begin(), more.end());
    }
    ASSERT_EQ(all.size(), kLines);
    for (size_t i = 0; i < kLines; ++i) {
        const std::string text = all[i]["text"];
        ASSERT_EQ(text.substr(0, text.find(':')), std::to_string(i));
    }
    EXPECT_EQ(hub.counters().pagesRestarted, 0u);
}

TEST(EventHub, PagesAreBoundedAndShutDownEndsTheirWait) {
    EventHub hub("localhost", 1);
    std::vector<std::shared_ptr<EventHub::Page>> pages;
    for (size_t i = 0; i < EventHub::kMaxPages; ++i) {
        pages.push_back(hub.openPage());
        ASSERT_TRUE(pages.back());
    }
    EXPECT_FALSE(hub.openPage());
    hub.closePage(pages.back());
    pages.back() = hub.openPage();
    EXPECT_TRUE(pages.back());

    takeAll(hub, *pages[0]);
    std::string text;
    std::thread closer([&] { hub.shutDown(); });
    EXPECT_FALSE(hub.takeEvents(*pages[0], text, std::chrono::seconds(30)));
    closer.join();
}

TEST(InPlaceStore, KeepsTheRecentlyUpdatedNamesAndShortHistories) {
    InPlaceStore store(3);
    store.set(0, "a", "1");
    store.set(0, "b", "2");
    store.set(1, "a", "3");
    store.set(0, "a", "4");  // now b is the one updated longest ago
    store.set(0, "c", "5");
    EXPECT_EQ(store.entries().size(), 3u);
    EXPECT_EQ(store.evicted(), 1u);
    EXPECT_EQ(store.entries().count({0, "b"}), 0u);
    EXPECT_EQ(store.entries().at({0, "a"}).history, (std::deque<double>{1, 4}));

    for (int i = 0; i < 500; ++i) {
        store.set(0, "c", std::to_string(i) + " fps");
    }
    const auto& history = store.entries().at({0, "c"}).history;
    ASSERT_EQ(history.size(), InPlaceStore::kHistoryLength);
    EXPECT_EQ(history.back(), 499);
    store.set(0, "c", "n/a");  // not a number: the text changes, the plot keeps its points
    EXPECT_EQ(store.entries().at({0, "c"}).text, "n/a");
    EXPECT_EQ(history.size(), InPlaceStore::kHistoryLength);

    const std::string longName(1000, 'n');
    store.set(2, longName, "x");
    EXPECT_EQ(store.entries().count({2, longName.substr(0, InPlaceStore::kMaxNameBytes)}), 1u);
}

}  // namespace
