// The debug-monitor link against real monitor connections on loopback.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <atomic>
#include <climits>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dm/monitor.h"
#include "net/packet.h"
#include "net/socket.h"
#include "support/loopback.h"

namespace {

using dmtest::waitUntil;

// A monitor tool's end of the link.
class Monitor {
public:
    explicit Monitor(int port) { socket.connect("127.0.0.1", static_cast<uint32_t>(port)); }

    void send(const net::Packet& packet) {
        socket.update();
        EXPECT_TRUE(socket.sendPacket(packet));
        socket.update();
    }

    // Waits until the game has received everything sent so far (Linux: the peer acknowledged
    // every byte), so that a following update() is sure to see it.
    bool waitDelivered() {
        return waitUntil([&] {
            socket.update();
            int unacknowledged = -1;
            return !socket.hasSendsToDo() &&
                   ioctl(static_cast<int>(socket.getWaitHandle().handle), TIOCOUTQ,
                         &unacknowledged) == 0 &&
                   unacknowledged == 0;
        });
    }

    // The next packet; one with the id -1 when none comes.
    net::Packet receive() {
        net::Packet* packet = dmtest::nextPacket(socket);
        return packet ? *packet : net::Packet(-1);
    }

    // The next text packet as "<channel>: <text>".
    std::string nextText() {
        net::Packet packet = receive();
        int channel = -1;
        const char* text = "";
        packet >> channel >> text;
        const bool valid = packet.getID() == 1 && !packet.hasError();
        return valid ? std::to_string(channel) + ": " + text : "<no text>";
    }

    // The next in-place packet as "<group> <name>: <text>".
    std::string nextInPlace() {
        net::Packet packet = receive();
        int group = -1;
        const char* name = "";
        const char* text = "";
        packet >> group >> name >> text;
        const bool valid = packet.getID() == 2 && !packet.hasError();
        return valid ? std::to_string(group) + " " + name + ": " + text : "<no value>";
    }

    bool waitForClose() {
        return waitUntil([&] {
            socket.update();
            while (socket.pollPacket(nullptr)) {
            }
            return !socket.isConnected();
        });
    }

    net::Socket socket;
};

class RecordingParser : public dm::DataParserCallback {
public:
    void parseData(const char* data) override {
        received.push_back(data);
        if (echoChannel >= 0) {
            dm::print(echoChannel, "echo: %s", data);
        }
    }
    std::vector<std::string> received;
    int echoChannel = -1;
};

net::Packet dataPacket(const char* data) {
    net::Packet packet(101);
    packet << data;
    return packet;
}

net::Packet requestPacket(int request) {
    net::Packet packet(4);
    packet << static_cast<int32_t>(request);
    return packet;
}

class MonitorLinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        dm::init(0);
        m_port = dm::getMonitorPort();
        ASSERT_GT(m_port, 0);
    }

    void TearDown() override {
        dm::setDataParserCallback(nullptr);
        dm::deinit();
    }

    // Connects a monitor and runs frames until the link has accepted it.
    std::unique_ptr<Monitor> connectMonitor() {
        const int before = dm::getMonitorConnectionCount();
        auto monitor = std::make_unique<Monitor>(m_port);
        EXPECT_TRUE(updateUntil([&] { return dm::getMonitorConnectionCount() == before + 1; }));
        return monitor;
    }

    static bool updateUntil(const std::function<bool()>& condition) {
        return waitUntil([&] {
            dm::update();
            return condition();
        });
    }

    int m_port = 0;
};

TEST_F(MonitorLinkTest, MonitorsReceiveTheSamePacketsAndOutliveOnesThatLeave) {
    auto first = connectMonitor();
    auto second = connectMonitor();
    dm::print("one");
    dm::print(5, "two %d", 2);
    net::Packet custom(55);  // any packet can be broadcast
    custom << "custom" << 7;
    dm::broadcastPacket(&custom);
    dm::broadcastPacket(nullptr);
    for (Monitor* monitor : {first.get(), second.get()}) {
        EXPECT_EQ(monitor->nextText(), "0: one");
        EXPECT_EQ(monitor->nextText(), "5: two 2");
        net::Packet packet = monitor->receive();
        EXPECT_EQ(packet.getID(), 55);
        EXPECT_EQ(packet.getSize(), custom.getSize());
    }

    auto third = connectMonitor();
    first->socket.close();
    ASSERT_TRUE(updateUntil([] { return dm::getMonitorConnectionCount() == 2; }));
    dm::print("three");
    EXPECT_EQ(second->nextText(), "0: three");
    EXPECT_EQ(third->nextText(), "0: three");
    second->socket.close();
    ASSERT_TRUE(updateUntil([] { return dm::getMonitorConnectionCount() == 1; }));
    dm::print("four");
    EXPECT_EQ(third->nextText(), "0: four");
}

