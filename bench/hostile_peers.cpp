// Hostile peers against a game: each attack runs in a child process of its own (so that its
// peak resident memory is its own) while a legitimate peer measures what the game still gives
// it. One table row per attack. The pipe attacks go against a pipe server that a legitimate
// pipe client makes request round trips with (one every 2 ms) during the attack:
//
//   overlap      a peer sends 20,000 request chunks that repeat and overlap each other
//   announce     a peer opens 6 pipes and sends on each 16 requests of two 1-byte chunks that
//                announce 512 MiB (the first byte, and one further out)
//   pipes        a peer asks for 20,000 different pipes
//   storm        4 threads connect and drop 2,000 connections as fast as they can
//   noread       a peer floods 1 KiB notifications for 4 s and never reads; the server echoes
//                each one back (as dm-pipe-echo does)
//   queues       40,000 notifications, then 40,000 requests, arrive on one pipe and are taken
//                (no network; the "legit." column is the time to take them all)
//   descriptors  the process's descriptor table is full and 32 peers connect to a pipe server
//   flood        four monitors send requests as fast as TCP takes them; a fifth asks the game
//                for an answer (request -> printed reply) and the game's frame time is taken
//   tokenizer    the console prints a 64 KiB line "1.1.1.…x"; then a legitimate 80-character line
//
//   hostile_peers [ATTACK]                  all attacks, or the one named
//   hostile_peers --before OLD_BINARY [ATTACK]
//       runs each attack in OLD_BINARY (this benchmark built against an older library) too and
//       prints one table with both peaks and round trips
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench_comm_rigs.h"
#include "comm/net_communication_pipe.h"
#include "comm/pipe_protocol.h"
#include "dm/console.h"
#include "dm/monitor.h"
#include "net/packet.h"
#include "net/socket.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return -1.0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double percentile99(std::vector<double> values) {
    if (values.empty()) {
        return -1.0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() * 99 / 100];
}

std::string fixed(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

double residentMiB() {
    long size = 0;
    long pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &size, &pages) != 2) {
            pages = 0;
        }
        std::fclose(statm);
    }
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1048576.0;
}

double peakResidentMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

