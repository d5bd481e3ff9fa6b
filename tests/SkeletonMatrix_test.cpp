#include "SkeletonMatrix.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Permutation.h"
#include "testing/Patterns.h"

using namespace kivTamber;

namespace {

// One list per block: (row, fill flag) pairs in stored order.
using Lists = std::vector<std::vector<std::pair<unsigned int, unsigned char>>>;

void fill(SkeletonMatrix& S, const Lists& lists, bool withBlockWords = false) {
    unsigned long entries = 0;
    for (const auto& l : lists) entries += l.size();
    S.resize(lists.size(), entries, withBlockWords);
    unsigned long k = 0;
    for (unsigned long j = 0; j < lists.size(); ++j) {
        S.colPointers[j] = static_cast<unsigned int>(k);
        for (const auto& e : lists[j]) {
            S.rowIndices[k] = e.first;
            S.fillFlags[k] = e.second;
            ++k;
        }
        if (withBlockWords) S.blockWords[j] = static_cast<unsigned int>(100 + j);
    }
    S.colPointers[lists.size()] = static_cast<unsigned int>(k);
}

std::string printed(const SkeletonMatrix& S) {
    ::testing::internal::CaptureStdout();
    S.print();
    return ::testing::internal::GetCapturedStdout();
}

std::string printed(const Permutation& P) {
    ::testing::internal::CaptureStdout();
    P.print();
    return ::testing::internal::GetCapturedStdout();
}

void expectSame(const SkeletonMatrix& a, const SkeletonMatrix& b) {
    ASSERT_EQ(a.n, b.n);
    ASSERT_EQ(a.numEntries(), b.numEntries());
    for (unsigned long j = 0; j <= a.n; ++j) EXPECT_EQ(a.colPointers[j], b.colPointers[j]) << j;
    for (unsigned long k = 0; k < a.numEntries(); ++k) {
        EXPECT_EQ(a.rowIndices[k], b.rowIndices[k]) << k;
        EXPECT_EQ(a.fillFlags[k], b.fillFlags[k]) << k;
    }
    ASSERT_EQ(a.blockWords == nullptr, b.blockWords == nullptr);
    if (a.blockWords) {
        for (unsigned long j = 0; j < a.n; ++j) EXPECT_EQ(a.blockWords[j], b.blockWords[j]) << j;
    }
}

}  // namespace

TEST(SkeletonMatrixPrint, EmptyAndOneBlock) {
    SkeletonMatrix empty;
    EXPECT_EQ(printed(empty), "Skeleton Matrix, 0x0\n");

    SkeletonMatrix one;
    fill(one, {{{0, 0}}});
    EXPECT_EQ(printed(one), "Skeleton Matrix, 1x1\n1 \n");
    one.fillFlags[0] = 1;
    EXPECT_EQ(printed(one), "Skeleton Matrix, 1x1\nT \n");
}

TEST(SkeletonMatrixPrint, FillEntriesEmptyListsAndCursor) {
    SkeletonMatrix S;
    // Block 1 has an empty list; block 3's list ends at block 2 (no diagonal): the cursor then stays on the
    // last entry and everything after it prints "0 ".
    fill(S, {{{0, 0}}, {}, {{0, 1}, {2, 0}}, {{1, 0}, {2, 0}}, {{0, 0}, {1, 1}, {3, 1}, {4, 0}}});
    EXPECT_EQ(printed(S),
              "Skeleton Matrix, 5x5\n"
              "1 0 0 0 0 \n"
              "0 0 0 0 0 \n"
              "T 0 1 0 0 \n"
              "0 1 1 0 0 \n"
              "1 T 0 T 1 \n");
}