TEST_F(MonitorLinkTest, AMonitorThatStopsReadingNeitherStallsTheGameNorLosesItsPlace) {
    auto stalled = connectMonitor();  // never reads from here on
    auto reading = connectMonitor();
    std::atomic<bool> sawLast{false};
    std::thread reader([&] {
        waitUntil([&] {
            reading->socket.update();
            while (net::Packet* packet = reading->socket.pollPacket(nullptr)) {
                int channel = 0;
                const char* characters = "";
                *packet >> channel >> characters;
                sawLast = sawLast || std::string(characters) == "last";
            }
            return sawLast.load();
        });
    });
    const std::string text(250, 'x');
    // Far more than the stalled monitor's socket buffers and queue allowance can hold: without
    // the allowance a print would wait for it and, after a long stall, drop the connection.
    for (int i = 0; i < 100000; ++i) {
        dm::print("%s", text.c_str());
    }
    EXPECT_EQ(dm::getMonitorConnectionCount(), 2);
    // The reading monitor keeps up and gets the last text, whatever the stalled one misses.
    EXPECT_TRUE(waitUntil([&] {
        dm::print("last");
        return sawLast.load();
    }));
    reader.join();
}

// More flooding monitors than one update's budget has turns for, and a quiet one accepted last.
TEST_F(MonitorLinkTest, FloodingMonitorsShareBoundedUpdatesInTurnAndLoseNothing) {
    RecordingParser parser;
    dm::setDataParserCallback(&parser);
    constexpr int kFlooders = 70;
    constexpr size_t kPacketsEach = 1000;
    std::vector<std::unique_ptr<Monitor>> flooders;
    for (int index = 0; index < kFlooders; ++index) {
        flooders.push_back(connectMonitor());
        for (size_t packet = 0; packet < kPacketsEach; ++packet) {
            flooders.back()->socket.sendPacket(dataPacket("flood"));
        }
    }
    auto quiet = connectMonitor();
    quiet->send(requestPacket(2));
    for (auto& flooder : flooders) {
        ASSERT_TRUE(flooder->waitDelivered());
    }
    ASSERT_TRUE(quiet->waitDelivered());

    // One update does a bounded amount of work in all; the next starts with the monitors left
    // out, so the quiet one gets its turn.
    dm::update();
    EXPECT_LE(parser.received.size(), 4096u);
    dm::update();
    EXPECT_TRUE(dm::checkAndClearRequest(2));

    // Nothing is lost: later updates take the rest.
    EXPECT_TRUE(updateUntil([&] { return parser.received.size() == kFlooders * kPacketsEach; }));
}

// %n makes vsnprintf store how much it had formatted: it shows whether formatting happened.
TEST_F(MonitorLinkTest, PrintWithoutMonitorsFormatsNothing) {
    int formatted = -1;
    dm::print("abc%n", &formatted);
    dm::print(2, "abc%n", &formatted);
    dm::printInPlace("name", "abc%n", &formatted);
    dm::printInPlace(1, "name", "abc%n", &formatted);
    EXPECT_EQ(formatted, -1);

    auto monitor = connectMonitor();
    dm::print("abc%n", &formatted);
    EXPECT_EQ(formatted, 3);
    EXPECT_EQ(monitor->nextText(), "0: abc");
}

// As docs/monitor-protocol.md states them for monitors written in other languages.
TEST_F(MonitorLinkTest, TextsKeepTheirLineFeedsAndAreCutAfter255Bytes) {
    auto monitor = connectMonitor();
    dm::print("done\n");
    dm::print(2, "two\nlines");
    // 127 two-byte characters and one more: the cut falls inside the last one.
    std::string accented;
    for (int i = 0; i < 128; ++i) {
        accented += "\xC3\xA9";
    }
    dm::print("%s", accented.c_str());
    EXPECT_EQ(monitor->nextText(), "0: done\n");
    EXPECT_EQ(monitor->nextText(), "2: two\nlines");
    EXPECT_EQ(monitor->nextText(), "0: " + accented.substr(0, 255));
}

