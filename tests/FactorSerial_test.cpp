// Serial block factorization and work estimate, checked against a dense unpivoted L·D·Lᵀ of the same
// matrix (which is unique, so the block factor must equal it entry by entry) and against brute-force counts.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "Tamber.h"
#include "testing/Bits.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using testing::DenseLdlt;

// Relative to the size of the data (measured worst: 2e-15 in double, 1e-6 in float); the generated systems
// are diagonally dominant or have a dominant constraint part, so their factors grow little.
template <typename T>
constexpr double tolerance() {
    return std::is_same<T, double>::value ? 1e-12 : 1e-5;
}

double maxAbs(const std::vector<double>& v) {
    double m = 0.0;
    for (double x : v) m = std::max(m, std::fabs(x));
    return m;
}

// Every structural and numerical property of a finished factorization of `sys` held in `data`.
template <typename T>
void checkFactor(const BlockSystem& sys, const TamberData<T>& data) {
    const double tol = tolerance<T>();
    const SparseMatrix<T>& L = data.factor;
    const SparseMatrix<T>& LD = data.scaledFactor;
    const SkeletonMatrix& S = data.skeleton;
    ASSERT_TRUE(data.isFactored == 1 && L.numBlockCols == sys.nb && data.diagonal.size == sys.N);
    ASSERT_TRUE(L.numBlocks == S.numEntries() && LD.numBlocks == S.numEntries());
    for (unsigned int i = 0; i < sys.nb; ++i) {  // the structure of the filled pattern, in both matrices
        ASSERT_TRUE(L.colPointers[i + 1] == S.colPointers[i + 1] &&
                    LD.colPointers[i + 1] == S.colPointers[i + 1]);
        ASSERT_TRUE(L.blockSizes[i] == sys.sizes[i] && L.blockOffsets[i] == sys.offsets[i]) << i;
    }
    for (unsigned int e = 0; e < S.numEntries(); ++e)
        ASSERT_TRUE(L.rowIndices[e] == S.rowIndices[e] && LD.rowIndices[e] == S.rowIndices[e]) << e;

    // L and D equal the dense factor of the same matrix.
    const DenseLdlt ref = testing::denseLdlt(sys.dense);
    DenseLdlt got;
    testing::extractFactor(data, got);
    const double dScale = std::max(1.0, maxAbs(ref.d));
    for (unsigned int r = 0; r < sys.N; ++r) ASSERT_NEAR(got.d[r], ref.d[r], tol * dScale) << "pivot " << r;
    const double lScale = std::max(1.0, maxAbs(ref.L));
    for (std::size_t k = 0; k < ref.L.size(); ++k)
        ASSERT_NEAR(got.L[k], ref.L[k], tol * lScale) << "L entry " << k / sys.N << "," << k % sys.N;

    // L·D·Lᵀ reproduces A on the filled pattern.
    const double scale = std::max(maxAbs(sys.dense.a), lScale * lScale * dScale);
    EXPECT_LE(testing::reconstructionError(data, sys.dense), tol * scale);

    // Per block: unit diagonal blocks with exact zeros above, LD = L·D bit for bit, every LD flag set, and
    // zero padding in both matrices.
    for (unsigned int i = 0; i < sys.nb; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e];
            const unsigned int s_i = sys.sizes[i], s_j = sys.sizes[j];
            const unsigned int p_i = L.blockStrides[i], p_j = L.blockStrides[j];
            const T* l = L.blockPointers[e];
            const T* ld = LD.blockPointers[e];
            ASSERT_EQ(LD.blockFlags[e], 1u) << "block " << i << "," << j;
            ASSERT_EQ(LD.blockPointers[e] - LD.values, L.blockPointers[e] - L.values);
            for (unsigned int r = 0; r < p_i; ++r) {
                for (unsigned int c = 0; c < p_j; ++c) {
                    const unsigned int at = r * p_j + c;
                    if (r >= s_i || c >= s_j) {
                        ASSERT_TRUE(l[at] == T(0) && ld[at] == T(0)) << "padding " << i << "," << j;
                        continue;
                    }
                    ASSERT_EQ(ld[at], l[at] * data.diagonal.data[sys.offsets[j] + c]);
                    ASSERT_TRUE(i != j || c < r || l[at] == T(c == r ? 1 : 0)) << "diagonal block " << i;
                }
            }
        }
    }
}

