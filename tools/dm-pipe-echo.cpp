// dm-pipe-echo: both ends of the pipe "echo", for trying pipes out by hand. Run with --help
// for the arguments; the texts in kDescription below say what each mode does.
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "CLI/CLI.hpp"
#include "dm/comm.h"
#include "net/socket.h"
#include "zu/event.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace {

constexpr const char* kPipeName = "echo";

constexpr const char* kDescription =
    "Both ends of the pipe \"echo\", for trying communication pipes out by hand.\n"
    "  server: serves the pipe; answers every request with its own text and data and every\n"
    "          notification with \"echo: \" and its text.\n"
    "  client: connects to a server, sends requests with binary data and a notification,\n"
    "          checks the answers and prints them; exits 0 when all came back intact.\n";

// How long a client waits for the pipe to open and for each answer.
double g_patienceSeconds = 10.0;

std::atomic<bool> g_interrupted{false};
zu::Event* g_work = nullptr;  // signalled by the pipe's callbacks and by an interrupt

void onInterrupt(int) {
    g_interrupted = true;
    if (g_work) {
        g_work->signal();  // an eventfd write: safe in a signal handler
    }
}

void wakeMainLoop(void*, dm::CommunicationPipe*) {
    g_work->signal();
}

// --- Server ---

// Answers every request that has arrived; returns how many.
int answerRequests(dm::CommunicationPipe& pipe) {
    int answered = 0;
    for (zu::InplaceString<128> text; !(text = pipe.receiveRequest(nullptr)).empty();) {
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        pipe.respond(text.c_str(), data, size);
        std::printf("server: answered \"%s\" with %u bytes\n", text.c_str(), size);
        ++answered;
    }
    return answered;
}

void answerNotifications(dm::CommunicationPipe& pipe) {
    for (zu::InplaceString<128> text; !(text = pipe.receiveNotify(nullptr)).empty();) {
        std::printf("server: notification \"%s\"\n", text.c_str());
        pipe.sendNotify((std::string("echo: ") + text.c_str()).c_str(), 0);
    }
}

// Requests and notifications with an empty text cannot be answered (the pipe drops them, as
// "" means "nothing arrived"); say so, so that whoever sent them does not wait in silence.
void reportEmptyTexts(const dm::CommunicationPipe& pipe, uint64_t& reported) {
    const uint64_t dropped = dm::getPipeStatistics(&pipe).droppedEmptyText;
    if (dropped != reported) {
        std::printf("server: dropped %llu message(s) with an empty text; they get no answer\n",
                    static_cast<unsigned long long>(dropped - reported));
        reported = dropped;
    }
}

// Prints a line whenever a client opens the pipe and whenever it leaves. The pipe's connection
// callback counts attachments, so that a client that came and went between two looks of the
// main loop still gets both lines.
class ClientWatch {
public:
    explicit ClientWatch(dm::CommunicationPipe& pipe) : m_pipe(pipe) {
        pipe.setConnectionCallback({this, &ClientWatch::onAttached});
    }
    ~ClientWatch() { m_pipe.setConnectionCallback({}); }
    ClientWatch(const ClientWatch&) = delete;
    ClientWatch& operator=(const ClientWatch&) = delete;

    void report() {
        const uint32_t attached = m_attached.load();
        if (attached != m_seen) {
            if (m_connected) {
                printLeft();  // replaced by the newcomer
            }
            m_seen = attached;
            m_connected = true;
            m_peer = m_pipe.getConnectedIP().c_str();
            const char* name = m_pipe.getManager()->getRemoteName();
            std::printf("server: client \"%s\" at %s connected\n", name,
                        m_peer.empty() ? "?" : m_peer.c_str());
        }
        if (m_connected && !m_pipe.isConnected()) {
            printLeft();
            m_connected = false;
        }
    }

private:
    static void onAttached(void* context, dm::CommunicationPipe*) {
        ++static_cast<ClientWatch*>(context)->m_attached;
        g_work->signal();
    }
    void printLeft() {
        std::printf("server: client at %s disconnected\n", m_peer.empty() ? "?" : m_peer.c_str());
    }

