// The server end of a client manager, played by a test over a plain socket, so that the test
// decides when requests are read and answered, and when the connection goes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "comm/manager_support.h"
#include "net/listener.h"
#include "net/socket.h"

namespace dmtest {

// The server end played by the test over a plain socket: it welcomes the client manager, opens
// every pipe asked for, and takes requests only while the test serves.
class HandPlayedServer {
public:
    uint32_t port() const { return m_listener.getPort(); }
    bool accept() {
        m_socket = acceptOne(m_listener);
        m_opened.clear();
        return m_socket && m_socket->sendPacket(pipewire::welcome(2, 0, "by hand"));
    }
    void drop() { m_socket.reset(); }
    size_t openedPipes() const { return m_opened.size(); }
    net::Socket& socket() { return *m_socket; }

    // Reads until `done` holds (at most 10 seconds), handing every request to `onRequest`.
    bool serve(const std::function<bool()>& done,
               const std::function<void(const pipewire::Message&)>& onRequest = {}) {
        return waitUntil([&] {
            m_socket->update();
            while (net::Packet* packet = m_socket->pollPacket(nullptr)) {
                const pipewire::Message message = pipewire::read(*packet);
                if (message.kind == pipewire::kOpenPipe) {
                    m_opened.push_back(message.first);
                    m_socket->sendPacket(
                        pipewire::pipeMessage(pipewire::kPipeOpened, message.first.c_str()));
                } else if (message.kind == pipewire::kRequest && onRequest) {
                    onRequest(message);
                }
            }
            if (done()) {
                return true;
            }
            const zu::WaitHandle handle = m_socket->getWaitHandle();
            zu::waitForAny(&handle, 1, 5);
            return false;
        });
    }
    // Answers a whole request with its own text and data.
    void echo(const pipewire::Message& request) {
        const uint32_t size = static_cast<uint32_t>(request.chunk.size());
        m_socket->sendPacket(pipewire::response(request.first.c_str(), request.id,
                                                request.text.c_str(), size, 0, size,
                                                request.chunk.data()));
    }

private:
    net::Listener m_listener{0, "127.0.0.1"};
    zu::UniquePtr<net::Socket> m_socket;
    std::vector<std::string> m_opened;
};

// A client manager on a hand-played server, with its pipes attached.
struct PlayedClient {
    HandPlayedServer server;
    dm::CommunicationPipeManager* manager = nullptr;
    std::vector<dm::CommunicationPipe*> pipes;

    bool start(const char* name, const std::vector<std::string>& pipeNames) {
        manager = dm::initCommunicationManagerAsClient(name, "127.0.0.1", int(server.port()));
        for (const std::string& pipeName : pipeNames) {
            pipes.push_back(manager->getPipe(pipeName.c_str()));
        }
        return server.accept() && attached();
    }
    bool attached() {
        return server.serve(
            [&] { return server.openedPipes() >= pipes.size() && every(pipes, isConnected); });
    }
    // Serves until a request with `text` has arrived; it is stored in `into`.
    bool awaitRequest(const std::string& text, pipewire::Message& into) {
        bool seen = false;
        return server.serve([&] { return seen; },
                            [&](const pipewire::Message& request) {
                                if (request.text == text) {
                                    into = request;
                                    seen = true;
                                }
                            });
    }
};

}  // namespace dmtest
