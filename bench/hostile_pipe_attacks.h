// The attacks on a pipe server for hostile_peers (see there for what each does). Each runs in a
// child process of its own and prints its table row.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "bench_comm_rigs.h"
#include "comm/net_communication_pipe.h"
#include "comm/pipe_protocol.h"
#include "hostile_measure.h"
#include "net/packet.h"
#include "net/socket.h"

namespace hostile {

// Round trips on the rig's first channel, one every 2 ms, until stopped.
class LegitimateProbe {
public:
    explicit LegitimateProbe(bench::PipeRig& rig)
        : m_rig(rig), m_thread([this] {
              while (!m_stop) {
                  m_trips.push_back(roundTripMs(m_rig));
                  std::this_thread::sleep_for(std::chrono::milliseconds(2));
              }
          }) {}
    ~LegitimateProbe() { stop(); }
    LegitimateProbe(const LegitimateProbe&) = delete;
    LegitimateProbe& operator=(const LegitimateProbe&) = delete;

    void stop() {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    // Only once stopped.
    const std::vector<double>& trips() const { return m_trips; }

private:
    bench::PipeRig& m_rig;
    std::atomic<bool> m_stop{false};
    std::vector<double> m_trips;
    std::thread m_thread;
};

constexpr int32_t kOpenPipeKind = 0, kPipeOpenedKind = 1, kRequestKind = 3, kNotifyKind = 5;

inline net::Packet requestChunk(const char* pipe, uint32_t id, uint32_t total, uint32_t offset,
                                uint32_t size, const void* bytes) {
    net::Packet packet(dm::pipe_protocol::kPipePacketId);
    packet << kRequestKind << pipe << id << 0u << "attack" << total << offset << size;
    packet.write(bytes, size);
    return packet;
}

// A peer written by hand: it sends what it likes and reads only when asked to.
class RawPeer {
public:
    explicit RawPeer(uint32_t port) { m_socket.connect("127.0.0.1", port); }

