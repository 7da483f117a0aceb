// dm-monitor: watches a running game through its debug-monitor port.
//
// Text the game prints scrolls by with its channel; in-place values are kept as a table grouped
// by group name, redrawn in place under the text on a terminal (one line per change when the
// output is not a terminal); each profile snapshot is summarised. Lines typed on standard input
// send data and requests back to the game.
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "d/profile.h"
#include "dm/monitor.h"
#include "net/packet.h"
#include "net/socket.h"

namespace {

constexpr int kTextPacketId = dm::monitor_packet::kText;
constexpr int kInPlacePacketId = dm::monitor_packet::kInPlace;
constexpr int kProfilePacketId = dm::monitor_packet::kProfile;
constexpr int kRequestPacketId = dm::monitor_packet::kRequest;
constexpr int kKeepAlivePacketId = dm::monitor_packet::kKeepAlive;
constexpr int kDataPacketId = dm::monitor_packet::kData;

constexpr int kExitDone = 0;
constexpr int kExitNoConnection = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTimedOut = 3;

constexpr int kConnectTimeoutMs = 5000;
constexpr int kPacketsPerBatch = 1000;

using Clock = std::chrono::steady_clock;

const char kUsage[] =
    "usage: dm-monitor [--count N] [--timeout SECONDS] HOST PORT\n"
    "\n"
    "Connects to a game's debug-monitor port and shows what it sends: text as\n"
    "\"[channel] text\", in-place values as a table by group (one line per change when\n"
    "the output is not a terminal), and a summary of each profile snapshot.\n"
    "\n"
    "Commands on standard input:\n"
    "  data TEXT     hand TEXT to the game's data callback\n"
    "  request N     raise the game's request flag N (0, 1 or 2)\n"
    "  ping          send a keep-alive\n"
    "  quit          disconnect and exit\n"
    "\n"
    "  --count N          exit after N packets from the game; end of input then does not\n"
    "                     end the run\n"
    "  --timeout SECONDS  exit after this long\n"
    "\n"
    "Exit status: 0 at end of input, quit, disconnect or --count; 1 when the game cannot be\n"
    "reached; 2 for bad usage; 3 when --timeout ends the run before --count packets came.\n";

struct Options {
    std::string host;
    uint32_t port = 0;
    long count = -1;             // packets to wait for; -1: no limit
    double timeoutSeconds = -1;  // -1: no limit
};

bool parseNumber(const char* text, double minimum, double maximum, double& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtod(text, &end);
    return errno == 0 && end != text && *end == 0 && value >= minimum && value <= maximum;
}

bool parseOptions(int argc, char** argv, Options& options) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        double value = 0;
        if ((argument == "--count" || argument == "--timeout") && i + 1 < argc) {
            if (!parseNumber(argv[++i], 0, 1e9, value)) {
                return false;
            }
            if (argument == "--count") {
                options.count = static_cast<long>(value);
            } else {
                options.timeoutSeconds = value;
            }
        } else if (argument.rfind("--", 0) == 0) {
            return false;
        } else {
            positional.push_back(argument);
        }
    }
    double port = 0;
    if (positional.size() != 2 || !parseNumber(positional[1].c_str(), 1, 65535, port)) {
        return false;
    }
    options.host = positional[0];
    options.port = static_cast<uint32_t>(port);
    return true;
}

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

class InPlaceTable {
public:
    void set(int group, const std::string& name, const std::string& text) {
        m_groups[group][name] = text;
    }

    // One heading per group, then its values with the names lined up.
    std::vector<std::string> render() const {
        std::vector<std::string> lines;
        for (const auto& [group, values] : m_groups) {
            lines.push_back(std::string("== ") + dm::getInPlaceGroupName(group) + " ==");
            size_t width = 0;
            for (const auto& value : values) {
                width = std::max(width, value.first.size());
            }
            for (const auto& [name, text] : values) {
                lines.push_back("  " + name + std::string(width - name.size(), ' ') + "  " + text);
            }
        }
        return lines;
    }

private:
    std::map<int, std::map<std::string, std::string>> m_groups;
};

// Standard output. On a terminal the in-place table stays under the scrolling lines: it is
// erased before a line is printed and drawn again by flush.
class Display {
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

