// Block detection in scalar patterns and the block problem of a scalar matrix: detection agrees with a
// brute-force comparison of dense rows, recovers planted blocks (never across the body/constraint split) and
// finds none in a random pattern; lower, upper and full storage read alike; the block problem solves like
// the scalar one against a dense reference; bad input is answered with a message and changes nothing.
#include "ScalarBlocks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Tamber.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;
using namespace kivTamber::Analysis;

namespace {

// A scalar symmetric matrix: dense twin, rows at or above firstConstraintRow constraints, and its pattern in
// CSC (lower, upper or full) with the values in the same order.
struct Scalar {
    kt::DenseSymmetric dense;
    unsigned int firstConstraintRow = 0;
    std::vector<unsigned int> plantedSizes;
    std::vector<unsigned int> cp, ri;
    std::vector<double> values;

    unsigned int n() const { return dense.n; }
    bool coupled(unsigned int i, unsigned int j) const {
        return i == j ? dense(i, i) != 0.0 : dense(i, j) != 0.0;
    }
    // triangle: 0 lower, 1 upper, 2 full.
    void store(int triangle) {
        cp.assign(1, 0);
        ri.clear();
        values.clear();
        for (unsigned int j = 0; j < n(); ++j) {
            for (unsigned int i = 0; i < n(); ++i) {
                const bool keep = triangle == 2 || (triangle == 0 ? i >= j : i <= j);
                if (keep && coupled(i, j)) {
                    ri.push_back(i);
                    values.push_back(dense(i, j));
                }
            }
            cp.push_back(static_cast<unsigned int>(ri.size()));
        }
    }
};

// A saddle-point block system renumbered bodies first, as a scalar matrix; the planted blocks are its blocks.
Scalar fromSystem(const kt::BlockSystem& sys) {
    std::vector<unsigned int> oldOf;
    for (int pass = 0; pass < 2; ++pass)
        for (unsigned int b = 0; b < sys.nb; ++b)
            if (sys.isConstraint[b] == pass) oldOf.push_back(b);
    Scalar s;
    s.dense = kt::DenseSymmetric(sys.N);
    std::vector<unsigned int> offsets{0};
    for (unsigned int b : oldOf) {
        s.plantedSizes.push_back(sys.sizes[b]);
        if (!sys.isConstraint[b]) s.firstConstraintRow += sys.sizes[b];
        offsets.push_back(offsets.back() + sys.sizes[b]);
    }
    for (unsigned int J = 0; J < sys.nb; ++J)
        for (unsigned int I = 0; I < sys.nb; ++I)
            for (unsigned int r = 0; r < sys.sizes[oldOf[I]]; ++r)
                for (unsigned int c = 0; c < sys.sizes[oldOf[J]]; ++c)
                    s.dense.a[(offsets[I] + r) * sys.N + offsets[J] + c] =
                        sys.dense(sys.offsets[oldOf[I]] + r, sys.offsets[oldOf[J]] + c);
    s.store(0);
    return s;
}

// The reference: row r + 1 joins rows s .. r when the dense rows agree outside s .. r + 1.
std::vector<unsigned int> bruteForce(const Scalar& s, unsigned int maxRows) {
    std::vector<unsigned int> sizes;
    const unsigned int n = s.n();
    unsigned int start = 0;
    for (unsigned int r = 0; r < n; ++r) {
        bool join = r > start && r != s.firstConstraintRow && r - start < maxRows;
        for (unsigned int x = 0; join && x < n; ++x)
            if ((x < start || x > r) && (x != start && s.coupled(start, x)) != (x != r && s.coupled(r, x)))
                join = false;
        bool tight = true;  // the block with r: every two rows coupled
        for (unsigned int a = start; a <= r; ++a)
            for (unsigned int c = start; c < a; ++c) tight = tight && s.coupled(a, c);
        if (join && !tight && r - start + 1 > std::min(maxRows, kMaxLooseBlockRows)) join = false;
        if (join) continue;
        if (r > start) sizes.push_back(r - start);
        start = r;
    }
    if (n > start) sizes.push_back(n - start);
    return sizes;
}

// Every planted body block (rows below `bodyRows`; their dense mass blocks couple all their rows) lies inside
// one detected block. (A run of constraint rows of one pattern is cut at kMaxLooseBlockRows rows, wherever
// the planted blocks end.)
bool coarsens(const std::vector<unsigned int>& detected, const std::vector<unsigned int>& planted,
              unsigned int bodyRows) {
    std::vector<unsigned int> cuts(1, 0);
    for (unsigned int s : detected) cuts.push_back(cuts.back() + s);
    unsigned int at = 0;
    for (unsigned int s : planted) {
        at += s;
        if (at > bodyRows) break;
        for (unsigned int r = at - s + 1; r < at; ++r)
            if (std::binary_search(cuts.begin(), cuts.end(), r)) return false;
    }
    return true;
}

// x = A⁻¹·b through the block problem on `sizes`, with one refinement step.
std::vector<double> solveBlocked(const Scalar& s, const std::vector<unsigned int>& sizes,
                                 const std::vector<double>& b, bool peel) {
    ScalarProblem sp;
    std::string message;
    EXPECT_TRUE(sp.build(s.n(), s.firstConstraintRow, s.cp.data(), s.ri.data(),
                         static_cast<unsigned int>(sizes.size()), sizes.data(), &message))
        << message;
    std::vector<double> blockValues(sp.numValues());
    sp.scatter(s.values.data(), blockValues.data());
    Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    Options options;
    options.peel = peel;
    const Report r = analyzer.analyze(sp.problem(), options, data);
    EXPECT_TRUE(r.ok) << r.message;
    if (!r.ok) return {};
    tamber.estimateWork(data, nullptr);
    analyzer.setBlocks(data, blockValues.data(), sp.valuePointers().data());
    tamber.factorSerial(data);
    std::vector<double> bp(s.n()), xp(s.n()), x(s.n());
    analyzer.permuteVector(b.data(), bp.data());
    EXPECT_TRUE(tamber.solve(data, bp.data(), xp.data()));
    analyzer.unpermuteVector(xp.data(), x.data());
    return x;
}

}  // namespace