struct Case {
    const char* kind;  // "spd" or "saddle"
    unsigned long seed;
    unsigned int maxBlockSize;
};

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
    return std::string(info.param.kind) + "_seed" + std::to_string(info.param.seed) + "_s" +
           std::to_string(info.param.maxBlockSize);
}

BlockSystem makeSystem(const Case& c) {
    if (std::string(c.kind) == "spd") {
        return testing::makeSpdSystem(c.seed, 4 + c.seed * 7 % 57, c.maxBlockSize, 0.1 + 0.05 * (c.seed % 7));
    }
    return testing::makeSaddlePointSystem(c.seed, 3 + c.seed * 5 % 31, 2 + c.seed * 3 % 23, c.maxBlockSize,
                                          0.05 * (c.seed % 5));
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (const char* kind : {"spd", "saddle"}) {
        for (unsigned long seed = 0; seed < 24; ++seed)
            cases.push_back({kind, seed, static_cast<unsigned int>(1 + seed % 12)});  // blocks of 1 … 12
    }
    return cases;
}

class FactorSerialRandom : public ::testing::TestWithParam<Case> {};

TEST_P(FactorSerialRandom, MatchesDenseReferenceInDoubleAndFloat) {
    const BlockSystem sys = makeSystem(GetParam());
    SCOPED_TRACE(testing::describe(sys));
    Tamber tamber;
    auto run = [&](auto& data) {
        SCOPED_TRACE(sizeof(*data.diagonal.data) == 8 ? "double" : "float");
        sys.fillData(data);
        unsigned int work = 0;
        tamber.estimateWork(data, &work);
        tamber.factorSerial(data);
        checkFactor(sys, data);
    };
    TamberData<double> dataD;
    TamberData<float> dataF;
    run(dataD);
    run(dataF);
}

// A second factorization of the same structure (new values) reuses every array and gives the new factor.
TEST_P(FactorSerialRandom, RefactorizationAllocatesNothing) {
    const BlockSystem sys = makeSystem(GetParam());
    SCOPED_TRACE(testing::describe(sys));
    Tamber tamber;
    TamberData<double> data;
    sys.fillData(data);
    tamber.estimateWork(data, nullptr);
    tamber.factorSerial(data);

    sys.refillValues(data.matrix, 2.0);
    data.isFactored = 0;
    const std::uint64_t before = kiv::ByteAllocator::allocationCount();
    tamber.factorSerial(data);
    EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);

    // The factor of 2·A is L with 2·D.
    BlockSystem doubled = sys;
    for (double& v : doubled.dense.a) v *= 2.0;
    checkFactor(doubled, data);
}

INSTANTIATE_TEST_SUITE_P(Systems, FactorSerialRandom, ::testing::ValuesIn(allCases()), caseName);

// The layout of the filled pattern at the block sizes of `sys`: tiles back to back in pattern order at their
// padded sizes, block index = pattern entry.
template <typename T>
void checkLayout(const BlockSystem& sys, const TamberData<T>& data, const SparseMatrix<T>& X) {
    const SkeletonMatrix& S = data.skeleton;
    ASSERT_TRUE(X.numBlocks == S.numEntries() && X.numBlockCols == sys.nb && X.numBlockRows == sys.nb);
    const T* next = X.values;
    for (unsigned int i = 0; i < sys.nb; ++i) {
        const unsigned int p_i = sizeof(T) == 8 ? (sys.sizes[i] + 1) & ~1u : sys.sizes[i];
        ASSERT_TRUE(X.colPointers[i + 1] == S.colPointers[i + 1] && X.blockSizes[i] == sys.sizes[i] &&
                    X.blockStrides[i] == p_i && X.blockOffsets[i] == sys.offsets[i])
            << i;
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e];
            ASSERT_TRUE(X.rowIndices[e] == j && X.blockPointers[e] == next) << e;
            next += p_i * (sizeof(T) == 8 ? (sys.sizes[j] + 1) & ~1u : sys.sizes[j]);
        }
    }
    EXPECT_TRUE(sys.nb == 0 || X.blockSizes[sys.nb] == sys.N);
}

