#include "net/packet.h"

#include <cstring>

#include "net_wire.h"
#include "zu/memory.h"

namespace net {
namespace {

// Cache-line alignment: payloads are copied in bulk and the copies run faster on whole lines.
constexpr size_t kStorageAlignment = 64;
constexpr uint32_t kMinCapacity = 64;

static_assert(Packet::kMaxPayload % kStorageAlignment == 0,
              "rounding a capacity up to the alignment must not pass kMaxPayload");

uint32_t roundUpToAlignment(uint32_t size) {
    return (size + (kStorageAlignment - 1)) & ~static_cast<uint32_t>(kStorageAlignment - 1);
}

const char kEmptyText[] = "";

}  // namespace

Packet::Packet(int id) : m_id(id) {}

Packet::~Packet() = default;

Packet::Packet(const Packet& other) {
    *this = other;
}

Packet& Packet::operator=(const Packet& other) {
    if (this != &other) {
        reset(other.m_id);
        reserve(other.m_size);
        if (other.m_size > 0) {
            std::memcpy(m_storage.data(), other.m_data, other.m_size);
        }
        m_size = other.m_size;
        m_pos = other.m_pos;
        m_error = other.m_error;
    }
    return *this;
}

void Packet::reset(int id) {
    m_id = id;
    m_data = m_storage.data();
    m_size = 0;
    m_pos = 0;
    m_error = false;
}

void Packet::view(int id, const uint8_t* payload, uint32_t size) {
    m_id = id;
    m_data = payload;
    m_size = size;
    m_pos = 0;
    m_error = false;
}

void Packet::setPos(uint32_t position) {
    m_pos = position < m_size ? position : m_size;
}

// Makes the owned storage hold at least `size` bytes and the payload live in it.
bool Packet::reserve(uint32_t size) {
    if (size > kMaxPayload) {
        return false;
    }
    if (size <= storageCapacity()) {
        if (isView()) {
            if (m_size > 0) {
                std::memcpy(m_storage.data(), m_data, m_size);
            }
            m_data = m_storage.data();
        }
        return true;
    }
    uint32_t capacity = storageCapacity() * 2 > kMinCapacity ? storageCapacity() * 2 : kMinCapacity;
    capacity = roundUpToAlignment(capacity > size ? capacity : size);
    capacity = capacity < kMaxPayload ? capacity : kMaxPayload;
    zu::Buffer storage(capacity, kStorageAlignment);
    if (m_size > 0) {
        std::memcpy(storage.data(), m_data, m_size);
    }
    m_storage = std::move(storage);
    m_data = m_storage.data();
    return true;
}

bool Packet::prepareWrite(uint64_t length) {
    uint64_t end = static_cast<uint64_t>(m_pos) + length;
    if (end > kMaxPayload) {
        m_error = true;
        return false;
    }
    uint32_t needed = end > m_size ? static_cast<uint32_t>(end) : m_size;
    return reserve(needed);
}

void Packet::put(const void* data, uint32_t length) {
    if (length > 0) {
        std::memcpy(m_storage.data() + m_pos, data, length);
    }
    m_pos += length;
    if (m_pos > m_size) {
        m_size = m_pos;
    }
}

bool Packet::writeBytes(const void* data, uint32_t length) {
    if (!prepareWrite(length)) {
        return false;
    }
    put(data, length);
    return true;
}

bool Packet::readBytes(void* buffer, uint32_t length) {
    if (length > getRemaining()) {
        m_error = true;
        return false;
    }
    if (length > 0) {
        std::memcpy(buffer, m_data + m_pos, length);
    }
    m_pos += length;
    return true;
}

Packet& Packet::operator<<(int32_t value) {
    return *this << static_cast<uint32_t>(value);
}

// The uint32 fields are most of a pipe message's head. They are written and read in place:
// put, writeBytes and readBytes are exported members, called through the library's symbol
// table and never inlined, which cost about 7% of a small round trip's instructions.
Packet& Packet::operator<<(uint32_t value) {
    if (!isView() && storageCapacity() >= 4 && m_pos <= storageCapacity() - 4) {
        wire::storeLE32(m_storage.data() + m_pos, value);  // room already: the usual case
        m_pos += 4;
        m_size = m_pos > m_size ? m_pos : m_size;
        return *this;
    }
    uint8_t bytes[4];
    wire::storeLE32(bytes, value);
    writeBytes(bytes, sizeof(bytes));
    return *this;
}

Packet& Packet::operator<<(const char* text) {
    if (!text) {
        text = kEmptyText;
    }
    size_t length = std::strlen(text);
    // Length, bytes and terminator go in whole or not at all.
    if (length > kMaxPayload || !prepareWrite(4 + static_cast<uint64_t>(length) + 1)) {
        m_error = true;
        return *this;
    }
    uint8_t lengthBytes[4];
    wire::storeLE32(lengthBytes, static_cast<uint32_t>(length));
    put(lengthBytes, sizeof(lengthBytes));
    put(text, static_cast<uint32_t>(length) + 1);
    return *this;
}

Packet& Packet::operator>>(int32_t& value) {
    uint32_t bits = 0;
    *this >> bits;
    value = static_cast<int32_t>(bits);
    return *this;
}

Packet& Packet::operator>>(uint32_t& value) {
    if (getRemaining() < 4) {
        m_error = true;
        value = 0;
        return *this;
    }
    value = wire::loadLE32(m_data + m_pos);
    m_pos += 4;
    return *this;
}

Packet& Packet::operator>>(const char*& text) {
    text = kEmptyText;
    uint32_t remaining = getRemaining();
    if (remaining < 5) {
        m_error = true;
        return *this;
    }
    const uint8_t* field = m_data + m_pos;
    uint32_t length = wire::loadLE32(field);
    // The bytes and their terminator must lie inside the payload.
    if (length > remaining - 5 || field[4 + length] != 0) {
        m_error = true;
        return *this;
    }
    text = reinterpret_cast<const char*>(field + 4);
    m_pos += 5 + length;
    return *this;
}

uint32_t Packet::write(const void* data, uint32_t length) {
    if (!data) {
        return 0;
    }
    uint32_t room = kMaxPayload - m_pos;
    uint32_t accepted = length < room ? length : room;
    return writeBytes(data, accepted) ? accepted : 0;
}

uint32_t Packet::read(void* buffer, uint32_t length) {
    uint32_t available = getRemaining();
    if (length > available) {
        m_error = true;
        length = available;
    }
    if (!buffer) {
        return 0;
    }
    readBytes(buffer, length);
    return length;
}

bool Packet::assign(int id, const void* payload, uint32_t size) {
    reset(id);
    if (size > kMaxPayload || (!payload && size > 0)) {
        return false;
    }
    reserve(size);
    if (size > 0) {
        std::memcpy(m_storage.data(), payload, size);
    }
    m_size = size;
    return true;
}

}  // namespace net
