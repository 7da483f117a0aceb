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

// What the bytes at the front of a receive buffer hold.
enum class FrameCheck {
    Incomplete,  // the start of a frame: more bytes are needed
    Whole,       // a whole frame
    Invalid      // a length field out of bounds: the stream is not ours, or corrupted
};

// Checks the frame at the front of `available` received bytes; for a whole one, stores its size
// (header included) in `frameSize`. The one place where received lengths are judged: sockets
// and the frame fuzzer both decode through it.
inline FrameCheck checkFrame(const uint8_t* bytes, uint32_t available, uint32_t* frameSize) {
    if (available < kHeaderSize) {
        return FrameCheck::Incomplete;
    }
    const uint32_t length = loadLE32(bytes);
    if (length < kHeaderSize - kLengthSize || length > kMaxFrameSize - kLengthSize) {
        return FrameCheck::Invalid;
    }
    if (available - kLengthSize < length) {
        return FrameCheck::Incomplete;
    }
    *frameSize = kLengthSize + length;
    return FrameCheck::Whole;
}

// The id of the whole frame at `frame`.
inline int frameId(const uint8_t* frame) {
    return static_cast<int>(loadLE32(frame + kLengthSize));
}

inline void storeHeader(uint8_t* header, int id, uint32_t payloadSize) {
    storeLE32(header, payloadSize + (kHeaderSize - kLengthSize));
    storeLE32(header + kLengthSize, static_cast<uint32_t>(id));
}

}  // namespace wire
}  // namespace net