TEST(SkeletonMatrixCapacity, KeepsWhenSmallerReallocatesExactlyWhenLarger) {
    SkeletonMatrix S;
    std::uint64_t before = kiv::ByteAllocator::allocationCount();
    S.resize(5, 12, true);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 4u);
    EXPECT_EQ(S.n, 5u);
    EXPECT_EQ(S.blockCapacity, 5u);
    EXPECT_EQ(S.entryCapacity, 12u);
    ASSERT_NE(S.blockWords, nullptr);
    for (unsigned long j = 0; j <= 5; ++j) EXPECT_EQ(S.colPointers[j], 0u);  // fresh arrays are zeroed
    for (unsigned long k = 0; k < 12; ++k) EXPECT_EQ(S.fillFlags[k], 0);

    // Smaller in both: every array and its contents are kept.
    S.rowIndices[11] = 77;
    S.colPointers[5] = 12;
    unsigned int* rows = S.rowIndices;
    unsigned int* cols = S.colPointers;
    unsigned int* words = S.blockWords;
    unsigned char* flags = S.fillFlags;
    before = kiv::ByteAllocator::allocationCount();
    S.resize(3, 12, true);
    S.resize(5, 7, true);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(S.n, 5u);
    EXPECT_EQ(S.rowIndices, rows);
    EXPECT_EQ(S.colPointers, cols);
    EXPECT_EQ(S.blockWords, words);
    EXPECT_EQ(S.fillFlags, flags);
    EXPECT_EQ(S.rowIndices[11], 77u);
    EXPECT_EQ(S.colPointers[5], 12u);
    EXPECT_EQ(S.blockCapacity, 5u);
    EXPECT_EQ(S.entryCapacity, 12u);

    // Larger in one dimension only: all four are replaced at exactly the new sizes, so the other capacity
    // may shrink.
    before = kiv::ByteAllocator::allocationCount();
    S.resize(2, 13, true);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 4u);
    EXPECT_EQ(S.n, 2u);
    EXPECT_EQ(S.blockCapacity, 2u);
    EXPECT_EQ(S.entryCapacity, 13u);
    S.rowIndices[12] = 1;  // last entry writable (ASan checks the size)
    S.colPointers[2] = 13;
    S.blockWords[1] = 1;

    before = kiv::ByteAllocator::allocationCount();
    S.resize(6, 0, false);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 3u);
    EXPECT_EQ(S.blockCapacity, 6u);
    EXPECT_EQ(S.entryCapacity, 0u);
    EXPECT_EQ(S.blockWords, nullptr);

    // blockWords follows the flag while the other arrays are kept.
    S.resize(4, 0, true);
    ASSERT_NE(S.blockWords, nullptr);
    S.blockWords[5] = 3;  // allocated at blockCapacity
    S.resize(4, 0, false);
    EXPECT_EQ(S.blockWords, nullptr);
    EXPECT_EQ(S.blockCapacity, 6u);

    // A never-sized skeleton gets arrays even for zero sizes, so colPointers[n] exists.
    SkeletonMatrix Z;
    Z.resize(0, 0, false);
    ASSERT_NE(Z.colPointers, nullptr);
    EXPECT_EQ(Z.numEntries(), 0u);
}

TEST(SkeletonMatrixCopy, DeepCopyAndAssignment) {
    SkeletonMatrix S;
    fill(S, {{{0, 0}}, {{0, 1}, {1, 0}}, {{1, 0}, {2, 0}}}, true);

    SkeletonMatrix C(S);
    expectSame(S, C);
    EXPECT_NE(C.rowIndices, S.rowIndices);
    EXPECT_NE(C.colPointers, S.colPointers);
    EXPECT_NE(C.blockWords, S.blockWords);
    EXPECT_NE(C.fillFlags, S.fillFlags);
    EXPECT_EQ(C.blockCapacity, 3u);
    EXPECT_EQ(C.entryCapacity, 5u);
    S.rowIndices[1] = 9;  // the copy is independent
    S.fillFlags[0] = 1;
    S.blockWords[2] = 9;
    EXPECT_EQ(C.rowIndices[1], 0u);
    EXPECT_EQ(C.fillFlags[0], 0);
    EXPECT_EQ(C.blockWords[2], 102u);

    // Assignment into a larger skeleton reuses its arrays; a source without blockWords drops them.
    SkeletonMatrix big;
    big.resize(10, 40, true);
    fill(S, {{{0, 0}}, {{1, 0}}});
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    big = S;
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(big.blockCapacity, 10u);
    EXPECT_EQ(big.entryCapacity, 40u);
    expectSame(S, big);

    SkeletonMatrix& alias = big;
    big = alias;  // self-assignment leaves it intact
    expectSame(S, big);

    SkeletonMatrix empty;
    big = empty;
    EXPECT_EQ(big.n, 0u);
    EXPECT_EQ(big.numEntries(), 0u);
    EXPECT_EQ(printed(big), "Skeleton Matrix, 0x0\n");
}

