// The three request/response set-ups that comm_pipe_bench compares. Each rig has `channels`
// independent client channels (one per client thread) to one server in this process, which
// answers a request with its own data, or the request "big" with kBigSize bytes.
//
//   Rig(int channels); bool ready() const;
//   size_t echo(int channel, const uint8_t* data, size_t size, uint8_t* answer);
//   size_t fetchBig(uint8_t* into);      // both return the size of the answer
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "support/manager_link.h"
#include "support/pipe_responders.h"

#if defined(DM_HAVE_ZMQ)
#include <zmq.h>
#endif

namespace bench {

constexpr size_t kSmallSize = 16;
constexpr size_t kMediumSize = 64 * 1024;
constexpr size_t kBigSize = 64u << 20;

inline const uint8_t* bigPayload() {
    static const std::vector<uint8_t> payload = [] {
        std::vector<uint8_t> bytes(kBigSize);
        for (size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<uint8_t>(i * 31);
        }
        return bytes;
    }();
    return payload.data();
}

// --- Pipes: a server and a client manager, one pipe per channel, one responder thread for all,
// like ZeroMQ's one REP socket ---

class PipeRig {
public:
    // Without `canAnswerBig`, "big" is echoed like any request, and the 64 MiB answer is never
    // made (it would dominate the process's memory).
    explicit PipeRig(int channels, bool canAnswerBig = true) {
        if (canAnswerBig) {
            m_responder.answer("big", bigPayload(), static_cast<uint32_t>(kBigSize));
        }
        const std::string client = m_link.addClient();
        for (int c = 0; c < channels; ++c) {
            const std::string name = "bench-" + std::to_string(c);
            const dmtest::ManagerLink::PipeEnds ends = m_link.connectPipe(client, name.c_str());
            if (!ends.client) {
                return;
            }
            m_pipes.push_back(ends.client);
            m_responder.add(ends.server);
        }
        m_ready = true;
    }
    PipeRig(const PipeRig&) = delete;
    PipeRig& operator=(const PipeRig&) = delete;

    bool ready() const { return m_ready; }
    // The server's port, for peers of other kinds.
    uint32_t port() const { return m_link.port(); }
    dm::CommunicationPipeManager& server() { return m_link.server(); }
    size_t echo(int channel, const uint8_t* data, size_t size, uint8_t* answer) {
        uint32_t got = 0;
        m_pipes[channel]->sendRequest("echo", 0, answer, static_cast<uint32_t>(size), &got, data,
                                      static_cast<uint32_t>(size));
        return got;
    }
    size_t fetchBig(uint8_t* into) {
        uint32_t got = 0;
        m_pipes[0]->sendRequest("big", 0, into, static_cast<uint32_t>(kBigSize), &got, nullptr, 0);
        return got;
    }

private:
    dmtest::ManagerLink m_link;  // destroyed last: the responders stop before the managers go
    std::vector<dm::CommunicationPipe*> m_pipes;
    dmtest::EchoResponder m_responder;
    bool m_ready = false;
};

#if defined(DM_HAVE_ZMQ)
// --- ZeroMQ: one REQ socket per channel, one REP socket answering on its own thread ---

class ZmqRig {
public:
    explicit ZmqRig(int channels) : m_context(zmq_ctx_new()) {
        m_reply = openSocket(ZMQ_REP);
        char endpoint[256] = {};
        size_t length = sizeof(endpoint);
        m_ready = zmq_bind(m_reply, "tcp://127.0.0.1:*") == 0 &&
                  zmq_getsockopt(m_reply, ZMQ_LAST_ENDPOINT, endpoint, &length) == 0;
        for (int c = 0; m_ready && c < channels; ++c) {
            m_requests.push_back(openSocket(ZMQ_REQ));
            m_ready = zmq_connect(m_requests.back(), endpoint) == 0;
        }
        m_server = std::thread([this] { serve(); });
    }
    ~ZmqRig() {
        for (void* socket : m_requests) {
            zmq_close(socket);
        }
        zmq_ctx_shutdown(m_context);  // the server's receive returns
        m_server.join();
        zmq_ctx_term(m_context);
    }
    ZmqRig(const ZmqRig&) = delete;
    ZmqRig& operator=(const ZmqRig&) = delete;

