// zu::Vector: a growable array. When full it grows to the larger of 8 and capacity +
// capacity / 2 (so 8, 12, 18, 27, ...); resize and reserve allocate exactly what they are asked.
// `Alloc` is an allocation policy with static allocate(size, alignment) and deallocate(memory).
#pragma once

#include <cassert>
#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

#include "zu/memory.h"

namespace zu {

template <typename T, typename Alloc = HeapAllocator>
class Vector {
public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    Vector() = default;
    Vector(const Vector& other) { copyFrom(other); }
    Vector(Vector&& other) noexcept { swap(other); }
    ~Vector() {
        clear();
        Alloc::deallocate(m_items);
    }
    Vector& operator=(const Vector& other) {
        if (this != &other) {
            clear();
            copyFrom(other);
        }
        return *this;
    }
    Vector& operator=(Vector&& other) noexcept {
        if (this != &other) {
            Vector moved(std::move(other));
            swap(moved);
        }
        return *this;
    }

    // The capacity a full vector grows to.
    static size_t grownCapacity(size_t capacity) {
        size_t grown = capacity + capacity / 2;
        return grown < 8 ? 8 : grown;
    }

    size_t size() const { return m_count; }
    size_t capacity() const { return m_capacity; }
    bool empty() const { return m_count == 0; }
    T* data() { return m_items; }
    const T* data() const { return m_items; }

    T& operator[](size_t index) {
        assert(index < m_count && "zu::Vector index out of range");
        return m_items[index];
    }
    const T& operator[](size_t index) const {
        assert(index < m_count && "zu::Vector index out of range");
        return m_items[index];
    }
    T& front() { return (*this)[0]; }
    const T& front() const { return (*this)[0]; }
    T& back() { return (*this)[m_count - 1]; }
    const T& back() const { return (*this)[m_count - 1]; }

    iterator begin() { return m_items; }
    iterator end() { return m_items + m_count; }
    const_iterator begin() const { return m_items; }
    const_iterator end() const { return m_items + m_count; }

    template <typename... Args>
    T& emplace_back(Args&&... args) {
        if (m_count == m_capacity) {
            // Build first: the arguments may refer into the storage that is about to move.
            T item(std::forward<Args>(args)...);
            reallocate(grownCapacity(m_capacity));
            new (m_items + m_count) T(std::move(item));
        } else {
            new (m_items + m_count) T(std::forward<Args>(args)...);
        }
        return m_items[m_count++];
    }
    void push_back(const T& item) { emplace_back(item); }
    void push_back(T&& item) { emplace_back(std::move(item)); }

    void pop_back() {
        assert(m_count > 0 && "pop_back on an empty zu::Vector");
        m_items[--m_count].~T();
    }

    // Inserts before `index` (at most size()).
    void insert(size_t index, const T& item) {
        assert(index <= m_count && "zu::Vector insert position out of range");
        emplace_back(item);
        for (size_t i = m_count - 1; i > index; --i) {
            std::swap(m_items[i], m_items[i - 1]);
        }
    }

    // Removes the item at `index`; the items behind it move down one place, keeping order.
    void erase(size_t index) {
        assert(index < m_count && "zu::Vector erase position out of range");
        for (size_t i = index; i + 1 < m_count; ++i) {
            m_items[i] = std::move(m_items[i + 1]);
        }
        pop_back();
    }

    void clear() {
        while (m_count > 0) {
            pop_back();
        }
    }

    void reserve(size_t capacity) {
        if (capacity > m_capacity) {
            reallocate(capacity);
        }
    }

    // Sets the count; new items are value-initialised.
    void resize(size_t count) {
        reserve(count);
        while (m_count > count) {
            pop_back();
        }
        while (m_count < count) {
            new (m_items + m_count) T();
            ++m_count;
        }
    }

    void swap(Vector& other) noexcept {
        std::swap(m_items, other.m_items);
        std::swap(m_count, other.m_count);
        std::swap(m_capacity, other.m_capacity);
    }

private:
    static constexpr size_t kAlignment = alignof(T) > kDefaultAlignment ? alignof(T)
                                                                        : kDefaultAlignment;

    void reallocate(size_t capacity) {
        T* items = static_cast<T*>(Alloc::allocate(capacity * sizeof(T), kAlignment));
        for (size_t i = 0; i < m_count; ++i) {
            new (items + i) T(std::move(m_items[i]));
            m_items[i].~T();
        }
        Alloc::deallocate(m_items);
        m_items = items;
        m_capacity = capacity;
    }

    void copyFrom(const Vector& other) {
        reserve(other.m_count);
        for (const T& item : other) {
            new (m_items + m_count) T(item);
            ++m_count;
        }
    }

    T* m_items = nullptr;
    size_t m_count = 0;
    size_t m_capacity = 0;
};

}  // namespace zu
