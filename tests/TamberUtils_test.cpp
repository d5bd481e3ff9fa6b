// MetaLayout print format; scratch pad reuse, growth, probing and failure, checking its maps' invariants.
#include "TamberUtils.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

using namespace kivTamber;

namespace {

const auto aligned16 = [](const void* p) { return reinterpret_cast<std::uintptr_t>(p) % 16 == 0; };

// Independent copy of the slot hash (a 64-to-32-bit shift hash), used only to construct colliding slot ids.
unsigned int referenceHash(std::uint64_t id) {
    std::uint64_t h = (id << 18) - id - 1;
    h = (h ^ (h >> 31)) * 21;
    h = (h ^ (h >> 11)) * 65;
    return static_cast<unsigned int>(h ^ (h >> 22));
}

// Power-of-two capacity, count = occupied slots, the record's two ids agree, aligned data within 16 bytes of
// the raw allocation, every record within the longest probe distance of its home slot, and the size rule
// held when the last record went in.
template <typename T>
void checkMap(const ScratchMap<T>& m) {
    EXPECT_TRUE(m.capacity == 0 ||
                (m.capacity >= 4 && (m.capacity & m.mask) == 0 && m.mask == m.capacity - 1));
    unsigned long occupied = 0;
    for (unsigned long s = 0; s < m.capacity; ++s) {
        if (m.states[s] != 2) continue;
        ++occupied;
        const auto& r = m.records[s];
        const long shift = reinterpret_cast<const char*>(r.data) - reinterpret_cast<const char*>(r.raw);
        EXPECT_TRUE(r.slot == r.slotAgain && aligned16(r.data) && shift >= 0 && shift < 16) << r.slot;
        EXPECT_LE(static_cast<long>((s - referenceHash(r.slot)) & m.mask), m.longestProbe) << r.slot;
    }
    EXPECT_EQ(occupied, m.count);
    EXPECT_TRUE(m.count > 0 ? m.count - 1 + m.count / 2 + 2 <= m.capacity : m.longestProbe == -1);
}

void checkPad(const ScratchPad& pad) {
    checkMap(pad.intArrays), checkMap(pad.ucharArrays), checkMap(pad.floatArrays), checkMap(pad.doubleArrays);
}

}  // namespace

TEST(MetaLayoutPrint, SmallAndEmpty) {
    MetaLayout layout;  // then L(0,0), L(2,0) in block column 0, L(1,1) in 1 and L(2,2) in 2
    auto printed = [&layout] {
        testing::internal::CaptureStdout();
        layout.print();
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(printed(), "ColPointers:\n\nRowIndices:\n\n");
    for (unsigned int v : {0u, 2u, 3u, 4u}) layout.colPointers.push_back(v);
    for (unsigned int v : {0u, 2u, 1u, 4294967295u}) layout.rowIndices.push_back(v);
    layout.blocks.resize(4);
    EXPECT_EQ(printed(), "ColPointers:\n0 2 3 4 \nRowIndices:\n0 2 1 4294967295 \n");
}

// The four types keep separate, 16-byte-aligned arrays under one slot id; a slot keeps its array and
// contents while requests do not grow it, and growth allocates one new array; a failed huge request throws
// and leaves the pad as it was; deallocate drops every array but keeps the tables.
TEST(ScratchPadReuse, SlotsKeepStorageTypesAreIndependent) {
    ScratchPad pad;
    // Requests `slot` of n elements of the four types; element k holds (k + slot) % 251.
    auto touch = [&pad](unsigned long slot, unsigned long n, bool write) {
        auto one = [&](auto* p) {
            EXPECT_TRUE(aligned16(p));
            for (unsigned long k = 0; k < n; ++k) {
                const auto v = static_cast<std::remove_pointer_t<decltype(p)>>((k + slot) % 251);
                if (write) p[k] = v;
                ASSERT_EQ(p[k], v) << slot << " " << k;
            }
        };
        one(pad.getIntArray(slot, n)), one(pad.getUCharArray(slot, n));
        one(pad.getFloatArray(slot, n)), one(pad.getDoubleArray(slot, n));
    };
    const std::vector<unsigned long> counts = {0, 1, 2, 3, 5, 16, 17, 1000};
    for (unsigned long n : counts) touch(40 + n, n, true);
    int* a = pad.getIntArray(1040, 1000);
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    for (unsigned long n : {1000ul, 50ul, 0ul, 1000ul}) EXPECT_EQ(pad.getIntArray(1040, n), a);
    for (unsigned long n : counts) touch(40 + n, n, false);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    touch(1040, 1001, true);  // growth: one new array per type (ASan checks that every element is usable)
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 4u);

    EXPECT_THROW(pad.getDoubleArray(2, ~0ul - 2), std::bad_alloc);
    EXPECT_THROW(pad.getUCharArray(2, ~0ul), std::bad_alloc);
    EXPECT_EQ(pad.doubleArrays.count + pad.ucharArrays.count, 16u);
    touch(1040, 1001, false);
    checkPad(pad);

    const auto table = std::make_pair(pad.doubleArrays.capacity, pad.doubleArrays.states);
    pad.deallocate();
    EXPECT_EQ(std::make_pair(pad.doubleArrays.capacity, pad.doubleArrays.states), table);
    EXPECT_EQ(pad.intArrays.count + pad.ucharArrays.count + pad.floatArrays.count + pad.doubleArrays.count,
              0u);
    checkPad(pad);
    const std::uint64_t again = kiv::ByteAllocator::allocationCount();
    for (unsigned long s = 0; s < 8; ++s) pad.getDoubleArray(s, 4)[3] = 1.0;
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - again, 8u);  // one per request, none for the table
    pad.deallocate(), pad.deallocate();                            // twice is harmless
    checkPad(pad);
}

