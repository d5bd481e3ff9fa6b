#include "TamberUtils.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <cstdint>
#include <map>
#include <new>
#include <set>
#include <string>
#include <vector>

using namespace kivTamber;

namespace {

bool aligned16(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p) % 16 == 0;
}

// Independent copy of the slot hash (Thomas Wang's 64-to-32-bit shift hash), used only to construct
// colliding slot ids.
unsigned int referenceHash(std::uint64_t id) {
    std::uint64_t h = (id << 18) - id - 1;
    h = h ^ (h >> 31);
    h = h * 21;
    h = h ^ (h >> 11);
    h = h * 65;
    h = h ^ (h >> 22);
    return static_cast<unsigned int>(h);
}

// Structural invariants of one map: power-of-two capacity, count = occupied slots, the record's two ids
// agree, every occupied record lies within the longest probe distance of its home slot, and the size rule
// held when the last record went in.
template <typename T>
void checkMap(const ScratchMap<T>& m) {
    if (m.capacity == 0) {
        EXPECT_EQ(m.count, 0u);
        return;
    }
    EXPECT_GE(m.capacity, 4u);
    EXPECT_EQ(m.capacity & (m.capacity - 1), 0u);
    EXPECT_EQ(m.mask, m.capacity - 1);
    unsigned long occupied = 0;
    for (unsigned long s = 0; s < m.capacity; ++s) {
        if (m.states[s] != 2) continue;
        ++occupied;
        const auto& r = m.records[s];
        EXPECT_EQ(r.slot, r.slotAgain);
        EXPECT_TRUE(aligned16(r.data));
        EXPECT_LT(reinterpret_cast<const char*>(r.data) - reinterpret_cast<const char*>(r.raw), 16);
        const unsigned long distance = (s - referenceHash(r.slot)) & m.mask;
        EXPECT_LE(static_cast<long>(distance), m.longestProbe) << "slot id " << r.slot;
    }
    EXPECT_EQ(occupied, m.count);
    if (m.count > 0) {
        const unsigned long c = m.count - 1;
        EXPECT_LE(c + (c + 1) / 2 + 2, m.capacity);
    } else {
        EXPECT_EQ(m.longestProbe, -1);
    }
}

void checkPad(const ScratchPad& pad) {
    checkMap(pad.intArrays);
    checkMap(pad.ucharArrays);
    checkMap(pad.floatArrays);
    checkMap(pad.doubleArrays);
}

}  // namespace

TEST(MetaLayoutPrint, SmallAndEmpty) {
    MetaLayout empty;
    testing::internal::CaptureStdout();
    empty.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ColPointers:\n\nRowIndices:\n\n");

    // Three block columns of L: column 0 holds L(0,0), L(2,0); column 1 holds L(1,1); column 2 holds L(2,2).
    MetaLayout layout;
    for (unsigned int v : {0u, 2u, 3u, 4u}) layout.colPointers.push_back(v);
    for (unsigned int v : {0u, 2u, 1u, 4294967295u}) layout.rowIndices.push_back(v);
    layout.blocks.resize(4);
    testing::internal::CaptureStdout();
    layout.print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ColPointers:\n0 2 3 4 \nRowIndices:\n0 2 1 4294967295 \n");
}

TEST(ScratchPadReuse, SameSlotKeepsStorageAndContents) {
    ScratchPad pad;
    int* a = pad.getIntArray(3, 100);
    for (int i = 0; i < 100; ++i) a[i] = 7 * i;
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    EXPECT_EQ(pad.getIntArray(3, 100), a);
    EXPECT_EQ(pad.getIntArray(3, 50), a);
    EXPECT_EQ(pad.getIntArray(3, 0), a);
    EXPECT_EQ(pad.getIntArray(3, 100), a);  // a smaller request never shrank it
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(a[i], 7 * i);

    // Growth allocates one new array of the new size (ASan checks that every element is usable).
    int* b = pad.getIntArray(3, 101);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 1u);
    for (int i = 0; i < 101; ++i) b[i] = -i;
    EXPECT_EQ(pad.getIntArray(3, 101), b);
    EXPECT_EQ(pad.intArrays.count, 1u);
    checkPad(pad);
}

