#include "monitor/terminal_mode.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dm/monitor.h"
#include "monitor/game_link.h"
#include "monitor/game_packets.h"
#include "monitor/in_place_store.h"
#include "net/packet.h"
#include "net/socket.h"

namespace dm_tools {

namespace {

constexpr int kPacketsPerBatch = 1000;

using Clock = std::chrono::steady_clock;

const char kCommandHint[] = "dm-monitor: commands: data TEXT, request 0|1|2, ping, help, quit\n";

// Game text may hold anything; control characters would scramble the terminal.
std::string printable(const std::string& text) {
    std::string clean = text;
    for (char& c : clean) {
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t') {
            c = '?';
        }
    }
    return clean;
}

// One heading per group, then its values with the names lined up.
std::vector<std::string> renderTable(const InPlaceStore& store) {
    std::vector<std::string> lines;
    int group = 0;
    bool first = true;
    size_t width = 0;
    for (const auto& [key, entry] : store.entries()) {
        width = std::max(width, key.name.size());
    }
    for (const auto& [key, entry] : store.entries()) {
        if (first || key.group != group) {
            lines.push_back(std::string("== ") + dm::getInPlaceGroupName(key.group) + " ==");
            group = key.group;
            first = false;
        }
        lines.push_back("  " + key.name + std::string(width - key.name.size(), ' ') + "  " +
                        entry.text);
    }
    return lines;
}

std::string counted(size_t count, const char* thing) {
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string describeThread(const d::Profile::ProfileThreadRecord& thread) {
    std::string text = "  thread " + std::to_string(thread.threadId);
    text += thread.name.empty() ? "" : " \"" + printable(thread.name.c_str()) + "\"";
    text += ": " + counted(thread.scopes.size(), "scope");
    if (thread.droppedScopes > 0) {
        text += " (" + std::to_string(thread.droppedScopes) + " older not sent)";
    }
    // Of scopes that took equally long (a scope and the one it wraps often do, to the
    // microsecond), the outer one is named.
    const d::Profile::ProfileScopeRecord* longest = nullptr;
    for (const d::Profile::ProfileScopeRecord& scope : thread.scopes) {
        const uint64_t duration = scope.endMicroseconds - scope.beginMicroseconds;
        const uint64_t longestDuration =
            longest ? longest->endMicroseconds - longest->beginMicroseconds : 0;
        if (!longest || duration > longestDuration ||
            (duration == longestDuration && scope.depth < longest->depth)) {
            longest = &scope;
        }
    }
    if (longest) {
        text += ", longest \"" + printable(longest->name.c_str()) + "\" " +
                std::to_string(longest->endMicroseconds - longest->beginMicroseconds) + " us";
    }
    return text;
}

// Standard output. On a terminal the in-place table stays under the scrolling lines: it is
// erased before a line is printed and drawn again by flush.
class Display : public GamePacketReceiver {
public:
    explicit Display(bool terminal) : m_terminal(terminal) {}

    void line(const std::string& text) {
        eraseTable();
        std::fputs(text.c_str(), stdout);
        std::fputc('\n', stdout);
        m_tableChanged = m_terminal;
        if (!m_terminal) {
            std::fflush(stdout);
        }
    }

    void textLine(int channel, const std::string& text) override {
        line("[" + std::to_string(channel) + "] " + printable(text));
    }

    void inPlace(int group, const std::string& name, const std::string& text) override {
        const std::string cleanName = printable(name);
        const std::string cleanText = printable(text);
        m_table.set(group, cleanName, cleanText);
        if (m_terminal) {
            m_tableChanged = true;
        } else {
            line(std::string("[") + dm::getInPlaceGroupName(group) + "] " + cleanName + " = " +
                 cleanText);
        }
    }

    void profile(const d::Profile::ProfileSnapshot& snapshot) override {
        size_t scopes = 0;
        for (const d::Profile::ProfileThreadRecord& thread : snapshot.threads) {
            scopes += thread.scopes.size();
        }
        line("[profile] " + counted(snapshot.threads.size(), "thread") + ", " +
             counted(scopes, "scope"));
        for (const d::Profile::ProfileThreadRecord& thread : snapshot.threads) {
            line(describeThread(thread));
        }
    }

    void malformed(const char* kind) override {
        line(std::string("[malformed ") + kind + " packet ignored]");
    }

    void unknown(int id, uint32_t size) override {
        line("[packet " + std::to_string(id) + ", " + std::to_string(size) + " bytes]");
    }

    // A command typed on the terminal was echoed under the table; it is shown as a line.
    void echoedInput(const std::string& command) {
        if (m_terminal) {
            ++m_drawnLines;
            line("> " + command);
        }
    }

    void flush() {
        if (m_tableChanged) {
            drawTable();
            m_tableChanged = false;
        }
        std::fflush(stdout);
    }

private:
    void eraseTable() {
        if (m_terminal && m_drawnLines > 0) {
            std::printf("\r\x1b[%zuA\x1b[J", m_drawnLines);
            m_drawnLines = 0;
        }
    }

    void drawTable() {
        eraseTable();
        const size_t width = terminalWidth();
        for (const std::string& row : renderTable(m_table)) {
            std::printf("%s\n", row.substr(0, width - 1).c_str());  // a wrapped row miscounts
            ++m_drawnLines;
        }
    }

    static size_t terminalWidth() {
        winsize size{};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) {
            return size.ws_col;
        }
        return 80;
    }

    const bool m_terminal;
    InPlaceStore m_table;
    size_t m_drawnLines = 0;
    bool m_tableChanged = false;
};

bool parseWholeNumber(const std::string& text, long& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtol(text.c_str(), &end, 10);
    return errno == 0 && end != text.c_str() && *end == 0;
}

enum class CommandResult { Done, Quit };

void sendRequest(const std::string& argument, net::Socket& socket) {
    long value = 0;
    if (!parseWholeNumber(argument, value)) {
        std::fprintf(stderr, "dm-monitor: request needs a whole number (0, 1 or 2)\n");
        return;
    }
    if (value < 0 || value > 2) {
        std::fprintf(stderr,
                     "dm-monitor: request %ld not sent: the game only knows requests 0, 1 "
                     "and 2\n",
                     value);
        return;
    }
    net::Packet packet(dm::monitor_packet::kRequest);
    packet << static_cast<int32_t>(value);
    socket.sendPacket(packet);
}

// Runs one line of input. Mistakes are reported on standard error and change nothing.
CommandResult runCommand(const std::string& line, net::Socket& socket) {
    const size_t split = line.find(' ');
    const std::string verb = line.substr(0, split);
    const std::string argument = split == std::string::npos ? "" : line.substr(split + 1);
    if (verb == "data") {
        net::Packet packet(dm::monitor_packet::kData);
        packet << argument.c_str();
        socket.sendPacket(packet);
    } else if (verb == "request") {
        sendRequest(argument, socket);
    } else if (verb == "ping") {
        socket.sendPacket(net::Packet(dm::monitor_packet::kKeepAlive));
    } else if (verb == "quit" || verb == "exit") {
        return CommandResult::Quit;
    } else if (verb == "help") {
        std::fputs(kCommandHint, stderr);
    } else if (!verb.empty()) {
        std::fprintf(stderr, "dm-monitor: unknown command \"%s\" (data, request, ping, quit)\n",
                     verb.c_str());
    }
    return CommandResult::Done;
}

// Lines typed on standard input, read without blocking the packet loop.
class InputLines {
public:
    bool open() const { return m_open; }
    // Reads what is there (call when poll says so); complete lines go to `lines`.
    void read(std::vector<std::string>& lines) {
        char buffer[4096];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof(buffer));
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            return;
        }
        if (got <= 0) {
            m_open = false;
            if (!m_pending.empty()) {
                lines.push_back(m_pending);  // a last line without its newline
            }
            m_pending.clear();
            return;
        }
        m_pending.append(buffer, static_cast<size_t>(got));
        size_t end;
        while ((end = m_pending.find('\n')) != std::string::npos) {
            std::string line = m_pending.substr(0, end);
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            lines.push_back(line);
            m_pending.erase(0, end + 1);
        }
    }