TEST_F(MonitorLinkTest, InPlaceValuesCarryGroupNameAndTextCutTo255Characters) {
    auto monitor = connectMonitor();
    const std::string longText(300, 'x');
    const std::string longName(300, 'n');
    const std::string nameBeyondAnyPacket(net::Packet::kMaxPayload, 'h');
    dm::printInPlace(nameBeyondAnyPacket.c_str(), "unsendable");  // dropped, not sent broken
    dm::printInPlace(2, "queue", "%d files", 7);
    dm::printInPlace("score", "%d", 42);
    dm::print(1, "%s", longText.c_str());
    dm::printInPlace(3, longName.c_str(), "%s!", longText.c_str());

    EXPECT_EQ(monitor->nextInPlace(), "2 queue: 7 files");
    EXPECT_EQ(monitor->nextInPlace(), "0 score: 42");
    EXPECT_EQ(monitor->nextText(), "1: " + longText.substr(0, 255));
    // The name is sent as given.
    EXPECT_EQ(monitor->nextInPlace(), "3 " + longName + ": " + longText.substr(0, 255));
    EXPECT_STREQ(dm::getInPlaceGroupName(3), "Resource Statistics");
    EXPECT_STREQ(dm::getInPlaceGroupName(4), "Unknown In Place Data");
    EXPECT_STREQ(dm::getInPlaceGroupName(-1), "Unknown In Place Data");
}

