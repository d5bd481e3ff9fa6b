// Transposed block index of a factor (MetaLayout) and reusable aligned work arrays (ScratchPad).
#pragma once

#include <kiv/VectorPOD.h>

namespace kivTamber {

// Second index over the blocks of a double-precision factor L, the transpose of the block-sparse container's
// own: for each block column j of L (container row j) the entries colPointers[j] .. colPointers[j+1]-1 name
// the block rows c that hold a block L(c, j) (rowIndices) and the pointer to that tile inside the factor's
// value storage (blocks; an s_j x s_c column-major tile with leading dimension blockStrides[j]). The first
// entry of column j is the diagonal block L(j, j).
class MetaLayout {
public:
    kiv::VectorPOD<unsigned int> colPointers;  // per block column j the start of its entries; j+1 ends them
    kiv::VectorPOD<unsigned int> rowIndices;   // per entry the block row c of L(c, j)
    kiv::VectorPOD<double*> blocks;            // per entry the tile of L(c, j)

    MetaLayout() = default;
    // Releases all three vectors and leaves their sizes at zero.
    ~MetaLayout();
    MetaLayout(const MetaLayout&) = delete;
    MetaLayout& operator=(const MetaLayout&) = delete;

    // Writes the line "ColPointers:", then every element of colPointers as "%u " and one newline; then the
    // line "RowIndices:", every element of rowIndices as "%u " and one newline. Output is flushed.
    void print() const;
};

// One map of a ScratchPad: an open-addressing hash table with linear probing from a slot id to a reusable
// array of T. Storage of the table (state bytes and records) comes from the core byte allocator.
template <typename T>
class ScratchMap {
public:
    // The record of one slot.
    struct Record {
        unsigned long slot;   // slot id
        T* raw;               // raw allocation of count + extra elements
        T* data;              // raw rounded up to 16 bytes; what callers get
        unsigned long count;  // elements requested when the array was allocated (usable from data)
        unsigned long slotAgain;
    };

    unsigned char* states = nullptr;  // [capacity] 0 empty, 2 occupied, other values removed
    Record* records = nullptr;        // [capacity]
    unsigned long capacity = 0;       // power of two >= 4 once storage exists; 0 before the first insert
    unsigned long mask = 0;           // capacity - 1
    unsigned long count = 0;          // occupied records
    long longestProbe = -1;           // longest probe distance used so far, -1 when empty

    ScratchMap() = default;
    ~ScratchMap();
    ScratchMap(const ScratchMap&) = delete;
    ScratchMap& operator=(const ScratchMap&) = delete;

    // Array of at least `elements` elements of T for `slot`, 16-byte aligned.
    // The slot id is hashed with Thomas Wang's 64-to-32-bit shift hash and looked up by linear probing, at
    // most longestProbe + 1 slots, an empty slot ending the search. A slot whose array holds `elements` or
    // more returns it unchanged, with whatever the last user left in it. Otherwise the old array (if any) is
    // released and a new one of elements + 4 (int, float, double) or elements + 15 (unsigned char) elements
    // is allocated, its start rounded up to 16 bytes, not zeroed. Before the record is stored the table
    // grows when count + (count + 1) / 2 + 2 exceeds its capacity (next power of two, at least 4; all
    // records rehashed). Throws std::bad_alloc with nothing leaked; a slot whose array was being replaced
    // is then left without an array (count 0), so that its next request allocates anew.
    T* get(unsigned long slot, unsigned long elements);

    // Frees every array, marks every slot empty; keeps the table storage.
    void deallocate() noexcept;
};

// Reusable, 16-byte-aligned work arrays of four element types, named by numeric slot ids. Asking again for
// the same slot returns the same array as long as it is large enough; a request never shrinks an array and
// nothing is ever zeroed. The four maps are independent: the same slot id names four different arrays.
// Allocation failure throws std::bad_alloc. Non-copyable.
class ScratchPad {
public:
    ScratchMap<int> intArrays;
    ScratchMap<unsigned char> ucharArrays;
    ScratchMap<float> floatArrays;
    ScratchMap<double> doubleArrays;

    ScratchPad() = default;
    ~ScratchPad() = default;
    ScratchPad(const ScratchPad&) = delete;
    ScratchPad& operator=(const ScratchPad&) = delete;

    // Each returns at least `count` elements for `slot`, aligned to 16 bytes. When the slot's array already
    // holds `count` elements it is returned with whatever the last user left in it; otherwise it is replaced
    // by a new, uninitialised array (the old contents are gone).
    int* getIntArray(unsigned long slot, unsigned long count) { return intArrays.get(slot, count); }
    unsigned char* getUCharArray(unsigned long slot, unsigned long count) {
        return ucharArrays.get(slot, count);
    }
    float* getFloatArray(unsigned long slot, unsigned long count) { return floatArrays.get(slot, count); }
    double* getDoubleArray(unsigned long slot, unsigned long count) { return doubleArrays.get(slot, count); }

    // Frees every array of every map and empties the maps, keeping their table storage.
    void deallocate() noexcept;
};

extern template class ScratchMap<int>;
extern template class ScratchMap<unsigned char>;
extern template class ScratchMap<float>;
extern template class ScratchMap<double>;

}  // namespace kivTamber