double cpuMs() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto ms = [](const timeval& time) { return time.tv_sec * 1000.0 + time.tv_usec / 1000.0; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

// Set by --row: print one machine-readable line instead of a table row.
bool g_rowOnly = false;

void printRow(const char* attack, double startMiB, double legitimateMs, const char* what,
              const std::string& note) {
    if (g_rowOnly) {
        std::printf("ROW\t%s\t%.1f\t%.3f\t%s\n", attack, peakResidentMiB(), legitimateMs,
                    note.c_str());
    } else {
        std::printf("| %-11s | %8.1f | %8.1f | %10.3f | %-24s | %s\n", attack, startMiB,
                    peakResidentMiB(), legitimateMs, what, note.c_str());
    }
    std::fflush(stdout);
}

// --- descriptors ---

int openDescriptorCount() {
    int count = 0;
    for (int fd = 0; fd < 4096; ++fd) {
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

double roundTripMs(bench::PipeRig& rig) {
    uint8_t data[bench::kSmallSize] = {1, 2, 3};
    uint8_t answer[bench::kSmallSize];
    const auto start = Clock::now();
    rig.echo(0, data, sizeof(data), answer);
    return msSince(start);
}

void attackDescriptors() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    const uint32_t port = rig.port();
    // Warm up first: the pipes keep the events of finished calls for the next ones, so that the
    // round trips below need no new descriptor.
    std::vector<double> quiet;
    for (int trip = 0; trip < 100; ++trip) {
        quiet.push_back(roundTripMs(rig));
    }
    constexpr int kAttackers = 32;
    std::vector<int> attackers;
    for (int i = 0; i < kAttackers; ++i) {
        attackers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(openDescriptorCount() + 8);
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> filler;
    for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) {
        filler.push_back(fd);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<double> trips;
    const double cpuBefore = cpuMs();
    const auto start = Clock::now();
    for (int trip = 0; trip < 400; ++trip) {
        if (trip % 10 == 0 && trip / 10 < kAttackers) {
            connect(attackers[trip / 10], reinterpret_cast<sockaddr*>(&address), sizeof(address));
        }
        trips.push_back(roundTripMs(rig));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // a request every 2 ms
    }
    const double wallMs = msSince(start);
    const double cpuPercent = 100.0 * (cpuMs() - cpuBefore) / wallMs;
    for (int fd : filler) {
        close(fd);
    }
    for (int fd : attackers) {
        close(fd);
    }
    printRow("descriptors", startMiB, median(trips), "pipe round trip, median",
             "process CPU " + std::to_string(static_cast<int>(cpuPercent)) +
                 "% of one core; round trip before the attack " + fixed(median(quiet)) +
                 " ms, p99 during it " + fixed(percentile99(trips)) + " ms");
}

// --- pipe attacks ---

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

net::Packet requestChunk(const char* pipe, uint32_t id, uint32_t total, uint32_t offset,
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

std::string tripsNote(const std::vector<double>& trips) {
    return "round trip p99 " + fixed(percentile99(trips)) + " ms over " +
           std::to_string(trips.size()) + " trips";
}

void attackOverlap() {
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

void attackAnnounce() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    LegitimateProbe probe(rig);
    constexpr uint32_t kAnnounced = 512u << 20;
    for (int p = 0; p < 6; ++p) {
        const std::string pipe = "announce-" + std::to_string(p);
        peer.open(pipe.c_str());
        for (uint32_t id = 0; id < 16; ++id) {
            peer.send(requestChunk(pipe.c_str(), id, kAnnounced, 0, 1, "a"));
            peer.send(requestChunk(pipe.c_str(), id, kAnnounced, 200 * 1024, 1, "z"));
        }
    }
    peer.drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    probe.stop();
    printRow("announce", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()));
}

void attackPipes() {
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

void attackStorm() {
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

void attackNoRead() {
    const double startMiB = residentMiB();
    bench::PipeRig rig(1, false);
    RawPeer peer(rig.port());
    peer.open("echoed");
    dmtest::EchoResponder echo(rig.server().getPipe("echoed"));
    LegitimateProbe probe(rig);
    const std::string text(1024, 'n');
    uint64_t sentBytes = 0;
    const double cpuBefore = cpuMs();
    const auto start = Clock::now();
    for (uint32_t id = 0; msSince(start) < 4000.0; ++id) {
        net::Packet notify(dm::pipe_protocol::kPipePacketId);
        notify << kNotifyKind << "echoed" << id << 1u << 1024u << 0u << 1024u;
        notify.write(text.data(), 1024);
        // Never reads: only what the server takes leaves.
        if (peer.socket().getQueuedSendBytes() < (4u << 20)) {
            peer.socket().sendPacket(notify);
            sentBytes += 1024;
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        peer.socket().update();
    }
    const double cpuPercent = 100.0 * (cpuMs() - cpuBefore) / msSince(start);
    probe.stop();
    echo.stop();
    printRow("noread", startMiB, median(probe.trips()), "pipe round trip, median",
             tripsNote(probe.trips()) + "; " + std::to_string(sentBytes >> 20) +
                 " MiB sent; process CPU " + std::to_string(static_cast<int>(cpuPercent)) + "%");
}

// Hands `packet` to the pipe as its manager would.
void receiveOn(dm::NetCommunicationPipe& pipe, const net::Packet& packet) {
    net::Packet readable;
    readable.assign(packet.getID(), packet.getData(), packet.getSize());
    dm::pipe_protocol::Message message;
    if (dm::pipe_protocol::decode(readable, message)) {
        pipe.receive(message);
    }
}

void attackQueues() {
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

// --- flood ---

class FloodingMonitor {
public:
    explicit FloodingMonitor(int port) : m_thread([this, port] { run(port); }) {}
    ~FloodingMonitor() {
        m_stop = true;
        m_thread.join();
    }
    FloodingMonitor(const FloodingMonitor&) = delete;
    FloodingMonitor& operator=(const FloodingMonitor&) = delete;

private:
    void run(int port) {
        net::Packet request(dm::monitor_packet::kRequest);
        request << int32_t{2};
        net::Socket socket;
        socket.connect("127.0.0.1", static_cast<uint32_t>(port));
        while (!m_stop) {
            for (int i = 0; i < 256 && socket.getQueuedSendBytes() < (1u << 20); ++i) {
                socket.sendPacket(request);
            }
            socket.update();
            while (socket.pollPacket(nullptr)) {
            }
            std::this_thread::yield();
        }
    }

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

void attackFlood() {
    const double startMiB = residentMiB();
    dm::init(0);
    const int port = dm::getMonitorPort();
    std::atomic<bool> stop{false};
    std::vector<double> frames;
    std::thread game([&] {
        while (!stop) {
            const auto start = Clock::now();
            dm::update();
            if (dm::checkAndClearRequest(0)) {
                dm::print("pong");
            }
            frames.push_back(msSince(start));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::vector<std::unique_ptr<FloodingMonitor>> flooders;
    for (int i = 0; i < 4; ++i) {
        flooders.push_back(std::make_unique<FloodingMonitor>(port));
    }
    net::Socket monitor;
    monitor.connect("127.0.0.1", static_cast<uint32_t>(port));
    net::Packet ping(dm::monitor_packet::kRequest);
    ping << int32_t{0};
    std::vector<double> trips;
    for (int trip = 0; trip < 100; ++trip) {
        const auto start = Clock::now();
        monitor.sendPacket(ping);
        bool answered = false;
        while (!answered && msSince(start) < 10000.0) {
            monitor.update();
            while (net::Packet* packet = monitor.pollPacket(nullptr)) {
                answered = answered || packet->getID() == dm::monitor_packet::kText;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        trips.push_back(msSince(start));
    }
    flooders.clear();
    stop = true;
    game.join();
    dm::deinit();
    printRow("flood", startMiB, median(trips), "monitor round trip, median",
             "round trip p99 " + fixed(percentile99(trips)) + " ms; game frame (update) median " +
                 fixed(median(frames)) + " ms, p99 " + fixed(percentile99(frames)) + " ms");
}

// --- tokenizer ---

class NullShapeEngine : public dm::ShapeEngineInterface {
public:
    void begin() override {}
    void setTextSize(float) override {}
    float getLineHeight() override { return 0.025f; }
    m::Vector2Template<float> getTextExtent(const char* text) override {
        return {0.01f * static_cast<float>(std::strlen(text)), 0.025f};
    }
    void setColor(const g::Color&) override {}
    void drawRectangle(const m::Vector2Template<float>&,
                       const m::Vector2Template<float>&) override {}
    void drawText(const m::Vector2Template<float>&, const char*) override {}
};

void attackTokenizer() {
    const double startMiB = residentMiB();
    NullShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.05f);
    std::string hostile;
    while (hostile.size() < 64 * 1024) {
        hostile += "1.";
    }
    hostile += "x\n";
    const auto attackStart = Clock::now();
    window.printString(hostile.c_str());
    const double attackMs = msSince(attackStart);
    const std::string line =
        "streaming: loaded chunk 12 of level 3 in 4.25 ms, 2048 KiB, 0x1f flags\n";
    std::vector<double> prints;
    for (int i = 0; i < 50; ++i) {
        const auto start = Clock::now();
        window.printString(line.c_str());
        prints.push_back(msSince(start));
    }
    printRow("tokenizer", startMiB, median(prints), "80-char print, median",
             "the 64 KiB line took " + fixed(attackMs) + " ms");
}

struct Attack {
    const char* name;
    void (*run)();
};

const Attack kAttacks[] = {
    {"overlap", attackOverlap},
    {"announce", attackAnnounce},
    {"pipes", attackPipes},
    {"storm", attackStorm},
    {"noread", attackNoRead},
    {"queues", attackQueues},
    {"descriptors", attackDescriptors},
    {"flood", attackFlood},
    {"tokenizer", attackTokenizer},
};

void runInChild(void (*attack)()) {
    const pid_t child = fork();
    if (child == 0) {
        attack();
        std::fflush(stdout);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
}

// The ROW line that `binary --row attack` prints, split at tabs (empty when it printed none).
std::vector<std::string> rowOf(const std::string& binary, const char* attack) {
    const std::string command = "'" + binary + "' --row " + attack;
    std::vector<std::string> fields;
    FILE* output = popen(command.c_str(), "r");
    if (!output) {
        return fields;
    }
    char line[4096];
    while (std::fgets(line, sizeof(line), output)) {
        if (std::strncmp(line, "ROW\t", 4) != 0) {
            continue;
        }
        std::string rest(line + 4);
        rest.erase(rest.find_last_not_of("\r\n") + 1);
        for (size_t at; (at = rest.find('\t')) != std::string::npos; rest.erase(0, at + 1)) {
            fields.push_back(rest.substr(0, at));
        }
        fields.push_back(rest);
    }
    pclose(output);
    return fields;
}

// Each attack in the older binary and in this one, alternating, on one table.
void compare(const std::string& before, const std::string& self, const std::string& only) {
    std::printf(
        "| attack      | peak MiB before | peak MiB after | legit. ms before | legit. ms "
        "after | before: note / after: note\n");
    std::printf(
        "|-------------|-----------------|----------------|------------------|----------"
        "------|----\n");
    for (const Attack& attack : kAttacks) {
        if (!only.empty() && only != attack.name) {
            continue;
        }
        const std::vector<std::string> old = rowOf(before, attack.name);
        const std::vector<std::string> now = rowOf(self, attack.name);
        auto field = [](const std::vector<std::string>& row, size_t i) {
            return i < row.size() ? row[i] : std::string("(failed)");
        };
        std::printf("| %-11s | %15s | %14s | %16s | %15s | %s / %s\n", attack.name,
                    field(old, 1).c_str(), field(now, 1).c_str(), field(old, 2).c_str(),
                    field(now, 2).c_str(), field(old, 3).c_str(), field(now, 3).c_str());
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string before;
    if (args.size() >= 2 && args[0] == "--before") {
        before = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (!args.empty() && args[0] == "--row") {
        g_rowOnly = true;
        args.erase(args.begin());
    }
    const std::string only = args.empty() ? "" : args[0];
    if (!before.empty()) {
        compare(before, argv[0], only);
        return 0;
    }
    if (!g_rowOnly) {
        std::printf(
            "| attack      | RSS MiB  | peak MiB | legit. ms  | measured                 | note\n");
        std::printf(
            "|-------------|----------|----------|------------|--------------------------|-----\n");
        std::fflush(stdout);
    }
    for (const Attack& attack : kAttacks) {
        if (only.empty() || only == attack.name) {
            runInChild(attack.run);
        }
    }
    return 0;
}
