// Test stand-ins for a pipe manager: a loopback TCP connection, and an endpoint that pumps a
// pipe and feeds it what arrives on its socket, the way a manager's thread does. An endpoint
// is driven either step by step from the test (pump, receiveUntilMarker) or by its own thread
// (start), which the blocking calls need.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "support/test_support.h"
#include "zu/event.h"

namespace dmtest {

// The pipe messages as the wire format fixes them, written out independently of the library.
namespace pipewire {
constexpr int kPacketId = 205;
constexpr int32_t kRequest = 3;
constexpr int32_t kResponse = 4;
constexpr int32_t kNotify = 5;
// Not a pipe message: ends a batch, so that "nothing more arrived" can be told for certain.
constexpr int kMarkerId = 999;

inline net::Packet request(const char* pipe, uint32_t id, uint32_t value, const char* text,
                           uint32_t dataSize, uint32_t offset, uint32_t chunkSize,
                           const void* chunk) {
    net::Packet packet(kPacketId);
    packet << kRequest << pipe << id << value << text << dataSize << offset << chunkSize;
    packet.write(chunk, chunkSize);
    return packet;
}

inline net::Packet response(const char* pipe, uint32_t id, const char* text, uint32_t dataSize,
                            uint32_t offset, uint32_t chunkSize, const void* chunk) {
    net::Packet packet(kPacketId);
    packet << kResponse << pipe << id << text << dataSize << offset << chunkSize;
    packet.write(chunk, chunkSize);
    return packet;
}

inline net::Packet notify(const char* pipe, uint32_t id, uint32_t value, uint32_t textLength,
                          uint32_t offset, uint32_t chunkSize, const void* chunk) {
    net::Packet packet(kPacketId);
    packet << kNotify << pipe << id << value << textLength << offset << chunkSize;
    packet.write(chunk, chunkSize);
    return packet;
}
}  // namespace pipewire

class TestPipeOwner : public dm::PipeOwner {
public:
    explicit TestPipeOwner(uint32_t id) : m_id(id) {}
    ~TestPipeOwner() override = default;

    dm::CommunicationPipeManager* getOwningManager() override { return nullptr; }
    uint32_t getOwnerId() const override { return m_id; }

private:
    uint32_t m_id;
};

struct SocketPair {
    std::unique_ptr<net::Socket> first;   // the connecting side
    std::unique_ptr<net::Socket> second;  // the accepted side
    bool connected() const { return first && second; }
};

// Two connected sockets over 127.0.0.1 on a port the system picks; empty on failure.
inline SocketPair connectLoopback() {
    net::Listener listener(0, "127.0.0.1");
    SocketPair pair;
    auto client = std::make_unique<net::Socket>();
    if (!listener.isListening() || !client->connect("127.0.0.1", listener.getPort())) {
        return pair;
    }
    std::unique_ptr<net::Socket> accepted;
    const bool done = waitUntil([&] {
        client->update();
        if (!accepted) {
            accepted.reset(listener.pollConnect());
        }
        return accepted && client->isConnected();
    });
    if (done) {
        pair.first = std::move(client);
        pair.second = std::move(accepted);
    }
    return pair;
}

struct PacketCounts {
    int requests = 0;
    int responses = 0;
    int notifies = 0;
    int others = 0;
    bool markerSeen = false;
};

// Reads the message head of a Request, Response or Notify and hands the packet to the pipe's
// handler, as a manager's connection loop does. Returns the kind, or -1 for anything else.
inline int dispatchToPipe(dm::NetCommunicationPipe& pipe, net::Packet& packet, uint32_t size) {
    if (packet.getID() != pipewire::kPacketId) {
        return -1;
    }
    int32_t kind = -1;
    const char* pipeName = "";
    uint32_t id = 0;
    uint32_t value = 0;
    const char* text = "";
    packet >> kind >> pipeName >> id;
    if (packet.hasError() || zu::stricmp(pipeName, pipe.getName()) != 0) {
        return -1;
    }
    if (kind == pipewire::kRequest) {
        packet >> value >> text;
        pipe.onRequestPacket(id, value, text, packet, size);
    } else if (kind == pipewire::kResponse) {
        packet >> text;
        pipe.onResponsePacket(id, text, packet);
    } else if (kind == pipewire::kNotify) {
        packet >> value;
        pipe.onNotifyPacket(id, value, packet);
    } else {
        return -1;
    }
    return kind;
}

// One end of a connection with one pipe on it.
class PipeEndpoint {
public:
    PipeEndpoint(const char* pipeName, uint32_t ownerId, std::unique_ptr<net::Socket> socket)
        : m_owner(ownerId), m_pipe(&m_owner, pipeName), m_socket(std::move(socket)) {}
    ~PipeEndpoint() { stop(); }
    PipeEndpoint(const PipeEndpoint&) = delete;
    PipeEndpoint& operator=(const PipeEndpoint&) = delete;

