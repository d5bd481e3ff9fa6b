// Growable vector of plain values on the core byte allocator.
//
// Unlike std::vector it never constructs or destroys elements (T must be
// trivially copyable), new elements added by resize() are zeroed, and clear()
// keeps the storage, so a vector reused from step to step stops allocating as
// soon as it has seen its largest size.
#pragma once

#include <kiv/ByteAllocator.h>

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

namespace kiv {

template <typename T>
class VectorPOD {
    // std::pair of integers is not formally trivially copyable but is plain data.
    static_assert(std::is_trivially_destructible<T>::value, "VectorPOD holds plain values only");

public:
    VectorPOD() noexcept = default;
    explicit VectorPOD(std::size_t n) { resize(n); }
    VectorPOD(const VectorPOD& other) { *this = other; }
    VectorPOD(VectorPOD&& other) noexcept { swap(other); }
    ~VectorPOD() { release(); }

    VectorPOD& operator=(const VectorPOD& other) {
        if (this != &other) {
            if (other.size_ > capacity_) reallocate(other.size_);
            if (other.size_ > 0) std::memcpy(static_cast<void*>(data_), other.data_, other.size_ * sizeof(T));
            size_ = other.size_;
        }
        return *this;
    }
    VectorPOD& operator=(VectorPOD&& other) noexcept {
        if (this != &other) {
            release();
            swap(other);
        }
        return *this;
    }

    void swap(VectorPOD& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }

    T* data() noexcept { return data_; }
    const T* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    std::size_t capacity() const noexcept { return capacity_; }
    bool empty() const noexcept { return size_ == 0; }

    T& operator[](std::size_t i) noexcept { return data_[i]; }
    const T& operator[](std::size_t i) const noexcept { return data_[i]; }
    T* begin() noexcept { return data_; }
    T* end() noexcept { return data_ + size_; }
    const T* begin() const noexcept { return data_; }
    const T* end() const noexcept { return data_ + size_; }
    T& back() noexcept { return data_[size_ - 1]; }
    const T& back() const noexcept { return data_[size_ - 1]; }

    // Sets the size to n. Growing beyond the capacity reallocates to exactly
    // max(4, n) elements (old contents kept); elements past the old size are
    // zeroed. Shrinking keeps the storage.
    void resize(std::size_t n) {
        if (n > capacity_) reallocate(n < 4 ? 4 : n);
        if (n > size_) std::memset(static_cast<void*>(data_ + size_), 0, (n - size_) * sizeof(T));
        size_ = n;
    }

    // Makes room for n elements without changing the size.
    void reserve(std::size_t n) {
        if (n > capacity_) reallocate(n < 4 ? 4 : n);
    }

    void push_back(const T& v) {
        const T copy = v;  // v may refer to an element of this vector
        if (size_ == capacity_) reallocate(capacity_ < 2 ? 4 : 2 * capacity_);
        data_[size_++] = copy;
    }
    void pop_back() noexcept { --size_; }

    // Forgets the elements, keeps the storage.
    void clear() noexcept { size_ = 0; }

    // Frees the storage; size and capacity become 0.
    void release() noexcept {
        if (data_) deallocateArray(data_, capacity_);
        data_ = nullptr;
        size_ = capacity_ = 0;
    }

private:
    void reallocate(std::size_t newCapacity) {
        T* fresh = allocateArray<T>(newCapacity);
        if (size_ > 0) std::memcpy(static_cast<void*>(fresh), data_, size_ * sizeof(T));
        if (newCapacity > size_)
            std::memset(static_cast<void*>(fresh + size_), 0, (newCapacity - size_) * sizeof(T));
        if (data_) deallocateArray(data_, capacity_);
        data_ = fresh;
        capacity_ = newCapacity;
    }

    T* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace kiv
