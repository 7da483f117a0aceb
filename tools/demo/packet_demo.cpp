#include <cstdio>
#include <cstring>

#include "demo_sections.h"
#include "demo_tools.h"
#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/event.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace demo {
namespace {

constexpr int kPingId = 1;
constexpr int kPongId = 2;
constexpr int kRoundTrips = 1000;

// Waits until `socket` has a packet or `timeoutSeconds` passed.
net::Packet* waitForPacket(net::Socket& socket, double timeoutSeconds) {
    zu::Timer timer;
    while (timer.getElapsedSeconds() < timeoutSeconds &&
           (socket.isConnected() || socket.isConnecting())) {
        socket.update();
        if (net::Packet* packet = socket.pollPacket(nullptr)) {
            return packet;
        }
        zu::WaitHandle handle = socket.getWaitHandle();
        zu::waitForAny(&handle, 1, kWaitMs);
    }
    return nullptr;
}

class EchoServer : public zu::Thread {
public:
    explicit EchoServer(net::Listener& listener) : m_listener(listener) {}
    ~EchoServer() override { joinThread(); }

    int run() override {
        zu::setThreadName(zu::getCurrentThreadId(), "dm-demo server");
        zu::UniquePtr<net::Socket> client = acceptOne();
        if (!client) {
            return 1;
        }
        int answered = 0;
        while (net::Packet* ping = waitForPacket(*client, 5.0)) {
            int32_t number = 0;
            const char* text = "";
            *ping >> number >> text;
            net::Packet pong(kPongId);
            pong << number << (number % 100 == 0 ? "pong (a round hundred)" : "pong");
            client->sendPacket(pong);
            if (++answered == kRoundTrips) {
                break;
            }
        }
        client->update();
        return answered == kRoundTrips ? 0 : 1;
    }

private:
    zu::UniquePtr<net::Socket> acceptOne() {
        zu::Timer timer;
        while (timer.getElapsedSeconds() < 5.0) {
            if (zu::UniquePtr<net::Socket> socket = m_listener.pollConnect()) {
                return socket;
            }
            zu::WaitHandle handle = m_listener.getWaitHandle();
            zu::waitForAny(&handle, 1, kWaitMs);
        }
        return nullptr;
    }

    net::Listener& m_listener;
};

int runClient(uint32_t port) {
    net::Socket socket;
    if (!socket.connect("127.0.0.1", port)) {
        std::printf("client: could not connect to port %u\n", port);
        return 1;
    }
    char payload[1024];
    std::memset(payload, 'x', sizeof(payload));
    zu::Timer timer;
    for (int32_t number = 1; number <= kRoundTrips; ++number) {
        net::Packet ping(kPingId);
        ping << number << "ping";
        ping.write(payload, sizeof(payload));
        socket.sendPacket(ping);
        net::Packet* pong = waitForPacket(socket, 5.0);
        if (!pong) {
            std::printf("client: no answer to ping %d\n", number);
            return 1;
        }
        int32_t echoed = 0;
        const char* text = "";
        *pong >> echoed >> text;
        if (echoed != number) {
            std::printf("client: ping %d answered as %d\n", number, echoed);
            return 1;
        }
        if (number % 250 == 0) {
            std::printf("client: ping %4d -> \"%s\"\n", number, text);
        }
    }
    double seconds = timer.getElapsedSeconds();
    std::printf("client: %d round trips with a 1 KiB payload, %.1f us each on average\n",
                kRoundTrips, seconds * 1e6 / kRoundTrips);
    return 0;
}

}  // namespace

int runPacketDemo() {
    std::printf("== 1. packets over loopback TCP\n");
    net::Listener listener(0, "127.0.0.1");
    if (!listener.isListening()) {
        std::printf("could not listen on loopback\n");
        return 1;
    }
    std::printf("server: listening on 127.0.0.1:%u\n", listener.getPort());
    EchoServer server(listener);
    server.startThread();
    int clientResult = runClient(listener.getPort());
    int serverResult = server.joinThread();
    return clientResult == 0 && serverResult == 0 ? 0 : 1;
}

}  // namespace demo
