#include "monitor/game_link.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "dm/monitor.h"
#include "net/packet.h"
#include "net/socket.h"

namespace dm_tools {

namespace {

constexpr int kPacketsPerBatch = 1000;
using Clock = std::chrono::steady_clock;

}  // namespace

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

bool connectToGame(net::Socket& socket, const std::string& host, uint32_t port,
                   std::chrono::milliseconds timeout, const std::atomic<bool>* stop) {
    if (!socket.connect(host.c_str(), port)) {
        return false;
    }
    const Clock::time_point deadline = Clock::now() + timeout;
    while (socket.isConnecting() && Clock::now() < deadline && !(stop && *stop)) {
        pollfd entry{static_cast<int>(socket.getWaitHandle().handle), POLLOUT, 0};
        poll(&entry, 1, 50);
        socket.update();
    }
    return socket.isConnected();
}

GameLink::GameLink(std::string host, uint32_t port, GameLinkListener& listener)
    : m_host(std::move(host)), m_port(port), m_listener(listener) {
    if (pipe(m_wakePipe) == 0) {
        fcntl(m_wakePipe[0], F_SETFL, O_NONBLOCK);
        fcntl(m_wakePipe[1], F_SETFL, O_NONBLOCK);
    }
}

GameLink::~GameLink() {
    stop();
    for (int fd : m_wakePipe) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void GameLink::start() {
    m_thread = std::thread([this] { run(); });
}

void GameLink::stop() {
    m_stop = true;
    wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool GameLink::sendData(const std::string& text) {
    return queue(Command{dm::monitor_packet::kData, 0, text});
}

bool GameLink::sendRequest(int request) {
    return queue(Command{dm::monitor_packet::kRequest, request, ""});
}

bool GameLink::queue(Command command) {
    if (!m_connected) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_commands.size() >= kMaxQueuedCommands) {
            return false;
        }
        m_commands.push_back(std::move(command));
    }
    wake();
    return true;
}

void GameLink::wake() {
    const char byte = 1;
    if (m_wakePipe[1] >= 0) {
        [[maybe_unused]] const ssize_t written = write(m_wakePipe[1], &byte, 1);  // full: awake
    }
}

void GameLink::drainWakeups() {
    char buffer[64];
    while (m_wakePipe[0] >= 0 && read(m_wakePipe[0], buffer, sizeof(buffer)) > 0) {
    }
}

void GameLink::pause(std::chrono::milliseconds time) {
    pollfd entry{m_wakePipe[0], POLLIN, 0};
    poll(&entry, 1, static_cast<int>(time.count()));
    drainWakeups();
}

void GameLink::run() {
    uint64_t connects = 0;
    m_listener.linkState(LinkState::Connecting, connects);
    while (!m_stop) {
        net::Socket socket;
        if (!connectToGame(socket, m_host, m_port, kConnectTimeout, &m_stop)) {
            pause(kRetryDelay);
            continue;
        }
        m_listener.linkState(LinkState::Connected, ++connects);
        m_connected = true;
        serve(socket);
        m_connected = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_commands.clear();
        }
        socket.close();
        if (!m_stop) {
            m_listener.linkState(LinkState::Lost, connects);
            pause(kRetryDelay);
        }
    }
}

void GameLink::serve(net::Socket& socket) {
    while (!m_stop) {
        socket.update();
        bool more = false;
        for (int taken = 0; taken < kPacketsPerBatch; ++taken) {
            net::Packet* packet = socket.pollPacket(nullptr);
            if (!packet) {
                break;
            }
            readGamePacket(*packet, m_listener);
            more = taken + 1 == kPacketsPerBatch;
        }
        sendQueued(socket);
        if (!socket.isConnected()) {
            return;
        }
        if (!more) {
            waitForWork(socket);
        }
    }
}

void GameLink::sendQueued(net::Socket& socket) {
    std::deque<Command> commands;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        commands.swap(m_commands);
    }
    for (const Command& command : commands) {
        net::Packet packet(command.packetId);
        if (command.packetId == dm::monitor_packet::kData) {
            packet << command.data.c_str();
        } else {
            packet << command.request;
        }
        socket.sendPacket(packet);
    }
}

void GameLink::waitForWork(net::Socket& socket) {
    const zu::WaitHandle handle = socket.getWaitHandle();
    pollfd entries[2] = {
        {static_cast<int>(handle.handle), pollEventsOf(handle), 0},
        {m_wakePipe[0], POLLIN, 0},
    };
    poll(entries, 2, 1000);
    drainWakeups();
}

}  // namespace dm_tools
