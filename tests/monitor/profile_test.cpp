// The thread profiler: recording on real threads, and its packet written and read back.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "d/profile.h"
#include "net/packet.h"
#include "support/test_support.h"
#include "zu/event.h"
#include "zu/thread.h"

namespace {

using d::Profile::ProfileScopeRecord;
using d::Profile::ProfileSnapshot;
using d::Profile::ProfileThreadRecord;
using d::Profile::ThreadProfiler;

ProfileSnapshot writeAndRead(net::Packet& packet) {
    const uint32_t start = packet.getPos();
    packet << ThreadProfiler::instance();
    EXPECT_FALSE(packet.hasError());
    EXPECT_LE(packet.getSize(), net::Packet::kMaxPayload);
    packet.setPos(start);
    ProfileSnapshot snapshot;
    packet >> snapshot;
    EXPECT_FALSE(packet.hasError());
    EXPECT_EQ(packet.getRemaining(), 0u);
    return snapshot;
}

ProfileSnapshot takeSnapshot() {
    net::Packet packet(3);
    return writeAndRead(packet);
}

const ProfileThreadRecord* findThread(const ProfileSnapshot& snapshot, zu::ThreadId id) {
    for (const ProfileThreadRecord& thread : snapshot.threads) {
        if (thread.threadId == id) {
            return &thread;
        }
    }
    return nullptr;
}

// A thread that runs `record`, then stays alive (its scopes stay in the profiler) until
// release() or destruction.
class RecordingThread {
public:
    template <typename Record>
    explicit RecordingThread(Record record)
        : m_thread([this, record] {
              m_id = zu::getCurrentThreadId();
              record();
              m_recorded.signal();
              m_release.wait(20000);
          }) {}
    ~RecordingThread() {
        release();
        join();
    }
    RecordingThread(const RecordingThread&) = delete;
    RecordingThread& operator=(const RecordingThread&) = delete;

    bool waitRecorded() { return m_recorded.wait(20000); }
    void release() { m_release.signal(); }
    void join() {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    zu::ThreadId id() const { return m_id; }

private:
    zu::Event m_recorded;
    zu::Event m_release;
    std::atomic<zu::ThreadId> m_id{0};
    std::thread m_thread;
};

class ThreadProfilerTest : public ::testing::Test {
protected:
    void SetUp() override { ThreadProfiler::clear(); }
};

TEST_F(ThreadProfilerTest, NestedScopesRoundTripWithThreadNameUntilTheThreadEnds) {
    RecordingThread thread([] {
        zu::setThreadName(zu::getCurrentThreadId(), "Profiled Worker");
        ThreadProfiler::Scope outer("outer");
        { ThreadProfiler::Scope first("first"); }
        ThreadProfiler::beginScope("second");
        ThreadProfiler::endScope();
    });
    ASSERT_TRUE(thread.waitRecorded());

    const ProfileSnapshot snapshot = takeSnapshot();
    const ProfileThreadRecord* record = findThread(snapshot, thread.id());
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->name, "Profiled Worker");
    EXPECT_EQ(record->droppedScopes, 0u);
    std::vector<std::pair<std::string, uint32_t>> namesAndDepths;
    for (const ProfileScopeRecord& scope : record->scopes) {
        namesAndDepths.emplace_back(scope.name.c_str(), scope.depth);
    }
    ASSERT_EQ(namesAndDepths, (std::vector<std::pair<std::string, uint32_t>>{
                                  {"first", 1}, {"second", 1}, {"outer", 0}}));
    const ProfileScopeRecord& first = record->scopes[0];
    const ProfileScopeRecord& second = record->scopes[1];
    const ProfileScopeRecord& outer = record->scopes[2];
    EXPECT_LE(outer.beginMicroseconds, first.beginMicroseconds);
    EXPECT_LE(first.beginMicroseconds, first.endMicroseconds);
    EXPECT_LE(first.endMicroseconds, second.beginMicroseconds);
    EXPECT_LE(second.endMicroseconds, outer.endMicroseconds);
    EXPECT_LE(outer.endMicroseconds, snapshot.takenMicroseconds);

    // An ended thread leaves the profiler.
    const zu::ThreadId id = thread.id();
    thread.release();
    thread.join();
    EXPECT_EQ(findThread(takeSnapshot(), id), nullptr);
}

TEST_F(ThreadProfilerTest, NamesAreCutAndDepthIsBounded) {
    const std::string longName(100, 'L');
    RecordingThread thread([&longName] {
        ThreadProfiler::endScope();  // nothing open: ignored
        ThreadProfiler::Scope named(longName.c_str());
        ThreadProfiler::Scope unnamed(nullptr);
        for (uint32_t depth = 2; depth < ThreadProfiler::kMaxDepth + 8; ++depth) {
            ThreadProfiler::beginScope("deep");
        }
        for (uint32_t depth = 2; depth < ThreadProfiler::kMaxDepth + 8; ++depth) {
            ThreadProfiler::endScope();
        }
    });
    ASSERT_TRUE(thread.waitRecorded());

    const ProfileSnapshot snapshot = takeSnapshot();
    const ProfileThreadRecord* record = findThread(snapshot, thread.id());
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->scopes.size(), ThreadProfiler::kMaxDepth);
    uint32_t expectedDepth = ThreadProfiler::kMaxDepth - 1;  // innermost recorded ends first
    for (size_t i = 0; i + 2 < record->scopes.size(); ++i, --expectedDepth) {
        EXPECT_EQ(record->scopes[i].name, "deep");
        EXPECT_EQ(record->scopes[i].depth, expectedDepth);
    }
    EXPECT_EQ(record->scopes[record->scopes.size() - 2].name, "");
    EXPECT_EQ(record->scopes.back().name,
              longName.substr(0, ThreadProfiler::kMaxNameLength).c_str());
    EXPECT_EQ(record->scopes.back().depth, 0u);
}

