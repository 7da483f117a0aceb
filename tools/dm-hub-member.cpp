// dm-hub-member: joins a dm-hub (or any BroadcastServer) on one pipe, shows what reaches it
// and answers requests, for trying a hub out and for scripts.
//
//   dm-hub-member --port N [--host H] [--name NAME] [--pipe PIPE] [--notify TEXT]
//                 [--until-notifications K] [--commands]
//
// Once the pipe is open it prints `joined "HUBcI" as member I`, then sends --notify if given.
// Every notification is printed as `notification "TEXT" from member I` ("from the hub" for
// the hub's own); every request is answered with the text `NAME answers "TEXT"` and the data
// `data from NAME`, and printed as `answered "TEXT"`. With --commands, lines on standard input
// are commands: `notify TEXT`, `request I TEXT` (asks member I and prints
// `response "TEXT" with data "DATA"`), and `quit`; the end of input quits too. Without
// --commands the member runs until SIGINT or SIGTERM, or until K notifications have arrived.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "dm/endpoints.h"
#include "zu/event.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace {

constexpr uint32_t kWaitMs = 20;
constexpr double kJoinPatienceSeconds = 10.0;
constexpr uint32_t kHubId = 0xFFFFFFFFu;
constexpr uint32_t kNoId = 0xFFFFFFFEu;
constexpr uint32_t kResponseCapacity = 0x10000;

std::atomic<bool> g_interrupted{false};
zu::Event* g_work = nullptr;  // signalled by the pipe's callbacks and by an interrupt

void onInterrupt(int) {
    g_interrupted = true;
    if (g_work) {
        g_work->signal();
    }
}

void wake(void*, dm::CommunicationPipe*) {
    g_work->signal();
}

// A member's manager at the hub is named "<hub>c<id>": the id is the number at its end.
uint32_t memberIdFromName(const char* name) {
    const size_t length = std::strlen(name);
    size_t start = length;
    while (start > 0 && std::isdigit(static_cast<unsigned char>(name[start - 1]))) {
        --start;
    }
    return start == length ? kNoId : static_cast<uint32_t>(std::strtoul(name + start, nullptr, 10));
}

void say(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

class Member {
public:
    Member(const std::string& name, const std::string& pipeName)
        : m_name(name), m_client(name.c_str()), m_pipe(m_client.getPipe(pipeName.c_str())) {
        m_pipe->setNotifyCallback({nullptr, wake});
        m_pipe->setRequestCallback({nullptr, wake});
    }
    ~Member() {
        // Requests still waiting are let go when the manager goes.
        dm::deinitCommunicationManager(m_name.c_str());
        for (std::thread& asker : m_askers) {
            asker.join();
        }
    }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    bool join(const std::string& host, int port) {
        m_client.connect(host.c_str(), port);
        zu::Timer timer;
        while (!m_pipe->isConnected()) {
            if (g_interrupted || timer.getElapsedSeconds() > kJoinPatienceSeconds) {
                return false;
            }
            g_work->wait(kWaitMs);
        }
        const char* hubManager = m_client.getManager()->getRemoteName();
        m_id = memberIdFromName(hubManager);
        say("joined \"" + std::string(hubManager) + "\" as member " + std::to_string(m_id));
        return true;
    }

    // Handles what has arrived; returns the number of notifications.
    int serve() {
        int notifications = 0;
        uint32_t value = 0;
        for (zu::InplaceString<128> text; !(text = m_pipe->receiveNotify(&value)).empty();) {
            say("notification \"" + std::string(text.c_str()) + "\" from " + sender(value));
            ++notifications;
        }
        for (zu::InplaceString<128> text; !(text = m_pipe->receiveRequest(nullptr)).empty();) {
            const std::string answer = m_name + " answers \"" + text.c_str() + "\"";
            const std::string data = "data from " + m_name;
            m_pipe->respond(answer.c_str(), data.data(), static_cast<uint32_t>(data.size()));
            say("answered \"" + std::string(text.c_str()) + "\"");
        }
        return notifications;
    }

    void notify(const std::string& text) {
        const bool sent = m_pipe->sendNotify(text.c_str(), 0);
        say(sent ? "sent \"" + text + "\"" : "could not send \"" + text + "\"");
    }

    // Asks on a thread of its own, so that this member goes on answering meanwhile.
    void request(uint32_t memberId, const std::string& text) {
        m_askers.emplace_back([this, memberId, text] {
            std::vector<char> data(kResponseCapacity);
            uint32_t size = 0;
            const zu::InplaceString<128> response = m_pipe->sendRequest(
                text.c_str(), memberId, data.data(), kResponseCapacity, &size, nullptr, 0);
            if (size > kResponseCapacity) {
                size = kResponseCapacity;
            }
            say("response \"" + std::string(response.c_str()) + "\" with data \"" +
                std::string(data.data(), size) + "\"");
        });
    }

private:
    // Member 0's notifications arrive numbered with the receiver's own id (a number of 0 on a
    // pipe stands for the sending manager's id).
    std::string sender(uint32_t value) const {
        if (value == kHubId) {
            return "the hub";
        }
        return "member " + std::to_string(value == m_id ? 0 : value);
    }

    std::string m_name;
    dm::Client m_client;
    dm::CommunicationPipe* m_pipe;
    uint32_t m_id = kNoId;
    std::vector<std::thread> m_askers;
};

// Reads one command line from standard input if one is ready. False at the end of input.
bool readCommand(std::string& pending, std::vector<std::string>& lines) {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, 0) <= 0) {
        return true;
    }
    char buffer[512];
    const ssize_t count = read(STDIN_FILENO, buffer, sizeof buffer);
    if (count <= 0) {
        return false;
    }
    pending.append(buffer, static_cast<size_t>(count));
    for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
        lines.push_back(pending.substr(0, end));
        pending.erase(0, end + 1);
    }
    return true;
}

