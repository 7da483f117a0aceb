// zu::Buffer: an owned block of bytes on the runtime's heap, aligned as asked. Moving hands the
// block over; a buffer cannot be copied. Its bytes are not initialised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "zu/memory.h"

namespace zu {

class Buffer {
public:
    Buffer() = default;
    // Throws zu::OutOfMemoryException when the block cannot be had.
    explicit Buffer(size_t size, size_t alignment = kDefaultAlignment)
        : m_data(static_cast<uint8_t*>(allocateMemory(size, alignment))), m_size(size) {}
    ~Buffer() { deleteMemory(m_data); }
    Buffer(Buffer&& other) noexcept { swap(other); }
    Buffer& operator=(Buffer&& other) noexcept {
        Buffer taken(std::move(other));
        swap(taken);
        return *this;
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }
    char* chars() { return reinterpret_cast<char*>(m_data); }
    size_t size() const { return m_size; }
    bool empty() const { return m_data == nullptr; }

    // Gives the block back; the buffer is empty afterwards.
    void reset() { Buffer().swap(*this); }
    void swap(Buffer& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
    }

private:
    uint8_t* m_data = nullptr;
    size_t m_size = 0;
};

}  // namespace zu