// Threads record one after another, so every scope of an earlier thread is older than every
// scope of a later one. Each ring keeps only its thread's newest scopes, and what does not fit
// the packet must be lost from the oldest end.
TEST_F(ThreadProfilerTest, ASnapshotThatDoesNotFitLosesTheOldestScopes) {
    constexpr int kThreads = 24;  // 24 full rings of long names are well over kMaxPayload
    constexpr uint32_t kRecorded = ThreadProfiler::kScopesPerThread + 44;  // 44 overwritten
    std::vector<std::unique_ptr<RecordingThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.push_back(std::make_unique<RecordingThread>([t] {
            for (uint32_t i = 0; i < kRecorded; ++i) {
                char name[ThreadProfiler::kMaxNameLength + 1];
                std::snprintf(name, sizeof(name), "thread %02d scope %03u ...........", t, i);
                ThreadProfiler::Scope scope(name);
            }
        }));
        ASSERT_TRUE(threads.back()->waitRecorded());
    }

    const ProfileSnapshot snapshot = takeSnapshot();
    bool seenKeptScopes = false;
    int partialThreads = 0;
    for (int t = 0; t < kThreads; ++t) {
        const ProfileThreadRecord* record = findThread(snapshot, threads[t]->id());
        ASSERT_NE(record, nullptr);
        const size_t kept = record->scopes.size();
        EXPECT_EQ(kept + record->droppedScopes, kRecorded);
        if (seenKeptScopes) {
            EXPECT_EQ(kept, ThreadProfiler::kScopesPerThread) << "thread " << t;
        }
        partialThreads += kept > 0 && kept < ThreadProfiler::kScopesPerThread ? 1 : 0;
        seenKeptScopes = seenKeptScopes || kept > 0;
        for (size_t i = 0; i < kept; ++i) {  // the newest ones, in order
            char expected[ThreadProfiler::kMaxNameLength + 1];
            std::snprintf(expected, sizeof(expected), "thread %02d scope %03u ...........", t,
                          static_cast<unsigned>(kRecorded - kept + i));
            EXPECT_EQ(record->scopes[i].name, expected);
        }
    }
    EXPECT_LE(partialThreads, 1);
    EXPECT_EQ(findThread(snapshot, threads[0]->id())->scopes.size(), 0u);
    EXPECT_EQ(findThread(snapshot, threads.back()->id())->scopes.size(),
              ThreadProfiler::kScopesPerThread);
}

TEST_F(ThreadProfilerTest, ASnapshotFitsBehindWhatThePacketAlreadyHolds) {
    RecordingThread thread([] {
        for (int i = 0; i < 200; ++i) {
            ThreadProfiler::Scope scope("filler scope");
        }
    });
    ASSERT_TRUE(thread.waitRecorded());
    net::Packet packet(3);
    std::vector<uint8_t> filler(net::Packet::kMaxPayload - 2000, 0xab);
    ASSERT_EQ(packet.write(filler.data(), static_cast<uint32_t>(filler.size())), filler.size());

    const ProfileSnapshot snapshot = writeAndRead(packet);
    const ProfileThreadRecord* record = findThread(snapshot, thread.id());
    ASSERT_NE(record, nullptr);
    EXPECT_GT(record->scopes.size(), 0u);
    EXPECT_LT(record->scopes.size(), 200u);
    EXPECT_EQ(record->scopes.size() + record->droppedScopes, 200u);
}

TEST_F(ThreadProfilerTest, MalformedPacketsAreReportedNotTrusted) {
    RecordingThread thread([] {
        ThreadProfiler::Scope outer("outer");
        ThreadProfiler::Scope inner("inner");
    });
    ASSERT_TRUE(thread.waitRecorded());
    net::Packet whole(3);
    whole << ThreadProfiler::instance();

    // Every cut-off version of a good packet fails cleanly.
    for (uint32_t length = 0; length < whole.getSize(); ++length) {
        net::Packet cut;
        cut.assign(3, whole.getData(), length);
        ProfileSnapshot snapshot;
        cut >> snapshot;
        EXPECT_TRUE(cut.hasError()) << "cut at " << length;
    }

    // Counts larger than the bytes behind them could hold are refused, not allocated.
    net::Packet lyingCount(3);
    lyingCount << uint32_t(1) << uint32_t(0) << uint32_t(0) << uint32_t(0x7fffffff);
    ProfileSnapshot snapshot;
    lyingCount >> snapshot;
    EXPECT_TRUE(lyingCount.hasError());
    EXPECT_TRUE(snapshot.threads.empty());

    net::Packet wrongVersion(3);
    wrongVersion << uint32_t(99) << uint32_t(0) << uint32_t(0) << uint32_t(0);
    wrongVersion >> snapshot;
    EXPECT_TRUE(wrongVersion.hasError());
}

// Recording threads and a snapshotting thread run at once (meant for the thread sanitizer).
TEST_F(ThreadProfilerTest, SnapshotsWhileThreadsRecord) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> recorders;
    for (int t = 0; t < 3; ++t) {
        recorders.emplace_back([&stop] {
            for (int i = 0; i < 1000000 && !stop; ++i) {
                ThreadProfiler::Scope outer("busy");
                ThreadProfiler::Scope inner("busier");
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        const ProfileSnapshot snapshot = takeSnapshot();
        for (const ProfileThreadRecord& thread : snapshot.threads) {
            EXPECT_LE(thread.scopes.size(), ThreadProfiler::kScopesPerThread);
        }
    }
    stop = true;
    dmtest::joinAll(recorders);
}

}  // namespace