    void inPlace(int group, const std::string& name, const std::string& text) {
        m_table.set(group, name, text);
        if (m_terminal) {
            m_tableChanged = true;
        } else {
            line(std::string("[") + dm::getInPlaceGroupName(group) + "] " + name + " = " + text);
        }
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
        for (const std::string& row : m_table.render()) {
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
    InPlaceTable m_table;
    size_t m_drawnLines = 0;
    bool m_tableChanged = false;
};

void showText(net::Packet& packet, Display& display) {
    int32_t channel = 0;
    const char* text = "";
    packet >> channel >> text;
    if (packet.hasError()) {
        display.line("[malformed text packet ignored]");
        return;
    }
    std::string rest = text;
    while (!rest.empty() && rest.back() == '\n') {
        rest.pop_back();
    }
    const std::string prefix = "[" + std::to_string(channel) + "] ";
    size_t start = 0;
    for (;;) {
        const size_t end = rest.find('\n', start);
        display.line(prefix + printable(rest.substr(start, end - start)));
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
}

void showInPlace(net::Packet& packet, Display& display) {
    int32_t group = 0;
    const char* name = "";
    const char* text = "";
    packet >> group >> name >> text;
    if (packet.hasError()) {
        display.line("[malformed in-place packet ignored]");
        return;
    }
    display.inPlace(group, printable(name), printable(text));
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
    const d::Profile::ProfileScopeRecord* longest = nullptr;
    for (const d::Profile::ProfileScopeRecord& scope : thread.scopes) {
        const uint64_t duration = scope.endMicroseconds - scope.beginMicroseconds;
        if (!longest || duration > longest->endMicroseconds - longest->beginMicroseconds) {
            longest = &scope;
        }
    }
    if (longest) {
        text += ", longest \"" + printable(longest->name.c_str()) + "\" " +
                std::to_string(longest->endMicroseconds - longest->beginMicroseconds) + " us";
    }
    return text;
}

void showProfile(net::Packet& packet, Display& display) {
    d::Profile::ProfileSnapshot snapshot;
    packet >> snapshot;
    if (packet.hasError()) {
        display.line("[malformed profile packet ignored]");
        return;
    }
    size_t scopes = 0;
    for (const d::Profile::ProfileThreadRecord& thread : snapshot.threads) {
        scopes += thread.scopes.size();
    }
    display.line("[profile] " + counted(snapshot.threads.size(), "thread") + ", " +
                 counted(scopes, "scope"));
    for (const d::Profile::ProfileThreadRecord& thread : snapshot.threads) {
        display.line(describeThread(thread));
    }
}

void showPacket(net::Packet& packet, Display& display) {
    switch (packet.getID()) {
        case kTextPacketId:
            showText(packet, display);
            break;
        case kInPlacePacketId:
            showInPlace(packet, display);
            break;
        case kProfilePacketId:
            showProfile(packet, display);
            break;
        default:
            display.line("[packet " + std::to_string(packet.getID()) + ", " +
                         std::to_string(packet.getSize()) + " bytes]");
            break;
    }
}

enum class CommandResult { Done, Quit };

// Runs one line of input. Mistakes are reported on standard error and change nothing.
CommandResult runCommand(const std::string& line, net::Socket& socket) {
    const size_t split = line.find(' ');
    const std::string verb = line.substr(0, split);
    const std::string argument = split == std::string::npos ? "" : line.substr(split + 1);
    if (verb == "data") {
        net::Packet packet(kDataPacketId);
        packet << argument.c_str();
        socket.sendPacket(packet);
    } else if (verb == "request") {
        double value = 0;
        if (!parseNumber(argument.c_str(), INT32_MIN, INT32_MAX, value) ||
            value != static_cast<int32_t>(value)) {
            std::fprintf(stderr, "dm-monitor: request needs a whole number\n");
            return CommandResult::Done;
        }
        net::Packet packet(kRequestPacketId);
        packet << static_cast<int32_t>(value);
        socket.sendPacket(packet);
    } else if (verb == "ping") {
        socket.sendPacket(net::Packet(kKeepAlivePacketId));
    } else if (verb == "quit" || verb == "exit") {
        return CommandResult::Quit;
    } else if (!verb.empty()) {
        std::fprintf(stderr, "dm-monitor: unknown command \"%s\" (data, request, ping, quit)\n",
                     verb.c_str());
    }
    return CommandResult::Done;
}

bool connectTo(net::Socket& socket, const Options& options) {
    if (!socket.connect(options.host.c_str(), options.port)) {
        return false;
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kConnectTimeoutMs);
    while (socket.isConnecting() && Clock::now() < deadline) {
        pollfd entry{static_cast<int>(socket.getWaitHandle().handle), POLLOUT, 0};
        poll(&entry, 1, 50);
        socket.update();
    }
    return socket.isConnected();
}

short pollEventsOf(const zu::WaitHandle& handle) {
    switch (handle.kind) {
        case zu::WaitHandle::SocketRead:
            return POLLIN;
        case zu::WaitHandle::SocketWrite:
            return POLLOUT;
        case zu::WaitHandle::SocketReadWrite:
            return POLLIN | POLLOUT;
        default:
            return 0;
    }
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
    MonitorRun(const Options& options, net::Socket& socket)
        : m_options(options), m_socket(socket), m_display(isatty(STDOUT_FILENO) != 0) {
        if (options.timeoutSeconds >= 0) {
            m_deadline = Clock::now() + std::chrono::microseconds(
                                            static_cast<int64_t>(options.timeoutSeconds * 1e6));
            m_hasDeadline = true;
        }
    }

    int run() {
        const bool echoes = isatty(STDIN_FILENO) != 0;
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
            showPacket(*packet, m_display);
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

    const Options& m_options;
    net::Socket& m_socket;
    Display m_display;
    InputLines m_input;
    long m_received = 0;
    bool m_hasDeadline = false;
    Clock::time_point m_deadline;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    net::Socket socket;
    if (!connectTo(socket, options)) {
        std::fprintf(stderr, "dm-monitor: cannot connect to %s:%u\n", options.host.c_str(),
                     options.port);
        return kExitNoConnection;
    }
    std::fprintf(stderr, "dm-monitor: connected to %s:%u\n", options.host.c_str(), options.port);
    MonitorRun run(options, socket);
    return run.run();
}