// Brute-force counts for the work estimate: fill blocks = filled entries missing from A; work = per
// off-diagonal entry (i, j) one solve plus |{k < j : (i, k) and (j, k) in the pattern}|, by set intersection.
TEST(FactorSerialEstimate, CountsMatchBruteForce) {
    for (unsigned long seed = 0; seed < 60; ++seed) {
        const BlockSystem sys = seed % 2 ? testing::makeSpdSystem(seed, 1 + seed % 31, 1 + seed % 7, 0.15)
                                         : testing::makeSaddlePointSystem(seed, 2 + seed % 17, seed % 13, 3);
        SCOPED_TRACE(testing::describe(sys));
        TamberData<double> data;
        sys.fillData(data);

        const testing::BlockPattern filled = testing::symbolicFactor(sys.pattern());
        std::vector<std::vector<unsigned int>> rows(sys.nb);  // off-diagonal columns of each row of L
        for (unsigned int i = 0; i < sys.nb; ++i)
            for (unsigned int j = 0; j < i; ++j)
                if (filled(i, j)) rows[i].push_back(j);
        unsigned int fill = 0, work = 0;
        for (unsigned int i = 0; i < sys.nb; ++i) {
            fill += static_cast<unsigned int>(rows[i].size() - sys.lowerRows[i].size());
            for (unsigned int j : rows[i]) {
                std::vector<unsigned int> common;
                std::set_intersection(rows[i].begin(), rows[i].end(), rows[j].begin(), rows[j].end(),
                                      std::back_inserter(common));
                work += 1 + static_cast<unsigned int>(std::count_if(common.begin(), common.end(),
                                                                    [j](unsigned int k) { return k < j; }));
            }
        }

        Tamber tamber;
        unsigned int gotWork = 12345;
        EXPECT_EQ(tamber.estimateWork(data, &gotWork), fill);
        EXPECT_EQ(gotWork, work);
        EXPECT_EQ(tamber.estimateWork(data, nullptr), fill);

        // The layout of the factor and of LD: one tile per pattern entry, in pattern order, at the true
        // sizes.
        for (const SparseMatrix<double>* X : {&data.factor, &data.scaledFactor}) checkLayout(sys, data, *X);
    }
}

// A tridiagonal block chain has no fill (every row subtree is the previous block; one solve per off-diagonal
// block, no common columns); a block-diagonal matrix has no work at all, and each
// diagonal block is factored alone.
TEST(FactorSerialEstimate, NoFillChainAndBlockDiagonal) {
    BlockSystem sys = testing::makeSpdSystem(7, 6, 3, 0.0);
    for (unsigned int i = 1; i < sys.nb; ++i) sys.lowerRows[i] = {i - 1};
    TamberData<float> data;
    sys.fillData(data);
    Tamber tamber;
    unsigned int work = 0;
    EXPECT_EQ(tamber.estimateWork(data, &work), 0u);
    EXPECT_EQ(work, 5u);
    checkLayout(sys, data, data.factor);
    const BlockSystem diag = testing::makeSpdSystem(3, 9, 7, 0.0);
    TamberData<double> dataD;
    diag.fillData(dataD);
    EXPECT_EQ(tamber.estimateWork(dataD, &work), 0u);
    EXPECT_EQ(work, 0u);
    tamber.factorSerial(dataD);
    checkFactor(diag, dataD);
}

// A factorization sets factorTime (seconds, not ticks) and resets solveTime, also of an empty system (which
// estimates no work and factors nothing).
TEST(FactorSerialEdge, EmptySystemAndTimers) {
    Tamber tamber;
    TamberData<double> data;
    TamberData<float> dataF;
    unsigned int work = 99;
    EXPECT_EQ(tamber.estimateWork(data, &work), 0u);
    EXPECT_EQ(work, 0u);
    tamber.solveTime = 3.0;
    tamber.factorSerial(data);
    tamber.factorSerial(dataF);
    EXPECT_TRUE(data.isFactored == 1 && dataF.isFactored == 1 && data.factor.numBlocks == 0);
    EXPECT_TRUE(tamber.getSolveTime() == 0.0 && tamber.getFactorTime() > 0.0);
    const BlockSystem sys = testing::makeSaddlePointSystem(5, 6, 4);
    sys.fillData(data);
    tamber.solveTime = 1.5;
    tamber.factorSerial(data);
    EXPECT_TRUE(tamber.getFactorTime() > 0.0 && tamber.getFactorTime() < 10.0);
    EXPECT_EQ(tamber.getSolveTime(), 0.0);
}