TEST(ScratchPadReuse, TypesAreIndependentAndAligned) {
    ScratchPad pad;
    for (unsigned long count : {0ul, 1ul, 2ul, 3ul, 5ul, 16ul, 17ul, 1000ul}) {
        SCOPED_TRACE(count);
        const unsigned long slot = 40 + count;
        int* i = pad.getIntArray(slot, count);
        unsigned char* u = pad.getUCharArray(slot, count);
        float* f = pad.getFloatArray(slot, count);
        double* d = pad.getDoubleArray(slot, count);
        for (const void* p : {static_cast<const void*>(i), static_cast<const void*>(u),
                              static_cast<const void*>(f), static_cast<const void*>(d)})
            EXPECT_TRUE(aligned16(p));
        for (unsigned long k = 0; k < count; ++k) {
            i[k] = static_cast<int>(k);
            u[k] = static_cast<unsigned char>(k + 1);
            f[k] = static_cast<float>(k) + 0.5f;
            d[k] = static_cast<double>(k) + 0.25;
        }
    }
    // Same slot id, four different arrays whose contents survive requests on the other types.
    for (unsigned long count : {0ul, 1ul, 2ul, 3ul, 5ul, 16ul, 17ul, 1000ul}) {
        const unsigned long slot = 40 + count;
        int* i = pad.getIntArray(slot, count);
        unsigned char* u = pad.getUCharArray(slot, count);
        float* f = pad.getFloatArray(slot, count);
        double* d = pad.getDoubleArray(slot, count);
        for (unsigned long k = 0; k < count; ++k) {
            ASSERT_EQ(i[k], static_cast<int>(k));
            ASSERT_EQ(u[k], static_cast<unsigned char>(k + 1));
            ASSERT_EQ(f[k], static_cast<float>(k) + 0.5f);
            ASSERT_EQ(d[k], static_cast<double>(k) + 0.25);
        }
    }
    EXPECT_EQ(pad.intArrays.count, 8u);
    EXPECT_EQ(pad.doubleArrays.count, 8u);
    checkPad(pad);
}

TEST(ScratchPadReuse, DeallocateStartsAfreshKeepingTables) {
    ScratchPad pad;
    for (unsigned long s = 0; s < 10; ++s) {
        pad.getIntArray(s, 8);
        pad.getUCharArray(s, 8);
        pad.getFloatArray(s, 8);
        pad.getDoubleArray(s, 8);
    }
    const unsigned long capacity = pad.doubleArrays.capacity;
    unsigned char* states = pad.doubleArrays.states;
    pad.deallocate();
    EXPECT_EQ(pad.doubleArrays.capacity, capacity);
    EXPECT_EQ(pad.doubleArrays.states, states);
    EXPECT_EQ(pad.intArrays.count + pad.ucharArrays.count + pad.floatArrays.count + pad.doubleArrays.count,
              0u);
    EXPECT_EQ(pad.floatArrays.longestProbe, -1);
    checkPad(pad);

    // Every slot is allocated afresh: one allocation per request, none for the tables.
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    for (unsigned long s = 0; s < 10; ++s) pad.getDoubleArray(s, 4)[3] = 1.0;
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 10u);
    EXPECT_EQ(pad.doubleArrays.count, 10u);
    pad.deallocate();
    pad.deallocate();  // twice is harmless
    checkPad(pad);
}

