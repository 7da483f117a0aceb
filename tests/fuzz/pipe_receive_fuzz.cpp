// The pipe's receive path: the input is a script of Request and Notify chunks (kind, id, total
// size, offset, chunk size), each written as a packet, decoded by the manager's decoder and
// handed to a pipe attached with a small connection budget; between them the application takes
// what is whole. Every chunk carries bytes that tell its message and position, so a handed-out
// message must hold only such bytes: request data byte i is exactly what a chunk of that
// request carried at i, and a notification's text is made only of its own chunks' letters.
// When the pipe is detached, the connection's budget must have everything back.
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "comm/connection_budget.h"
#include "comm/net_communication_pipe.h"
#include "comm/pipe_protocol.h"
#include "fuzz/check.h"
#include "net/packet.h"
#include "net/socket.h"

namespace {

constexpr const char* kPipeName = "fuzz";
constexpr size_t kOperationSize = 8;
constexpr uint32_t kMaxChunk = 4096;

// Request data: position and request id in every byte.
uint8_t requestByte(uint32_t id, uint32_t position) {
    return static_cast<uint8_t>(position * 31u + (position >> 8) * 7u + id * 101u + 1u);
}

// Notification text: three letters per id (never a zero byte), cycling with the position.
char notifyByte(uint32_t id, uint32_t position) {
    return static_cast<char>('a' + (id & 7u) * 3u + position % 3u);
}

uint32_t totalSize(uint8_t selector) {
    const uint32_t scale = selector >> 2;
    switch (selector & 3) {
        case 0:
            return scale;  // 0..63
        case 1:
            return scale * 97u;  // up to about 6 KiB: several chunks
        case 2:
            return 1u << 20;
        default:
            return 512u << 20;  // as much as a message may announce
    }
}

// One chunk as the wire carries it, decoded by the manager's decoder and handed to the pipe.
void deliver(dm::NetCommunicationPipe& pipe, const uint8_t* op) {
    const bool isRequest = (op[0] & 1) == 0;
    const uint32_t id = op[1] & 7u;
    const uint32_t total = totalSize(op[2]);
    const uint32_t size = (op[6] | (op[7] << 8)) % (kMaxChunk + 1);
    const uint32_t raw = op[3] | (op[4] << 8);
    uint32_t offset = 0;
    switch (op[5] & 3) {
        case 0:
            offset = raw;
            break;
        case 1:
            offset = total >= size ? total - size : 0;  // the last chunk
            break;
        case 2:
            offset = raw * 64u;
            break;
        default:
            offset = total > 0 ? raw % total : 0;
            break;
    }
    std::vector<uint8_t> chunk(size);
    for (uint32_t i = 0; i < size; ++i) {
        chunk[i] = isRequest ? requestByte(id, offset + i)
                             : static_cast<uint8_t>(notifyByte(id, offset + i));
    }
    net::Packet packet(dm::pipe_protocol::kPipePacketId);
    if (isRequest) {
        packet << static_cast<int32_t>(dm::pipe_protocol::kRequest) << kPipeName << id << id
               << "request" << total << offset << size;
    } else {
        packet << static_cast<int32_t>(dm::pipe_protocol::kNotify) << kPipeName << id << id << total
               << offset << size;
    }
    packet.write(chunk.data(), size);
    net::Packet received;
    received.assign(packet.getID(), packet.getData(), packet.getSize());
    dm::pipe_protocol::Message message;
    if (dm::pipe_protocol::decode(received, message)) {
        pipe.receive(message);
    }
}

void takeWhole(dm::NetCommunicationPipe& pipe) {
    uint32_t id = 0;
    while (!pipe.receiveRequest(&id).empty()) {
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        check(size == 0 || data != nullptr);
        const uint8_t* bytes = static_cast<const uint8_t*>(data);
        for (uint32_t i = 0; i < size; ++i) {
            check(bytes[i] == requestByte(id, i));
        }
    }
    for (zu::InplaceString<128> text; !(text = pipe.receiveNotify(&id)).empty();) {
        for (const char* letter = text.c_str(); *letter != '\0'; ++letter) {
            check(static_cast<uint32_t>(*letter - 'a') / 3u == (id & 7u));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    // The first byte sets the connection's bounds, from tight to roomy.
    std::atomic<uint64_t> maxUnfinished{4096ull << (data[0] & 15)};
    std::atomic<uint64_t> maxQueued{1024ull << (data[0] >> 4)};
    dm::ConnectionBudget budget(maxUnfinished, maxQueued);
    net::Socket socket;  // never connected: the pipe only needs one to be attached
    dm::NetCommunicationPipe pipe(nullptr, kPipeName);
    pipe.attachSocket(&socket, &budget);
    for (size_t at = 1; at + kOperationSize <= size; at += kOperationSize) {
        deliver(pipe, data + at);
        check(budget.unfinished() <= maxUnfinished.load());
        if (data[at] & 2) {
            takeWhole(pipe);
        }
        if ((data[at] & 0xF0) == 0xF0) {
            pipe.attachSocket(&socket, &budget);  // a reconnect: the pipe starts over
        }
    }
    takeWhole(pipe);
    pipe.detachSocket();
    check(budget.unfinished() == 0 && budget.queued() == 0);
    return 0;
}