TEST(ScalarBlocks, DetectionMatchesDenseRowsAndRecoversPlantedBlocks) {
    unsigned long recoveredRows = 0;
    for (unsigned long seed = 1; seed <= 30; ++seed) {
        Scalar s = fromSystem(kt::makeSaddlePointSystem(seed, 12, 8, 6, 0.2));
        SCOPED_TRACE("seed " + std::to_string(seed));
        for (unsigned int maxRows : {kMaxDetectedBlockRows, 3u}) {
            for (int triangle = 0; triangle < 3; ++triangle) {
                s.store(triangle);
                DetectedBlocks found;
                std::string message;
                ASSERT_TRUE(detectBlocks(s.n(), s.firstConstraintRow, s.cp.data(), s.ri.data(), found,
                                         &message, maxRows))
                    << message;
                ASSERT_EQ(found.blockSizes, bruteForce(s, maxRows));
                ASSERT_EQ(found.numBlocks, found.blockSizes.size());
                // The split: the first constraint block starts at the first constraint row.
                const unsigned int before = std::accumulate(
                    found.blockSizes.begin(), found.blockSizes.begin() + found.firstConstraint, 0u);
                ASSERT_EQ(before, s.firstConstraintRow);
                if (maxRows >= 6) {
                    ASSERT_TRUE(coarsens(found.blockSizes, s.plantedSizes, s.firstConstraintRow));
                    recoveredRows += found.rowsInMultiRowBlocks;
                }
                ASSERT_EQ(found.largestBlock,
                          *std::max_element(found.blockSizes.begin(), found.blockSizes.end()));
            }
        }
    }
    EXPECT_GT(recoveredRows, 1000ul);
}

