// Request and response helpers over pipes, shared by the tests and the benchmarks: bytes that
// tell requests apart, a responder thread that echoes what arrives, and a request running on
// its own thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dm/comm.h"
#include "support/test_support.h"
#include "zu/signal.h"

namespace dmtest {

// Bytes that differ from position to position and from seed to seed, so that a mix-up shows.
inline std::vector<uint8_t> patternBytes(size_t size, uint32_t seed) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<uint8_t>(state >> 16);
    }
    return bytes;
}

// The three byte runs one after the other.
inline std::vector<uint8_t> joined(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                                   const std::vector<uint8_t>& c) {
    std::vector<uint8_t> all;
    all.reserve(a.size() + b.size() + c.size());
    all.insert(all.end(), a.begin(), a.end());
    all.insert(all.end(), b.begin(), b.end());
    all.insert(all.end(), c.begin(), c.end());
    return all;
}

// The next request or notification that arrives on `pipe` (waiting a bounded time), and its
// value if asked for; "" if none came.
inline std::string takeRequest(dm::CommunicationPipe& pipe, uint32_t* outValue = nullptr) {
    std::string text;
    waitUntil([&] { return !(text = pipe.receiveRequest(outValue).c_str()).empty(); });
    return text;
}
inline std::string takeNotify(dm::CommunicationPipe& pipe, uint32_t* outValue = nullptr) {
    std::string text;
    waitUntil([&] { return !(text = pipe.receiveNotify(outValue).c_str()).empty(); });
    return text;
}

// Answers every request on its pipes with the same text and data, and every notification with
// "echo: " and its text, on its own thread. Pipes may be added while it runs. Stop it (or let it
// go out of scope) before the managers of its pipes are destroyed.
class EchoResponder {
public:
    EchoResponder() : m_thread([this] { run(); }) {}
    explicit EchoResponder(dm::CommunicationPipe* pipe) : EchoResponder() { add(pipe); }
    ~EchoResponder() { stop(); }
    EchoResponder(const EchoResponder&) = delete;
    EchoResponder& operator=(const EchoResponder&) = delete;

    void add(dm::CommunicationPipe* pipe) {
        // The callbacks may outlive the responder: they only touch its wake-up, which lives for
        // ever.
        pipe->setRequestCallback({&m_wakeUp, wake});
        pipe->setNotifyCallback({&m_wakeUp, wake});
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pipes.push_back(pipe);
        m_wakeUp.signal();
    }
    // Requests with exactly `text` are answered with `size` bytes of `data` instead of an echo.
    void answer(std::string text, const void* data, uint32_t size) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cannedText = std::move(text);
        m_cannedData = data;
        m_cannedSize = size;
    }
    void stop() {
        if (m_thread.joinable()) {
            m_stopping = true;
            m_wakeUp.signal();
            m_thread.join();
        }
    }
    int answered() const { return m_answered.load(); }

private:
    // What the pipes' callbacks signal: a futex-based signal, the cheapest wake-up for a thread
    // that waits on nothing else. Never destroyed (see add), so never on the stack.
    static zu::Signal& newWakeUp() {
        static std::mutex* lock = new std::mutex();
        static std::deque<zu::Signal>* all = new std::deque<zu::Signal>();  // stable addresses
        std::lock_guard<std::mutex> guard(*lock);
        return all->emplace_back();
    }
    static void wake(void* wakeUp, dm::CommunicationPipe*) {
        static_cast<zu::Signal*>(wakeUp)->signal();
    }

    void run() {
        std::vector<dm::CommunicationPipe*> pipes;  // keeps its storage from wake-up to wake-up
        while (!m_stopping) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                pipes.assign(m_pipes.begin(), m_pipes.end());
            }
            for (dm::CommunicationPipe* pipe : pipes) {
                serve(*pipe);
            }
            m_wakeUp.wait();  // a signal given while serving is kept for this wait
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
            if (!m_cannedText.empty() && text == m_cannedText.c_str()) {
                pipe.respond(text.c_str(), m_cannedData, m_cannedSize);
            } else {
                pipe.respond(text.c_str(), data, size);
            }
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

    zu::Signal& m_wakeUp = newWakeUp();
    std::mutex m_mutex;
    std::vector<dm::CommunicationPipe*> m_pipes;
    std::string m_cannedText;
    const void* m_cannedData = nullptr;
    uint32_t m_cannedSize = 0;
    std::atomic<bool> m_stopping{false};
    std::atomic<int> m_answered{0};
    std::thread m_thread;
};

// A sendRequest (with data, if given) running on its own thread; the response data lands in a
// buffer of `responseCapacity` bytes. A request still blocked when the object goes is left to
// finish on its own: the test's end destroys the managers, which releases it.
class RequestThread {
public:
    RequestThread(dm::CommunicationPipe* pipe, std::string text, std::vector<uint8_t> data = {},
                  size_t responseCapacity = 0, uint32_t value = 0)
        : m_state(std::make_shared<State>()) {
        m_state->text = std::move(text);
        m_state->data = std::move(data);
        m_state->response.resize(responseCapacity);
        std::shared_ptr<State> state = m_state;
        m_thread = std::thread([state, pipe, value] {
            zu::InplaceString<128> result = pipe->sendRequest(
                state->text.c_str(), value, state->response.data(),
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
    // Only once done: the response's size, and the buffer it landed in.
    uint32_t responseSize() const { return m_state->responseSize; }
    const std::vector<uint8_t>& response() const { return m_state->response; }
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

}  // namespace dmtest
