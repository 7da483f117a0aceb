// Streams a 64 MiB response over loopback TCP in max-size packets through net::Socket (as a pipe
// does: chunk written into a packet, sent, polled, read into the caller's buffer), next to raw
// blocking TCP moving the same bytes with the same write size.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <thread>
#include <vector>

#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/event.h"

namespace {

constexpr size_t kResponseSize = 64u << 20;
constexpr uint32_t kChunk = net::Packet::kMaxPayload;

struct Pair {
    net::Listener listener{0, "127.0.0.1"};
    net::Socket client;
    zu::UniquePtr<net::Socket> server;

    Pair() {
        client.connect("127.0.0.1", listener.getPort());
        for (int attempt = 0; attempt < 5000 && !(server && client.isConnected()); ++attempt) {
            client.update();
            if (!server) {
                server = listener.pollConnect();
            }
            usleep(1000);
        }
    }
};

void waitOn(const net::Socket& socket) {
    zu::WaitHandle handle = socket.getWaitHandle();
    zu::waitForAny(&handle, 1, 100);
}

void sendResponse(net::Socket& socket, const std::vector<uint8_t>& data) {
    net::Packet packet(205);
    for (size_t offset = 0; offset < data.size(); offset += kChunk) {
        packet.reset(205);
        packet.write(data.data() + offset, kChunk);
        socket.sendPacket(packet);
    }
    while (socket.hasSendsToDo() && socket.isConnected()) {
        waitOn(socket);
        socket.update();
    }
}

size_t receiveResponse(net::Socket& socket, std::vector<uint8_t>& into) {
    size_t received = 0;
    while (received < into.size() && socket.isConnected()) {
        net::Packet* packet = socket.pollPacket(nullptr);
        if (!packet) {
            waitOn(socket);
            continue;
        }
        received += packet->read(into.data() + received, packet->getSize());
    }
    return received;
}

void BM_SocketStream64MiB(benchmark::State& state) {
    Pair pair;
    std::vector<uint8_t> source(kResponseSize, 0x5A);
    std::vector<uint8_t> target(kResponseSize);
    for (auto _ : state) {
        std::thread sender([&] { sendResponse(pair.client, source); });
        size_t received = receiveResponse(*pair.server, target);
        sender.join();
        if (received != kResponseSize) {
            state.SkipWithError("stream broke off");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kResponseSize));
}
BENCHMARK(BM_SocketStream64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

int rawConnect(uint32_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd;
}

void BM_RawTcpStream64MiB(benchmark::State& state) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    int client = rawConnect(ntohs(address.sin_port));
    int server = accept(listener, nullptr, nullptr);

    std::vector<uint8_t> source(kResponseSize, 0x5A);
    std::vector<uint8_t> target(kResponseSize);
    for (auto _ : state) {
        std::thread sender([&] {
            for (size_t offset = 0; offset < kResponseSize;) {
                size_t piece = kResponseSize - offset < kChunk ? kResponseSize - offset : kChunk;
                ssize_t sent = send(client, source.data() + offset, piece, MSG_NOSIGNAL);
                if (sent <= 0) {
                    return;
                }
                offset += static_cast<size_t>(sent);
            }
        });
        size_t received = 0;
        while (received < kResponseSize) {
            ssize_t got = recv(server, target.data() + received, kResponseSize - received, 0);
            if (got <= 0) {
                break;
            }
            received += static_cast<size_t>(got);
        }
        sender.join();
        if (received != kResponseSize) {
            state.SkipWithError("stream broke off");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kResponseSize));
    close(client);
    close(server);
    close(listener);
}
BENCHMARK(BM_RawTcpStream64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
