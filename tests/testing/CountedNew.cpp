// Counting replacements of operator new and delete; this object file is linked only into the test programs
// that call newCount() (it comes from a static library), so the others keep the standard ones.
#include "testing/CountedNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned long> gNewCount{0};

// Out of line, so that the compiler does not pair a visible malloc with a visible free.
__attribute__((noinline)) void* countedMalloc(std::size_t bytes) {
    gNewCount.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(bytes == 0 ? 1 : bytes)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void release(void* p) noexcept {
    std::free(p);
}

}  // namespace

void* operator new(std::size_t bytes) {
    return countedMalloc(bytes);
}
void* operator new[](std::size_t bytes) {
    return countedMalloc(bytes);
}
void operator delete(void* p) noexcept {
    release(p);
}
void operator delete[](void* p) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    release(p);
}

namespace kivTamber {
namespace testing {

unsigned long newCount() {
    return gNewCount.load(std::memory_order_relaxed);
}

}  // namespace testing
}  // namespace kivTamber