TEST(PermutationPrint, IdentityGeneralAndEmpty) {
    Permutation P;
    EXPECT_EQ(printed(P), "i\tP\tPi\n");

    P.setSize(3);
    P.setIdentity();
    EXPECT_EQ(printed(P), "i\tP\tPi\n0\t0\t0\n1\t1\t1\n2\t2\t2\n");

    const unsigned int order[3] = {2, 0, 1};
    std::copy(order, order + 3, P.forward);
    P.computeInverse();
    EXPECT_EQ(printed(P), "i\tP\tPi\n0\t2\t1\n1\t0\t2\n2\t1\t0\n");

    P.size = 0;  // only the header, whatever the capacity
    EXPECT_EQ(printed(P), "i\tP\tPi\n");

    Permutation wide;
    wide.setSize(11);
    wide.setIdentity();
    wide.forward[10] = 123456;
    EXPECT_EQ(printed(wide).substr(printed(wide).rfind("10\t")), "10\t123456\t10\n");
}

TEST(PermutationSizing, GrowOnlyWithSlackAndIdentityOverCapacity) {
    Permutation P;
    const unsigned long n = 5;
    P.reserve(n + 8, 1);  // the ordering's way: capacity n + 8 in arrays of n + 9
    P.size = n;
    EXPECT_EQ(P.capacity, n + 8);
    EXPECT_EQ(P.size, n);
    P.forward[n + 8] = 1;  // the slack entry exists
    P.inverse[n + 8] = 1;
    P.setIdentity();
    for (unsigned long k = 0; k < P.capacity; ++k) {
        EXPECT_EQ(P.forward[k], k);
        EXPECT_EQ(P.inverse[k], k);
    }
    EXPECT_EQ(P.forward[n + 8], 1u);  // identity stops at the capacity

    unsigned int* f = P.forward;
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    P.reserve(4);
    P.setSize(n + 8);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_EQ(P.forward, f);
    EXPECT_EQ(P.capacity, n + 8);
    P.setSize(20);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 2u);
    EXPECT_EQ(P.capacity, 20u);
    EXPECT_EQ(P.size, 20u);
}

TEST(PermutationInverse, RandomPermutationsAndCopies) {
    for (unsigned int seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        const unsigned long n = rng() % 40;
        Permutation P;
        P.setSize(n);
        std::iota(P.forward, P.forward + n, 0u);
        std::shuffle(P.forward, P.forward + n, rng);
        P.computeInverse();
        for (unsigned long k = 0; k < n; ++k) {
            EXPECT_EQ(P.inverse[P.forward[k]], k);
            EXPECT_EQ(P.forward[P.inverse[k]], k);
        }

        Permutation C(P);
        Permutation A;
        A.setSize(100);
        A = P;
        for (const Permutation* Q : {&C, &A}) {
            EXPECT_EQ(Q->size, n);
            if (n > 0) {
                EXPECT_NE(Q->forward, P.forward);
                EXPECT_TRUE(std::equal(P.forward, P.forward + n, Q->forward));
                EXPECT_TRUE(std::equal(P.inverse, P.inverse + n, Q->inverse));
            }
        }
        EXPECT_EQ(A.capacity, 100u);
    }
}