// False for `quit`.
bool runCommand(Member& member, const std::string& line) {
    if (line == "quit") {
        return false;
    }
    if (line.compare(0, 7, "notify ") == 0) {
        member.notify(line.substr(7));
    } else if (line.compare(0, 8, "request ") == 0) {
        char* textStart = nullptr;
        const unsigned long id = std::strtoul(line.c_str() + 8, &textStart, 10);
        member.request(static_cast<uint32_t>(id), *textStart ? textStart + 1 : "");
    } else if (!line.empty()) {
        say("unknown command: " + line);
    }
    return true;
}

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string name = "dm-hub-member";
    std::string pipe = "chat";
    std::string notify;
    int untilNotifications = 0;
    bool commands = false;
};

int runMember(const Options& options) {
    Member member(options.name, options.pipe);
    if (!member.join(options.host, options.port)) {
        say("could not join the hub at " + options.host + ":" + std::to_string(options.port));
        return 1;
    }
    if (!options.notify.empty()) {
        member.notify(options.notify);
    }
    int notifications = 0;
    std::string pending;
    std::vector<std::string> lines;
    for (bool running = true; running && !g_interrupted;) {
        g_work->wait(kWaitMs);
        notifications += member.serve();
        if (options.untilNotifications > 0 && notifications >= options.untilNotifications) {
            break;
        }
        if (options.commands) {
            running = readCommand(pending, lines);
            for (const std::string& line : lines) {
                running = running && runCommand(member, line);
            }
            lines.clear();
        }
    }
    member.serve();
    say("leaving");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"dm-hub-member: joins a hub on one pipe, prints what arrives, answers requests"};
    Options options;
    app.add_option("--port", options.port, "the hub's port")->required();
    app.add_option("--host", options.host, "the hub's host");
    app.add_option("--name", options.name, "this member's manager name");
    app.add_option("--pipe", options.pipe, "the pipe to talk on");
    app.add_option("--notify", options.notify, "a notification to send once joined");
    app.add_option("--until-notifications", options.untilNotifications,
                   "leave once this many notifications have arrived");
    app.add_flag("--commands", options.commands, "take commands from standard input");
    CLI11_PARSE(app, argc, argv);

    zu::setThreadName(zu::getCurrentThreadId(), "dm-hub-member main");
    zu::Event work;
    g_work = &work;
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    const int result = runMember(options);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    g_work = nullptr;
    return result;
}
