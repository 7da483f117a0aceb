// Two pipes of the same name as the two ends of one connection, with the test playing both
// managers: it pumps one end into a buffer (a PacketSink) and hands what that end sent to the
// other, decoded as the manager decodes it. No bytes go over a socket: each end is attached to a
// socket that never connects, or, for tests of the peer's address, to one end of a loopback
// connection. The link is driven step by step from the test (pump, transferTo, receive) or by a
// thread per end (start), which the blocking calls need.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comm/net_communication_pipe.h"
#include "comm/packet_sink.h"
#include "comm/pipe_protocol.h"
#include "support/loopback.h"
#include "support/pipe_wire.h"
#include "support/test_support.h"
#include "zu/event.h"

namespace dmtest {

class TestPipeOwner : public dm::PipeOwner {
public:
    explicit TestPipeOwner(uint32_t id) : m_id(id) {}
    ~TestPipeOwner() override = default;

    dm::CommunicationPipeManager* getOwningManager() override { return nullptr; }
    uint32_t getOwnerId() const override { return m_id; }

private:
    uint32_t m_id;
};

// Decodes `packet` as the manager does and hands it to `pipe` when it is a message for a pipe
// of that name. Returns the kind, or -1 when the pipe was not given it.
inline int deliverTo(dm::NetCommunicationPipe& pipe, const net::Packet& packet) {
    net::Packet readable;
    readable.assign(packet.getID(), packet.getData(), packet.getSize());
    dm::pipe_protocol::Message message;
    if (!dm::pipe_protocol::decode(readable, message) ||
        zu::stricmp(message.pipeName, pipe.getName()) != 0) {
        return -1;
    }
    pipe.receive(message);
    return message.kind;
}

// What one end has sent and the other not yet taken. The queued bytes are those not yet
// taken, so that a pump pauses as it would on a socket the peer does not read.
class Outbox final : public dm::PacketSink {
public:
    bool sendPacket(const net::Packet& head, const void* tail, uint32_t tailSize) override {
        net::Packet packet(head);
        packet.setPos(packet.getSize());
        if (packet.write(tail, tailSize) != tailSize) {
            return false;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_packets.push_back(packet);
        m_queued += packet.getSize();
        m_arrived.signal();
        return true;
    }
    uint32_t getQueuedSendBytes() const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_queued;
    }
    void update() override {}

    std::vector<net::Packet> take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<net::Packet> packets = std::move(m_packets);
        m_packets.clear();
        m_queued = 0;
        return packets;
    }
    // Signalled when a packet is put in.
    zu::WaitHandle arrivedHandle() const { return m_arrived.getWaitHandle(); }

private:
    mutable std::mutex m_mutex;
    std::vector<net::Packet> m_packets;
    uint32_t m_queued = 0;
    zu::Event m_arrived;
};

struct PacketCounts {
    int requests = 0;
    int responses = 0;
    int notifies = 0;
};

// One end of a connection with one pipe on it.
class PipeEndpoint {
public:
    PipeEndpoint(const char* pipeName, uint32_t ownerId, zu::UniquePtr<net::Socket> socket)
        : m_owner(ownerId), m_pipe(&m_owner, pipeName), m_socket(std::move(socket)) {}
    ~PipeEndpoint() { stop(); }
    PipeEndpoint(const PipeEndpoint&) = delete;
    PipeEndpoint& operator=(const PipeEndpoint&) = delete;

    void setPeer(PipeEndpoint& peer) { m_peer = &peer; }
    dm::NetCommunicationPipe& pipe() { return m_pipe; }
    Outbox& outbox() { return m_outbox; }

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
    // Moves to a new connection: what was sent and not yet taken is lost with the old one.
    void reconnect(zu::UniquePtr<net::Socket> socket) {
        onPumpThread([this, &socket] {
            m_pipe.detachSocket();
            m_outbox.take();
            m_socket = std::move(socket);
            m_attached = true;
            m_pipe.attachSocket(m_socket.get());
        });
    }

    // --- Step by step (not started) ---

