// Frame parsing: the input is the byte stream of one connection. It is decoded twice, by the
// frame check that sockets use (straight from the buffer) and by a real net::Socket that reads
// it from a socket pair in whatever pieces the OS hands over. Both must find the same frames;
// every frame's fields are then read back with the packet's readers, which must stay inside
// the payload.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/check.h"
#include "net/packet.h"
#include "net/socket.h"
#include "net_wire.h"

namespace {

struct Frame {
    int id;
    std::vector<uint8_t> payload;

    bool operator==(const Frame& other) const { return id == other.id && payload == other.payload; }
};

std::vector<Frame> decodeBuffer(const uint8_t* data, size_t size) {
    std::vector<Frame> frames;
    size_t position = 0;
    uint32_t frameSize = 0;
    while (net::wire::checkFrame(data + position, static_cast<uint32_t>(size - position),
                                 &frameSize) == net::wire::FrameCheck::Whole) {
        check(frameSize >= net::wire::kHeaderSize && frameSize <= size - position);
        const uint8_t* frame = data + position;
        frames.push_back({net::wire::frameId(frame),
                          std::vector<uint8_t>(frame + net::wire::kHeaderSize, frame + frameSize)});
        position += frameSize;
    }
    return frames;
}

void collect(net::Socket& socket, std::vector<Frame>& frames) {
    uint32_t size = 0;
    while (net::Packet* packet = socket.pollPacket(&size)) {
        check(size == packet->getSize());
        frames.push_back(
            {packet->getID(), std::vector<uint8_t>(packet->getData(), packet->getData() + size)});
    }
}

// Writes the stream into one end of a socket pair and reads it back as a net::Socket.
std::vector<Frame> decodeThroughSocket(const uint8_t* data, size_t size) {
    std::vector<Frame> frames;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        std::abort();
    }
    fcntl(ends[1], F_SETFL, fcntl(ends[1], F_GETFL) | O_NONBLOCK);
    net::Socket reader(ends[0]);
    size_t written = 0;
    for (int round = 0; written < size && round < 1000000; ++round) {
        const ssize_t sent = send(ends[1], data + written, size - written, MSG_NOSIGNAL);
        if (sent > 0) {
            written += static_cast<size_t>(sent);
        }
        reader.update();
        collect(reader, frames);
        if (!reader.isConnected()) {
            break;  // an invalid length ended the connection
        }
    }
    close(ends[1]);
    for (int round = 0; reader.isConnected() && round < 1000000; ++round) {
        reader.update();
        collect(reader, frames);
    }
    check(!reader.isConnected());
    return frames;
}

// Reads fields in an order chosen by the packet id, as a protocol that trusts nothing would.
void readFields(const Frame& frame) {
    net::Packet packet;
    check(
        packet.assign(frame.id, frame.payload.data(), static_cast<uint32_t>(frame.payload.size())));
    uint32_t selector = static_cast<uint32_t>(frame.id);
    for (int field = 0; field < 16 && !packet.hasError();
         ++field, selector = selector >> 2 | selector << 30) {
        switch (selector & 3) {
            case 0: {
                int32_t value = 0;
                packet >> value;
                break;
            }
            case 1: {
                const char* text = nullptr;
                packet >> text;
                check(text != nullptr);
                if (!packet.hasError() && text[0] != '\0') {
                    const uint8_t* begin = packet.getData();
                    const uint8_t* at = reinterpret_cast<const uint8_t*>(text);
                    check(at >= begin && at + std::strlen(text) < begin + packet.getSize());
                }
                break;
            }
            case 2: {
                uint8_t bytes[16];
                const uint32_t got = packet.read(bytes, (selector >> 2) & 15);
                check(got <= 15);
                break;
            }
            default:
                packet.setPos(packet.getPos() + ((selector >> 2) & 7));
                break;
        }
        check(packet.getPos() <= packet.getSize());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<Frame> fromBuffer = decodeBuffer(data, size);
    const std::vector<Frame> fromSocket = decodeThroughSocket(data, size);
    check(fromBuffer == fromSocket);
    for (const Frame& frame : fromBuffer) {
        readFields(frame);
    }
    return 0;
}