    bool ready() const { return m_ready; }
    size_t echo(int channel, const uint8_t* data, size_t size, uint8_t* answer) {
        void* socket = m_requests[channel];
        if (zmq_send(socket, data, size, 0) < 0) {
            return 0;
        }
        const int got = zmq_recv(socket, answer, size, 0);
        return got < 0 ? 0 : static_cast<size_t>(got);
    }
    size_t fetchBig(uint8_t* into) {
        if (zmq_send(m_requests[0], "big", 3, 0) < 0) {
            return 0;
        }
        const int got = zmq_recv(m_requests[0], into, kBigSize, 0);
        return got < 0 ? 0 : static_cast<size_t>(got);
    }

private:
    void* openSocket(int type) {
        void* socket = zmq_socket(m_context, type);
        int linger = 0;
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof(linger));
        return socket;
    }

    // Echoes each request without copying it; the big answer goes out without a copy too.
    void serve() {
        for (;;) {
            zmq_msg_t message;
            zmq_msg_init(&message);
            if (zmq_msg_recv(&message, m_reply, 0) < 0) {
                zmq_msg_close(&message);
                break;
            }
            if (zmq_msg_size(&message) == 3 && std::memcmp(zmq_msg_data(&message), "big", 3) == 0) {
                zmq_msg_close(&message);
                zmq_msg_init_data(&message, const_cast<uint8_t*>(bigPayload()), kBigSize, nullptr,
                                  nullptr);
            }
            if (zmq_msg_send(&message, m_reply, 0) < 0) {
                zmq_msg_close(&message);
                break;
            }
        }
        zmq_close(m_reply);
    }

    void* m_context;
    void* m_reply = nullptr;
    std::vector<void*> m_requests;
    bool m_ready = false;
    std::thread m_server;
};
#endif

// --- Raw TCP: blocking sockets, a connection and an echo thread per channel ---

class RawTcpRig {
public:
    explicit RawTcpRig(int channels) {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        m_ready = bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                  listen(listener, channels) == 0 &&
                  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        for (int c = 0; m_ready && c < channels; ++c) {
            const int client = socket(AF_INET, SOCK_STREAM, 0);
            m_ready = connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
            const int server = accept(listener, nullptr, nullptr);
            m_ready = m_ready && server >= 0;
            noDelay(client);
            noDelay(server);
            m_clients.push_back(client);
            m_servers.push_back(server);
            m_threads.emplace_back([server] { serve(server); });
        }
        close(listener);
    }
    ~RawTcpRig() {
        for (int client : m_clients) {
            shutdown(client, SHUT_RDWR);  // the echo thread reads the end
        }
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        for (size_t i = 0; i < m_clients.size(); ++i) {
            close(m_clients[i]);
            close(m_servers[i]);
        }
    }
    RawTcpRig(const RawTcpRig&) = delete;
    RawTcpRig& operator=(const RawTcpRig&) = delete;

    bool ready() const { return m_ready; }
    size_t echo(int channel, const uint8_t* data, size_t size, uint8_t* answer) {
        return ask(m_clients[channel], data, size, size, answer);
    }
    size_t fetchBig(uint8_t* into) { return ask(m_clients[0], nullptr, 0, kBigSize, into); }

private:
    struct Header {
        uint32_t requestSize;
        uint32_t responseSize;
    };

    static void noDelay(int fd) {
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    static bool readAll(int fd, void* into, size_t size) {
        for (size_t done = 0; done < size;) {
            const ssize_t got = recv(fd, static_cast<uint8_t*>(into) + done, size - done, 0);
            if (got <= 0) {
                return false;
            }
            done += static_cast<size_t>(got);
        }
        return true;
    }
    static bool writeAll(int fd, const void* data, size_t size) {
        for (size_t done = 0; done < size;) {
            const ssize_t sent =
                send(fd, static_cast<const uint8_t*>(data) + done, size - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }

    // The request and its header leave in one call, as one segment.
    static size_t ask(int fd, const void* data, size_t size, size_t responseSize, void* answer) {
        Header header{static_cast<uint32_t>(size), static_cast<uint32_t>(responseSize)};
        iovec parts[2] = {{&header, sizeof(header)}, {const_cast<void*>(data), size}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = size > 0 ? 2 : 1;
        if (sendmsg(fd, &message, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(header) + size)) {
            return 0;
        }
        return readAll(fd, answer, responseSize) ? responseSize : 0;
    }

    static void serve(int fd) {
        std::vector<uint8_t> buffer(kMediumSize);
        Header header{};
        while (readAll(fd, &header, sizeof(header)) && header.requestSize <= buffer.size() &&
               readAll(fd, buffer.data(), header.requestSize)) {
            const bool big = header.responseSize == kBigSize;
            if (!writeAll(fd, big ? bigPayload() : buffer.data(),
                          big ? kBigSize : header.requestSize)) {
                return;
            }
        }
    }

    bool m_ready = false;
    std::vector<int> m_clients;
    std::vector<int> m_servers;
    std::vector<std::thread> m_threads;
};

}  // namespace bench