TEST(ScalarBlocks, RandomPatternHasNoBlocksAndTheSplitIsKept) {
    // A random sparse symmetric pattern: consecutive rows almost never agree.
    Scalar s;
    const unsigned int n = 300;
    s.dense = kt::DenseSymmetric(n);
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (unsigned int i = 0; i < n; ++i) {
        s.dense.a[i * n + i] = 1.0;
        for (unsigned int j = 0; j < i; ++j)
            if (u(random) < 0.04) s.dense.setSymmetric(i, j, 0.5);
    }
    s.firstConstraintRow = n;
    s.store(0);
    DetectedBlocks found;
    ASSERT_TRUE(detectBlocks(n, n, s.cp.data(), s.ri.data(), found, nullptr));
    EXPECT_EQ(found.blockSizes, bruteForce(s, kMaxDetectedBlockRows));
    EXPECT_EQ(found.numBlocks, n);
    EXPECT_EQ(found.multiRowBlocks, 0u);
    EXPECT_EQ(found.firstConstraint, n);

    // Rows of identical patterns on both sides of the split: a body row and a constraint row never share a
    // block. Rows 0..3 couple to row 4 and nothing else; the constraint rows start at 2.
    Scalar t;
    t.dense = kt::DenseSymmetric(5);
    for (unsigned int i = 0; i < 4; ++i) t.dense.setSymmetric(i, 4, 1.0);
    t.dense.a[4 * 5 + 4] = 1.0;
    t.firstConstraintRow = 2;
    t.store(1);
    ASSERT_TRUE(detectBlocks(5, 2, t.cp.data(), t.ri.data(), found, nullptr));
    EXPECT_EQ(found.blockSizes, (std::vector<unsigned int>{2, 2, 1}));
    EXPECT_EQ(found.firstConstraint, 1u);
}

TEST(ScalarBlocks, BlockProblemSolvesLikeTheScalarOneAndMapsEveryEntry) {
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        Scalar s = fromSystem(kt::makeSaddlePointSystem(seed, 10, 7, 6, 0.2));
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::vector<double> b = kt::randomVector(s.n(), seed);
        std::vector<double> reference;
        for (int triangle = 0; triangle < 3; ++triangle) {
            s.store(triangle);
            DetectedBlocks found;
            ASSERT_TRUE(detectBlocks(s.n(), s.firstConstraintRow, s.cp.data(), s.ri.data(), found, nullptr));
            ASSERT_LT(found.numBlocks, s.n());
            const std::vector<double> ones(s.n(), 1.0);
            const std::vector<double> x =
                solveBlocked(s, found.blockSizes, b, found.multiRowConstraintBlocks == 0);
            ASSERT_EQ(x.size(), s.n());
            EXPECT_LT(kt::scaledResidual(s.dense, x.data(), b.data()), 1e-13);
            if (triangle == 0) {
                reference = solveBlocked(s, std::vector<unsigned int>(s.n(), 1u), b,
                                         true);  // every row its own block
                ASSERT_EQ(reference.size(), s.n());
                EXPECT_LT(kt::scaledResidual(s.dense, reference.data(), b.data()), 1e-13);
            }
            double diff = 0.0, scale = 0.0;
            for (unsigned int k = 0; k < s.n(); ++k) {
                diff = std::max(diff, std::abs(x[k] - reference[k]));
                scale = std::max(scale, std::abs(reference[k]));
            }
            EXPECT_LT(diff, 1e-9 * scale);

            // The scattered block values hold every coupled scalar of the dense matrix in its place.
            ScalarProblem sp;
            ASSERT_TRUE(sp.build(s.n(), s.firstConstraintRow, s.cp.data(), s.ri.data(), found.numBlocks,
                                 found.blockSizes.data(), nullptr));
            ASSERT_TRUE(checkProblem(sp.problem()));
            std::vector<double> blockValues(sp.numValues());
            sp.scatter(s.values.data(), blockValues.data());
            for (unsigned int i = 0; i < s.n(); ++i) {
                for (unsigned int j = 0; j < s.n(); ++j) {
                    unsigned long entry = 0, offset = 0;
                    if (sp.locate(i, j, entry, offset))
                        ASSERT_EQ(blockValues[sp.valuePointers()[entry] + offset], s.dense(i, j))
                            << i << " " << j;
                    else
                        ASSERT_EQ(s.dense(i, j), 0.0) << i << " " << j;
                }
            }
        }
    }
}

