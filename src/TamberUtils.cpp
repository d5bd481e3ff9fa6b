#include "TamberUtils.h"

#include <kiv/ByteAllocator.h>

#include <cstdint>
#include <cstdio>
#include <new>

namespace kivTamber {

// ---------------------------------------------------------------------------------------------------------------
// MetaLayout

MetaLayout::~MetaLayout() {
    colPointers.release();
    rowIndices.release();
    blocks.release();
}

void MetaLayout::print() const {
    std::printf("ColPointers:\n");
    for (unsigned int v : colPointers) std::printf("%u ", v);
    std::printf("\nRowIndices:\n");
    for (unsigned int v : rowIndices) std::printf("%u ", v);
    std::printf("\n");
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------------------------------
// ScratchMap

namespace {

constexpr unsigned char kEmpty = 0;
constexpr unsigned char kOccupied = 2;

// Thomas Wang's 64-to-32-bit shift hash.
inline unsigned int hashSlot(unsigned long id) {
    std::uint64_t h = (static_cast<std::uint64_t>(id) << 18) - id - 1;
    h ^= h >> 31;
    h *= 21;
    h ^= h >> 11;
    h *= 65;
    h ^= h >> 22;
    return static_cast<unsigned int>(h);
}

// Elements allocated beyond the request, so that rounding the start up to 16 bytes leaves `count` usable.
template <typename T>
constexpr unsigned long extraElements() {
    return 4;
}
template <>
constexpr unsigned long extraElements<unsigned char>() {
    return 15;
}

template <typename T>
inline T* alignUp16(T* p) {
    const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p);
    return reinterpret_cast<T*>((a + 15) & ~static_cast<std::uintptr_t>(15));
}

}  // namespace

template <typename T>
ScratchMap<T>::~ScratchMap() {
    deallocate();
    kiv::ByteAllocator::deallocate(states, capacity);
    kiv::ByteAllocator::deallocate(records, capacity * sizeof(Record));
}

template <typename T>
void ScratchMap<T>::deallocate() noexcept {
    for (unsigned long s = 0; s < capacity; ++s) {
        if (states[s] != kOccupied) continue;
        kiv::deallocateArray(records[s].raw, records[s].count + extraElements<T>());
        states[s] = kEmpty;
    }
    count = 0;
    longestProbe = -1;
}

template <typename T>
T* ScratchMap<T>::get(unsigned long slot, unsigned long elements) {
    const unsigned long h = hashSlot(slot);

    // 1. Lookup, bounded by the longest probe distance; an empty slot ends it.
    for (long i = 0; i <= longestProbe; ++i) {
        const unsigned long s = (h + static_cast<unsigned long>(i)) & mask;
        if (states[s] == kEmpty) break;
        if (states[s] == kOccupied && records[s].slot == slot) {
            if (records[s].count >= elements) return records[s].data;  // 2. large enough: reuse as is
            // 3. too small: release (the record is rewritten below)
            kiv::deallocateArray(records[s].raw, records[s].count + extraElements<T>());
            records[s].raw = nullptr;
            records[s].data = nullptr;
            records[s].count = 0;
            break;
        }
    }

    // 4. New array of elements + extra, start rounded up to 16 bytes, not zeroed. An element count that would
    // wrap is passed on as the largest size so that the allocator fails.
    const unsigned long total = elements > ~0UL - extraElements<T>() ? ~0UL : elements + extraElements<T>();
    T* raw = kiv::allocateArray<T>(total);
    T* data = alignUp16(raw);

    // 5. Grow the table when count + (count + 1) / 2 + 2 exceeds its capacity (count = occupied records).
    const unsigned long need = count + (count + 1) / 2 + 2;
    if (need > capacity) {
        unsigned long newCapacity = 4;
        while (newCapacity < need) newCapacity <<= 1;
        unsigned char* newStates = nullptr;
        Record* newRecords = nullptr;
        try {
            newStates = static_cast<unsigned char*>(kiv::ByteAllocator::allocate(newCapacity, 16));
            newRecords = static_cast<Record*>(kiv::ByteAllocator::allocate(newCapacity * sizeof(Record), 16));
        } catch (...) {
            kiv::ByteAllocator::deallocate(newStates, newCapacity);
            kiv::deallocateArray(raw, total);
            throw std::bad_alloc();
        }
        for (unsigned long s = 0; s < newCapacity; ++s) newStates[s] = kEmpty;
        const unsigned long newMask = newCapacity - 1;
        long newLongest = -1;
        for (unsigned long s = 0; s < capacity; ++s) {
            if (states[s] != kOccupied) continue;
            const unsigned long hs = hashSlot(records[s].slot);
            long i = 0;
            while (newStates[(hs + static_cast<unsigned long>(i)) & newMask] == kOccupied) ++i;
            const unsigned long t = (hs + static_cast<unsigned long>(i)) & newMask;
            newStates[t] = kOccupied;
            newRecords[t] = records[s];
            if (i > newLongest) newLongest = i;
        }
        kiv::ByteAllocator::deallocate(states, capacity);
        kiv::ByteAllocator::deallocate(records, capacity * sizeof(Record));
        states = newStates;
        records = newRecords;
        capacity = newCapacity;
        mask = newMask;
        longestProbe = newLongest;
    }

    // 6. Store: the slot holding this id, else the first empty slot within the bound, else the first removed
    // slot met, else the first free slot beyond the bound (which extends the bound).
    long target = -1;
    long firstEmpty = -1;
    long firstRemoved = -1;
    for (long i = 0; i <= longestProbe; ++i) {
        const unsigned long s = (h + static_cast<unsigned long>(i)) & mask;
        if (states[s] == kOccupied) {
            if (records[s].slot == slot) {
                target = static_cast<long>(s);
                break;
            }
        } else if (states[s] == kEmpty) {
            firstEmpty = static_cast<long>(s);
            break;
        } else if (firstRemoved < 0) {
            firstRemoved = static_cast<long>(s);
        }
    }
    bool isNew = target < 0;
    if (target < 0) target = firstEmpty >= 0 ? firstEmpty : firstRemoved;
    if (target < 0) {
        long i = longestProbe + 1;
        while (states[(h + static_cast<unsigned long>(i)) & mask] == kOccupied) ++i;
        target = static_cast<long>((h + static_cast<unsigned long>(i)) & mask);
        longestProbe = i;
    }

    Record& r = records[target];
    r.slot = slot;
    r.raw = raw;
    r.data = data;
    r.count = elements;
    r.slotAgain = slot;
    states[target] = kOccupied;
    if (isNew) ++count;
    return data;  // 7.
}

template class ScratchMap<int>;
template class ScratchMap<unsigned char>;
template class ScratchMap<float>;
template class ScratchMap<double>;

// ---------------------------------------------------------------------------------------------------------------
// ScratchPad

void ScratchPad::deallocate() noexcept {
    intArrays.deallocate();
    ucharArrays.deallocate();
    floatArrays.deallocate();
    doubleArrays.deallocate();
}

}  // namespace kivTamber