private:
    bool m_open = true;
    std::string m_pending;
};

class MonitorRun {
public:
    MonitorRun(const MonitorOptions& options, net::Socket& socket)
        : m_options(options), m_socket(socket), m_display(isatty(STDOUT_FILENO) != 0) {
        if (options.timeoutSeconds >= 0) {
            m_deadline = Clock::now() + std::chrono::microseconds(
                                            static_cast<int64_t>(options.timeoutSeconds * 1e6));
            m_hasDeadline = true;
        }
    }

    int run() {
        const bool echoes = isatty(STDIN_FILENO) != 0;
        if (echoes) {
            std::fputs(kCommandHint, stderr);
        }
        for (;;) {
            // Packets first: finishing the connect may already have read some, and no poll
            // would report those.
            m_socket.update();
            const Batch batch = receivePackets();
            if (batch == Batch::CountReached) {
                return finish(kExitDone);
            }
            if (!m_socket.isConnected()) {
                std::fprintf(stderr, "dm-monitor: the game closed the connection\n");
                return finish(kExitDone);
            }
            m_display.flush();
            if (m_hasDeadline && Clock::now() >= m_deadline) {
                return finish(m_options.count >= 0 ? kExitTimedOut : kExitDone);
            }
            const bool inputReady = waitForWork(batch == Batch::MoreWaiting);
            if (inputReady && handleInput(echoes)) {
                return finish(kExitDone);
            }
        }
    }

private:
    enum class Batch { Drained, MoreWaiting, CountReached };

