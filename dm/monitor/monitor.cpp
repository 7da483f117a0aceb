// The debug-monitor link: one listener, the accepted monitor connections in acceptance order,
// and the packets exchanged with them. All state sits behind one recursive lock: update calls the
// data callback with it held, and the callback may call any function here again.
#include "dm/monitor.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "d/profile.h"
#include "log_output.h"
#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/exception.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/vector.h"

namespace dm {

namespace {

constexpr int kTextPacketId = monitor_packet::kText;
constexpr int kInPlacePacketId = monitor_packet::kInPlace;
constexpr int kProfilePacketId = monitor_packet::kProfile;
constexpr int kRequestPacketId = monitor_packet::kRequest;
constexpr int kDataPacketId = monitor_packet::kData;

constexpr int kRequestCount = 3;
// pollPacket reads the socket again whenever its buffer runs dry, so monitors that never stop
// sending would keep update from returning: one update handles at most this many packets, from
// all monitors together, and the rest waits for the next frame.
constexpr int kMaxPacketsPerUpdate = 4096;
// The budget is shared out in turns of this many packets, so that a monitor that floods the
// game delays a quiet one by one turn at most.
constexpr int kPacketsPerTurn = 64;
// A connect storm must not hold up the frame either: the rest are accepted in later updates.
constexpr int kMaxAcceptsPerUpdate = 16;
// Formatted texts hold at most kTextBufferSize - 1 characters.
constexpr size_t kTextBufferSize = 256;

struct MonitorLink {
    MonitorLink() = default;
    ~MonitorLink() ZU_NO_THREAD_SAFETY_ANALYSIS { closeAll(); }  // no other thread is left
    MonitorLink(const MonitorLink&) = delete;
    MonitorLink& operator=(const MonitorLink&) = delete;

    void closeAll() ZU_REQUIRES(lock) {
        listener.reset();
        connections.clear();
        nextTurn = 0;
    }

    zu::RecursiveMutex lock;
    bool initialised ZU_GUARDED_BY(lock) = false;
    zu::UniquePtr<net::Listener> listener ZU_GUARDED_BY(lock);
    DataParserCallback* dataParserCallback ZU_GUARDED_BY(lock) = nullptr;
    bool requestFlags[kRequestCount] ZU_GUARDED_BY(lock) = {};
    zu::Vector<zu::UniquePtr<net::Socket>> connections ZU_GUARDED_BY(lock);
    // The monitor whose turn comes first in the next update: the one after where the last
    // update ran out of budget, so that no monitor is left without turns.
    size_t nextTurn ZU_GUARDED_BY(lock) = 0;

    // One packet per outgoing kind, reused so that sending allocates nothing once warm.
    net::Packet textPacket ZU_GUARDED_BY(lock){kTextPacketId};
    net::Packet inPlacePacket ZU_GUARDED_BY(lock){kInPlacePacketId};
    net::Packet profilePacket ZU_GUARDED_BY(lock){kProfilePacketId};

