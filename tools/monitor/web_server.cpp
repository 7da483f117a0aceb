#include "monitor/web_server.h"

#include <httplib.h>

#include <cstring>

#include "monitor/event_hub.h"
#include "monitor/game_link.h"
#include "monitor/web_assets.h"

namespace dm_tools {

namespace {

// Each open page holds one thread while it streams; the rest answer page loads and commands.
constexpr size_t kServerThreads = EventHub::kMaxPages + 8;
constexpr std::chrono::milliseconds kEventWait{1000};
// A comment line now and then lets a page that has gone be noticed (the write fails).
constexpr int kQuietRoundsBeforeKeepAlive = 15;

const char* contentTypeOf(const std::string& name) {
    const auto endsWith = [&](const char* suffix) {
        const size_t length = std::strlen(suffix);
        return name.size() >= length && name.compare(name.size() - length, length, suffix) == 0;
    };
    if (endsWith(".html")) {
        return "text/html; charset=utf-8";
    }
    if (endsWith(".css")) {
        return "text/css; charset=utf-8";
    }
    if (endsWith(".js")) {
        return "text/javascript; charset=utf-8";
    }
    if (endsWith(".svg")) {
        return "image/svg+xml";
    }
    return "application/octet-stream";
}

// Any web site the user visits may send requests to a loopback address. Commands must carry
// this header, which a foreign page cannot add without the browser asking us first (we never
// agree), and the Host must be ours, which a name pointed at 127.0.0.1 by a foreign site is not.
const char kCommandHeader[] = "X-DM-Monitor";

bool isLoopback(const std::string& address) {
    return address.rfind("127.", 0) == 0 || address == "::1" || address == "localhost";
}

void serveFile(const EmbeddedFile& file, httplib::Response& response) {
    response.set_content(reinterpret_cast<const char*>(file.data), file.size,
                         contentTypeOf(file.name));
    response.set_header("Cache-Control", "no-cache");
}

}  // namespace

WebServer::WebServer(EventHub& hub, GameLink& link)
    : m_hub(hub), m_link(link), m_server(std::make_unique<httplib::Server>()) {
    m_server->new_task_queue = [] { return new httplib::ThreadPool(kServerThreads); };
    m_server->set_payload_max_length(kMaxDataBytes);
    addRoutes();
}

WebServer::~WebServer() {
    stop();
}

void WebServer::addRoutes() {
    for (const EmbeddedFile& file : embeddedFiles()) {
        const std::string path =
            std::strcmp(file.name, "index.html") == 0 ? "/" : std::string("/") + file.name;
        m_server->Get(path, [&file](const httplib::Request&, httplib::Response& response) {
            serveFile(file, response);
        });
    }

    m_server->Get("/events", [this](const httplib::Request&, httplib::Response& response) {
        std::shared_ptr<EventHub::Page> page = m_hub.openPage();
        if (!page) {
            response.status = 503;
            response.set_content("too many pages are open\n", "text/plain");
            return;
        }
        response.set_header("Cache-Control", "no-cache");
        auto quietRounds = std::make_shared<int>(0);
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, page, quietRounds](size_t, httplib::DataSink& sink) {
                std::string out;
                if (!m_hub.takeEvents(*page, out, kEventWait)) {
                    sink.done();
                    return true;
                }
                if (out.empty() && ++*quietRounds >= kQuietRoundsBeforeKeepAlive) {
                    out = ": keep-alive\n\n";
                }
                if (out.empty()) {
                    return true;
                }
                *quietRounds = 0;
                return sink.write(out.data(), out.size());
            },
            [this, page](bool) { m_hub.closePage(page); });
    });

    m_server->Get("/api/state", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(m_hub.stateJson(), "application/json");
    });

    m_server->Post("/api/data",
                   [this](const httplib::Request& request, httplib::Response& response) {
                       if (!m_link.sendData(request.body)) {
                           response.status = 503;
                           response.set_content("the game is not connected\n", "text/plain");
                           return;
                       }
                       m_hub.noteCommand("sent data: " + request.body);
                       response.status = 204;
                   });

    m_server->Post(R"(/api/request/(-?\d+))", [this](const httplib::Request& request,
                                                     httplib::Response& response) {
        const std::string& text = request.matches[1].str();
        const int value = text.size() <= 2 ? std::stoi(text) : -1;
        if (value < 0 || value > 2) {
            response.status = 400;
            response.set_content("the game only knows requests 0, 1 and 2\n", "text/plain");
            return;
        }
        if (!m_link.sendRequest(value)) {
            response.status = 503;
            response.set_content("the game is not connected\n", "text/plain");
            return;
        }
        m_hub.noteCommand("sent request " + text);
        response.status = 204;
    });
}

// Refuses requests whose Host names another server while we serve only this machine, and
// commands without kCommandHeader.
void WebServer::guardRequests(const std::string& address, int port) {
    const bool loopbackOnly = isLoopback(address);
    const std::string portSuffix = ":" + std::to_string(port);
    m_server->set_pre_routing_handler([=](const httplib::Request& request,
                                          httplib::Response& response) {
        const std::string host = request.get_header_value("Host");
        const bool knownHost = host == "127.0.0.1" + portSuffix ||
                               host == "localhost" + portSuffix || host == "[::1]" + portSuffix;
        if (loopbackOnly && !knownHost) {
            response.status = 403;
            response.set_content("unknown Host\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (request.method == "POST" && request.get_header_value(kCommandHeader) != "1") {
            response.status = 403;
            response.set_content(
                std::string("commands need the header ") + kCommandHeader + ": 1\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
}

int WebServer::start(const std::string& address, int port) {
    const int bound = port == 0 ? m_server->bind_to_any_port(address)
                                : (m_server->bind_to_port(address, port) ? port : -1);
    if (bound < 0) {
        return -1;
    }
    guardRequests(address, bound);
    m_thread = std::thread([this] { m_server->listen_after_bind(); });
    return bound;
}

void WebServer::stop() {
    if (m_thread.joinable()) {
        m_hub.shutDown();
        m_server->stop();
        m_thread.join();
    }
}

}  // namespace dm_tools