    // Sends at once, waiting (bounded) while the socket holds much: the attack goes as fast as
    // the server takes it.
    void send(const net::Packet& packet) {
        for (int i = 0; i < 10000 && m_socket.getQueuedSendBytes() > (4u << 20); ++i) {
            m_socket.update();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        m_socket.sendPacket(packet);
        m_socket.update();
    }
    bool open(const char* pipe) {
        net::Packet open(dm::pipe_protocol::kPipePacketId);
        open << kOpenPipeKind << pipe << "attacker";
        send(open);
        const auto start = Clock::now();
        while (msSince(start) < 5000.0 && m_socket.isConnected()) {
            m_socket.update();
            while (net::Packet* packet = m_socket.pollPacket(nullptr)) {
                int32_t kind = -1;
                *packet >> kind;
                if (kind == kPipeOpenedKind) {
                    return true;
                }
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return false;
    }
    // Waits until the server has taken what was sent.
    void drain() {
        for (int i = 0; i < 20000 && m_socket.hasSendsToDo(); ++i) {
            m_socket.update();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    net::Socket& socket() { return m_socket; }

private:
    net::Socket m_socket;
};

inline std::string tripsNote(const std::vector<double>& trips) {
    return "round trip p99 " + fixed(percentile99(trips)) + " ms over " +
           std::to_string(trips.size()) + " trips";
}

inline void attackOverlap() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    peer.open("victim");
    LegitimateProbe probe(rig);
    const std::vector<uint8_t> chunk(64 * 1024, 0xA5);
    for (uint32_t i = 0; i < 20000; ++i) {
        const uint32_t id = i / 8;  // eight chunks per request, all over its first 96 KiB
        const uint32_t offset = (i % 8) * 4096;
        peer.send(requestChunk("victim", id, 1u << 20, offset, 64 * 1024, chunk.data()));
    }
    peer.drain();
    probe.stop();
    const dm::PipeStatistics stats = dm::getPipeStatistics(rig.server().getPipe("victim"));
    printRow(
        "overlap", startMiB, median(probe.trips()), "pipe round trip, median",
        tripsNote(probe.trips()) + "; dropped malformed " + std::to_string(stats.droppedMalformed));
}

inline void attackAnnounce() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    LegitimateProbe probe(rig);
    constexpr uint32_t kAnnounced = 512u << 20;
    for (int p = 0; p < 6; ++p) {
        peer.open(("announce-" + std::to_string(p)).c_str());
    }
    // Round after round for 2 s, each with new ids.
    const auto start = Clock::now();
    for (uint32_t id = 0; msSince(start) < 2000.0; ++id) {
        for (int p = 0; p < 6; ++p) {
            const std::string pipe = "announce-" + std::to_string(p);
            peer.send(requestChunk(pipe.c_str(), id, kAnnounced, 0, 1, "a"));
            peer.send(requestChunk(pipe.c_str(), id, kAnnounced, 200 * 1024, 1, "z"));
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    peer.drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    probe.stop();
    printRow("announce", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()));
}

inline void attackPipes() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    LegitimateProbe probe(rig);
    for (int p = 0; p < 20000; ++p) {
        net::Packet open(dm::pipe_protocol::kPipePacketId);
        open << kOpenPipeKind << ("asked-" + std::to_string(p)).c_str() << "attacker";
        peer.send(open);
        while (peer.socket().pollPacket(nullptr)) {
        }
    }
    peer.drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    probe.stop();
    printRow("pipes", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()));
}

inline void attackStorm() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    LegitimateProbe probe(rig);
    std::vector<std::thread> stormers;
    for (int t = 0; t < 4; ++t) {
        stormers.emplace_back([&rig] {
            for (int i = 0; i < 500; ++i) {
                net::Socket socket;
                socket.connect("127.0.0.1", rig.port());
                socket.update();
            }
        });
    }
    for (std::thread& stormer : stormers) {
        stormer.join();
    }
    probe.stop();
    printRow("storm", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()));
}

// Sends 1 KiB notifications on `pipe` for `ms` (or until `maxBytes`), as fast as the peer's
// socket hands them on, and never reads. Returns the bytes sent.
inline uint64_t flood(RawPeer& peer, const char* pipe, Clock::time_point start, double ms,
                      uint64_t maxBytes) {
    const std::string text(1024, 'f');
    uint64_t sentBytes = 0;
    for (uint32_t id = 0; msSince(start) < ms && sentBytes < maxBytes;) {
        for (int batch = 0; batch < 64 && peer.socket().getQueuedSendBytes() < (4u << 20);
             ++batch, ++id) {
            net::Packet notify(dm::pipe_protocol::kPipePacketId);
            notify << kNotifyKind << pipe << id << 1u << 1024u << 0u << 1024u;
            notify.write(text.data(), 1024);
            peer.socket().sendPacket(notify);
            sentBytes += 1024;
        }
        peer.socket().update();
        if (peer.socket().getQueuedSendBytes() >= (4u << 20)) {
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    }
    return sentBytes;
}

inline void attackNoRead() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    peer.open("echoed");
    dmtest::EchoResponder echo(rig.server().getPipe("echoed"));
    LegitimateProbe probe(rig);
    const double cpuBefore = cpuMs();
    const auto start = Clock::now();
    const uint64_t sentBytes = flood(peer, "echoed", start, 4000.0, UINT64_MAX);
    const double cpuPercent = 100.0 * (cpuMs() - cpuBefore) / msSince(start);
    probe.stop();
    echo.stop();
    printRow("noread", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()) + "; " + std::to_string(sentBytes >> 20) +
                 " MiB sent; process CPU " + std::to_string(static_cast<int>(cpuPercent)) + "%");
}

// As noread, but the server's application takes nothing at all for 3 s (at most 512 MiB).
inline void attackStalled() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    peer.open("stalled");
    LegitimateProbe probe(rig);
    const double cpuBefore = cpuMs();
    const auto start = Clock::now();
    const uint64_t sentBytes = flood(peer, "stalled", start, 3000.0, 512ull << 20);
    const double cpuPercent = 100.0 * (cpuMs() - cpuBefore) / msSince(start);
    probe.stop();
    const dm::PipeStatistics stats = dm::getPipeStatistics(rig.server().getPipe("stalled"));
    printRow("stalled", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()) + "; " + std::to_string(sentBytes >> 20) + " MiB sent, " +
                 std::to_string(stats.incomingNotifications) + " queued; process CPU " +
                 std::to_string(static_cast<int>(cpuPercent)) + "%");
}

// Hands `packet` to the pipe as its manager would.
inline void receiveOn(dm::NetCommunicationPipe& pipe, const net::Packet& packet) {
    net::Packet readable;
    readable.assign(packet.getID(), packet.getData(), packet.getSize());
    dm::pipe_protocol::Message message;
    if (dm::pipe_protocol::decode(readable, message)) {
        pipe.receive(message);
    }
}

inline void attackQueues() {
    const double startMiB = residentMiB();
    constexpr uint32_t kCount = 40000;
    net::Socket unconnected;
    dm::NetCommunicationPipe pipe(nullptr, "queued");
    pipe.attachSocket(&unconnected);
    auto start = Clock::now();
    for (uint32_t id = 0; id < kCount; ++id) {
        net::Packet notify(dm::pipe_protocol::kPipePacketId);
        notify << kNotifyKind << "queued" << id << 1u << 5u << 0u << 5u;
        notify.write("hello", 5);
        receiveOn(pipe, notify);
    }
    uint32_t taken = 0;
    while (!pipe.receiveNotify(nullptr).empty()) {
        ++taken;
    }
    const double notifyMs = msSince(start);
    start = Clock::now();
    for (uint32_t id = 0; id < kCount; ++id) {
        receiveOn(pipe, requestChunk("queued", id, 4, 0, 4, "data"));
    }
    while (!pipe.receiveRequest(nullptr).empty()) {
        ++taken;
    }
    const double requestMs = msSince(start);
    printRow("queues", startMiB, notifyMs + requestMs, "40k+40k queued, taken ms",
             "notifications " + fixed(notifyMs) + " ms, requests " + fixed(requestMs) +
                 " ms; taken " + std::to_string(taken));
}

}  // namespace hostile
