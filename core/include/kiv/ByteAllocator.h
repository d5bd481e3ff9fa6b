// Byte allocator of the core runtime.
//
// Every container of the runtime and of the solver library draws its storage
// from here, so that allocation can be counted in one place: tests and the demo
// read allocationCount() before and after a time step to prove that the steady
// state allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kiv {

class ByteAllocator {
public:
    // Returns `bytes` bytes aligned to `alignment` (a power of two, at least
    // 16 is used when smaller). A request of 0 bytes returns a valid unique
    // pointer. Throws std::bad_alloc when the system has no memory or when the
    // request cannot be represented.
    static void* allocate(std::size_t bytes, std::size_t alignment = 16);

    // Releases memory from allocate(). `bytes` is the count given to allocate;
    // it is accepted for symmetry with sized deallocation and is not needed.
    // A null pointer is ignored.
    static void deallocate(void* ptr, std::size_t bytes) noexcept;

    // Number of successful allocate() calls since the process started.
    static std::uint64_t allocationCount() noexcept;
};

// Typed convenience wrappers: `count` elements of T, 16-byte aligned, not
// initialised. The byte count is checked for overflow (std::bad_alloc).
template <typename T>
T* allocateArray(std::size_t count) {
    if (count > static_cast<std::size_t>(-1) / sizeof(T) - 64) {
        return static_cast<T*>(ByteAllocator::allocate(static_cast<std::size_t>(-1)));
    }
    return static_cast<T*>(ByteAllocator::allocate(count * sizeof(T), 16));
}

template <typename T>
void deallocateArray(T* ptr, std::size_t count) noexcept {
    ByteAllocator::deallocate(ptr, count * sizeof(T));
}

}  // namespace kiv
