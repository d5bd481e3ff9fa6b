#include <kiv/ByteAllocator.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace kiv {

namespace {
std::atomic<std::uint64_t> g_allocations{0};
}

void* ByteAllocator::allocate(std::size_t bytes, std::size_t alignment) {
    if (alignment < 16) alignment = 16;
    // aligned_alloc wants a size that is a multiple of the alignment.
    if (bytes > static_cast<std::size_t>(-1) - alignment) throw std::bad_alloc();
    std::size_t rounded = (bytes + alignment - 1) / alignment * alignment;
    if (rounded == 0) rounded = alignment;
    void* p = std::aligned_alloc(alignment, rounded);
    if (!p) throw std::bad_alloc();
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void ByteAllocator::deallocate(void* ptr, std::size_t) noexcept { std::free(ptr); }

std::uint64_t ByteAllocator::allocationCount() noexcept {
    return g_allocations.load(std::memory_order_relaxed);
}

}  // namespace kiv