// No pivoting: a zero pivot (a constraint eliminated before its body) gives non-finite values; without the
// stop flag the factorization still completes, and it reports the first bad pivot.
TEST(FactorSerialEdge, ZeroPivotPropagatesAndIsReported) {
    testing::DenseSymmetric A(2);
    A.setSymmetric(1, 0, 1.0);  // [[0, 1], [1, 0]]
    const BlockSystem sys = testing::makeFromDense({1, 1}, A);
    TamberData<double> data;
    sys.fillData(data);
    Tamber tamber;
    tamber.factorSerial(data);
    EXPECT_EQ(data.isFactored, 1);
    EXPECT_EQ(data.diagonal.data[0], 0.0);
    EXPECT_FALSE(std::isfinite(data.diagonal.data[1]));
    EXPECT_TRUE(data.badPivot.scalar == 0 && data.badPivot.block == 0 && data.badPivot.local == 0 &&
                data.badPivot.value == 0.0);
}

// Every bit of the factor: the tiles of L and LD (back to back in pattern order, padding included), then the
// pivots.
template <typename T>
std::vector<T> factorBits(const TamberData<T>& data) {
    std::vector<T> v;
    const unsigned long nb = data.factor.numBlockCols, blocks = data.factor.numBlocks;
    for (const SparseMatrix<T>* X : {&data.factor, &data.scaledFactor}) {
        if (blocks == 0) continue;
        const unsigned long p = X->blockStrides[nb - 1];
        v.insert(v.end(), X->values, X->blockPointers[blocks - 1] + p * p);
    }
    v.insert(v.end(), data.diagonal.data, data.diagonal.data + data.diagonal.size);
    return v;
}

using testing::sameBits;

// Without L·D (writeScaledFactor = 0): L, D and the bad-pivot record are the bits of the factorization that
// writes L·D, every LD flag is 0 (also after a factorization that wrote them), a refactorization allocates
// nothing, and computeScaledFactor then gives the written L·D bit for bit, flags 1.
template <typename T>
void checkLeanForm(const BlockSystem& sys) {
    SCOPED_TRACE(sizeof(T) == 8 ? "double" : "float");
    Tamber tamber;
    TamberData<T> full, lean;
    for (TamberData<T>* data : {&full, &lean}) {
        sys.fillData(*data);
        tamber.estimateWork(*data, nullptr);
    }
    tamber.factorSerial(full);
    lean.writeScaledFactor = 0;
    for (int pass = 0; pass < 2; ++pass) {  // the second pass over a layout whose LD was written
        if (pass == 1) {
            lean.writeScaledFactor = 1;
            tamber.factorSerial(lean);
            lean.writeScaledFactor = 0;
        }
        const std::uint64_t before = kiv::ByteAllocator::allocationCount();
        tamber.factorSerial(lean);
        if (pass == 1) {
            EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        }
        ASSERT_EQ(lean.isFactored, 1);
        const SparseMatrix<T>& L = lean.factor;
        const unsigned long blocks = L.numBlocks, nb = L.numBlockCols;
        ASSERT_EQ(blocks, full.factor.numBlocks);
        const unsigned long p = L.blockStrides[nb - 1];
        const unsigned long values =
            static_cast<unsigned long>(L.blockPointers[blocks - 1] + p * p - L.values);
        ASSERT_EQ(std::memcmp(L.values, full.factor.values, values * sizeof(T)), 0);
        ASSERT_EQ(std::memcmp(lean.diagonal.data, full.diagonal.data, sys.N * sizeof(T)), 0);
        EXPECT_EQ(lean.badPivot.scalar, full.badPivot.scalar);
        for (unsigned long e = 0; e < blocks; ++e) ASSERT_EQ(lean.scaledFactor.blockFlags[e], 0u) << e;

        tamber.computeScaledFactor(lean);
        for (unsigned long e = 0; e < blocks; ++e) ASSERT_EQ(lean.scaledFactor.blockFlags[e], 1u) << e;
        ASSERT_TRUE(sameBits(factorBits(lean), factorBits(full)));
        const std::uint64_t again = kiv::ByteAllocator::allocationCount();
        tamber.computeScaledFactor(lean);  // complete: nothing to do
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), again);
        ASSERT_TRUE(sameBits(factorBits(lean), factorBits(full)));
    }
}

