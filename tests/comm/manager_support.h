// Helpers for the pipe manager tests: a fixture that leaves the registry empty, a responder
// thread that echoes requests and notifications, a request running on its own thread, and the
// pipe handshake messages written out as the wire format fixes them.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "support/test_support.h"
#include "zu/event.h"

namespace dmtest {

namespace handshake {
constexpr int kPacketId = 205;
constexpr int32_t kOpenPipe = 0;
constexpr int32_t kPipeOpened = 1;
constexpr int32_t kPipeRefused = 2;
constexpr int32_t kRequest = 3;
constexpr int32_t kRedirect = 6;
constexpr int32_t kWelcome = 7;

inline net::Packet welcome(uint32_t version, uint32_t connectionId, const char* serverName) {
    net::Packet packet(kPacketId);
    packet << kWelcome << version << connectionId << serverName;
    return packet;
}
inline net::Packet pipeMessage(int32_t kind, const char* pipeName) {
    net::Packet packet(kPacketId);
    packet << kind << pipeName;
    return packet;
}
inline net::Packet openPipe(const char* pipeName, const char* senderName) {
    net::Packet packet = pipeMessage(kOpenPipe, pipeName);
    packet << senderName;
    return packet;
}
inline net::Packet request(const char* pipeName, uint32_t id, const char* text) {
    net::Packet packet(kPacketId);
    packet << kRequest << pipeName << id << uint32_t(0) << text << uint32_t(0) << uint32_t(0)
           << uint32_t(0);
    return packet;
}

// A received pipe message: its kind and the text fields that follow it.
struct Message {
    int32_t kind = -1;
    std::string first;   // pipe name, host or (Welcome) nothing
    std::string second;  // sender name (OpenPipe)
};
inline Message read(net::Packet& packet) {
    Message message;
    const char* first = "";
    const char* second = "";
    packet >> message.kind;
    if (message.kind == kOpenPipe) {
        packet >> first >> second;
    } else if (message.kind == kPipeOpened || message.kind == kPipeRefused ||
               message.kind == kRedirect) {
        packet >> first;
    }
    message.first = first;
    message.second = second;
    return message;
}
}  // namespace handshake

// Leaves the registry empty whatever the test did.
class ManagerTest : public ::testing::Test {
protected:
    void TearDown() override { dm::deinitCommunicationManagers(); }
};

// A port that was free a moment ago: the system picks it for a listener that is closed again.
inline uint32_t pickFreePort() {
    net::Listener listener(0, "127.0.0.1");
    return listener.getPort();
}

inline uint32_t portOf(dm::CommunicationPipeManager* manager) {
    uint32_t port = 0;
    manager->getHost(&port);
    return port;
}

inline bool isConnected(dm::CommunicationPipe* pipe) {
    return pipe && pipe->isConnected();
}

// Answers every request on its pipes with the same text and data, and every notification with
// "echo: " and its text, on its own thread. Pipes may be added while it runs. Stop it (or let
// it go out of scope) before the managers of its pipes are destroyed.
class EchoResponder {
public:
    EchoResponder() : m_thread([this] { run(); }) {}
    ~EchoResponder() { stop(); }
    EchoResponder(const EchoResponder&) = delete;
    EchoResponder& operator=(const EchoResponder&) = delete;

    void add(dm::CommunicationPipe* pipe) {
        // The callbacks outlive the responder: they only touch an event that lives for ever.
        pipe->setRequestCallback({nullptr, wake});
        pipe->setNotifyCallback({nullptr, wake});
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pipes.push_back(pipe);
        workArrived().signal();
    }
    void stop() {
        if (m_thread.joinable()) {
            m_stopping = true;
            workArrived().signal();
            m_thread.join();
        }
    }
    int answered() const { return m_answered.load(); }

private:
    static zu::Event& workArrived() {
        static zu::Event* event = new zu::Event();
        return *event;
    }
    static void wake(void*, dm::CommunicationPipe*) { workArrived().signal(); }

    void run() {
        while (!m_stopping) {
            std::vector<dm::CommunicationPipe*> pipes;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                pipes = m_pipes;
            }
            for (dm::CommunicationPipe* pipe : pipes) {
                serve(*pipe);
            }
            // Shared by all responders, so the bound catches a wake taken by another one.
            workArrived().wait(5);
        }
    }

