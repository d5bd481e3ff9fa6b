// Skeleton and permutation: print formats, the grow-only storage rules, deep copies, inverses.
#include "SkeletonMatrix.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "Permutation.h"
#include "testing/Patterns.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;

namespace {

template <typename Printable>
std::string printed(const Printable& P) {
    ::testing::internal::CaptureStdout();
    P.print();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(SkeletonMatrixPrint, CursorQuirkAndRandomPatterns) {
    SkeletonMatrix S;
    EXPECT_EQ(printed(S), "Skeleton Matrix, 0x0\n");
    // Block 1 has an empty list; block 3's list ends at block 2 (no diagonal): the cursor then stays on the
    // last entry and everything after it prints "0 ".
    S.resize(5, 9, false);
    const unsigned int cols[6] = {0, 1, 1, 3, 5, 9}, rows[9] = {0, 0, 2, 1, 2, 0, 1, 3, 4};
    const unsigned char flags[9] = {0, 1, 0, 0, 0, 0, 1, 1, 0};
    std::copy(cols, cols + 6, S.colPointers), std::copy(rows, rows + 9, S.rowIndices);
    std::copy(flags, flags + 9, S.fillFlags);
    EXPECT_EQ(printed(S),
              "Skeleton Matrix, 5x5\n1 0 0 0 0 \n0 0 0 0 0 \nT 0 1 0 0 \n0 1 1 0 0 \n1 T 0 T 1 \n");

    // The picture of a skeleton in proper form is the upper triangle of its pattern, column by column.
    for (unsigned long seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        const unsigned int n = 1 + static_cast<unsigned int>(seed % 9);
        const kt::BlockPattern p =
            seed % 2 ? kt::randomPattern(n, 1.5, seed) : kt::randomSaddlePattern(n, n / 2, 1.0, seed);
        kt::toSkeleton(p, S);
        const unsigned long marked = seed % S.numEntries();
        S.fillFlags[marked] = 1;
        std::string expected = "Skeleton Matrix, " + std::to_string(n) + "x" + std::to_string(n) + "\n";
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int r = 0; r < n; ++r) {
                const bool isMarked =
                    S.rowIndices[marked] == r && marked >= S.colPointers[j] && marked < S.colPointers[j + 1];
                expected += r <= j && p(r, j) ? (isMarked ? "T " : "1 ") : "0 ";
            }
            expected += "\n";
        }
        EXPECT_EQ(printed(S), expected);
    }
}

// resize keeps every array and its contents while both sizes fit; when either grows, all arrays are replaced
// at exactly the new sizes (zeroed), so the other capacity may shrink; blockWords follows the flag.
TEST(SkeletonMatrixStorage, ResizeRuleAndDeepCopies) {
    SkeletonMatrix S;
    auto allocations = [] { return kiv::ByteAllocator::allocationCount(); };
    auto arrays = [&S] { return std::make_tuple(S.rowIndices, S.colPointers, S.blockWords, S.fillFlags); };
    auto sizes = [&S] { return std::make_tuple(S.n, S.blockCapacity, S.entryCapacity); };
    std::uint64_t before = allocations();
    S.resize(5, 12, true);
    EXPECT_EQ(allocations() - before, 4u);
    EXPECT_EQ(sizes(), std::make_tuple(5ul, 5ul, 12ul));
    EXPECT_TRUE(std::all_of(S.colPointers, S.colPointers + 6, [](unsigned int v) { return v == 0; }));
    EXPECT_TRUE(std::all_of(S.fillFlags, S.fillFlags + 12, [](unsigned char v) { return v == 0; }));
    S.rowIndices[11] = 77;
    S.colPointers[5] = 12;
    const auto kept = arrays();
    before = allocations();
    S.resize(3, 12, true);
    S.resize(5, 7, true);
    EXPECT_EQ(allocations(), before);
    EXPECT_TRUE(arrays() == kept && S.rowIndices[11] == 77 && S.colPointers[5] == 12);
    EXPECT_EQ(sizes(), std::make_tuple(5ul, 5ul, 12ul));

    S.resize(2, 13, true);
    EXPECT_EQ(allocations() - before, 4u);
    EXPECT_EQ(sizes(), std::make_tuple(2ul, 2ul, 13ul));
    S.rowIndices[12] = S.colPointers[2] = S.blockWords[1] = 1;  // last elements writable (ASan checks)
    before = allocations();
    S.resize(6, 0, false);
    EXPECT_EQ(allocations() - before, 3u);
    EXPECT_EQ(sizes(), std::make_tuple(6ul, 6ul, 0ul));
    EXPECT_EQ(S.blockWords, nullptr);
    S.resize(4, 0, true);
    S.blockWords[5] = 3;  // allocated at blockCapacity
    S.resize(4, 0, false);
    EXPECT_EQ(S.blockWords, nullptr);
    EXPECT_EQ(S.blockCapacity, 6u);

    SkeletonMatrix Z;  // a never-sized skeleton gets arrays even for zero sizes, so colPointers[n] exists
    Z.resize(0, 0, false);
    ASSERT_NE(Z.colPointers, nullptr);
    EXPECT_EQ(Z.numEntries(), 0u);

    // Copies are deep and exact-sized; assignment into a larger skeleton reuses its arrays, drops blockWords
    // when the source has none, and survives self-assignment.
    SkeletonMatrix small;
    kt::toSkeleton(kt::randomPattern(3, 1.0, 5), S, true);
    S.fillFlags[1] = 1;
    SkeletonMatrix C(S);
    EXPECT_EQ(printed(C), printed(S));
    EXPECT_TRUE(std::equal(S.blockWords, S.blockWords + 3, C.blockWords));
    EXPECT_TRUE(C.rowIndices != S.rowIndices && C.colPointers != S.colPointers &&
                C.blockWords != S.blockWords && C.fillFlags != S.fillFlags);
    EXPECT_TRUE(C.blockCapacity == 3 && C.entryCapacity == S.numEntries());
    S.rowIndices[0] = 9, S.fillFlags[1] = 0, S.blockWords[2] = 9;  // the copy is independent
    EXPECT_TRUE(C.rowIndices[0] == 0 && C.fillFlags[1] == 1 && C.blockWords[2] == 2);

    SkeletonMatrix big;
    big.resize(10, 40, true);
    kt::toSkeleton(kt::randomPattern(2, 1.0, 1), small);
    before = allocations();
    big = small;
    EXPECT_EQ(allocations(), before);
    EXPECT_TRUE(big.blockCapacity == 10 && big.entryCapacity == 40);
    EXPECT_TRUE(printed(big) == printed(small) && big.blockWords == nullptr);
    SkeletonMatrix& alias = big;
    big = alias;
    EXPECT_EQ(printed(big), printed(small));
    big = SkeletonMatrix();
    EXPECT_EQ(printed(big), "Skeleton Matrix, 0x0\n");
}

