// The web monitor end to end: text lines per second from a game (this process, dm::print) through
// `dm-monitor --web` to a reader of /events (an HTTP client, as a page reads it), alone and with
// the real page open in headless Chromium as well, next to the terminal monitor writing the
// same lines to a pipe; then the tool's memory while a game sends 1,000,000 lines and 200,000
// distinct in-place names with the page open.
//
// The game keeps at most kWindow lines in flight (sent but not yet seen by the reader), so
// nothing is dropped and the figure is what the whole chain sustains. Rounds alternate between
// the two monitors; the table shows medians. Run it pinned (taskset -c 0) and unpinned.
#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dm/monitor.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kLinesPerRound = 200000;
constexpr uint64_t kMemoryLines = 1000000;
constexpr uint64_t kMemoryNames = 200000;
constexpr uint64_t kWindow = 2000;
constexpr int kRounds = 5;
const char kSampleText[] = "streaming: level chunk %llu loaded";

// A child process whose standard output we read.
struct Tool {
    pid_t pid = -1;
    int output = -1;
};

Tool spawnTool(const std::vector<std::string>& args, bool ownGroup = false) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        return {};
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (ownGroup) {
            setpgid(0, 0);  // Chromium's helpers go with it when the group is killed
        }
        dup2(pipeEnds[1], STDOUT_FILENO);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDERR_FILENO);
        std::vector<char*> argv;
        std::vector<std::string> copies(args);
        for (std::string& arg : copies) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(pipeEnds[1]);
    return {pid, pipeEnds[0]};
}

std::string readLine(int fd) {
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

void stopTool(Tool& tool) {
    kill(tool.pid, SIGTERM);
    waitpid(tool.pid, nullptr, 0);
    close(tool.output);
}

// Resident and peak resident memory of a process, in KiB.
std::pair<long, long> memoryOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long rss = 0, peak = 0;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> rss;
        } else if (key == "VmHWM:") {
            status >> peak;
        }
    }
    return {rss, peak};
}

// Runs the game's frames until `done` or 20 s.
bool updateUntil(const std::function<bool()>& done) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        dm::update();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Sends `lines` texts with at most kWindow unseen; returns lines per second.
double sendLines(uint64_t lines, const std::atomic<uint64_t>& seen, uint64_t seenBefore) {
    const auto start = Clock::now();
    for (uint64_t i = 0; i < lines; ++i) {
        while (i - (seen.load() - seenBefore) > kWindow) {
            dm::update();
            std::this_thread::yield();
        }
        dm::print(kSampleText, static_cast<unsigned long long>(i));
        if (i % 256 == 0) {
            dm::update();
        }
    }
    updateUntil([&] { return seen.load() - seenBefore >= lines; });
    return static_cast<double>(lines) / std::chrono::duration<double>(Clock::now() - start).count();
}

const char kChromium[] = "/usr/bin/chromium";

// The page in headless Chromium, for as long as the object lives.
class BrowserPage {
public:
    explicit BrowserPage(int webPort) {
        char folder[] = "/tmp/dm-bench-chromium-XXXXXX";
        m_profile = mkdtemp(folder) ? folder : "";
        m_browser = spawnTool(
            {kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
             "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--user-data-dir=" + m_profile, "--remote-debugging-port=0",
             "http://127.0.0.1:" + std::to_string(webPort) + "/"},
            true);
    }
    ~BrowserPage() {
        kill(-m_browser.pid, SIGKILL);
        waitpid(m_browser.pid, nullptr, 0);
        close(m_browser.output);
        std::system(("rm -rf " + m_profile).c_str());
    }
    BrowserPage(const BrowserPage&) = delete;
    BrowserPage& operator=(const BrowserPage&) = delete;

private:
    Tool m_browser;
    std::string m_profile;
};

// dm-monitor --web and a page reading its events; with `browser`, the real page too.
class WebRun {
public:
    explicit WebRun(int gamePort, bool browser = false) {
        m_tool = spawnTool({DM_MONITOR_TOOL, "--web", "0", "127.0.0.1", std::to_string(gamePort)});
        const std::string line = readLine(m_tool.output);
        const size_t at = line.find("127.0.0.1:");
        m_webPort = at == std::string::npos ? 0 : std::atoi(line.c_str() + at + 10);
        m_page = std::thread([this] { readPage(); });
        const size_t pages = browser ? 2 : 1;
        if (browser) {
            m_browser = std::make_unique<BrowserPage>(m_webPort);
        }
        updateUntil([&] {
            return dm::getMonitorConnectionCount() > 0 && m_pageOpen.load() &&
                   state("pages") >= pages;
        });
    }
    ~WebRun() {
        m_browser.reset();
        stopTool(m_tool);
        m_page.join();
    }
    // A counter from /api/state.
    uint64_t state(const char* name) const {
        httplib::Client client("127.0.0.1", m_webPort);
        const auto result = client.Get("/api/state");
        if (!result || result->status != 200) {
            return 0;
        }
        const std::string key = std::string("\"") + name + "\":";
        const size_t at = result->body.find(key);
        return at == std::string::npos ? 0 : std::stoull(result->body.substr(at + key.size()));
    }
    const std::atomic<uint64_t>& seen() const { return m_seen; }
    pid_t pid() const { return m_tool.pid; }

private:
    void readPage() {
        httplib::Client client("127.0.0.1", m_webPort);
        client.set_read_timeout(std::chrono::seconds(120));
        static const char kTextEvent[] = "\"type\":\"text\"}";
        const size_t keep = sizeof(kTextEvent) - 2;
        std::string carry;
        client.Get("/events", [&](const char* data, size_t length) {
            m_pageOpen = true;
            std::string text = carry + std::string(data, length);
            uint64_t count = 0;
            for (size_t at = text.find(kTextEvent); at != std::string::npos;
                 at = text.find(kTextEvent, at + 1)) {
                ++count;
            }
            m_seen += count;
            carry = text.size() > keep ? text.substr(text.size() - keep) : text;
            return true;
        });
    }