    dm::NetCommunicationPipe& pipe() { return m_pipe; }
    net::Socket& socket() { return *m_socket; }

    // The manager-side operations; run on the endpoint's thread while it is started.
    void attach() {
        onPumpThread([this] {
            m_attached = true;
            m_pipe.attachSocket(m_socket.get());
        });
    }
    void detach() {
        onPumpThread([this] {
            m_attached = false;
            m_pipe.detachSocket();
        });
    }
    // Replaces the connection (the old socket is closed), then attaches the pipe to the new one.
    void reconnect(std::unique_ptr<net::Socket> socket) {
        onPumpThread([this, &socket] {
            m_pipe.detachSocket();
            m_socket = std::move(socket);
            m_attached = true;
            m_pipe.attachSocket(m_socket.get());
        });
    }

    // --- Step by step (not started) ---

    // One send step, on the socket when attached (nothing is sent otherwise).
    void pump() { m_pipe.pumpOutgoing(m_attached ? m_socket.get() : nullptr); }
    void sendMarker() { m_socket->sendPacket(net::Packet(pipewire::kMarkerId)); }
    void send(const net::Packet& packet) {
        m_socket->sendPacket(packet);
        m_socket->update();
    }
    // Dispatches what arrives until the peer's marker (at most 10 seconds), counting kinds.
    PacketCounts receiveUntilMarker() {
        PacketCounts counts;
        waitUntil([&] {
            m_socket->update();
            uint32_t size = 0;
            while (net::Packet* packet = m_socket->pollPacket(&size)) {
                if (packet->getID() == pipewire::kMarkerId) {
                    counts.markerSeen = true;
                    return true;
                }
                count(counts, dispatchToPipe(m_pipe, *packet, size));
            }
            const zu::WaitHandle handle = m_socket->getWaitHandle();
            zu::waitForAny(&handle, 1, 5);
            return false;
        });
        return counts;
    }
    // Pumps this end once and delivers everything it sent to `peer`.
    PacketCounts transferTo(PipeEndpoint& peer) {
        pump();
        sendMarker();
        return peer.receiveUntilMarker();
    }

    // --- On its own thread ---

    void start() {
        m_stopping = false;
        m_thread = std::thread([this] { run(); });
    }
    void stop() {
        if (m_thread.joinable()) {
            m_stopping = true;
            m_thread.join();
        }
    }

private:
    static void count(PacketCounts& counts, int kind) {
        if (kind == pipewire::kRequest) {
            ++counts.requests;
        } else if (kind == pipewire::kResponse) {
            ++counts.responses;
        } else if (kind == pipewire::kNotify) {
            ++counts.notifies;
        } else {
            ++counts.others;
        }
    }

    void run() {
        while (!m_stopping) {
            runTasks();
            m_socket->update();
            uint32_t size = 0;
            while (net::Packet* packet = m_socket->pollPacket(&size)) {
                dispatchToPipe(m_pipe, *packet, size);
            }
            pump();
            const zu::WaitHandle handles[2] = {m_pipe.getWakeHandle(), m_socket->getWaitHandle()};
            zu::waitForAny(handles, 2, 5);
        }
        runTasks();
    }