    // Waits until the game sent something, a line was typed, or the deadline came (not at all
    // with `dontWait`). True when standard input has something to read.
    bool waitForWork(bool dontWait) {
        const zu::WaitHandle socketHandle = m_socket.getWaitHandle();
        pollfd entries[2] = {
            {static_cast<int>(socketHandle.handle), pollEventsOf(socketHandle), 0},
            {m_input.open() ? STDIN_FILENO : -1, POLLIN, 0},
        };
        int timeoutMs = dontWait ? 0 : -1;
        if (m_hasDeadline && !dontWait) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(m_deadline - Clock::now());
            timeoutMs = static_cast<int>(std::max<int64_t>(0, left.count() + 1));
        }
        if (poll(entries, 2, timeoutMs) <= 0) {
            return false;
        }
        return entries[1].revents != 0;
    }

    // Shows what has arrived, in bounded batches so that typed commands are still heard while
    // the game floods the connection.
    Batch receivePackets() {
        for (int taken = 0; taken < kPacketsPerBatch; ++taken) {
            net::Packet* packet = m_socket.pollPacket(nullptr);
            if (!packet) {
                return Batch::Drained;
            }
            readGamePacket(*packet, m_display);
            ++m_received;
            if (m_options.count >= 0 && m_received >= m_options.count) {
                return Batch::CountReached;
            }
        }
        return Batch::MoreWaiting;
    }

    // True when the run should end: quit, or end of input without --count.
    bool handleInput(bool echoes) {
        std::vector<std::string> lines;
        m_input.read(lines);
        for (const std::string& line : lines) {
            if (echoes) {
                m_display.echoedInput(line);
            }
            if (runCommand(line, m_socket) == CommandResult::Quit) {
                return true;
            }
        }
        return !m_input.open() && m_options.count < 0;
    }

    int finish(int code) {
        m_socket.update();
        m_display.flush();
        m_socket.close();
        return code;
    }

    const MonitorOptions& m_options;
    net::Socket& m_socket;
    Display m_display;
    InputLines m_input;
    long m_received = 0;
    bool m_hasDeadline = false;
    Clock::time_point m_deadline;
};

}  // namespace

int runTerminalMonitor(const MonitorOptions& options) {
    net::Socket socket;
    if (!connectToGame(socket, options.host, options.port, kConnectTimeout)) {
        std::fprintf(stderr, "dm-monitor: cannot connect to %s:%u\n", options.host.c_str(),
                     options.port);
        return kExitNoConnection;
    }
    std::fprintf(stderr, "dm-monitor: connected to %s:%u\n", options.host.c_str(), options.port);
    MonitorRun run(options, socket);
    return run.run();
}

}  // namespace dm_tools