    Tool m_tool;
    int m_webPort = 0;
    std::unique_ptr<BrowserPage> m_browser;
    std::thread m_page;
    std::atomic<bool> m_pageOpen{false};
    std::atomic<uint64_t> m_seen{0};
};

// The terminal monitor, its output going into a pipe that a thread drains.
class TerminalRun {
public:
    TerminalRun(int gamePort, uint64_t lines) {
        m_tool = spawnTool({DM_MONITOR_TOOL, "--count", std::to_string(lines), "127.0.0.1",
                            std::to_string(gamePort)});
        m_reader = std::thread([this] {
            char buffer[65536];
            ssize_t got;
            while ((got = read(m_tool.output, buffer, sizeof(buffer))) > 0) {
                m_seen += static_cast<uint64_t>(std::count(buffer, buffer + got, '\n'));
            }
        });
        updateUntil([&] { return dm::getMonitorConnectionCount() > 0; });
    }
    ~TerminalRun() {
        waitpid(m_tool.pid, nullptr, 0);
        m_reader.join();
        close(m_tool.output);
    }
    const std::atomic<uint64_t>& seen() const { return m_seen; }

private:
    Tool m_tool;
    std::thread m_reader;
    std::atomic<uint64_t> m_seen{0};
};

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void waitForMonitorsToLeave() {
    updateUntil([] { return dm::getMonitorConnectionCount() == 0; });
}

}  // namespace

int main() {
    dm::init(0);
    const int port = dm::getMonitorPort();
    const bool haveBrowser = access(kChromium, X_OK) == 0;
    std::vector<double> web, browser, terminal;
    uint64_t restarts = 0;
    for (int round = 0; round < kRounds; ++round) {
        {
            WebRun run(port);
            web.push_back(sendLines(kLinesPerRound, run.seen(), 0));
        }
        waitForMonitorsToLeave();
        if (haveBrowser) {
            WebRun run(port, true);
            browser.push_back(sendLines(kLinesPerRound, run.seen(), 0));
            restarts += run.state("pagesRestarted");
        }
        waitForMonitorsToLeave();
        {
            TerminalRun run(port, kLinesPerRound);
            terminal.push_back(sendLines(kLinesPerRound, run.seen(), 0));
        }
        waitForMonitorsToLeave();
    }
    std::printf("text lines from the game to the monitor (%llu lines a round, median of %d)\n",
                static_cast<unsigned long long>(kLinesPerRound), kRounds);
    std::printf("| monitor | lines/s | ratio |\n|---|---:|---:|\n");
    std::printf("| dm-monitor --web, events read over HTTP | %.0f | %.2f |\n", median(web),
                median(web) / median(terminal));
    if (haveBrowser) {
        std::printf("| dm-monitor --web, same and the page open in Chromium | %.0f | %.2f |\n",
                    median(browser), median(browser) / median(terminal));
    }
    std::printf("| dm-monitor on a pipe (peer) | %.0f | 1.00 |\n", median(terminal));
    if (haveBrowser) {
        std::printf("(the Chromium page fell behind and started over %llu times in %d rounds)\n",
                    static_cast<unsigned long long>(restarts), kRounds);
    }
    std::printf("\n");

    WebRun run(port, haveBrowser);
    const auto [startRss, startPeak] = memoryOf(run.pid());
    std::printf("dm-monitor --web memory (KiB)%s\n", haveBrowser ? ", page open in Chromium" : "");
    std::printf("| after | resident | peak resident |\n|---|---:|---:|\n");
    std::printf("| start | %ld | %ld |\n", startRss, startPeak);
    uint64_t sent = 0;
    for (uint64_t mark : {uint64_t{100000}, uint64_t{500000}, kMemoryLines}) {
        sendLines(mark - sent, run.seen(), sent);
        sent = mark;
        const auto [rss, peak] = memoryOf(run.pid());
        std::printf("| %llu lines | %ld | %ld |\n", static_cast<unsigned long long>(mark), rss,
                    peak);
    }
    for (uint64_t i = 0; i < kMemoryNames; ++i) {
        dm::printInPlace(1, ("value " + std::to_string(i)).c_str(), "%llu",
                         static_cast<unsigned long long>(i));
        if (i % 256 == 0) {
            dm::update();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    dm::print("names done");
    updateUntil([&] { return run.seen().load() > sent; });
    const auto [rss, peak] = memoryOf(run.pid());
    std::printf("| + %llu in-place names | %ld | %ld |\n",
                static_cast<unsigned long long>(kMemoryNames), rss, peak);
    dm::deinit();
    return 0;
}
