// net::Packet: one message of the runtime's packet protocol, an integer id and a payload of
// little-endian fields. docs/packet-format.md describes the bytes on the wire.
//
// One cursor serves writing and reading. Writing at the cursor overwrites or extends the
// payload; reading starts at 0 on a packet that came from a socket. A read past the payload or
// a write past kMaxPayload fails: the field is left untouched (reads yield 0 / "") and
// hasError() turns true, so a malformed packet is detected after the fact without crashing.
// Raw write() is the exception: it takes what fits and reports the count, which is how bulk
// data is split over several packets.
#pragma once

#include <cstdint>

#include "zu/buffer.h"
#include "zu/export.h"

namespace net {

class ZUL_API Packet {
public:
    // Largest payload of one packet. Big enough that bulk data moves in few frames, small
    // enough that a socket can hold a whole frame in its receive buffer.
    static constexpr uint32_t kMaxPayload = 256 * 1024;

    explicit Packet(int id = 0);
    ~Packet();
    Packet(const Packet& other);
    Packet& operator=(const Packet& other);

    // Starts over with a new id and an empty payload (keeps the storage).
    void reset(int id);

    int getID() const { return m_id; }
    uint32_t getSize() const { return m_size; }
    const uint8_t* getData() const { return m_data; }
    bool hasError() const { return m_error; }
    void clearError() { m_error = false; }

    uint32_t getPos() const { return m_pos; }
    // Moves the cursor; positions beyond the payload are clamped to its end.
    void setPos(uint32_t position);
    // Bytes from the cursor to the end of the payload.
    uint32_t getRemaining() const { return m_size - m_pos; }

    Packet& operator<<(int32_t value);
    Packet& operator<<(uint32_t value);
    Packet& operator<<(const char* text);  // null writes ""

    Packet& operator>>(int32_t& value);
    Packet& operator>>(uint32_t& value);
    // The text stays valid while the packet lives and is not changed.
    Packet& operator>>(const char*& text);

    // Writes up to `length` raw bytes; returns how many fit (the rest is left to the caller).
    // Taking fewer than `length` is not an error.
    uint32_t write(const void* data, uint32_t length);
    // Reads up to `length` raw bytes into `buffer`; returns how many were there. Finding fewer
    // than `length` sets the error flag.
    uint32_t read(void* buffer, uint32_t length);

    // Replaces id and payload with received bytes; false (packet emptied) when too large.
    bool assign(int id, const void* payload, uint32_t size);

private:
    friend class Socket;

    // Points the packet at a received frame's payload without copying it. The bytes belong to
    // the socket; the first write copies them into the packet's own storage.
    void view(int id, const uint8_t* payload, uint32_t size);
    bool isView() const { return m_data != m_storage.data(); }
    uint32_t storageCapacity() const { return static_cast<uint32_t>(m_storage.size()); }
    bool reserve(uint32_t size);
    // Checks that `length` more bytes fit at the cursor and makes room for them.
    bool prepareWrite(uint64_t length);
    void put(const void* data, uint32_t length);
    bool writeBytes(const void* data, uint32_t length);
    bool readBytes(void* buffer, uint32_t length);

    const uint8_t* m_data = nullptr;  // the payload: m_storage, or a socket's buffer (see view)
    zu::Buffer m_storage;             // 64-byte aligned, grows geometrically
    uint32_t m_size = 0;
    uint32_t m_pos = 0;
    int m_id = 0;
    bool m_error = false;
};

}  // namespace net
