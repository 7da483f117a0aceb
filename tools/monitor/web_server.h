// The web monitor's HTTP side: serves the page built into the program, streams the hub's
// events to each open page as server-sent events, and passes the page's data texts and
// requests to the game. Routes are listed in docs/monitor-web.md.
#pragma once

#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace dm_tools {

class EventHub;
class GameLink;

class WebServer {
public:
    static constexpr size_t kMaxDataBytes = 64 * 1024;

    WebServer(EventHub& hub, GameLink& link);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Binds to address:port (port 0 picks a free one) and serves on a thread of its own.
    // The port it listens on, or -1 when it cannot bind.
    int start(const std::string& address, int port);
    void stop();

private:
    void addRoutes();
    void guardRequests(const std::string& address, int port);

    EventHub& m_hub;
    GameLink& m_link;
    std::unique_ptr<httplib::Server> m_server;
    std::thread m_thread;
};

}  // namespace dm_tools
