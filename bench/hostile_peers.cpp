// Hostile peers against a game: each attack runs in a child process of its own (so that its
// peak resident memory is its own) while a legitimate peer measures what the game still gives
// it. One table row per attack. The pipe attacks go against a pipe server that a legitimate
// pipe client makes request round trips with (one every 2 ms) during the attack:
//
//   overlap      a peer sends 20,000 request chunks that repeat and overlap each other
//   announce     a peer opens 6 pipes and sends on each, for 2 s, requests of two 1-byte chunks
//                that announce 512 MiB (the first byte, and one 200 KiB further out)
//   pipes        a peer asks for 20,000 different pipes
//   storm        4 threads connect and drop 2,000 connections as fast as they can
//   noread       a peer floods 1 KiB notifications for 4 s and never reads; the server echoes
//                each one back (as dm-pipe-echo does)
//   stalled      as noread, but the server's application takes nothing at all (3 s, 512 MiB
//                at most); process CPU shows whether the server spins while it waits
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
#include "dm/console.h"
#include "dm/monitor.h"
#include "hostile_measure.h"
#include "hostile_pipe_attacks.h"
#include "net/packet.h"
#include "net/socket.h"

namespace {

using namespace hostile;

// --- descriptors ---

int openDescriptorCount() {
    int count = 0;
    for (int fd = 0; fd < 4096; ++fd) {
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
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
    {"overlap", attackOverlap},     {"announce", attackAnnounce},       {"pipes", attackPipes},
    {"storm", attackStorm},         {"noread", attackNoRead},           {"stalled", attackStalled},
    {"queues", attackQueues},       {"descriptors", attackDescriptors}, {"flood", attackFlood},
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