TEST(SkeletonMatrixPrint, RandomPatternsMatchDensePicture) {
    // The picture of a skeleton in proper form is the upper triangle of its pattern, column by column.
    for (unsigned long seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        const unsigned int n = 1 + static_cast<unsigned int>(seed % 9);
        const kivTamber::testing::BlockPattern p =
            seed % 2 ? kivTamber::testing::randomPattern(n, 1.5, seed)
                     : kivTamber::testing::randomSaddlePattern(n, n / 2, 1.0, seed);
        SkeletonMatrix S;
        kivTamber::testing::toSkeleton(p, S);
        ASSERT_EQ(kivTamber::testing::checkSkeletonForm(S), "");
        ASSERT_EQ(S.numEntries(), p.numUpperEntries());
        ASSERT_TRUE(kivTamber::testing::fromSkeleton(S) == p);
        const unsigned long marked = seed % S.numEntries();
        S.fillFlags[marked] = 1;

        std::string expected = "Skeleton Matrix, " + std::to_string(n) + "x" + std::to_string(n) + "\n";
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int r = 0; r < n; ++r) {
                const bool isMarked = r <= j && S.rowIndices[marked] == r && marked >= S.colPointers[j] &&
                                      marked < S.colPointers[j + 1];
                expected += r <= j && p(r, j) ? (isMarked ? "T " : "1 ") : "0 ";
            }
            expected += "\n";
        }
        EXPECT_EQ(printed(S), expected);
    }
}

TEST(TestPatterns, SaddleShapeFormCheckAndSymbolicFill) {
    namespace kt = kivTamber::testing;
    for (unsigned long seed = 0; seed < 10; ++seed) {
        SCOPED_TRACE(seed);
        const kt::BlockPattern p = kt::randomSaddlePattern(40, 25, 2.0, seed);
        for (unsigned int c = 25; c < 40; ++c) {
            unsigned int bodies = 0;
            for (unsigned int i = 0; i < 40; ++i) {
                if (i == c || !p(i, c)) continue;
                ASSERT_LT(i, 25u) << "constraint " << c << " couples to constraint " << i;
                ++bodies;
            }
            EXPECT_GE(bodies, 1u);
            EXPECT_LE(bodies, 3u);
        }
        EXPECT_TRUE(kt::randomSaddlePattern(40, 25, 2.0, seed) == p);  // same seed, same pattern
    }

    // The form check names what is wrong.
    SkeletonMatrix S;
    kt::toSkeleton(kt::randomPattern(5, 5.0, 3), S, true);  // dense: every list is 0..j
    EXPECT_EQ(S.blockWords[4], 4u);
    S.rowIndices[S.colPointers[3]] = 2;
    EXPECT_EQ(kt::checkSkeletonForm(S), "block 3: entries 6 and 7 hold rows 2, 1 (not ascending)");
    S.rowIndices[S.colPointers[3]] = 0;
    S.rowIndices[S.colPointers[5] - 1] = 5;
    EXPECT_EQ(kt::checkSkeletonForm(S), "block 4: last entry 14 holds row 5, not the diagonal");

    // Eliminating the hub of a star first fills everything; last, nothing. The chain's tree is a path.
    kt::BlockPattern star(4);
    for (unsigned int i = 1; i < 4; ++i) star.couple(0, i);
    const kt::BlockPattern full = kt::symbolicFactor(star);
    EXPECT_EQ(full.numUpperEntries(), 10u);
    EXPECT_EQ(kt::eliminationParent(full), (std::vector<unsigned int>{1, 2, 3, 3}));
    const unsigned int hubLast[4] = {1, 2, 3, 0};
    const kt::BlockPattern arrow = kt::permutePattern(star, hubLast);
    EXPECT_TRUE(kt::symbolicFactor(arrow) == arrow);
    EXPECT_EQ(kt::eliminationParent(arrow), (std::vector<unsigned int>{3, 3, 3, 3}));
    kt::BlockPattern two(3);  // two separate blocks and a pair: a forest
    two.couple(0, 2);
    EXPECT_EQ(kt::eliminationParent(kt::symbolicFactor(two)), (std::vector<unsigned int>{2, 1, 2}));
}
