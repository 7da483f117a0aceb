// Byte order and framing shared by net::Packet and the platform sockets (see
// docs/packet-format.md).
#pragma once

#include <cstdint>

#include "net/packet.h"

namespace net {
namespace wire {

// A frame starts with the length of what follows (uint32) and the packet id (int32).
constexpr uint32_t kLengthSize = 4;
constexpr uint32_t kHeaderSize = 8;
constexpr uint32_t kMaxFrameSize = kHeaderSize + Packet::kMaxPayload;

inline uint32_t loadLE32(const uint8_t* bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

inline void storeLE32(uint8_t* bytes, uint32_t value) {
    bytes[0] = static_cast<uint8_t>(value);
    bytes[1] = static_cast<uint8_t>(value >> 8);
    bytes[2] = static_cast<uint8_t>(value >> 16);
    bytes[3] = static_cast<uint8_t>(value >> 24);
}

inline void storeHeader(uint8_t* header, int id, uint32_t payloadSize) {
    storeLE32(header, payloadSize + (kHeaderSize - kLengthSize));
    storeLE32(header + kLengthSize, static_cast<uint32_t>(id));
}

}  // namespace wire
}  // namespace net
