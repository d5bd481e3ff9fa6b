#include "SkeletonMatrix.h"

#include <kiv/ByteAllocator.h>

#include <cstdio>
#include <cstring>

namespace kivTamber {

SkeletonMatrix::~SkeletonMatrix() {
    release();
}

SkeletonMatrix::SkeletonMatrix(const SkeletonMatrix& other) {
    *this = other;
}

SkeletonMatrix& SkeletonMatrix::operator=(const SkeletonMatrix& other) {
    if (this == &other) return *this;
    if (!other.colPointers) {
        // The source has never been sized: nothing to copy but its block count of zero.
        n = 0;
        if (colPointers) colPointers[0] = 0;
        return *this;
    }
    const unsigned long entries = other.colPointers[other.n];
    resize(other.n, entries, other.blockWords != nullptr);
    std::memcpy(colPointers, other.colPointers, (other.n + 1) * sizeof(unsigned int));
    if (entries > 0) {
        std::memcpy(rowIndices, other.rowIndices, entries * sizeof(unsigned int));
        std::memcpy(fillFlags, other.fillFlags, entries);
    }
    if (other.blockWords && other.n > 0)
        std::memcpy(blockWords, other.blockWords, other.n * sizeof(unsigned int));
    return *this;
}

void SkeletonMatrix::release() noexcept {
    kiv::deallocateArray(colPointers, blockCapacity + 1);
    kiv::deallocateArray(blockWords, blockCapacity);
    kiv::deallocateArray(rowIndices, entryCapacity);
    kiv::deallocateArray(fillFlags, entryCapacity);
    colPointers = nullptr;
    blockWords = nullptr;
    rowIndices = nullptr;
    fillFlags = nullptr;
    n = 0;
    blockCapacity = 0;
    entryCapacity = 0;
}

void SkeletonMatrix::resize(unsigned long numBlocks, unsigned long entries, bool withBlockWords) {
    // A skeleton without arrays allocates even for zero sizes, so that colPointers[n] always exists
    // afterwards.
    if (!colPointers || numBlocks > blockCapacity || entries > entryCapacity) {
        release();
        colPointers = kiv::allocateArray<unsigned int>(numBlocks + 1);
        std::memset(colPointers, 0, (numBlocks + 1) * sizeof(unsigned int));
        blockCapacity = numBlocks;
        if (withBlockWords) {
            blockWords = kiv::allocateArray<unsigned int>(numBlocks);
            std::memset(blockWords, 0, numBlocks * sizeof(unsigned int));
        }
        rowIndices = kiv::allocateArray<unsigned int>(entries);
        fillFlags = kiv::allocateArray<unsigned char>(entries);
        entryCapacity = entries;
        std::memset(rowIndices, 0, entries * sizeof(unsigned int));
        std::memset(fillFlags, 0, entries);
    } else if (withBlockWords && !blockWords) {
        blockWords = kiv::allocateArray<unsigned int>(blockCapacity);
        std::memset(blockWords, 0, blockCapacity * sizeof(unsigned int));
    } else if (!withBlockWords && blockWords) {
        kiv::deallocateArray(blockWords, blockCapacity);
        blockWords = nullptr;
    }
    n = numBlocks;
}

void SkeletonMatrix::print() const {
    std::printf("Skeleton Matrix, %lux%lu\n", n, n);
    std::fflush(stdout);
    if (n == 0) return;
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned long begin = colPointers[j];
        const unsigned long end = colPointers[j + 1];
        if (begin == end) {
            for (unsigned long r = 0; r < n; ++r) std::fputs("0 ", stdout);
        } else {
            // The cursor stays on the list's last entry (the diagonal) once it reaches it.
            unsigned long k = begin;
            for (unsigned long r = 0; r < n; ++r) {
                if (rowIndices[k] == r) {
                    std::fputs(fillFlags[k] != 0 ? "T " : "1 ", stdout);
                    if (k + 1 < end) ++k;
                } else {
                    std::fputs("0 ", stdout);
                }
            }
        }
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }
}

}  // namespace kivTamber