    // One send step, into the outbox when attached (nothing is sent otherwise).
    bool pump() { return m_pipe.pumpOutgoing(m_attached ? &m_outbox : nullptr); }
    // Puts a packet written by hand in the outbox, as if this end had sent it.
    void send(const net::Packet& packet) { m_outbox.sendPacket(packet, nullptr, 0); }
    // Hands everything the peer sent to this end's pipe, counting kinds.
    PacketCounts receive() {
        PacketCounts counts;
        for (const net::Packet& packet : m_peer->m_outbox.take()) {
            const int kind = deliverTo(m_pipe, packet);
            counts.requests += kind == pipewire::kRequest;
            counts.responses += kind == pipewire::kResponse;
            counts.notifies += kind == pipewire::kNotify;
        }
        return counts;
    }
    // Pumps this end once and delivers everything it sent to its peer.
    PacketCounts transferTo(PipeEndpoint& peer) {
        pump();
        return peer.receive();
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
    void run() {
        while (!m_stopping) {
            runTasks();
            receive();
            pump();
            const zu::WaitHandle handles[2] = {m_pipe.getWakeHandle(),
                                               m_peer->m_outbox.arrivedHandle()};
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
    zu::UniquePtr<net::Socket> m_socket;
    Outbox m_outbox;
    PipeEndpoint* m_peer = nullptr;
    bool m_attached = false;  // touched on the pumping thread only (or the test's, unstarted)

    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    std::mutex m_taskMutex;
    std::condition_variable m_taskDone;
    std::vector<std::function<void()>> m_tasks;
    size_t m_tasksQueued = 0;
    size_t m_tasksDone = 0;
};

// Two pipes of the same name on the two ends of one connection, attached. Over loopback each
// end is attached to a real connected socket (it reports the peer's address); otherwise to a
// socket that never connects, and nothing touches the network at all.
struct PipeLink {
    explicit PipeLink(const char* pipeName = "link", uint32_t leftId = 11, uint32_t rightId = 22,
                      bool overLoopback = false)
        : loopback(overLoopback),
          sockets(makeSockets()),
          left(pipeName, leftId, std::move(sockets.client)),
          right(pipeName, rightId, std::move(sockets.server)) {
        left.setPeer(right);
        right.setPeer(left);
        if (connected) {
            left.attach();
            right.attach();
        }
    }

    // Both threads stop before either end goes: each reads the other's outbox.
    ~PipeLink() {
        left.stop();
        right.stop();
    }
    PipeLink(const PipeLink&) = delete;
    PipeLink& operator=(const PipeLink&) = delete;

    // Moves both ends onto a fresh connection, resetting both pipes.
    bool reconnect() {
        SocketPair fresh = makeSockets();
        if (loopback && !fresh.connected()) {
            return false;
        }
        left.reconnect(std::move(fresh.client));
        right.reconnect(std::move(fresh.server));
        return true;
    }
    void start() {
        left.start();
        right.start();
    }

    SocketPair makeSockets() const {
        if (loopback) {
            return connectLoopback();
        }
        return {zu::makeUnique<net::Socket>(), zu::makeUnique<net::Socket>()};
    }

    const bool loopback;
    SocketPair sockets;
    const bool connected = !loopback || sockets.connected();
    PipeEndpoint left;
    PipeEndpoint right;
};

// Packets written by hand, handled by the right pipe.
class HandWrittenPackets : public ::testing::Test {
protected:
    explicit HandWrittenPackets(bool overLoopback = false) : link("link", 11, 22, overLoopback) {}
    void SetUp() override { ASSERT_TRUE(link.connected); }
    void deliver(const std::vector<net::Packet>& packets) {
        for (const net::Packet& packet : packets) {
            deliverTo(pipe(), packet);
        }
    }
    void deliver(const net::Packet& packet) { deliverTo(pipe(), packet); }
    dm::NetCommunicationPipe& pipe() { return link.right.pipe(); }
    dm::PipeStatistics statistics() { return pipe().getStatistics(); }
    size_t incomingRequests() { return statistics().incomingRequests; }
    size_t incomingNotifications() { return statistics().incomingNotifications; }

    PipeLink link;
};

}  // namespace dmtest