    dm::CommunicationPipe& m_pipe;
    std::atomic<uint32_t> m_attached{0};
    uint32_t m_seen = 0;
    bool m_connected = false;
    std::string m_peer;
};

int runServer(int port, int limit) {
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsServer("dm-pipe-echo", port, 1, true);
    uint32_t listening = 0;
    manager->getHost(&listening);
    if (listening == 0) {
        std::fprintf(stderr, "dm-pipe-echo: cannot listen on port %d\n", port);
        dm::deinitCommunicationManagers();
        return 1;
    }
    dm::CommunicationPipe* pipe = manager->getPipe(kPipeName);
    pipe->setRequestCallback({nullptr, wakeMainLoop});
    pipe->setNotifyCallback({nullptr, wakeMainLoop});
    ClientWatch clients(*pipe);
    std::printf("server: pipe \"%s\" on port %u\n", kPipeName, listening);
    std::fflush(stdout);
    int answered = 0;
    uint64_t emptyReported = 0;
    // With a limit, the client that made it up is served until it leaves.
    const auto done = [&] { return limit > 0 && answered >= limit && !pipe->isConnected(); };
    while (!g_interrupted && !done()) {
        g_work->wait(100);  // the bound catches what arrived before the callbacks were set
        clients.report();
        answerNotifications(*pipe);
        answered += answerRequests(*pipe);
        reportEmptyTexts(*pipe, emptyReported);
        std::fflush(stdout);
    }
    clients.report();
    dm::deinitCommunicationManagers();
    return 0;
}

// --- Client ---

bool waitFor(const std::function<bool()>& condition) {
    zu::Timer timer;
    while (!condition()) {
        if (g_interrupted || timer.getElapsedSeconds() > g_patienceSeconds) {
            return false;
        }
        g_work->wait(10);
    }
    return true;
}

// Bytes that differ from request to request, so that the check means something.
std::vector<uint8_t> requestData(int number) {
    std::vector<uint8_t> data(static_cast<size_t>(number) * 1000);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i * 7 + number);
    }
    return data;
}

// Sends the requests one after another on a thread of their own, so that the main thread can
// give up on a server that does not answer: destroying the manager releases the request.
bool sendRequests(dm::CommunicationPipe& pipe, int count) {
    std::atomic<int> good{0};
    std::atomic<bool> finished{false};
    std::thread asker([&] {
        for (int number = 1; number <= count; ++number) {
            std::string text = "request " + std::to_string(number);
            std::vector<uint8_t> data = requestData(number);
            std::vector<uint8_t> answer(data.size());
            uint32_t size = 0;
            zu::InplaceString<128> reply = pipe.sendRequest(
                text.c_str(), 0, answer.data(), static_cast<uint32_t>(answer.size()), &size,
                data.data(), static_cast<uint32_t>(data.size()));
            if (reply.empty()) {
                break;  // released: the manager is going
            }
            const bool intact = text == reply.c_str() && size == data.size() && answer == data;
            std::printf("client: \"%s\" answered \"%s\" with %u bytes, %s\n", text.c_str(),
                        reply.c_str(), size, intact ? "intact" : "CORRUPTED");
            good += intact ? 1 : 0;
        }
        finished = true;
        g_work->signal();
    });
    const bool done = waitFor([&] { return finished.load(); });
    if (!done) {
        std::printf("client: no answer from the server\n");
        dm::deinitCommunicationManagers();
    }
    asker.join();
    return done && good == count;
}

bool exchangeNotification(dm::CommunicationPipe& pipe) {
    zu::InplaceString<128> echoed;
    if (!pipe.sendNotify("goodbye", 0) ||
        !waitFor([&] { return !(echoed = pipe.receiveNotify(nullptr)).empty(); })) {
        std::printf("client: the notification was not echoed\n");
        return false;
    }
    std::printf("client: notification \"goodbye\" came back as \"%s\"\n", echoed.c_str());
    return true;
}