TEST(ScratchPadMap, CollidingIdsProbeLinearly) {
    // Five ids sharing the low 12 bits of their hash land on one home slot in every table up to 4096 slots.
    std::vector<unsigned long> ids;
    const unsigned int home = referenceHash(1) & 4095u;
    for (unsigned long id = 1; ids.size() < 5; ++id)
        if ((referenceHash(id) & 4095u) == home) ids.push_back(id);

    ScratchPad pad;
    std::vector<float*> arrays;
    for (unsigned long k = 0; k < ids.size(); ++k) {
        arrays.push_back(pad.getFloatArray(ids[k], 4));
        for (int e = 0; e < 4; ++e) arrays[k][e] = static_cast<float>(ids[k] + e);
    }
    // Sizes 4, 4, 8, 8, 8; the five records sit in consecutive slots from the common home.
    EXPECT_EQ(pad.floatArrays.capacity, 8u);
    EXPECT_EQ(pad.floatArrays.longestProbe, 4);
    checkPad(pad);
    for (unsigned long k = 0; k < ids.size(); ++k) {
        EXPECT_EQ(pad.getFloatArray(ids[k], 4), arrays[k]);
        for (int e = 0; e < 4; ++e) ASSERT_EQ(arrays[k][e], static_cast<float>(ids[k] + e));
    }

    // A removed slot (any state other than 0 and 2) is passed over by lookups and reused by the next insert.
    ScratchMap<float>& m = pad.floatArrays;
    const unsigned long first = (home + 0) & m.mask;
    ASSERT_EQ(m.records[first].slot, ids[0]);
    kiv::deallocateArray(m.records[first].raw, m.records[first].count + 4);
    m.states[first] = 1;
    --m.count;
    EXPECT_EQ(pad.getFloatArray(ids[4], 4), arrays[4]);
    float* again = pad.getFloatArray(ids[0], 2);
    EXPECT_EQ(m.states[first], 2);
    EXPECT_EQ(m.records[first].data, again);
    EXPECT_EQ(m.count, 5u);
    EXPECT_EQ(m.longestProbe, 4);
    checkPad(pad);
}

TEST(ScratchPadMap, ManySlotsGrowAndRehash) {
    // 1000 distinct ids: small, huge and ids that collide under small masks. Every array is tagged with its
    // id and length; after all the growth and rehashing each id still returns its own, untouched array.
    std::vector<unsigned long> ids;
    for (unsigned long k = 0; k < 400; ++k) ids.push_back(k);
    for (unsigned long k = 0; k < 200; ++k) ids.push_back(~0ul - k);
    for (unsigned long k = 0; k < 200; ++k) ids.push_back((1ul << 40) + (k << 20));
    const unsigned int home = referenceHash(12345) & 1023u;
    for (unsigned long id = 1ul << 32; ids.size() < 1000; ++id)
        if ((referenceHash(id) & 1023u) == home) ids.push_back(id);
    ASSERT_EQ(std::set<unsigned long>(ids.begin(), ids.end()).size(), ids.size());

    ScratchPad pad;
    std::map<unsigned long, std::pair<double*, unsigned long>> given;
    for (unsigned long k = 0; k < ids.size(); ++k) {
        const unsigned long n = 1 + k % 13;
        double* d = pad.getDoubleArray(ids[k], n);
        int* i = pad.getIntArray(ids[k], 1);
        for (unsigned long e = 0; e < n; ++e) d[e] = static_cast<double>(ids[k] % 1000003) + e;
        i[0] = static_cast<int>(k);
        given[ids[k]] = {d, n};
    }
    EXPECT_EQ(pad.doubleArrays.count, 1000u);
    EXPECT_EQ(pad.doubleArrays.capacity, 2048u);  // 999 + 500 + 2 = 1501 fits 2048
    checkPad(pad);
    for (unsigned long k = 0; k < ids.size(); ++k) {
        SCOPED_TRACE(ids[k]);
        const auto& g = given[ids[k]];
        ASSERT_EQ(pad.getDoubleArray(ids[k], g.second), g.first);
        for (unsigned long e = 0; e < g.second; ++e)
            ASSERT_EQ(g.first[e], static_cast<double>(ids[k] % 1000003) + e);
        ASSERT_EQ(pad.getIntArray(ids[k], 1)[0], static_cast<int>(k));
    }
    EXPECT_EQ(pad.ucharArrays.capacity, 0u);  // untouched maps hold no table
}

TEST(ScratchPadFailure, HugeRequestThrowsAndLeavesPadUsable) {
    ScratchPad pad;
    double* d = pad.getDoubleArray(1, 10);
    d[9] = 3.0;
    EXPECT_THROW(pad.getDoubleArray(2, ~0ul - 2), std::bad_alloc);
    EXPECT_THROW(pad.getUCharArray(2, ~0ul), std::bad_alloc);
    EXPECT_EQ(pad.doubleArrays.count, 1u);
    EXPECT_EQ(pad.ucharArrays.count, 0u);
    EXPECT_EQ(pad.getDoubleArray(1, 10), d);
    EXPECT_EQ(d[9], 3.0);
    checkPad(pad);
}