    // Changed by init and deinit: an update whose data callback called either stops walking
    // the connections it no longer owns.
    uint32_t generation ZU_GUARDED_BY(lock) = 0;
    // Set while update runs, so that a callback calling update again does not walk the
    // connections underneath the outer walk.
    bool updating ZU_GUARDED_BY(lock) = false;
};

MonitorLink g_link;

class UpdatingFlag {
public:
    UpdatingFlag() ZU_REQUIRES(g_link.lock) { g_link.updating = true; }
    ~UpdatingFlag() ZU_REQUIRES(g_link.lock) { g_link.updating = false; }
    UpdatingFlag(const UpdatingFlag&) = delete;
    UpdatingFlag& operator=(const UpdatingFlag&) = delete;
};

// Tells once per update how many monitors the listener had to turn away (no descriptor or no
// memory for them), so that a full descriptor table shows in the log rather than as silence.
void reportRefusedMonitors(uint32_t refusedBefore) ZU_REQUIRES(g_link.lock) {
    const uint32_t refused = g_link.listener->getRefusedCount() - refusedBefore;
    if (refused > 0) {
        logLine("dm: %u monitor connection(s) turned away: no descriptor or memory for them\n",
                refused);
    }
}

void acceptMonitors() ZU_REQUIRES(g_link.lock) {
    if (!g_link.listener) {
        return;
    }
    g_link.listener->update();
    const uint32_t refusedBefore = g_link.listener->getRefusedCount();
    for (int accepted = 0; accepted < kMaxAcceptsPerUpdate; ++accepted) {
        zu::UniquePtr<net::Socket> connection = g_link.listener->pollConnect();
        if (!connection) {
            break;
        }
        try {
            g_link.connections.push_back(std::move(connection));
        } catch (const zu::OutOfMemoryException&) {
            // The monitor is turned away (its socket is closed); it may try again.
            logLine("dm: a monitor connection turned away: out of memory\n");
            break;
        }
    }
    reportRefusedMonitors(refusedBefore);
}

void receiveData(net::Packet& packet) ZU_REQUIRES(g_link.lock) {
    const char* data = nullptr;
    packet >> data;
    if (!packet.hasError() && g_link.dataParserCallback) {
        g_link.dataParserCallback->parseData(data);
    }
}

void receiveRequest(net::Packet& packet) ZU_REQUIRES(g_link.lock) {
    int32_t request = -1;
    packet >> request;
    if (!packet.hasError() && request >= 0 && request < kRequestCount) {
        g_link.requestFlags[request] = true;
    }
}

void dispatchPacket(net::Packet& packet) ZU_REQUIRES(g_link.lock) {
    switch (packet.getID()) {
        case kDataPacketId:
            receiveData(packet);
            break;
        case kRequestPacketId:
            receiveRequest(packet);
            break;
        default:
            break;  // 100 (a monitor's keep-alive) and unknown ids carry nothing for us
    }
}

// Dispatches up to `quantum` packets that `connection` sent; how many it dispatched, or -1 when
// a data callback re-initialised or closed the link.
int takeTurn(net::Socket* connection, int quantum, uint32_t generation) ZU_REQUIRES(g_link.lock) {
    int taken = 0;
    while (taken < quantum) {
        net::Packet* packet = connection->pollPacket(nullptr);
        if (!packet) {
            break;
        }
        ++taken;
        dispatchPacket(*packet);
        if (g_link.generation != generation) {
            return -1;
        }
    }
    return taken;
}

void dropClosedMonitors() ZU_REQUIRES(g_link.lock) {
    for (size_t index = 0; index < g_link.connections.size();) {
        if (g_link.connections[index]->isConnected()) {
            ++index;
        } else {
            g_link.connections.erase(index);
        }
    }
}

// Dispatches what the monitors sent, in turns, within one update's budget, and drops the ones
// that are gone. A data callback that re-initialises or closes the link ends the walk.
void pollMonitors() ZU_REQUIRES(g_link.lock) {
    const uint32_t generation = g_link.generation;
    const size_t count = g_link.connections.size();
    for (zu::UniquePtr<net::Socket>& connection : g_link.connections) {
        connection->update();
    }
    const size_t first = g_link.nextTurn < count ? g_link.nextTurn : 0;
    g_link.nextTurn = 0;
    int budget = kMaxPacketsPerUpdate;
    for (bool someoneHasMore = true; someoneHasMore && budget > 0;) {
        someoneHasMore = false;
        for (size_t turn = 0; turn < count && budget > 0; ++turn) {
            const size_t index = (first + turn) % count;
            const int quantum = std::min(kPacketsPerTurn, budget);
            const int taken = takeTurn(g_link.connections[index].get(), quantum, generation);
            if (taken < 0) {
                return;
            }
            budget -= taken;
            someoneHasMore = someoneHasMore || taken == quantum;
            if (budget == 0) {
                g_link.nextTurn = index + 1;
            }
        }
    }
    dropClosedMonitors();
}

// A monitor that stops reading (suspended, or stopped in a debugger) must not stall the game:
// once this much waits for it, its packets are dropped until it catches up.
constexpr uint32_t kMaxQueuedPerMonitor = 4 * 1024 * 1024;

void sendToAll(const net::Packet& packet) ZU_REQUIRES(g_link.lock) {
    for (zu::UniquePtr<net::Socket>& connection : g_link.connections) {
        if (connection->getQueuedSendBytes() < kMaxQueuedPerMonitor) {
            connection->sendPacket(packet);
        }
    }
}

// A field that did not fit (a name beyond the packet's limit) would leave monitors a packet
// they cannot read; such a packet is not sent.
void sendToAllIfWhole(const net::Packet& packet) ZU_REQUIRES(g_link.lock) {
    if (!packet.hasError()) {
        sendToAll(packet);
    }
}

// Formats like vsnprintf into `text`, cut to kTextBufferSize - 1 characters.
void formatText(char (&text)[kTextBufferSize], const char* format, va_list args) {
    if (vsnprintf(text, kTextBufferSize, format, args) < 0) {
        text[0] = 0;
    }
}

void sendText(int channel, const char* format, va_list args) {
    zu::ScopedLock guard(g_link.lock);
    if (g_link.connections.empty() || !format) {
        return;
    }
    char text[kTextBufferSize];
    formatText(text, format, args);
    net::Packet& packet = g_link.textPacket;
    packet.reset(kTextPacketId);
    packet << static_cast<int32_t>(channel) << text;
    sendToAllIfWhole(packet);
}

void sendInPlace(int group, const char* name, const char* format, va_list args) {
    zu::ScopedLock guard(g_link.lock);
    if (g_link.connections.empty() || !format) {
        return;
    }
    char text[kTextBufferSize];
    formatText(text, format, args);
    net::Packet& packet = g_link.inPlacePacket;
    packet.reset(kInPlacePacketId);
    packet << static_cast<int32_t>(group) << name << text;
    sendToAllIfWhole(packet);
}

}  // namespace

void init(int port) {
    zu::ScopedLock guard(g_link.lock);
    g_link.closeAll();
    try {
        g_link.listener = zu::makeUnique<net::Listener>(static_cast<uint32_t>(port));
    } catch (...) {
        g_link.listener.reset();  // no monitors this run; the game goes on
    }
    g_link.initialised = true;
    for (bool& flag : g_link.requestFlags) {
        flag = false;
    }
    ++g_link.generation;
}

void update() {
    zu::ScopedLock guard(g_link.lock);
    if (g_link.updating) {
        return;
    }
    UpdatingFlag updating;
    acceptMonitors();
    pollMonitors();
}

void deinit() {
    zu::ScopedLock guard(g_link.lock);
    g_link.closeAll();
    g_link.initialised = false;
    ++g_link.generation;
}

void print(int channel, const char* format, ...) {
    va_list args;
    va_start(args, format);
    sendText(channel, format, args);
    va_end(args);
}

void print(const char* format, ...) {
    va_list args;
    va_start(args, format);
    sendText(0, format, args);
    va_end(args);
}

void printInPlace(int group, const char* name, const char* format, ...) {
    va_list args;
    va_start(args, format);
    sendInPlace(group, name, format, args);
    va_end(args);
}

void printInPlace(const char* name, const char* format, ...) {
    va_list args;
    va_start(args, format);
    sendInPlace(0, name, format, args);
    va_end(args);
}

const char* getInPlaceGroupName(int group) {
    switch (group) {
        case 0:
            return "Default In Place Data";
        case 1:
            return "Engine Statistics";
        case 2:
            return "Streaming Statistics";
        case 3:
            return "Resource Statistics";
        default:
            return "Unknown In Place Data";
    }
}

void broadcastPacket(net::Packet* packet) {
    zu::ScopedLock guard(g_link.lock);
    if (packet) {
        sendToAll(*packet);
    }
}

bool checkAndClearRequest(int request) {
    zu::ScopedLock guard(g_link.lock);
    if (request < 0 || request >= kRequestCount || !g_link.requestFlags[request]) {
        return false;
    }
    g_link.requestFlags[request] = false;
    return true;
}

void createProfilePacket() {
    zu::ScopedLock guard(g_link.lock);
    net::Packet& packet = g_link.profilePacket;
    packet.reset(kProfilePacketId);
    packet << d::Profile::ThreadProfiler::instance();
    sendToAllIfWhole(packet);
}

void setDataParserCallback(DataParserCallback* callback) {
    zu::ScopedLock guard(g_link.lock);
    g_link.dataParserCallback = callback;
}

int getMonitorPort() {
    zu::ScopedLock guard(g_link.lock);
    if (!g_link.listener || !g_link.listener->isListening()) {
        return 0;
    }
    return static_cast<int>(g_link.listener->getPort());
}

int getMonitorConnectionCount() {
    zu::ScopedLock guard(g_link.lock);
    return static_cast<int>(g_link.connections.size());
}

}  // namespace dm