TEST(FactorSerialLean, SameFactorAndScaledFactorOnDemand) {
    for (const Case& c : allCases()) {
        const BlockSystem sys = makeSystem(c);
        SCOPED_TRACE(testing::describe(sys));
        checkLeanForm<double>(sys);
        checkLeanForm<float>(sys);
        if (::testing::Test::HasFatalFailure()) return;
    }
    // Non-finite values after a zero pivot: the same bits in both forms.
    testing::DenseSymmetric A(3);
    A.setSymmetric(1, 0, 1.0);
    A.setSymmetric(2, 1, 2.0);
    A.setSymmetric(2, 2, 1.0);
    const BlockSystem zeroPivot = testing::makeFromDense({1, 2}, A);
    checkLeanForm<double>(zeroPivot);
    checkLeanForm<float>(zeroPivot);
}

// A zero pivot planted at scalar `local` of block `block` (its row and column of A zeroed, so d is exactly 0
// there whatever came before): reported with its place and value; with stopAtBadPivot the factorization stops
// right after that block's diagonal factorization (later pivots untouched, isFactored 0) and the pivots up to
// it are those of the complete run; a clean system gives the same bits with and without the flag.
TEST(FactorSerialEdge, StopsAtTheFirstBadPivot) {
    for (unsigned long seed = 0; seed < 12; ++seed) {
        BlockSystem sys = testing::makeSpdSystem(seed, 30 + seed, 1 + seed % 6, 0.2);
        SCOPED_TRACE(testing::describe(sys));
        Tamber tamber;
        TamberData<double> clean, flagged;
        sys.fillData(clean);
        sys.fillData(flagged);
        flagged.stopAtBadPivot = 1;
        tamber.factorSerial(clean);
        tamber.factorSerial(flagged);
        EXPECT_TRUE(flagged.isFactored == 1 &&
                    flagged.badPivot.scalar == TamberData<double>::BadPivot::noPivot);
        EXPECT_TRUE(sameBits(factorBits(clean), factorBits(flagged)));

        const unsigned int block = 2 + static_cast<unsigned int>(seed % 5), local = sys.sizes[block] - 1;
        const unsigned int r = sys.offsets[block] + local;
        for (unsigned int c = 0; c < sys.N; ++c) sys.dense.setSymmetric(r, c, 0.0);
        TamberData<double> full, stopped;
        for (TamberData<double>* data : {&full, &stopped}) {
            sys.fillData(*data);
            tamber.factorSerial(*data);  // sizes the pivots; then a sentinel in every pivot
            std::fill(data->diagonal.data, data->diagonal.data + sys.N, 7.0);
            data->isFactored = 0;
        }
        stopped.stopAtBadPivot = 1;
        tamber.factorSerial(full);
        tamber.factorSerial(stopped);
        EXPECT_EQ(full.isFactored, 1);
        EXPECT_EQ(stopped.isFactored, 0);
        for (const TamberData<double>* data : {&full, &stopped}) {
            EXPECT_TRUE(data->badPivot.scalar == r && data->badPivot.block == block &&
                        data->badPivot.local == local && data->badPivot.value == 0.0);
        }
        for (unsigned int k = 0; k < sys.N; ++k) {
            if (k < sys.offsets[block + 1]) {
                ASSERT_EQ(stopped.diagonal.data[k], full.diagonal.data[k]) << k;
            } else {
                ASSERT_EQ(stopped.diagonal.data[k], 7.0) << k;  // never reached
            }
        }
        // The next factorization without the flag completes and reports the same pivot.
        stopped.stopAtBadPivot = 0;
        tamber.factorSerial(stopped);
        EXPECT_TRUE(stopped.isFactored == 1 && stopped.badPivot.scalar == r);
        EXPECT_TRUE(sameBits(factorBits(stopped), factorBits(full)));
    }
}

