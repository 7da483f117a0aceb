// dm-fileserver: the host side of the remote file system. A game with NetworkFileSystem
// installed reads and writes the files of the mapped folders through it.
//
//   dm-fileserver --port N --map data/=./assets --map cfg/=./config [--read-only] [--verbose]
//
// It serves the pipe "fileserver" (protocol: docs/fileserver-protocol.md) with the library's
// own server pipe manager. Requests are answered only from inside the mapped folders: paths
// with "..", absolute paths, drive prefixes and links that lead out are refused. PORT 0 picks a
// free port; the port is printed on start.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "fileserver/command_handler.h"
#include "fileserver/folder_map.h"
#include "fileserver/mapped_read.h"
#include "zu/event.h"
#include "zu/thread.h"

namespace {

constexpr const char* kPipeName = "fileserver";

std::atomic<bool> g_interrupted{false};
std::atomic<uint32_t> g_connections{0};
zu::Event* g_work = nullptr;  // signalled by the pipe's callbacks and by an interrupt

void onInterrupt(int) {
    g_interrupted = true;
    if (g_work != nullptr) {
        g_work->signal();  // an eventfd write: safe in a signal handler
    }
}

void onRequest(void*, dm::CommunicationPipe*) {
    g_work->signal();
}

void onConnection(void*, dm::CommunicationPipe*) {
    ++g_connections;
    g_work->signal();
}

struct Options {
    int port = 0;
    std::vector<std::string> maps;
    bool readOnly = false;
    bool verbose = false;
};

void printResult(const char* command, const fileserver_tool::Answer& answer, double milliseconds) {
    if (answer.data != nullptr) {
        std::printf("%s -> %s, %u bytes (%.2f ms)\n", command, answer.text.c_str(), answer.dataSize,
                    milliseconds);
    } else {
        std::printf("%s -> %s (%.2f ms)\n", command, answer.text.c_str(), milliseconds);
    }
}

// Answers every request that has arrived.
void answerRequests(dm::CommunicationPipe& pipe, fileserver_tool::CommandHandler& handler,
                    bool verbose) {
    for (zu::InplaceString<128> text; !(text = pipe.receiveRequest(nullptr)).empty();) {
        const auto start = std::chrono::steady_clock::now();
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        fileserver_tool::Answer answer = handler.handle(text.c_str(), data, size);
        pipe.respond(answer.text.c_str(), answer.data, answer.dataSize);
        if (verbose) {
            const std::chrono::duration<double, std::milli> took =
                std::chrono::steady_clock::now() - start;
            printResult(text.c_str(), answer, took.count());
            std::fflush(stdout);
        }
    }
}

// Prints a line for each client that came or went since the last call.
void reportConnections(dm::CommunicationPipe& pipe, uint32_t& seenConnections, bool& connected) {
    const uint32_t connections = g_connections.load();
    const bool nowConnected = pipe.isConnected();
    if (connected && (connections != seenConnections || !nowConnected)) {
        std::printf("client disconnected\n");
        connected = false;
    }
    if (!connected && nowConnected) {
        std::printf("client connected from %s\n", pipe.getConnectedIP().c_str());
        connected = true;
        seenConnections = connections;
    }
    std::fflush(stdout);
}

int serve(const Options& options, const fileserver_tool::FolderMap& folders) {
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsServer("dm-fileserver", options.port, 1, true);
    uint32_t port = 0;
    manager->getHost(&port);
    if (port == 0) {
        std::fprintf(stderr, "dm-fileserver: cannot listen on port %d\n", options.port);
        dm::deinitCommunicationManagers();
        return 1;
    }
    dm::CommunicationPipe* pipe = manager->getPipe(kPipeName);
    pipe->setRequestCallback({nullptr, onRequest});
    pipe->setConnectionCallback({nullptr, onConnection});
    std::printf("dm-fileserver: serving pipe \"%s\" on port %u%s\n", kPipeName, port,
                options.readOnly ? " (read-only)" : "");
    for (const fileserver_tool::MappedFolder& folder : folders.folders()) {
        std::printf("  %s -> %s\n", folder.name.c_str(), folder.hostRoot.c_str());
    }
    std::fflush(stdout);
    fileserver_tool::CommandHandler handler(folders, options.readOnly);
    uint32_t seenConnections = 0;
    bool connected = false;
    while (!g_interrupted) {
        g_work->wait(100);  // the bound also notices a client that left
        reportConnections(*pipe, seenConnections, connected);
        answerRequests(*pipe, handler, options.verbose);
    }
    dm::deinitCommunicationManagers();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"dm-fileserver: serves host folders to a game's NetworkFileSystem"};
    Options options;
    app.add_option("--port", options.port, "port to listen on (0: a free one, printed)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--map", options.maps, "a mapped folder, FOLDER/=HOST-FOLDER")->required();
    app.add_flag("--read-only", options.readOnly, "refuse every change to the host folders");
    app.add_flag("--verbose", options.verbose, "print each command with its result and time");
    CLI11_PARSE(app, argc, argv);

    fileserver_tool::FolderMap folders;
    for (const std::string& mapping : options.maps) {
        std::string error;
        if (!folders.add(mapping, error)) {
            std::fprintf(stderr, "dm-fileserver: %s\n", error.c_str());
            return 2;
        }
    }
    zu::setThreadName(zu::getCurrentThreadId(), "dm-fileserver main");
    zu::Event work;
    g_work = &work;
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    signal(SIGPIPE, SIG_IGN);
    fileserver_tool::MappedRead::installBusErrorGuard();  // host files may shrink mid-read
    const int result = serve(options, folders);
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    g_work = nullptr;
    return result;
}
