// Symbolic block pattern of a symmetric block matrix (and, after symbolic analysis, of its factor).
#pragma once

namespace kivTamber {

// Block pattern without values, stored as lists per block.
//
// List form: for each block j the entries colPointers[j] .. colPointers[j+1]-1 of rowIndices are the blocks
// i <= j that couple to j, in ascending order, and the last entry of every non-empty list is j itself (the
// diagonal). This is the upper triangle stored by columns, equally the lower triangle stored by rows; the
// list of block 0 holds only its diagonal. colPointers[n] is the number of stored entries.
//
// fillFlags[k] is 1 where entry k is a fill-in or was swapped across the diagonal by a permutation, else 0.
// blockWords is optional (null when absent): one word per block that travels with the pattern when it is
// permuted.
//
// The members are public and written directly by the symbolic analysis; `resize` implements the capacity
// rule. Arrays assigned directly must come from kiv::allocateArray: the destructor releases them.
class SkeletonMatrix {
public:
    // [entryCapacity] block index i of each stored entry.
    unsigned int* rowIndices = nullptr;
    // [blockCapacity + 1] start of each block's list; colPointers[n] = number of stored entries.
    unsigned int* colPointers = nullptr;
    // [blockCapacity] one word per block, or null.
    unsigned int* blockWords = nullptr;
    // [entryCapacity] 1 for a fill-in or swapped entry, else 0.
    unsigned char* fillFlags = nullptr;
    unsigned long n = 0;              // number of blocks
    unsigned long blockCapacity = 0;  // blocks the per-block arrays can hold
    unsigned long entryCapacity = 0;  // entries rowIndices and fillFlags can hold

    // Empty: no arrays, n = 0, capacities 0.
    SkeletonMatrix() = default;
    ~SkeletonMatrix();

    // Deep copy of n blocks and colPointers[n] entries (blockWords only when the source has them). The target
    // is sized by `resize`, so an assignment keeps the target's arrays when they are large enough.
    SkeletonMatrix(const SkeletonMatrix& other);
    SkeletonMatrix& operator=(const SkeletonMatrix& other);

    // Prepares the skeleton for `numBlocks` blocks and `entries` stored entries and sets n = numBlocks.
    // Capacity rule: the arrays are kept when numBlocks <= blockCapacity and entries <= entryCapacity (and
    // arrays exist); otherwise all four are released and allocated anew at exactly numBlocks + 1
    // (colPointers), numBlocks (blockWords), entries and entries (rowIndices, fillFlags), and both capacities
    // are set. Newly allocated arrays are zeroed; kept arrays keep their contents. withBlockWords = false
    // releases blockWords (the skeleton then has none); true makes sure it exists with blockCapacity words.
    // Throws std::bad_alloc on allocation failure (the arrays being replaced are already released then).
    void resize(unsigned long numBlocks, unsigned long entries, bool withBlockWords);

    // Releases all arrays; the skeleton becomes empty.
    void release() noexcept;

    // Number of stored entries: colPointers[n], or 0 without arrays.
    unsigned long numEntries() const { return colPointers ? colPointers[n] : 0; }

    // Dense picture on standard output: the line "Skeleton Matrix, <n>x<n>", then (n > 0) one line per block
    // j with n cells, "1 " for an entry of j's list, "T " for a fill entry and "0 " elsewhere. Lines are
    // flushed.
    void print() const;
};

}  // namespace kivTamber