TEST(ScalarBlocks, BadInputIsAnsweredAndChangesNothing) {
    // Column 1 of a 3-row lower pattern: rows 1, 2; column 0: row 0, 2.
    const std::vector<unsigned int> cp{0, 2, 4, 5}, ri{0, 2, 1, 2, 2};
    const unsigned int sizes[] = {1, 2};
    const struct {
        std::vector<unsigned int> cp, ri;
        unsigned int first;
        const char* expected;
    } cases[] = {
        {{0, 2, 4, 5}, {0, 3, 1, 2, 2}, 3, "column 0: entry 1 names row 3, but the matrix has 3 rows"},
        {{0, 2, 4, 5},
         {2, 0, 1, 2, 2},
         3,
         "column 0: entry 1 names row 0 after row 2 (rows must be strictly ascending: unsorted or duplicate "
         "entry)"},
        {{0, 2, 4, 5},
         {0, 2, 1, 1, 2},
         3,
         "column 1: entry 3 names row 1 after row 1 (rows must be strictly ascending: unsorted or duplicate "
         "entry)"},
        {{0, 2, 1, 5},
         {0, 2, 1, 2, 2},
         3,
         "colPointers decreases at column 1 (colPointers[2] = 1 after colPointers[1] = 2)"},
        {{1, 2, 4, 5}, {0, 2, 1, 2, 2}, 3, "colPointers[0] is 1; it must be 0"},
        {cp, ri, 4, "firstConstraintRow 4 exceeds the number of rows 3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        DetectedBlocks found;
        found.numBlocks = 77;
        std::string message;
        EXPECT_FALSE(detectBlocks(3, c.first, c.cp.data(), c.ri.data(), found, &message));
        EXPECT_EQ(message, c.expected);
        EXPECT_EQ(found.numBlocks, 77u);
        ScalarProblem sp;
        message.clear();
        EXPECT_FALSE(sp.build(3, c.first, c.cp.data(), c.ri.data(), 2, sizes, &message));
        EXPECT_EQ(message, c.expected);
        EXPECT_EQ(sp.numBlocks(), 0u);
    }
    const struct {
        std::vector<unsigned int> sizes;
        unsigned int first;
        const char* expected;
    } partitions[] = {
        {{1, 1}, 3, "the block sizes add up to 2 rows, but the matrix has 3"},
        {{2, 2}, 3, "the block sizes add up to 4 rows, but the matrix has 3"},
        {{1, 0, 2}, 3, "block 1 has size 0; every block needs at least one row"},
        {{2, 1}, 1, "block 0 (rows 0 .. 1) holds body and constraint rows (the first constraint row is 1)"},
    };
    for (const auto& c : partitions) {
        SCOPED_TRACE(c.expected);
        ScalarProblem sp;
        ASSERT_TRUE(sp.build(3, 3, cp.data(), ri.data(), 2, sizes, nullptr));
        std::string message;
        EXPECT_FALSE(sp.build(3, c.first, cp.data(), ri.data(), static_cast<unsigned int>(c.sizes.size()),
                              c.sizes.data(), &message));
        EXPECT_EQ(message, c.expected);
        EXPECT_EQ(sp.numBlocks(), 0u);
        unsigned long entry = 5, offset = 6;
        EXPECT_FALSE(sp.locate(0, 0, entry, offset));
        EXPECT_EQ(std::make_pair(entry, offset), std::make_pair(5ul, 6ul));
    }
    // The good input: blocks {0} and {1, 2}; entries (0,0), (0,1), (1,1); A(2, 0) lands in row 0, column 1 of
    // the 1 × 2 entry (0, 1), A(2, 1) in both halves of the dense diagonal tile of block 1.
    ScalarProblem sp;
    ASSERT_TRUE(sp.build(3, 3, cp.data(), ri.data(), 2, sizes, nullptr));
    EXPECT_EQ(sp.rowIndices(), (std::vector<unsigned int>{0, 0, 1}));
    EXPECT_EQ(sp.valuePointers(), (std::vector<unsigned long>{0, 1, 3, 7}));
    EXPECT_EQ(std::make_pair(sp.place(1), sp.mirror(1)), std::make_pair(2ul, ScalarProblem::noPlace));
    EXPECT_EQ(std::make_pair(sp.place(3), sp.mirror(3)), std::make_pair(5ul, 4ul));
    unsigned long entry = 0, offset = 0;
    EXPECT_FALSE(sp.locate(3, 0, entry, offset));
}