TEST_F(MonitorLinkTest, RequestsRaiseOnlyTheirOwnFlagOnce) {
    auto monitor = connectMonitor();
    monitor->send(requestPacket(3));
    monitor->send(requestPacket(-1));
    monitor->send(requestPacket(1));
    // Packets of one monitor are handled in order: once 1 is seen, 3 and -1 have been too.
    ASSERT_TRUE(updateUntil([] { return dm::checkAndClearRequest(1); }));
    EXPECT_FALSE(dm::checkAndClearRequest(1));
    EXPECT_FALSE(dm::checkAndClearRequest(0));
    EXPECT_FALSE(dm::checkAndClearRequest(2));

    monitor->send(requestPacket(2));
    monitor->send(requestPacket(2));
    ASSERT_TRUE(monitor->waitDelivered());
    dm::update();
    EXPECT_TRUE(dm::checkAndClearRequest(2));
    EXPECT_FALSE(dm::checkAndClearRequest(2));
    for (int request : {-1, 3, 1000, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(dm::checkAndClearRequest(request)) << request;
    }

    // deinit keeps the raised flags, init clears them.
    monitor->send(requestPacket(0));
    monitor->send(requestPacket(2));
    ASSERT_TRUE(monitor->waitDelivered());
    dm::update();
    dm::deinit();
    EXPECT_TRUE(dm::checkAndClearRequest(0));
    dm::init(0);
    EXPECT_FALSE(dm::checkAndClearRequest(2));
}

// Packets of several monitors are handled in the order the monitors were accepted.
TEST_F(MonitorLinkTest, DataReachesTheCallbackWhichMayPrint) {
    RecordingParser parser;
    parser.echoChannel = 9;
    auto monitor = connectMonitor();
    auto second = connectMonitor();
    monitor->send(dataPacket("nobody listens"));
    ASSERT_TRUE(monitor->waitDelivered());
    dm::update();

    dm::setDataParserCallback(&parser);
    second->send(dataPacket("from the second"));
    monitor->send(dataPacket("hello"));
    monitor->send(dataPacket(""));
    ASSERT_TRUE(second->waitDelivered());
    ASSERT_TRUE(monitor->waitDelivered());

    dm::update();
    EXPECT_EQ(parser.received, (std::vector<std::string>{"hello", "", "from the second"}));
    EXPECT_EQ(monitor->nextText(), "9: echo: hello");
}

TEST_F(MonitorLinkTest, MalformedAndUnknownPacketsAreDropped) {
    RecordingParser parser;
    dm::setDataParserCallback(&parser);
    auto monitor = connectMonitor();
    monitor->send(net::Packet(101));  // no text at all
    net::Packet lyingText(101);
    const uint8_t hugeLength[] = {0xff, 0xff, 0xff, 0x7f, 'a'};
    lyingText.write(hugeLength, sizeof(hugeLength));
    monitor->send(lyingText);
    net::Packet shortRequest(4);
    const uint8_t twoBytes[] = {1, 0};
    shortRequest.write(twoBytes, sizeof(twoBytes));
    monitor->send(shortRequest);
    net::Packet unknown(77);
    unknown << "whatever" << 12;
    monitor->send(unknown);
    monitor->send(net::Packet(100));
    monitor->send(dataPacket("valid"));

    ASSERT_TRUE(updateUntil([&] { return !parser.received.empty(); }));
    EXPECT_EQ(parser.received, std::vector<std::string>{"valid"});
    for (int request = 0; request < 3; ++request) {
        EXPECT_FALSE(dm::checkAndClearRequest(request));
    }
    EXPECT_EQ(dm::getMonitorConnectionCount(), 1);
    dm::print("still connected");
    EXPECT_EQ(monitor->nextText(), "0: still connected");
}

TEST_F(MonitorLinkTest, DeinitClosesMonitorsAndInitListensAgain) {
    auto before = connectMonitor();
    dm::deinit();
    EXPECT_EQ(dm::getMonitorPort(), 0);
    EXPECT_EQ(dm::getMonitorConnectionCount(), 0);
    EXPECT_TRUE(before->waitForClose());
    // Without a listener every call does nothing.
    dm::update();
    dm::print("nobody hears this");
    dm::createProfilePacket();
    dm::broadcastPacket(nullptr);
    dm::init(70000);  // not a port
    EXPECT_EQ(dm::getMonitorPort(), 0);
    dm::update();
    EXPECT_EQ(dm::getMonitorConnectionCount(), 0);

    dm::init(0);
    m_port = dm::getMonitorPort();
    ASSERT_GT(m_port, 0);
    auto after = connectMonitor();
    dm::init(0);  // again without deinit: replaces the listener and closes its monitors
    EXPECT_EQ(dm::getMonitorConnectionCount(), 0);
    EXPECT_TRUE(after->waitForClose());
    m_port = dm::getMonitorPort();
    auto fresh = connectMonitor();
    dm::print("back");
    EXPECT_EQ(fresh->nextText(), "0: back");
}

class DeinitFromCallback : public dm::DataParserCallback {
public:
    void parseData(const char*) override {
        ++calls;
        dm::update();  // ignored: update is already running
        dm::deinit();
    }
    int calls = 0;
};

TEST_F(MonitorLinkTest, ACallbackMayCloseTheLinkDuringUpdate) {
    DeinitFromCallback parser;
    dm::setDataParserCallback(&parser);
    auto first = connectMonitor();
    auto second = connectMonitor();
    first->send(dataPacket("stop"));
    first->send(dataPacket("never seen"));
    second->send(dataPacket("never seen either"));
    ASSERT_TRUE(first->waitDelivered());
    ASSERT_TRUE(second->waitDelivered());

    dm::update();
    EXPECT_EQ(parser.calls, 1);
    EXPECT_EQ(dm::getMonitorConnectionCount(), 0);
    EXPECT_TRUE(first->waitForClose());
    EXPECT_TRUE(second->waitForClose());
}

// Printing threads and the updating main thread share the link; every text arrives once and
// each thread's texts keep their order.
TEST_F(MonitorLinkTest, PrintsFromSeveralThreadsArriveWholeAndInOrder) {
    constexpr int kThreads = 4;
    constexpr int kPrintsPerThread = 200;
    auto monitor = connectMonitor();
    std::atomic<int> finished{0};
    std::vector<std::thread> printers;
    for (int thread = 0; thread < kThreads; ++thread) {
        printers.emplace_back([thread, &finished] {
            for (int i = 0; i < kPrintsPerThread; ++i) {
                dm::print(thread, "%d", i);
            }
            ++finished;
        });
    }
    EXPECT_TRUE(updateUntil([&] { return finished == kThreads; }));
    dmtest::joinAll(printers);
    std::vector<int> next(kThreads, 0);
    int received = 0;
    bool inOrder = true;
    for (; received < kThreads * kPrintsPerThread; ++received) {
        int channel = -1;
        int number = -1;
        if (std::sscanf(monitor->nextText().c_str(), "%d: %d", &channel, &number) != 2 ||
            channel < 0 || channel >= kThreads) {
            break;
        }
        inOrder = inOrder && number == next[channel]++;
    }
    EXPECT_EQ(received, kThreads * kPrintsPerThread);
    EXPECT_TRUE(inOrder);
}

}  // namespace