// The layout is made once per structure: a work estimate lays L and LD out (allocating nothing and zeroing
// nothing when the object already holds that layout); new values on the same structure reuse it, allocate
// nothing and give the bits of a fresh object; a changed structure (here one coupling added to the last
// row, found only when the factorization reaches that row) is laid out anew and factored right.
TEST(FactorSerialLayout, MadeOncePerStructure) {
    for (unsigned long seed = 0; seed < 8; ++seed) {
        BlockSystem sys = seed % 2 ? testing::makeSpdSystem(seed, 40, 1 + seed % 7, 0.1)
                                   : testing::makeSaddlePointSystem(seed, 20, 12, 1 + seed % 7);
        SCOPED_TRACE(testing::describe(sys));
        Tamber tamber;
        TamberData<double> data;
        sys.fillData(data);
        tamber.estimateWork(data, nullptr);
        tamber.factorSerial(data);
        const std::vector<double> bits = factorBits(data);
        const double* values = data.factor.values;

        std::uint64_t before = kiv::ByteAllocator::allocationCount();
        unsigned int work = 0;
        tamber.estimateWork(data, nullptr);
        tamber.estimateWork(data, &work);
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        EXPECT_TRUE(sameBits(factorBits(data), bits));  // nothing zeroed, nothing moved

        sys.refillValues(data.matrix, 0.5);
        data.isFactored = 0;
        before = kiv::ByteAllocator::allocationCount();
        tamber.factorSerial(data);
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        EXPECT_EQ(data.factor.values, values);
        TamberData<double> fresh;
        sys.fillData(fresh);
        fresh.matrix.clear();
        sys.fillMatrix(fresh.matrix);
        sys.refillValues(fresh.matrix, 0.5);
        tamber.estimateWork(fresh, nullptr);
        tamber.factorSerial(fresh);
        EXPECT_TRUE(sameBits(factorBits(fresh), factorBits(data)));

        // One more coupling in the last row (zero values: the matrix stays the same, its structure does not).
        BlockSystem wider = sys;
        std::vector<unsigned int>& last = wider.lowerRows[sys.nb - 1];
        for (unsigned int j = 0; j + 1 < sys.nb; ++j) {
            if (!std::binary_search(last.begin(), last.end(), j)) {
                last.insert(std::lower_bound(last.begin(), last.end(), j), j);
                break;
            }
        }
        wider.fillData(data);
        tamber.factorSerial(data);
        checkFactor(wider, data);
        checkLayout(wider, data, data.factor);
        checkLayout(wider, data, data.scaledFactor);
        TamberData<double> freshWider;
        wider.fillData(freshWider);
        tamber.estimateWork(freshWider, nullptr);
        tamber.factorSerial(freshWider);
        EXPECT_TRUE(sameBits(factorBits(freshWider), factorBits(data)));
        // The last row's first coupling moved to another column, where that keeps the counts of the filled
        // pattern: only the row check of the last row can find the change.
        for (unsigned int j = 0; j + 1 < sys.nb; ++j) {
            BlockSystem moved = sys;
            std::vector<unsigned int>& row = moved.lowerRows[sys.nb - 1];
            if (row.empty() || std::binary_search(row.begin(), row.end(), j)) continue;
            const unsigned int dropped = row.front();
            row.erase(row.begin());
            row.insert(std::lower_bound(row.begin(), row.end(), j), j);
            for (unsigned int r = sys.offsets[sys.nb - 1]; r < sys.N; ++r)
                for (unsigned int c = sys.offsets[dropped]; c < sys.offsets[dropped + 1]; ++c)
                    moved.dense.setSymmetric(r, c, 0.0);
            TamberData<double> probe;
            moved.fillData(probe);
            if (probe.skeleton.numEntries() != data.skeleton.numEntries()) continue;
            moved.fillData(data);
            tamber.factorSerial(data);
            checkFactor(moved, data);
            checkLayout(moved, data, data.factor);
            tamber.estimateWork(probe, nullptr);
            tamber.factorSerial(probe);
            EXPECT_TRUE(sameBits(factorBits(probe), factorBits(data)));
            break;
        }
        // And back to the first structure without a work estimate.
        sys.fillData(data);
        tamber.factorSerial(data);
        checkFactor(sys, data);
    }
}

// A real SPD matrix (power network admittance, 494 unknowns) grouped into blocks of 3 in its natural order.
TEST(FactorSerialReal, PowerNetworkMatchesDense) {
    const char* dir = testing::realDataDir();
    if (!dir) GTEST_SKIP() << "KIVTAMBER_DATA_DIR not set";
    for (unsigned int group : {1u, 3u}) {
        BlockSystem sys;
        ASSERT_TRUE(testing::loadMatrixMarket((std::string(dir) + "/494_bus.mtx").c_str(), group, 494, sys));
        ASSERT_EQ(sys.N, 494u);
        TamberData<double> data;
        sys.fillData(data);
        Tamber tamber;
        tamber.estimateWork(data, nullptr);
        tamber.factorSerial(data);
        const DenseLdlt ref = testing::denseLdlt(sys.dense);
        DenseLdlt got;
        testing::extractFactor(data, got);
        for (unsigned int r = 0; r < sys.N; ++r)
            ASSERT_NEAR(got.d[r], ref.d[r], 1e-10 * std::fabs(ref.d[r]) + 1e-12) << "group " << group;
        EXPECT_LE(testing::reconstructionError(data, sys.dense), 1e-12 * testing::normInf(sys.dense));
    }
}

