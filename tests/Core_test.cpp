#include <gtest/gtest.h>
#include <kiv/Abort.h>
#include <kiv/ByteAllocator.h>
#include <kiv/Timer.h>
#include <kiv/VectorPOD.h>

#include <cstdint>
#include <new>
#include <string>
#include <utility>

TEST(ByteAllocator, AlignsAndCounts) {
    std::uint64_t before = kiv::ByteAllocator::allocationCount();
    void* p = kiv::ByteAllocator::allocate(100, 64);
    void* q = kiv::ByteAllocator::allocate(0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(q) % 16, 0u);
    EXPECT_NE(p, q);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before + 2);
    kiv::ByteAllocator::deallocate(p, 100);
    kiv::ByteAllocator::deallocate(q, 0);
    kiv::ByteAllocator::deallocate(nullptr, 0);
}

TEST(ByteAllocator, OverflowingRequestThrows) {
    EXPECT_THROW(kiv::ByteAllocator::allocate(static_cast<std::size_t>(-1)), std::bad_alloc);
    EXPECT_THROW(kiv::allocateArray<double>(static_cast<std::size_t>(-1) / 4), std::bad_alloc);
}

TEST(VectorPOD, GrowsZeroesAndKeepsStorage) {
    kiv::VectorPOD<unsigned> v;
    EXPECT_EQ(v.size(), 0u);
    v.resize(3);
    EXPECT_EQ(v.capacity(), 4u);  // exact growth to max(4, n)
    for (unsigned x : v) EXPECT_EQ(x, 0u);
    v[1] = 7;
    v.resize(9);
    EXPECT_EQ(v.capacity(), 9u);
    EXPECT_EQ(v[1], 7u);
    EXPECT_EQ(v[8], 0u);
    const unsigned* storage = v.data();
    v.clear();
    v.resize(5);  // shrink-then-grow within the capacity: same storage, new tail zeroed
    EXPECT_EQ(v.data(), storage);
    EXPECT_EQ(v[1], 0u);
    std::uint64_t before = kiv::ByteAllocator::allocationCount();
    for (unsigned i = 0; i < 9; ++i) v.push_back(i);
    EXPECT_GT(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(v.size(), 14u);
    EXPECT_EQ(v.back(), 8u);
}

TEST(VectorPOD, CopyMoveAndPairs) {
    kiv::VectorPOD<std::pair<unsigned, unsigned>> a;
    a.push_back({1, 2});
    a.push_back({3, 4});
    kiv::VectorPOD<std::pair<unsigned, unsigned>> b(a);
    EXPECT_EQ(b.size(), 2u);
    EXPECT_EQ(b[1].second, 4u);
    kiv::VectorPOD<std::pair<unsigned, unsigned>> c(std::move(a));
    EXPECT_EQ(a.size(), 0u);
    EXPECT_EQ(c[0].first, 1u);
    c.release();
    EXPECT_EQ(c.capacity(), 0u);
}

TEST(Abort, MessageFormat) {
    char buf[128];
    EXPECT_EQ(std::string(kiv::formatAbortMessage(buf, sizeof buf, "ThreadSync.h", 274, "Mutex memory is corrupted!")),
              "[ThreadSync.h:274] kivAbort: Mutex memory is corrupted!");
}

TEST(AbortDeathTest, WritesMessageAndAborts) {
    EXPECT_DEATH(kiv::abort("Not enabled"), "^Not enabled\n");
    EXPECT_DEATH(kiv::abortAt("x.h", 7, "boom"), "\\[x\\.h:7\\] kivAbort: boom");
}

TEST(Timer, ScaleIsPlausible) {
    double s = kiv::Timer::clockSpeed();
    EXPECT_GT(s, 1e-11);  // below 100 GHz
    EXPECT_LT(s, 1e-7);   // above 10 MHz
    std::uint64_t a = kiv::Timer::ticks();
    std::uint64_t b = kiv::Timer::ticks();
    EXPECT_GE(b, a);
    EXPECT_GE(kiv::Timer::seconds(a, b), 0.0);
}