// A pipe manager retries a connection silently; a person who typed a wrong port wants to know
// at once. One plain connection attempt, bounded by the patience, tells.
bool serverAnswers(const char* host, int port) {
    net::Socket probe;
    if (!probe.connect(host, static_cast<uint32_t>(port))) {
        std::fprintf(stderr, "dm-pipe-echo: cannot connect to %s:%d (unknown host?)\n", host, port);
        return false;
    }
    zu::Timer timer;
    while (probe.isConnecting() && timer.getElapsedSeconds() < g_patienceSeconds &&
           !g_interrupted) {
        const zu::WaitHandle handle = probe.getWaitHandle();
        zu::waitForAny(&handle, 1, 10);
        probe.update();
    }
    if (probe.isConnected()) {
        return true;
    }
    std::fprintf(stderr, "dm-pipe-echo: nothing answers on %s:%d (%s)\n", host, port,
                 probe.isConnecting() ? "no reply in time" : "connection refused");
    return false;
}

int runClient(const char* host, int port, int count) {
    if (!serverAnswers(host, port)) {
        return 1;
    }
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsClient("dm-pipe-echo client", host, port);
    dm::CommunicationPipe* pipe = manager->getPipe(kPipeName);
    pipe->setNotifyCallback({nullptr, wakeMainLoop});
    if (!waitFor([&] { return pipe->isConnected(); })) {
        std::printf("client: could not open pipe \"%s\" on %s:%d\n", kPipeName, host, port);
        dm::deinitCommunicationManagers();
        return 1;
    }
    std::printf("client: pipe \"%s\" open to \"%s\"\n", kPipeName, manager->getRemoteName());
    bool ok = sendRequests(*pipe, count);
    ok = ok && exchangeNotification(*pipe);
    dm::deinitCommunicationManagers();
    return ok ? 0 : 1;
}

}  // namespace

struct Arguments {
    std::string mode;
    std::string host = "127.0.0.1";
    int port = 0;
    int count = -1;  // not given
};

// Fills `arguments`; returns the exit code when the program is to end here (help, or an error
// that CLI11 has reported), else -1.
int parseArguments(int argc, char** argv, Arguments& arguments) {
    CLI::App app(kDescription, "dm-pipe-echo");
    app.require_subcommand(1);
    CLI::App* server =
        app.add_subcommand("server", "serve the pipe \"echo\" (until interrupted, or see N)");
    server
        ->add_option("PORT", arguments.port, "TCP port to listen on; 0 picks a free one (printed)")
        ->required()
        ->check(CLI::Range(0, 65535));
    server
        ->add_option("N", arguments.count,
                     "end once N requests are answered and that client has left")
        ->check(CLI::Range(1, 1000000));
    CLI::App* client = app.add_subcommand("client", "ask a dm-pipe-echo server");
    client->add_option("HOST", arguments.host, "the server's host name or IPv4 address")
        ->required();
    client->add_option("PORT", arguments.port, "the server's TCP port")
        ->required()
        ->check(CLI::Range(1, 65535));
    client->add_option("N", arguments.count, "requests to send (default 3)")
        ->check(CLI::Range(1, 1000000));
    client
        ->add_option("--timeout", g_patienceSeconds,
                     "seconds to wait for the connection, the pipe and each answer")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 3600.0));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? 0 : 2;
    }
    arguments.mode = server->parsed() ? "server" : "client";
    return -1;
}

int main(int argc, char** argv) {
    zu::setThreadName(zu::getCurrentThreadId(), "dm-pipe-echo main");
    zu::Event work;
    g_work = &work;
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    Arguments arguments;
    int result = parseArguments(argc, argv, arguments);
    if (result >= 0) {
        g_work = nullptr;
        return result;
    }
    if (arguments.mode == "server") {
        result = runServer(arguments.port, arguments.count > 0 ? arguments.count : 0);
    } else {
        result = runClient(arguments.host.c_str(), arguments.port,
                           arguments.count > 0 ? arguments.count : 3);
    }
    std::fflush(stdout);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    g_work = nullptr;
    return result;
}
