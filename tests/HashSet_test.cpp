#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>
#include <kiv/HashSet.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>
#include <random>
#include <unordered_set>
#include <vector>

namespace {

TEST(NextPrime, KnownValuesAndSieve) {
    EXPECT_EQ(kiv::nextPrime(4294967292ul), 4294967311ul);  // crosses 2^32
    EXPECT_EQ(kiv::nextPrime(3215031751ul), 3215031767ul);  // strong pseudoprime to bases 2, 3, 5, 7
    EXPECT_EQ(kiv::nextPrime(3825123056546413051ul), 3825123056546413057ul);    // ... to bases 2 .. 23
    EXPECT_EQ(kiv::nextPrime(2305843009213693950ul), 2305843009213693951ul);    // 2^61 - 1
    EXPECT_EQ(kiv::nextPrime(18446744073709551557ul), 18446744073709551557ul);  // largest 64-bit prime
    EXPECT_EQ(kiv::nextPrime(18446744073709551558ul), 0u);
    EXPECT_EQ(kiv::nextPrime(std::numeric_limits<unsigned long>::max()), 0u);
    // Smallest prime >= n from a sieve, for every n below the limit.
    const unsigned long limit = 200000;
    std::vector<bool> composite(limit + 100, false);
    for (unsigned long i = 2; i * i < composite.size(); ++i)
        if (!composite[i])
            for (unsigned long j = i * i; j < composite.size(); j += i) composite[j] = true;
    unsigned long next = 0;
    for (unsigned long n = limit; n-- > 0;) {
        if (n >= 2 && !composite[n]) next = n;
        if (n < 2) next = 2;
        ASSERT_EQ(next == 0 ? 0 : kiv::nextPrime(n), next) << "n = " << n;  // next == 0: above the sieve
    }
}

// Random inserts, erases and lookups against std::unordered_set. Keys: a small range (long probe runs), a
// wide range, and sometimes the largest key, which is stored outside the table.
template <typename K>
void compareWithReference(unsigned seed, K range, unsigned steps) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed << ", range " << range);
    std::mt19937_64 rng(seed);
    kiv::HashSet<K> set;
    std::unordered_set<K> ref;
    auto compareAll = [&] {
        ASSERT_EQ(set.size(), ref.size());
        ASSERT_EQ(std::unordered_set<K>(set.begin(), set.end()), ref);
        ASSERT_LE(set.size(), set.capacity() + 1);
    };
    for (unsigned step = 0; step < steps; ++step) {
        const unsigned long r = rng() % 64;
        const K k = static_cast<K>(r == 0 ? std::numeric_limits<K>::max() : r == 1 ? rng() : rng() % range);
        const unsigned op = static_cast<unsigned>(rng() % 10);  // insert-heavy first, erase-heavy later
        const int kind = op < (step < steps / 2 ? 6u : 3u) ? 0 : op < 9 ? 1 : 2;
        const bool got = kind == 0 ? set.insert(k) : kind == 1 ? set.erase(k) : set.contains(k);
        const bool want = kind == 0 ? ref.insert(k).second : ref.count(k) == 1 && (kind == 2 || ref.erase(k));
        ASSERT_EQ(got, want) << "op " << kind << " (insert/erase/contains) of " << k << " at step " << step;
        if (step % 97 == 0) compareAll();
    }
    compareAll();
    for (K k : ref) ASSERT_TRUE(set.erase(k)) << k;
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
    // Keys sharing a home slot form long runs; keys homed in the last slot wrap
    // to the front. Erasing inside such runs must keep the rest reachable.
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        kiv::HashSet<unsigned> set;
        set.reserve(40);
        const unsigned p = static_cast<unsigned>(set.bucketCount());
        std::vector<unsigned> keys;
        for (unsigned k = 0; k < 12; ++k) keys.insert(keys.end(), {k * p + p - 1, k * p});
        for (unsigned k = 0; k < 8; ++k) keys.push_back(k * p + 1);
        std::shuffle(keys.begin(), keys.end(), rng);
        for (unsigned k : keys) ASSERT_TRUE(set.insert(k));
        ASSERT_EQ(set.bucketCount(), p) << "no rehash expected within the reserve";
        std::shuffle(keys.begin(), keys.end(), rng);
        for (std::size_t i = 0; i < keys.size(); ++i) {
            ASSERT_TRUE(set.erase(keys[i])) << keys[i];
            for (std::size_t j = 0; j < keys.size(); ++j) ASSERT_EQ(set.contains(keys[j]), j > i) << keys[j];
        }
    }
}

TEST(HashSet, ReserveClearAndReuseDoNotAllocate) {
    kiv::HashSet<unsigned long> set;
    set.reserve(1000);
    const std::size_t buckets = set.bucketCount();
    EXPECT_EQ(kiv::nextPrime(buckets), buckets);
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    std::mt19937_64 rng(7);
    for (int round = 0; round < 20; ++round) {
        while (set.size() < 1000) set.insert(rng() % 100000);
        set.insert(std::numeric_limits<unsigned long>::max());
        for (int i = 0; i < 500; ++i) set.erase(rng() % 100000);
        set.clear();
    }
    set.reserve(10);  // never shrinks
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(set.bucketCount(), buckets);
    const std::size_t capacity = set.capacity();  // growth past it rehashes, keeping every member
    for (unsigned long k = 0; k <= capacity; ++k) set.insert(k * 7919);
    EXPECT_GT(set.bucketCount(), buckets);
    EXPECT_THROW(set.reserve(std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
    EXPECT_EQ(set.size(), capacity + 1);  // unchanged by the failed reserve
}

TEST(HashSet, LargestKeyCopyAndMove) {
    const unsigned top = std::numeric_limits<unsigned>::max();
    kiv::HashSet<unsigned> a, c;
    EXPECT_TRUE(a.insert(top));
    EXPECT_EQ(a.bucketCount(), 0u);  // the largest key needs no slot
    for (unsigned k = 0; k < 100; k += 3) a.insert(k);
    EXPECT_EQ(std::vector<unsigned>(a.begin(), a.end()).back(), top);  // comes last
    kiv::HashSet<unsigned> b(a);
    b.erase(0);
    EXPECT_TRUE(a.contains(0));  // deep copy
    c.reserve(500);
    c.insert(1);
    c = a;  // different table size: takes the other's
    EXPECT_EQ(c.bucketCount(), a.bucketCount());
    EXPECT_FALSE(c.contains(1));
    kiv::HashSet<unsigned> d(std::move(c));
    EXPECT_TRUE(d.contains(top) && d.size() == a.size() && c.bucketCount() == 0u);
}

}  // namespace
