// Hostile peers against a game: each attack runs in a child process of its own (so that its
// peak resident memory is its own) while a legitimate peer measures what the game still gives
// it. One table row per attack:
//
//   descriptors  the process's descriptor table is full and 32 peers connect to a pipe server;
//                a pipe client already connected makes request round trips meanwhile
//   flood        four monitors send requests as fast as TCP takes them; a fifth asks the game
//                for an answer (request -> printed reply) and the game's frame time is taken
//   tokenizer    the console prints a 64 KiB line "1.1.1.…x"; then a legitimate 80-character line
//
//   hostile_peers [descriptors|flood|tokenizer]   (all three when none is named)
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

void printRow(const char* attack, double startMiB, double legitimateMs, const char* what,
              const std::string& note) {
    std::printf("| %-11s | %8.1f | %8.1f | %10.3f | %-24s | %s\n", attack, startMiB,
                peakResidentMiB(), legitimateMs, what, note.c_str());
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
    bench::PipeRig rig(1);
    uint32_t port = 0;
    dm::getCommunicationPipeManager("bench-pipe-server")->getHost(&port);
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

}  // namespace

int main(int argc, char** argv) {
    const std::string only = argc > 1 ? argv[1] : "";
    std::printf(
        "| attack      | RSS MiB  | peak MiB | legit. ms  | measured                 | note\n");
    std::printf(
        "|-------------|----------|----------|------------|--------------------------|-----\n");
    std::fflush(stdout);
    if (only.empty() || only == "descriptors") {
        runInChild(attackDescriptors);
    }
    if (only.empty() || only == "flood") {
        runInChild(attackFlood);
    }
    if (only.empty() || only == "tokenizer") {
        runInChild(attackTokenizer);
    }
    return 0;
}