    void serve(dm::CommunicationPipe& pipe) {
        for (int i = 0; i < 64 && !m_stopping; ++i) {
            zu::InplaceString<128> text = pipe.receiveRequest(nullptr);
            if (text.empty()) {
                break;
            }
            void* data = nullptr;
            uint32_t size = 0;
            pipe.getRequestData(&data, &size);
            pipe.respond(text.c_str(), data, size);
            ++m_answered;
        }
        for (int i = 0; i < 64; ++i) {
            zu::InplaceString<128> text = pipe.receiveNotify(nullptr);
            if (text.empty()) {
                break;
            }
            pipe.sendNotify((std::string("echo: ") + text.c_str()).c_str(), 0);
        }
    }

    std::mutex m_mutex;
    std::vector<dm::CommunicationPipe*> m_pipes;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_answered{0};
    std::thread m_thread;
};

// Bytes that differ from request to request, so that a mix-up shows.
inline std::vector<uint8_t> patternBytes(size_t size, uint32_t seed) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<uint8_t>(state >> 16);
    }
    return bytes;
}

// A sendRequest with data running on its own thread; the response data lands in a buffer of
// `responseCapacity` bytes. A request still blocked when the object goes is left to finish on
// its own: the test's end destroys the managers, which releases it.
class RequestThread {
public:
    RequestThread(dm::CommunicationPipe* pipe, std::string text, std::vector<uint8_t> data,
                  size_t responseCapacity)
        : m_state(std::make_shared<State>()) {
        m_state->text = std::move(text);
        m_state->data = std::move(data);
        m_state->response.resize(responseCapacity);
        std::shared_ptr<State> state = m_state;
        m_thread = std::thread([state, pipe] {
            zu::InplaceString<128> result = pipe->sendRequest(
                state->text.c_str(), 0, state->response.data(),
                static_cast<uint32_t>(state->response.size()), &state->responseSize,
                state->data.data(), static_cast<uint32_t>(state->data.size()));
            state->result = result.c_str();
            state->done = true;
        });
    }
    ~RequestThread() {
        if (done()) {
            m_thread.join();
        } else {
            m_thread.detach();
        }
    }
    RequestThread(const RequestThread&) = delete;
    RequestThread& operator=(const RequestThread&) = delete;

    bool done() const { return m_state->done.load(); }
    // Only once done.
    const std::string& result() const { return m_state->result; }
    // Done, and answered with its own text and data.
    bool echoed() const {
        const State& state = *m_state;
        return done() && state.result == state.text && state.responseSize == state.data.size() &&
               std::equal(state.data.begin(), state.data.end(), state.response.begin());
    }

private:
    struct State {
        std::string text;
        std::vector<uint8_t> data;
        std::vector<uint8_t> response;
        uint32_t responseSize = 0;
        std::string result;
        std::atomic<bool> done{false};
    };
    std::shared_ptr<State> m_state;
    std::thread m_thread;
};

// Waits for the next whole packet on `socket` (at most 10 seconds); null if none came.
inline net::Packet* nextPacket(net::Socket& socket, uint32_t* outSize = nullptr) {
    net::Packet* packet = nullptr;
    waitUntil([&] {
        socket.update();
        packet = socket.pollPacket(outSize);
        if (!packet && socket.isConnected()) {
            const zu::WaitHandle handle = socket.getWaitHandle();
            zu::waitForAny(&handle, 1, 5);
        }
        return packet != nullptr || !socket.isConnected();
    });
    return packet;
}

// Accepts one connection on `listener` (at most 10 seconds); null if none came.
inline std::unique_ptr<net::Socket> acceptOne(net::Listener& listener) {
    std::unique_ptr<net::Socket> socket;
    waitUntil([&] {
        socket.reset(listener.pollConnect());
        if (!socket) {
            const zu::WaitHandle handle = listener.getWaitHandle();
            zu::waitForAny(&handle, 1, 5);
        }
        return socket != nullptr;
    });
    return socket;
}

}  // namespace dmtest