// A step whose values are not finite leaves nothing behind: non-finite input in the later half of the rows,
// factored with and without the stop at the first bad pivot, serially and by the multifrontal method; then
// the finite values again on the same structure give the bits of a fresh object (padding included) and the
// same solution. (The paired products once left NaN in the padding rows of odd-sized tiles, which no later
// factorization rewrote and every later solve multiplied in.)
TEST(FactorSerialEdge, NonFiniteStepLeavesNoTrace) {
    for (unsigned long seed = 0; seed < 16; ++seed) {
        const BlockSystem sys = seed % 2 ? testing::makeSpdSystem(seed, 30, 1 + seed % 7, 0.2)
                                         : testing::makeSaddlePointSystem(seed, 16, 10, 1 + seed % 7, 0.2);
        SCOPED_TRACE(testing::describe(sys));
        Tamber tamber;
        TamberData<double> fresh;
        sys.fillData(fresh);
        tamber.estimateWork(fresh, nullptr);
        tamber.factorSerial(fresh);
        std::vector<double> expected(sys.N);
        for (unsigned int k = 0; k < sys.N; ++k) expected[k] = 1.0 + k % 5;
        tamber.solve(fresh, expected.data());
        for (unsigned int threads : {0u, 1u, 2u}) {  // 0: serial
            for (unsigned char stop : {0, 1}) {
                for (double poison : {std::numeric_limits<double>::infinity(), std::nan("")}) {
                    TamberData<double> data;
                    sys.fillData(data);
                    tamber.estimateWork(data, nullptr);
                    data.stopAtBadPivot = stop;
                    data.numThreads = threads;
                    auto factor = [&] { threads == 0 ? tamber.factorSerial(data) : tamber.factorMF(data); };
                    factor();
                    const SparseMatrix<double>& A = data.matrix;
                    for (unsigned int i = sys.nb / 2; i < sys.nb; ++i) {
                        for (unsigned int e = A.colPointers[i]; e < A.colPointers[i + 1]; ++e) {
                            const unsigned long count =
                                static_cast<unsigned long>(sys.sizes[i]) * A.blockStrides[A.rowIndices[e]];
                            for (unsigned long q = 0; q < count; ++q) {
                                if (A.blockPointers[e][q] != 0.0) A.blockPointers[e][q] = poison;
                            }
                        }
                    }
                    factor();
                    ASSERT_NE(data.badPivot.scalar, TamberData<double>::BadPivot::noPivot);
                    sys.refillValues(data.matrix, 1.0);
                    factor();
                    if (threads <= 1) {
                        EXPECT_TRUE(sameBits(factorBits(data), factorBits(fresh)));
                    }
                    std::vector<double> x(sys.N);
                    for (unsigned int k = 0; k < sys.N; ++k) x[k] = 1.0 + k % 5;
                    tamber.solve(data, x.data());
                    if (threads <= 1) {
                        EXPECT_TRUE(sameBits(x, expected)) << int(stop) << " " << threads;
                    } else {
                        for (unsigned int k = 0; k < sys.N; ++k)
                            ASSERT_NEAR(x[k], expected[k], 1e-9 * (1.0 + std::fabs(expected[k]))) << k;
                    }
                }
            }
        }
    }
}

// An input source that copies each block column it is asked for from a finished matrix into data.matrix
// (whose values start as NaN) and records the ranges asked for and the rows factored before each call.
template <typename T>
class CopyColumns final : public InputColumns {
public:
    CopyColumns(const SparseMatrix<T>& from, SparseMatrix<T>& to) : from_(from), to_(to) {}
    void write(unsigned int first, unsigned int end) override {
        ranges.push_back({first, end});
        for (unsigned int c = first; c < end; ++c) {
            const unsigned int b = from_.colPointers[c], bEnd = from_.colPointers[c + 1];
            if (b == bEnd) continue;
            const T* begin = from_.blockPointers[b];
            const T* stop = from_.blockPointers[bEnd - 1] +
                            static_cast<unsigned long>(from_.blockStrides[from_.rowIndices[bEnd - 1]]) *
                                from_.blockStrides[c];
            std::copy(begin, stop, to_.values + (begin - from_.values));
        }
    }
    std::vector<std::pair<unsigned int, unsigned int>> ranges;

private:
    const SparseMatrix<T>& from_;
    SparseMatrix<T>& to_;
};