    void onPumpThread(const std::function<void()>& task) {
        if (!m_thread.joinable()) {
            task();
            return;
        }
        std::unique_lock<std::mutex> lock(m_taskMutex);
        m_tasks.push_back(task);
        const size_t ticket = ++m_tasksQueued;
        m_taskDone.wait(lock, [&] { return m_tasksDone >= ticket; });
    }

    void runTasks() {
        std::unique_lock<std::mutex> lock(m_taskMutex);
        while (!m_tasks.empty()) {
            std::function<void()> task = std::move(m_tasks.front());
            m_tasks.erase(m_tasks.begin());
            task();
            ++m_tasksDone;
        }
        m_taskDone.notify_all();
    }

    TestPipeOwner m_owner;
    dm::NetCommunicationPipe m_pipe;
    std::unique_ptr<net::Socket> m_socket;
    bool m_attached = false;  // touched on the pumping thread only (or the test's, unstarted)

    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    std::mutex m_taskMutex;
    std::condition_variable m_taskDone;
    std::vector<std::function<void()>> m_tasks;
    size_t m_tasksQueued = 0;
    size_t m_tasksDone = 0;
};

// A sendRequest (without data) running on its own thread.
class PendingRequest {
public:
    PendingRequest(dm::NetCommunicationPipe& pipe, std::string text, uint32_t value = 0)
        : m_pipe(pipe), m_thread([this, text, value] {
              m_result = m_pipe.sendRequest(text.c_str(), value, nullptr, 0, nullptr, nullptr, 0);
              m_done = true;
          }) {}
    ~PendingRequest() {
        // Answers it in place if the test failed before it was, so that the join cannot hang.
        for (uint32_t id = 0; id < 64 && !m_done; ++id) {
            net::Packet answer =
                dmtest::pipewire::response(m_pipe.getName(), id, "", 0, 0, 0, nullptr);
            answer.setPos(0);
            dmtest::dispatchToPipe(m_pipe, answer, answer.getSize());
        }
        m_thread.join();
    }

    bool done() const { return m_done.load(); }
    // Only once done.
    const char* result() const { return m_result.c_str(); }

private:
    dm::NetCommunicationPipe& m_pipe;
    zu::InplaceString<128> m_result;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

// Two pipes of the same name on the two ends of one loopback connection, attached.
struct PipeLink {
    explicit PipeLink(const char* pipeName = "link", uint32_t leftId = 11, uint32_t rightId = 22)
        : sockets(connectLoopback()),
          left(pipeName, leftId, std::move(sockets.first)),
          right(pipeName, rightId, std::move(sockets.second)) {
        if (connected) {
            left.attach();
            right.attach();
        }
    }

    // Moves both ends onto a fresh connection, resetting both pipes.
    bool reconnect() {
        SocketPair fresh = connectLoopback();
        if (!fresh.connected()) {
            return false;
        }
        left.reconnect(std::move(fresh.first));
        right.reconnect(std::move(fresh.second));
        return true;
    }
    void start() {
        left.start();
        right.start();
    }

    SocketPair sockets;
    const bool connected = sockets.connected();
    PipeEndpoint left;
    PipeEndpoint right;
};

// Packets written by hand on the left end, handled by the right pipe.
class HandWrittenPackets : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(link.connected); }
    void deliver(const std::vector<net::Packet>& packets) {
        for (const net::Packet& packet : packets) {
            link.left.send(packet);
        }
        link.left.sendMarker();
        link.right.receiveUntilMarker();
    }
    void deliver(const net::Packet& packet) { deliver(std::vector<net::Packet>{packet}); }
    dm::NetCommunicationPipe& pipe() { return link.right.pipe(); }
    size_t incomingRequests() { return pipe().getQueueSizes().incomingRequests; }
    size_t incomingNotifications() { return pipe().getQueueSizes().incomingNotifications; }

    PipeLink link;
};

}  // namespace dmtest
