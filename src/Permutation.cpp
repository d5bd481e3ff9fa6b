#include "Permutation.h"

#include <kiv/ByteAllocator.h>

#include <cstdio>
#include <cstring>

namespace kivTamber {

Permutation::~Permutation() {
    release();
}

Permutation::Permutation(const Permutation& other) {
    *this = other;
}

Permutation& Permutation::operator=(const Permutation& other) {
    if (this == &other) return *this;
    reserve(other.capacity);
    if (other.capacity > 0) {
        std::memcpy(forward, other.forward, other.capacity * sizeof(unsigned int));
        std::memcpy(inverse, other.inverse, other.capacity * sizeof(unsigned int));
    }
    size = other.size;
    return *this;
}

void Permutation::release() noexcept {
    // The allocator does not need the exact count; arrays may carry slack beyond `capacity`.
    kiv::deallocateArray(forward, capacity);
    kiv::deallocateArray(inverse, capacity);
    forward = nullptr;
    inverse = nullptr;
    size = 0;
    capacity = 0;
}

void Permutation::reserve(unsigned long entries, unsigned long slack) {
    if (entries <= capacity) return;
    const unsigned long keepSize = size;
    release();
    size = keepSize;
    const unsigned long total = entries + slack < entries ? ~0UL : entries + slack;
    forward = kiv::allocateArray<unsigned int>(total);
    inverse = kiv::allocateArray<unsigned int>(total);
    capacity = entries;
}

void Permutation::setSize(unsigned long n) {
    reserve(n);
    size = n;
}

void Permutation::setIdentity() {
    for (unsigned long k = 0; k < capacity; ++k) {
        forward[k] = static_cast<unsigned int>(k);
        inverse[k] = static_cast<unsigned int>(k);
    }
}

void Permutation::computeInverse() {
    for (unsigned long k = 0; k < size; ++k) inverse[forward[k]] = static_cast<unsigned int>(k);
}

void Permutation::print() const {
    std::printf("i\tP\tPi\n");
    std::fflush(stdout);
    for (unsigned long k = 0; k < size; ++k) {
        std::printf("%lu\t%u\t%u\n", k, forward[k], inverse[k]);
        std::fflush(stdout);
    }
}

}  // namespace kivTamber