// factorSerial(data, input) asks for every column once, in ascending ranges that cover 0 … nb − 1, each
// before the factorization reads it (the input starts as NaN, so a column read early would change the
// factor), also when it stops at a bad pivot; the result is that of the input written first, bit for bit,
// through the plan, through the row loop and in float; and a second call allocates nothing.
TEST(FactorSerialInput, ColumnsWrittenOnceBeforeTheirRowsWithTheSameBits) {
    auto check = [](auto zero, const BlockSystem& sys, unsigned char usePlan, unsigned char stop,
                    bool badPivot) {
        using T = decltype(zero);
        SCOPED_TRACE(std::string(sizeof(T) == 8 ? "double" : "float") + " plan " + std::to_string(usePlan) +
                     " stop " + std::to_string(stop) + (badPivot ? " bad pivot" : ""));
        Tamber tamber;
        TamberData<T> reference, fed;
        for (TamberData<T>* data : {&reference, &fed}) {
            sys.fillData(*data);
            data->factorPlan.use = usePlan;
            data->stopAtBadPivot = stop;
            tamber.estimateWork(*data, nullptr);
        }
        const unsigned int nb = static_cast<unsigned int>(reference.matrix.numBlockCols);
        if (badPivot) {  // the middle block row of the input zeroed: its pivots are exactly 0
            SparseMatrix<T>& A = reference.matrix;
            const unsigned int b = nb / 2;
            for (unsigned int e = A.colPointers[b]; e < A.colPointers[b + 1]; ++e)
                std::fill(A.blockPointers[e],
                          A.blockPointers[e] +
                              static_cast<unsigned long>(A.blockStrides[b]) * A.blockStrides[A.rowIndices[e]],
                          T(0));
        }
        tamber.factorSerial(reference);
        CopyColumns<T> input(reference.matrix, fed.matrix);
        for (int call = 0; call < 2; ++call) {
            const std::uint64_t before = kiv::ByteAllocator::allocationCount();
            std::fill(fed.matrix.values, fed.matrix.values + fed.matrix.valueCapacity,
                      std::numeric_limits<T>::quiet_NaN());
            input.ranges.clear();
            tamber.factorSerial(fed, input);
            if (call == 1) {
                EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
            }
            unsigned int next = 0;
            for (const auto& r : input.ranges) {
                ASSERT_EQ(r.first, next);
                ASSERT_LT(r.first, r.second);
                next = r.second;
            }
            ASSERT_EQ(next, nb);
            ASSERT_TRUE(sameBits(factorBits(fed), factorBits(reference)));
            EXPECT_EQ(fed.isFactored, reference.isFactored);
            EXPECT_EQ(fed.badPivot.scalar, reference.badPivot.scalar);
        }
        // Every value of the input is there afterwards (padding included: it is copied from the reference).
        const SparseMatrix<T>& A = reference.matrix;
        const unsigned long extent =
            static_cast<unsigned long>(A.blockPointers[A.numBlocks - 1] - A.values) +
            static_cast<unsigned long>(A.blockStrides[nb - 1]) * A.blockStrides[nb - 1];
        EXPECT_TRUE(std::equal(A.values, A.values + extent, fed.matrix.values));
    };
    for (unsigned long seed = 0; seed < 6; ++seed) {  // more than two groups of the plan's rows
        const BlockSystem sys =
            seed % 2 == 0 ? testing::makeSpdSystem(seed, 270 + seed * 10, 1 + seed % 5, 0.005)
                          : testing::makeSaddlePointSystem(seed, 160 + seed * 10, 110, 1 + seed % 6, 0.01);
        SCOPED_TRACE(testing::describe(sys));
        for (unsigned char usePlan : {1, 0})
            for (unsigned char stop : {0, 1})
                for (bool bad : {false, true}) {
                    check(0.0, sys, usePlan, stop, bad);
                    if (usePlan == 1) check(0.0f, sys, usePlan, stop, bad);
                }
    }
}

}  // namespace
}  // namespace kivTamber
