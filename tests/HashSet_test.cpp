#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>
#include <kiv/HashSet.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>
#include <random>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

TEST(NextPrime, KnownValues) {
    const std::pair<unsigned long, unsigned long> known[] = {
        {0, 2},
        {1, 2},
        {2, 2},
        {3, 3},
        {4, 5},
        {97, 97},
        {100, 101},
        {65536, 65537},
        {1000000000ul, 1000000007ul},
        {2147483647ul, 2147483647ul},                    // 2^31 - 1
        {4294967292ul, 4294967311ul},                    // crosses 2^32
        {3215031751ul, 3215031767ul},                    // strong pseudoprime to bases 2, 3, 5, 7
        {3825123056546413051ul, 3825123056546413057ul},  // strong pseudoprime to bases 2 … 23
        {1000000000000000000ul, 1000000000000000003ul},
        {2305843009213693950ul, 2305843009213693951ul},    // 2^61 - 1
        {18446744073709551557ul, 18446744073709551557ul},  // largest 64-bit prime
        {18446744073709551558ul, 0},
        {std::numeric_limits<unsigned long>::max(), 0},
    };
    for (const auto& [n, p] : known) EXPECT_EQ(kiv::nextPrime(n), p) << "n = " << n;
}

TEST(NextPrime, MatchesSieve) {
    // Smallest prime >= n, from a sieve, for every n below the limit (covers
    // the trial-division range and the first Miller-Rabin candidates).
    const unsigned long limit = 200000;
    std::vector<bool> composite(limit + 100, false);
    for (unsigned long i = 2; i * i < composite.size(); ++i) {
        if (!composite[i]) {
            for (unsigned long j = i * i; j < composite.size(); j += i) composite[j] = true;
        }
    }
    unsigned long next = 0;
    for (unsigned long n = limit; n-- > 0;) {
        if (n >= 2 && !composite[n]) next = n;
        if (n < 2) next = 2;
        if (next == 0) continue;  // above the last prime of the sieve
        ASSERT_EQ(kiv::nextPrime(n), next) << "n = " << n;
    }
}

// Applies a random sequence of inserts, erases and lookups to a HashSet and to
// std::unordered_set and compares results, sizes and full contents. Keys are
// drawn from a small range (long probe runs, many collisions and shifts), a
// wide range, and sometimes the largest key, which is stored outside the table.
template <typename K>
void compareWithReference(unsigned seed, K range, unsigned steps) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed << ", range " << range);
    std::mt19937_64 rng(seed);
    kiv::HashSet<K> set;
    std::unordered_set<K> ref;
    auto key = [&]() -> K {
        const unsigned r = static_cast<unsigned>(rng() % 64);
        if (r == 0) return std::numeric_limits<K>::max();
        if (r == 1) return static_cast<K>(rng());
        return static_cast<K>(rng() % range);
    };
    auto compareAll = [&] {
        ASSERT_EQ(set.size(), ref.size());
        std::vector<K> members(set.begin(), set.end());
        std::vector<K> expected(ref.begin(), ref.end());
        std::sort(members.begin(), members.end());
        std::sort(expected.begin(), expected.end());
        ASSERT_EQ(members, expected);
        for (K k : ref) ASSERT_TRUE(set.contains(k)) << k;
        ASSERT_LE(set.size(), set.capacity() + 1);
    };
    for (unsigned step = 0; step < steps; ++step) {
        const K k = key();
        // Insert-heavy first, erase-heavy later, so sets both grow and drain.
        const unsigned insertShare = step < steps / 2 ? 6 : 3;
        const unsigned op = static_cast<unsigned>(rng() % 10);
        if (op < insertShare) {
            ASSERT_EQ(set.insert(k), ref.insert(k).second) << "insert " << k << " at step " << step;
        } else if (op < 9) {
            ASSERT_EQ(set.erase(k), ref.erase(k) == 1) << "erase " << k << " at step " << step;
        } else {
            ASSERT_EQ(set.contains(k), ref.count(k) == 1) << "contains " << k << " at step " << step;
        }
        if (step % 97 == 0) compareAll();
    }
    compareAll();
    // Erase everything in random order; the set must stay consistent to the end.
    std::vector<K> rest(ref.begin(), ref.end());
    std::shuffle(rest.begin(), rest.end(), rng);
    for (std::size_t i = 0; i < rest.size(); ++i) {
        ASSERT_TRUE(set.erase(rest[i]));
        ASSERT_FALSE(set.contains(rest[i]));
        if (i % 13 == 0) {
            for (std::size_t j = i + 1; j < rest.size(); ++j) ASSERT_TRUE(set.contains(rest[j])) << rest[j];
        }
    }
    EXPECT_TRUE(set.empty());
    EXPECT_EQ(set.begin(), set.end());
}

TEST(HashSet, RandomOperationsMatchUnorderedSet) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        compareWithReference<unsigned int>(seed, 50, 3000);
        compareWithReference<unsigned int>(seed + 1000, 5000, 6000);
        compareWithReference<unsigned long>(seed + 2000, 300, 3000);
        compareWithReference<unsigned long>(seed + 3000, 1ul << 40, 3000);
    }
}