TEST(ScratchPadMap, CollidingIdsProbeLinearly) {
    // Five ids sharing the low 12 bits of their hash land on one home slot in every table up to 4096 slots.
    std::vector<unsigned long> ids;
    const unsigned int home = referenceHash(1) & 4095u;
    for (unsigned long id = 1; ids.size() < 5; ++id)
        if ((referenceHash(id) & 4095u) == home) ids.push_back(id);
    ScratchPad pad;
    ScratchMap<float>& m = pad.floatArrays;
    std::vector<float*> arrays(5);
    for (int pass = 0; pass < 2; ++pass) {
        for (unsigned long k = 0; k < 5; ++k) {
            float* f = pad.getFloatArray(ids[k], 4);
            if (pass == 0) arrays[k] = f, std::fill(f, f + 4, static_cast<float>(ids[k]));
            ASSERT_EQ(f, arrays[k]);
            ASSERT_TRUE(std::all_of(f, f + 4, [&](float v) { return v == static_cast<float>(ids[k]); }));
        }
        EXPECT_EQ(m.capacity, 8u);  // sizes 4, 4, 8, 8, 8; consecutive slots from the common home
        EXPECT_EQ(m.longestProbe, 4);
        checkPad(pad);
    }
    // A removed slot (any state other than 0 and 2) is passed over by lookups and reused by the next insert.
    const unsigned long first = home & m.mask;
    ASSERT_EQ(m.records[first].slot, ids[0]);
    kiv::deallocateArray(m.records[first].raw, m.records[first].count + 4);
    m.states[first] = 1;
    --m.count;
    EXPECT_EQ(pad.getFloatArray(ids[4], 4), arrays[4]);
    float* again = pad.getFloatArray(ids[0], 2);
    EXPECT_TRUE(m.states[first] == 2 && m.records[first].data == again);
    EXPECT_TRUE(m.count == 5 && m.longestProbe == 4);
    checkPad(pad);
}

TEST(ScratchPadMap, ManySlotsGrowAndRehash) {
    // 1000 distinct ids: small, huge and ids that collide under small masks. Every array is tagged with its
    // id; after all the growth and rehashing each id still returns its own, untouched array.
    std::vector<unsigned long> ids;
    for (unsigned long k = 0; k < 200; ++k)
        ids.insert(ids.end(), {k, 200 + k, ~0ul - k, (1ul << 40) + (k << 20)});
    const unsigned int home = referenceHash(12345) & 1023u;
    for (unsigned long id = 1ul << 32; ids.size() < 1000; ++id)
        if ((referenceHash(id) & 1023u) == home) ids.push_back(id);
    ScratchPad pad;
    std::vector<double*> given;
    for (int pass = 0; pass < 2; ++pass) {
        for (unsigned long k = 0; k < ids.size(); ++k) {
            double* d = pad.getDoubleArray(ids[k], 1 + k % 13);
            if (pass == 0) given.push_back(d), pad.getIntArray(ids[k], 1)[0] = static_cast<int>(k);
            ASSERT_EQ(d, given[k]) << ids[k];
            for (unsigned long e = 0; e <= k % 13; ++e) {
                if (pass == 0) d[e] = static_cast<double>(ids[k] % 1000003) + e;
                ASSERT_EQ(d[e], static_cast<double>(ids[k] % 1000003) + e) << ids[k];
            }
            ASSERT_EQ(pad.getIntArray(ids[k], 1)[0], static_cast<int>(k)) << ids[k];
        }
        EXPECT_EQ(pad.doubleArrays.count, 1000u);
        EXPECT_EQ(pad.doubleArrays.capacity, 2048u);  // 999 + 500 + 2 = 1501 fits 2048
        checkPad(pad);
    }
    EXPECT_EQ(pad.ucharArrays.capacity, 0u);  // untouched maps hold no table
}
