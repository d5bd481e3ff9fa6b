// Block permutation with its inverse.
#pragma once

namespace kivTamber {

// forward[k] is the block placed k-th; inverse[forward[k]] = k. `size` is the number of blocks n, `capacity`
// the number of entries both arrays can hold (the arrays may be allocated with extra slack entries beyond
// `capacity`, see `reserve`).
//
// The members are public and written directly by the ordering routines. Entries beyond `size` may be read by
// routines that work over the full capacity (a failed ordering leaves the identity over `capacity` entries).
// Arrays assigned directly must come from kiv::allocateArray<unsigned int>: the destructor releases them.
class Permutation {
public:
    unsigned long size = 0;           // number of blocks n
    unsigned long capacity = 0;       // entries both arrays can hold
    unsigned int* forward = nullptr;  // [capacity] forward[k] = block placed k-th (print column "P")
    unsigned int* inverse = nullptr;  // [capacity] inverse[forward[k]] = k (print column "Pi")

    // Empty: no arrays, size and capacity 0.
    Permutation() = default;
    ~Permutation();

    // Deep copy of `capacity` entries of both arrays and of `size`. The target grows (`reserve`) when the
    // source's capacity exceeds its own; otherwise it keeps its arrays and capacity.
    Permutation(const Permutation& other);
    Permutation& operator=(const Permutation& other);

    // Grow-only: when entries > capacity, releases both arrays and allocates `entries + slack` entries each,
    // uninitialised, and sets capacity = entries. Otherwise nothing changes. `size` is never changed.
    // (The ordering sizes a permutation with reserve(n + 8, 1): capacity n + 8 in arrays of n + 9 entries.)
    // Throws std::bad_alloc on failure, with both old arrays already released.
    void reserve(unsigned long entries, unsigned long slack = 0);

    // reserve(n), then size = n. Contents are not kept when the arrays are reallocated.
    void setSize(unsigned long n);

    // forward[k] = inverse[k] = k for every k < capacity (not just below size).
    void setIdentity();

    // inverse[forward[k]] = k for k < size. Precondition: forward[0 .. size-1] is a permutation of 0 ..
    // size-1.
    void computeInverse();

    // Releases both arrays; size and capacity become 0.
    void release() noexcept;

    // Table on standard output: the line "i\tP\tPi", then for k < size the line k, tab, forward[k], tab,
    // inverse[k]. Lines are flushed.
    void print() const;
};

}  // namespace kivTamber