TEST(HashSet, CollidingKeysAndWrapAround) {
    // Keys with the same home slot form one long run; keys homed in the last
    // slot wrap around to the front. Erasing from the middle of such runs must
    // keep every remaining key reachable.
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        kiv::HashSet<unsigned> set;
        set.reserve(40);
        const unsigned p = static_cast<unsigned>(set.bucketCount());
        std::vector<unsigned> keys;
        for (unsigned k = 0; k < 12; ++k) keys.push_back(k * p + p - 1);  // home p-1: wraps
        for (unsigned k = 0; k < 12; ++k) keys.push_back(k * p);          // home 0
        for (unsigned k = 0; k < 8; ++k) keys.push_back(k * p + 1);       // home 1
        std::shuffle(keys.begin(), keys.end(), rng);
        for (unsigned k : keys) ASSERT_TRUE(set.insert(k));
        ASSERT_EQ(set.bucketCount(), p) << "no rehash expected within the reserve";
        std::shuffle(keys.begin(), keys.end(), rng);
        for (std::size_t i = 0; i < keys.size(); ++i) {
            ASSERT_TRUE(set.erase(keys[i])) << keys[i];
            for (std::size_t j = i + 1; j < keys.size(); ++j) ASSERT_TRUE(set.contains(keys[j])) << keys[j];
            for (std::size_t j = 0; j <= i; ++j) ASSERT_FALSE(set.contains(keys[j])) << keys[j];
        }
        EXPECT_EQ(set.size(), 0u);
    }
}

TEST(HashSet, ReserveClearAndReuseDoNotAllocate) {
    kiv::HashSet<unsigned long> set;
    EXPECT_EQ(set.capacity(), 0u);
    EXPECT_FALSE(set.contains(3));
    EXPECT_FALSE(set.erase(3));
    set.reserve(1000);
    const std::size_t buckets = set.bucketCount();
    EXPECT_GE(set.capacity(), 1000u);
    EXPECT_EQ(kiv::nextPrime(buckets), buckets);
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    std::mt19937_64 rng(7);
    for (int round = 0; round < 20; ++round) {
        while (set.size() < 1000) set.insert(rng() % 100000);
        set.insert(std::numeric_limits<unsigned long>::max());  // stored outside the table
        for (int i = 0; i < 500; ++i) set.erase(rng() % 100000);
        set.clear();
        EXPECT_TRUE(set.empty());
        EXPECT_EQ(set.begin(), set.end());
    }
    set.reserve(10);  // never shrinks
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(set.bucketCount(), buckets);

    // Growth past the capacity rehashes, keeping every member.
    const std::size_t capacity = set.capacity();
    for (unsigned long k = 0; k <= capacity; ++k) set.insert(k * 7919);
    EXPECT_GT(set.bucketCount(), buckets);
    EXPECT_GT(kiv::ByteAllocator::allocationCount(), before);
    for (unsigned long k = 0; k < 1000; ++k) ASSERT_TRUE(set.contains(k * 7919));

    EXPECT_THROW(set.reserve(std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
    EXPECT_EQ(set.size(), capacity + 1);  // unchanged by the failed reserve
}

TEST(HashSet, LargestKeyIsAnOrdinaryMember) {
    const unsigned top = std::numeric_limits<unsigned>::max();
    kiv::HashSet<unsigned> set;
    EXPECT_TRUE(set.insert(top));
    EXPECT_FALSE(set.insert(top));
    EXPECT_TRUE(set.contains(top));
    EXPECT_EQ(set.size(), 1u);
    EXPECT_EQ(set.bucketCount(), 0u);  // needs no slot
    EXPECT_EQ(std::vector<unsigned>(set.begin(), set.end()), std::vector<unsigned>{top});
    set.insert(top - 1);
    set.insert(0);
    std::vector<unsigned> members(set.begin(), set.end());
    EXPECT_EQ(members.size(), 3u);
    EXPECT_EQ(members.back(), top);  // comes last
    EXPECT_TRUE(set.erase(top));
    EXPECT_FALSE(set.erase(top));
    EXPECT_TRUE(set.contains(top - 1));
    EXPECT_EQ(set.size(), 2u);
}

TEST(HashSet, CopyMoveSwap) {
    kiv::HashSet<unsigned> a;
    for (unsigned k = 0; k < 100; k += 3) a.insert(k);
    a.insert(std::numeric_limits<unsigned>::max());
    kiv::HashSet<unsigned> b(a);
    EXPECT_EQ(b.size(), a.size());
    for (unsigned k = 0; k < 100; ++k) EXPECT_EQ(b.contains(k), k % 3 == 0);
    b.erase(0);
    EXPECT_TRUE(a.contains(0));  // deep copy

    kiv::HashSet<unsigned> c;
    c.reserve(500);
    c.insert(1);
    c = a;  // different table size: takes the other's
    EXPECT_EQ(c.bucketCount(), a.bucketCount());
    EXPECT_EQ(c.size(), a.size());
    EXPECT_FALSE(c.contains(1));

    kiv::HashSet<unsigned> d(std::move(c));
    EXPECT_EQ(d.size(), a.size());
    EXPECT_EQ(c.size(), 0u);
    EXPECT_EQ(c.bucketCount(), 0u);
    d.swap(b);
    EXPECT_FALSE(d.contains(0));
    EXPECT_TRUE(b.contains(0));
    b.release();
    EXPECT_EQ(b.size(), 0u);
    EXPECT_EQ(b.capacity(), 0u);
    EXPECT_FALSE(b.contains(std::numeric_limits<unsigned>::max()));
}

}  // namespace