TEST(PermutationPrint, IdentityGeneralAndEmpty) {
    Permutation P;
    EXPECT_EQ(printed(P), "i\tP\tPi\n");
    P.setSize(11);
    P.setIdentity();
    P.forward[10] = 123456;
    EXPECT_EQ(printed(P).substr(printed(P).rfind("\n9\t")), "\n9\t9\t9\n10\t123456\t10\n");
    P.size = 3;
    const unsigned int order[3] = {2, 0, 1};
    std::copy(order, order + 3, P.forward);
    P.computeInverse();
    EXPECT_EQ(printed(P), "i\tP\tPi\n0\t2\t1\n1\t0\t2\n2\t1\t0\n");
    P.size = 0;  // only the header, whatever the capacity
    EXPECT_EQ(printed(P), "i\tP\tPi\n");
}

// reserve with slack allocates capacity + slack entries; setIdentity covers the capacity, not the slack;
// smaller requests allocate nothing; setSize grows exactly.
TEST(PermutationSizing, GrowOnlyWithSlackIdentityInverseAndCopies) {
    Permutation P;
    P.reserve(13, 1);  // the ordering's way: capacity n + 8 in arrays of n + 9, n = 5
    P.size = 5;
    EXPECT_EQ(P.capacity, 13u);
    P.forward[13] = P.inverse[13] = 1;  // the slack entry exists
    P.setIdentity();
    for (unsigned int k = 0; k < 13; ++k) ASSERT_TRUE(P.forward[k] == k && P.inverse[k] == k) << k;
    EXPECT_EQ(P.forward[13], 1u);
    unsigned int* f = P.forward;
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    P.reserve(4);
    P.setSize(13);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
    EXPECT_TRUE(P.forward == f && P.capacity == 13);
    P.setSize(20);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount() - before, 2u);
    EXPECT_TRUE(P.capacity == 20 && P.size == 20);

    // computeInverse inverts random permutations; copies are deep, assignment keeps a larger capacity.
    for (unsigned int seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        const unsigned long n = rng() % 40;
        P.setSize(n);
        std::iota(P.forward, P.forward + n, 0u);
        std::shuffle(P.forward, P.forward + n, rng);
        P.computeInverse();
        for (unsigned long k = 0; k < n; ++k)
            ASSERT_TRUE(P.inverse[P.forward[k]] == k && P.forward[P.inverse[k]] == k);
        Permutation C(P), A;
        A.setSize(100);
        A = P;
        EXPECT_EQ(A.capacity, 100u);
        for (const Permutation* Q : {&C, &A}) {
            EXPECT_EQ(Q->size, n);
            EXPECT_TRUE(n == 0 || Q->forward != P.forward);
            EXPECT_TRUE(std::equal(P.forward, P.forward + n, Q->forward));
            EXPECT_TRUE(std::equal(P.inverse, P.inverse + n, Q->inverse));
        }
    }
}
