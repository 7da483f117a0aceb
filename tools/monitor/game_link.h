// The web monitor's connection to the game: a thread that connects, reads what the game sends,
// sends the page's data and requests, and connects again whenever the game goes away (it was
// restarted, say), so that a page left open follows the game across restarts.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "monitor/game_packets.h"

namespace net {
class Socket;
}
namespace zu {
struct WaitHandle;
}

namespace dm_tools {

constexpr std::chrono::milliseconds kConnectTimeout{5000};

// Connects `socket` to host:port, waiting at most `timeout` (or until `stop` is set). True
// when connected.
bool connectToGame(net::Socket& socket, const std::string& host, uint32_t port,
                   std::chrono::milliseconds timeout, const std::atomic<bool>* stop = nullptr);

// The poll() events that a socket's wait handle asks for.
short pollEventsOf(const zu::WaitHandle& handle);

enum class LinkState { Connecting, Connected, Lost };

class GameLinkListener : public GamePacketReceiver {
public:
    // `connects` counts the connections made so far (1 for the first).
    virtual void linkState(LinkState state, uint64_t connects) = 0;
};

class GameLink {
public:
    static constexpr size_t kMaxQueuedCommands = 256;
    static constexpr std::chrono::milliseconds kRetryDelay{500};

    GameLink(std::string host, uint32_t port, GameLinkListener& listener);
    ~GameLink();
    GameLink(const GameLink&) = delete;
    GameLink& operator=(const GameLink&) = delete;

    void start();
    void stop();

    // Queue a data text or a request (0..2) for the game; false when the game is not connected
    // or too many commands wait already.
    bool sendData(const std::string& text);
    bool sendRequest(int request);

    bool connected() const { return m_connected; }

private:
    struct Command {
        int packetId;
        int32_t request;
        std::string data;
    };

    void run();
    void serve(net::Socket& socket);
    void sendQueued(net::Socket& socket);
    bool queue(Command command);
    void waitForWork(net::Socket& socket);
    void wake();
    void drainWakeups();
    void pause(std::chrono::milliseconds time);

    const std::string m_host;
    const uint32_t m_port;
    GameLinkListener& m_listener;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};
    std::mutex m_mutex;
    std::deque<Command> m_commands;
    int m_wakePipe[2] = {-1, -1};
};

}  // namespace dm_tools
