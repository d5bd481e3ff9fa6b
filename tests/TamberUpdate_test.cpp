// Factor modification checked against dense references: every modified factor is compared with the dense
// L·D·Lᵀ of the modified matrix computed from scratch (L, D and the reconstruction), and the invariants
// update-then-downdate, delete-then-add and rank-k = k rank-ones are checked on random SPD and saddle-point
// block systems factored by Tamber::factorSerial.
#include "TamberUpdate.h"

#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Tamber.h"
#include "TreeUpdate.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::BlockSystem;
using testing::DenseLdlt;
using testing::DenseSymmetric;
using Equation = TamberUpdate::Equation;
using EquationList = TamberUpdate::EquationList;

// A system factored by factorSerial, with the row indices of its factor and of its matrix.
struct Factored {
    BlockSystem sys;
    TamberData<double> data;
    MetaLayout rows, rowsA;
    std::vector<unsigned int> counts;
    explicit Factored(const BlockSystem& s) : sys(s) {
        sys.fillData(data);
        Tamber tamber;
        tamber.estimateWork(data, nullptr);
        tamber.factorSerial(data);
        TamberUpdate::buildAdditionalStructure(data.factor, rows);
        TamberUpdate::buildAdditionalStructure(data.matrix, rowsA);
        counts.assign(sys.sizes.begin(), sys.sizes.end());
    }
    SparseMatrix<double>& L() { return data.factor; }
    DenseVector<double>& D() { return data.diagonal; }
    EliminationTree* tree() { return &data.etree; }
    std::vector<double> values() const {
        return std::vector<double>(data.factor.values, data.factor.values + data.factor.valueCapacity);
    }
    std::vector<double> pivots() const {
        return std::vector<double>(data.diagonal.data, data.diagonal.data + sys.N);
    }
};

std::vector<BlockSystem> systems() {
    std::vector<BlockSystem> all;
    for (unsigned long seed = 1; seed <= 8; ++seed) {
        all.push_back(testing::makeSpdSystem(seed, 2 + static_cast<unsigned int>(seed % 11), 5, 0.35));
        all.push_back(
            testing::makeSaddlePointSystem(40 + seed, 4 + static_cast<unsigned int>(seed % 4), 5, 5));
    }
    return all;
}

// A with the rows and columns of the flagged scalar equations replaced by the identity's.
DenseSymmetric decoupled(const DenseSymmetric& A, const std::vector<unsigned char>& off) {
    DenseSymmetric B = A;
    for (unsigned int i = 0; i < B.n; ++i) {
        if (!off[i]) continue;
        for (unsigned int j = 0; j < B.n; ++j) B(i, j) = B(j, i) = 0.0;
        B(i, i) = 1.0;
    }
    return B;
}

// Largest relative differences between the factor in `data` and the dense factor of A: L entrywise, the
// pivots, and L·D·Lᵀ against A.
struct FactorError {
    double L = 0, D = 0, A = 0;
    double worst() const { return std::max(L, std::max(D, A)); }
};
FactorError factorError(const TamberData<double>& data, const DenseSymmetric& A) {
    const DenseLdlt ref = testing::denseLdlt(A);
    DenseLdlt got;
    testing::extractFactor(data, got);
    FactorError e;
    for (std::size_t k = 0; k < ref.L.size(); ++k) e.L = std::max(e.L, std::fabs(ref.L[k] - got.L[k]));
    for (std::size_t k = 0; k < ref.d.size(); ++k)
        e.D = std::max(e.D, std::fabs(ref.d[k] - got.d[k]) / (1.0 + std::fabs(ref.d[k])));
    e.A = testing::maxAbsDifference(testing::denseReconstruct(got), A) / (1.0 + testing::normInf(A));
    return e;
}

double maxDifference(const std::vector<double>& a, const std::vector<double>& b) {
    double e = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k)
        e = std::max(e, std::fabs(a[k] - b[k]) / (1.0 + std::fabs(a[k])));
    return e;
}

// A subset of equations (every equation of a saddle-point system's constraint blocks, any equation of an SPD
// system) chosen at random, pairwise uncoupled in A when `uncoupled`, ascending.
std::vector<Equation> pickEquations(const BlockSystem& sys, unsigned long seed, bool uncoupled) {
    std::mt19937_64 rng(seed);
    std::vector<Equation> all;
    for (unsigned int b = 0; b < sys.nb; ++b) {
        const bool any =
            std::find(sys.isConstraint.begin(), sys.isConstraint.end(), 1) != sys.isConstraint.end();
        if (any && !sys.isConstraint[b]) continue;
        for (unsigned int s = 0; s < sys.sizes[b]; ++s) all.push_back({b, s});
    }
    std::shuffle(all.begin(), all.end(), rng);
    std::vector<Equation> picked;
    for (const Equation& eq : all) {
        if (rng() % 2) continue;
        const unsigned int i = sys.offsets[eq.first] + eq.second;
        bool free = true;
        for (const Equation& p : picked) free = free && sys.dense(i, sys.offsets[p.first] + p.second) == 0.0;
        if (free || !uncoupled) picked.push_back(eq);
    }
    std::sort(picked.begin(), picked.end());
    return picked;
}

EquationList toList(const std::vector<Equation>& eqs) {
    EquationList list;
    for (const Equation& eq : eqs) list.push_back(eq);
    return list;
}

std::vector<unsigned char> offFlags(const BlockSystem& sys, const std::vector<Equation>& eqs) {
    std::vector<unsigned char> off(sys.N, 0);
    for (const Equation& eq : eqs) off[sys.offsets[eq.first] + eq.second] = 1;
    return off;
}

// Random w on the blocks of block row b of L (the tiles of b in the row index): A + σ·w·wᵀ then has no
// fill outside the factor's pattern.
std::vector<double> rowPatternVector(const Factored& f, unsigned int b, unsigned long seed, double scale) {
    std::vector<double> w(f.sys.N, 0.0);
    const std::vector<double> r = testing::randomVector(f.sys.N, seed);
    for (unsigned int e = f.rows.colPointers[b]; e < f.rows.colPointers[b + 1]; ++e) {
        const unsigned int c = f.rows.rowIndices[e];
        for (unsigned int q = f.sys.offsets[c]; q < f.sys.offsets[c + 1]; ++q) w[q] = scale * r[q];
    }
    return w;
}

DenseSymmetric plusOuter(const DenseSymmetric& A, double sigma, const std::vector<double>& w) {
    DenseSymmetric B = A;
    for (unsigned int i = 0; i < B.n; ++i)
        for (unsigned int j = 0; j < B.n; ++j) B(i, j) += sigma * w[i] * w[j];
    return B;
}

// The column-major form of a row-major factor: block column j holds the tiles (c, j), c ≥ j, diagonal first.
void toColumnMajor(Factored& f, SparseMatrix<double>& C) {
    const SparseMatrix<double>& L = f.data.factor;
    const unsigned int nb = f.sys.nb;
    unsigned long values = 0;
    for (unsigned int j = 0; j < nb; ++j)
        for (unsigned int e = f.rows.colPointers[j]; e < f.rows.colPointers[j + 1]; ++e)
            values += static_cast<unsigned long>(L.blockStrides[j]) * L.blockStrides[f.rows.rowIndices[e]];
    C.clear();
    C.setSize(nb, nb, L.numBlocks, values);
    for (unsigned int j = 0; j < nb; ++j) {
        for (unsigned int e = f.rows.colPointers[j]; e < f.rows.colPointers[j + 1]; ++e) {
            const unsigned int c = f.rows.rowIndices[e];
            double* tile = C.acquireBlock(j, c, L.blockSizes[j], L.blockSizes[c]);
            for (unsigned int t = 0; t < L.blockSizes[j]; ++t)
                for (unsigned int q = 0; q < L.blockSizes[c]; ++q)  // L(q, t) from tile (j, c) at (t, q)
                    tile[q + t * C.blockStrides[c]] = f.rows.blocks[e][t + q * L.blockStrides[j]];
        }
    }
}

// Row and column i of L zero except L(i, i) = 1, and D[i] = 1, for every flagged equation.
bool unitEquations(const TamberData<double>& data, const std::vector<unsigned char>& off) {
    DenseLdlt got;
    testing::extractFactor(data, got);
    for (unsigned int i = 0; i < got.n; ++i) {
        if (!off[i]) continue;
        if (got.d[i] != 1.0 || got.L[i * got.n + i] != 1.0) return false;
        for (unsigned int j = 0; j < got.n; ++j)
            if (j != i && (got.L[i * got.n + j] != 0.0 || got.L[j * got.n + i] != 0.0)) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------------------

TEST(TamberUpdateIndex, RowIndexIsTheTransposedTilePattern) {
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        Factored f(sys);
        for (SparseMatrix<double>* S : {&f.data.factor, &f.data.matrix}) {
            const MetaLayout byValue = TamberUpdate::buildAdditionalStructure(*S);
            // Brute force: block row c lists (j, tile) for every tile (c, j), j ascending.
            std::vector<std::vector<std::pair<unsigned int, double*>>> expected(sys.nb);
            for (unsigned int j = 0; j < sys.nb; ++j)
                for (unsigned int e = S->colPointers[j]; e < S->colPointers[j + 1]; ++e)
                    expected[S->rowIndices[e]].push_back({j, S->blockPointers[e]});
            ASSERT_EQ(byValue.colPointers.size(), sys.nb + 1ul);
            EXPECT_EQ(byValue.colPointers[0], 0u);
            for (unsigned int c = 0; c < sys.nb; ++c) {
                ASSERT_EQ(byValue.colPointers[c + 1] - byValue.colPointers[c], expected[c].size());
                for (unsigned int k = 0; k < expected[c].size(); ++k) {
                    EXPECT_EQ(byValue.rowIndices[byValue.colPointers[c] + k], expected[c][k].first);
                    EXPECT_EQ(byValue.blocks[byValue.colPointers[c] + k], expected[c][k].second);
                }
            }
            // The reuse form builds the same index and allocates nothing the second time.
            MetaLayout reused;
            TamberUpdate::buildAdditionalStructure(*S, reused);
            const auto before = kiv::ByteAllocator::allocationCount();
            TamberUpdate::buildAdditionalStructure(*S, reused);
            EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
            EXPECT_TRUE(
                std::equal(reused.rowIndices.begin(), reused.rowIndices.end(), byValue.rowIndices.begin()));
            EXPECT_TRUE(std::equal(reused.blocks.begin(), reused.blocks.end(), byValue.blocks.begin()));
        }
        const MetaLayout ofData = TamberUpdate::buildAdditionalStructure(f.data);
        EXPECT_EQ(ofData.rowIndices.size(), f.rows.rowIndices.size());
        f.data.isFactored = 0;
        const MetaLayout unfactored = TamberUpdate::buildAdditionalStructure(f.data);
        EXPECT_TRUE(unfactored.colPointers.empty() && unfactored.rowIndices.empty() &&
                    unfactored.blocks.empty());
    }
    SparseMatrix<double> empty;
    const MetaLayout none = TamberUpdate::buildAdditionalStructure(empty);
    ASSERT_EQ(none.colPointers.size(), 1u);
    EXPECT_EQ(none.colPointers[0], 0u);
    EXPECT_TRUE(none.rowIndices.empty() && none.blocks.empty());
}

TEST(TamberUpdateEquations, ReadInsertAndPartialProductAgreeWithDenseMatrices) {
    const double sentinel = 7.25;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        Factored f(sys);
        DenseLdlt Ld;
        testing::extractFactor(f.data, Ld);
        const std::vector<double> matrixValues(f.data.matrix.values,
                                               f.data.matrix.values + f.data.matrix.valueCapacity);
        DenseVector<double> y, x;
        y.resize(sys.N);
        x.resize(sys.N);
        std::vector<double> rowBuffer(2 * sys.N, sentinel);
        DenseMatrix<double> M(sys.N, 2, rowBuffer.data());
        for (unsigned int b = 0; b < sys.nb; ++b) {
            std::set<unsigned int> coupled(sys.lowerRows[b].begin(), sys.lowerRows[b].end());
            coupled.insert(b);
            for (unsigned int c = b + 1; c < sys.nb; ++c)
                if (std::count(sys.lowerRows[c].begin(), sys.lowerRows[c].end(), b)) coupled.insert(c);
            for (unsigned int s = 0; s < sys.sizes[b]; ++s) {
                const unsigned int i = sys.offsets[b] + s;
                // Read from A: the dense row on the coupled blocks, untouched elsewhere.
                std::fill(y.data, y.data + sys.N, sentinel);
                std::set<unsigned int> touched;
                TamberUpdate::readEquation(f.data.matrix, y, {b, s}, f.rowsA, touched);
                for (unsigned int c = 0; c < sys.nb; ++c)
                    for (unsigned int q = sys.offsets[c]; q < sys.offsets[c + 1]; ++q)
                        ASSERT_EQ(y.data[q], coupled.count(c) ? sys.dense(i, q) : sentinel) << i << "," << q;
                std::set<unsigned int> column(sys.lowerRows[b].begin(), sys.lowerRows[b].end());
                column.insert(b);
                EXPECT_EQ(touched, column);
                std::fill(rowBuffer.begin(), rowBuffer.end(), sentinel);
                const unsigned int firstBlock =
                    TamberUpdate::readEquation(f.data.matrix, M, 1, {b, s}, f.rowsA);
                EXPECT_EQ(firstBlock, *column.begin());
                EXPECT_TRUE(std::equal(y.data, y.data + sys.N, rowBuffer.data() + sys.N));
                // Writing the same vector back leaves the matrix as it was.
                TamberUpdate::insertData(f.data.matrix, y, {b, s}, f.rowsA);
                ASSERT_EQ(0, std::memcmp(matrixValues.data(), f.data.matrix.values,
                                         matrixValues.size() * sizeof(double)));

                // Read from the factor: row i of L left of the diagonal, 1, column i below it.
                std::fill(y.data, y.data + sys.N, 0.0);
                touched.clear();
                TamberUpdate::readEquation(f.data.factor, y, {b, s}, f.rows, touched);
                for (unsigned int q = 0; q < sys.N; ++q)
                    ASSERT_EQ(y.data[q], q < i ? Ld.L[i * sys.N + q] : Ld.L[q * sys.N + i]) << i << "," << q;

                // Partial product below i: both forms against the dense sum.
                const std::vector<double> xr = testing::randomVector(sys.N, 3 * i + 1);
                const std::vector<double> yr = testing::randomVector(sys.N, 3 * i + 2);
                std::copy(xr.begin(), xr.end(), x.data);
                std::copy(yr.begin(), yr.end(), y.data);
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s});
                const std::vector<double> dense(y.data, y.data + sys.N);
                for (unsigned int p = 0; p < sys.N; ++p) {
                    double expect = yr[p];
                    if (p > i)
                        for (unsigned int q = 0; q < i; ++q) expect -= Ld.L[p * sys.N + q] * xr[q] * yr[q];
                    ASSERT_NEAR(dense[p], expect, 1e-12 * (1.0 + std::fabs(expect)));
                }
                std::set<unsigned int> upToB;
                for (unsigned int c = 0; c <= b; ++c) upToB.insert(c);
                std::copy(yr.begin(), yr.end(), y.data);
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s}, f.rows, upToB);
                EXPECT_TRUE(std::equal(dense.begin(), dense.end(), y.data));
                // An empty set, or one starting after b, changes nothing.
                std::copy(yr.begin(), yr.end(), y.data);
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s}, f.rows, std::set<unsigned int>());
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s}, f.rows, std::set<unsigned int>{b + 1});
                EXPECT_TRUE(std::equal(yr.begin(), yr.end(), y.data));
            }
        }
    }
}

TEST(TamberUpdateRankOne, EveryFormMatchesTheRefactoredMatrixAndDowndateRestores) {
    for (const BlockSystem& sys : systems()) {
        for (unsigned int b = 0; b < sys.nb; b += 1 + sys.nb / 4) {
            SCOPED_TRACE(testing::describe(sys) + " start " + std::to_string(b));
            const std::vector<double> w0 = [&] {
                Factored f(sys);
                return rowPatternVector(f, b, b + 17, 0.5);
            }();
            const DenseSymmetric updated = plusOuter(sys.dense, 1.0, w0);

            Factored v2(sys), rm(sys), none(sys), cm(sys);
            std::vector<double> w = w0;
            DenseMatrix<double> W(sys.N, 1, w.data());
            ASSERT_TRUE(TamberUpdate::rank1UpdateV2(v2.L(), v2.D(), W, 1.0, v2.rows, v2.tree(), b, 0));
            EXPECT_LT(factorError(v2.data, updated).worst(), 1e-10);

            w = w0;
            ASSERT_TRUE(TamberUpdate::rank1UpdateRM(rm.L(), rm.D(), W, 1.0, rm.rows, rm.tree(), b, 0));
            EXPECT_EQ(rm.values(), v2.values());  // the same path and arithmetic
            EXPECT_EQ(rm.pivots(), v2.pivots());
            EXPECT_TRUE(TreeUpdate::validate(rm.tree(), rm.L(), rm.rows));

            w = w0;  // without a tree every block from 0 is visited: only rounding differs
            ASSERT_TRUE(
                TamberUpdate::rank1UpdateV2(none.L(), none.D(), W, 1.0, none.rows, nullptr, sys.nb, 0));
            EXPECT_LT(factorError(none.data, updated).worst(), 1e-10);

            // Column-major copy: same elements in the same order, so the same bits.
            SparseMatrix<double> C;
            toColumnMajor(cm, C);
            w = w0;
            ASSERT_TRUE(TamberUpdate::rank1UpdateCM(C, cm.D(), W, 1.0, cm.rows, cm.tree(), b, 0));
            EXPECT_EQ(cm.pivots(), v2.pivots());
            for (unsigned int j = 0; j < sys.nb; ++j)
                for (unsigned int e = v2.rows.colPointers[j]; e < v2.rows.colPointers[j + 1]; ++e) {
                    const unsigned int c = v2.rows.rowIndices[e];
                    const double* tile = C.blockPointers[C.colPointers[j] + (e - v2.rows.colPointers[j])];
                    for (unsigned int t = 0; t < sys.sizes[j]; ++t)
                        for (unsigned int q = 0; q < sys.sizes[c]; ++q)
                            ASSERT_EQ(tile[q + t * C.blockStrides[c]],
                                      v2.rows.blocks[e][t + q * v2.L().blockStrides[j]]);
                }
            if (C.colPointers[1] > 1) {  // a multi-tile column 0 is dispatched to the column-major form
                w = w0;
                ASSERT_TRUE(TamberUpdate::rank1Update(C, cm.D(), W, -1.0, cm.rows, cm.tree(), b, 0));
                EXPECT_LT(maxDifference(Factored(sys).pivots(), cm.pivots()), 1e-10);
            }

            // σ = −1 with the same w restores L and D.
            Factored original(sys);
            w = w0;
            ASSERT_TRUE(TamberUpdate::rank1Update(v2.L(), v2.D(), W, -1.0, v2.rows, v2.tree(), b, 0));
            EXPECT_LT(maxDifference(original.values(), v2.values()), 1e-10);
            EXPECT_LT(maxDifference(original.pivots(), v2.pivots()), 1e-10);
        }
    }
}

TEST(TamberUpdateRankOne, NothingToDoAndRefusals) {
    Factored f(testing::makeSpdSystem(5, 6, 4, 0.4));
    const std::vector<double> values = f.values(), pivots = f.pivots();
    std::vector<double> w(f.sys.N + 1, 0.0);
    DenseMatrix<double> tooLong(f.sys.N + 1, 1, w.data());
    EXPECT_FALSE(TamberUpdate::rank1UpdateV2(f.L(), f.D(), tooLong, 1.0, f.rows, f.tree(), 0, 0));
    EXPECT_FALSE(TamberUpdate::rank1UpdateRM(f.L(), f.D(), tooLong, 1.0, f.rows, f.tree(), 0, 0));
    EXPECT_FALSE(TamberUpdate::rank1UpdateCM(f.L(), f.D(), tooLong, 1.0, f.rows, f.tree(), 0, 0));
    DenseMatrix<double> W(f.sys.N, 1, w.data());
    EXPECT_TRUE(TamberUpdate::rank1UpdateV2(f.L(), f.D(), W, 1.0, f.rows, f.tree(), f.sys.nb, 0));
    EXPECT_TRUE(TamberUpdate::rank1UpdateV2(f.L(), f.D(), W, 1.0, f.rows, nullptr, 0, 0));  // w = 0, σ = 1
    EXPECT_EQ(f.values(), values);
    EXPECT_EQ(f.pivots(), pivots);

    SparseMatrix<double> empty;
    DenseVector<double> D;
    DenseMatrix<double> none(0, 1, w.data());
    MetaLayout rows;
    EXPECT_TRUE(TamberUpdate::rank1Update(empty, D, none, 1.0, rows, nullptr, 0, 0));
}

TEST(TamberUpdateRows, DeletionDecouplesAndAdditionRestores) {
    unsigned long seed = 0;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        const std::vector<Equation> eqs = pickEquations(sys, ++seed, true);
        const EquationList list = toList(eqs);
        const std::vector<unsigned char> off = offFlags(sys, eqs);
        const DenseSymmetric reduced = decoupled(sys.dense, off);
        Factored original(sys);

        // Fixed tree (V2).
        Factored v2(sys);
        const std::vector<unsigned int> parents(v2.data.etree.parent, v2.data.etree.parent + sys.nb);
        EXPECT_TRUE(
            TamberUpdate::deleteRowsV2(v2.L(), v2.D(), list, v2.rows, v2.tree(), v2.counts.data(), nullptr));
        EXPECT_TRUE(unitEquations(v2.data, off));
        EXPECT_LT(factorError(v2.data, reduced).worst(), 1e-10);
        for (unsigned int b = 0; b < sys.nb; ++b)
            EXPECT_EQ(v2.counts[b],
                      sys.sizes[b] - std::count_if(eqs.begin(), eqs.end(),
                                                   [&](const Equation& e) { return e.first == b; }));
        EXPECT_TRUE(TamberUpdate::addRowsV2(v2.L(), v2.D(), v2.data.matrix, list, v2.rows, v2.rowsA,
                                            v2.tree(), v2.counts.data(), nullptr));
        EXPECT_EQ(v2.counts, original.counts);
        EXPECT_TRUE(std::equal(parents.begin(), parents.end(), v2.data.etree.parent));
        EXPECT_LT(maxDifference(original.values(), v2.values()), 1e-9);
        EXPECT_LT(maxDifference(original.pivots(), v2.pivots()), 1e-9);

        // Re-parenting forms: the tree follows the numerical pattern after every step.
        Factored tf(sys);
        for (const Equation& eq : eqs) {
            EquationList one;
            one.push_back(eq);
            EXPECT_TRUE(TamberUpdate::deleteRows(tf.L(), tf.D(), one, tf.rows, tf.tree()));
            ASSERT_TRUE(TreeUpdate::validate(tf.tree(), tf.L(), tf.rows));
        }
        EXPECT_LT(factorError(tf.data, reduced).worst(), 1e-10);
        EXPECT_TRUE(
            TamberUpdate::addRows(tf.L(), tf.D(), tf.data.matrix, list, tf.rows, tf.rowsA, tf.tree()));
        EXPECT_TRUE(TreeUpdate::validate(tf.tree(), tf.L(), tf.rows));
        EXPECT_LT(factorError(tf.data, sys.dense).worst(), 1e-10);

        // The workspace variants compute the same numbers without clearing whole vectors.
        Factored ws(sys);
        TamberUpdate::Workspace work;
        work.reserve(sys.nb, sys.N, 4);
        EXPECT_TRUE(
            TamberUpdate::deleteRowsV2(ws.L(), ws.D(), list, ws.rows, ws.tree(), ws.counts.data(), work));
        Factored ref(sys);
        TamberUpdate::deleteRowsV2(ref.L(), ref.D(), list, ref.rows, ref.tree(), ref.counts.data(), nullptr);
        EXPECT_EQ(ws.values(), ref.values());
        EXPECT_TRUE(TamberUpdate::addRowsV2(ws.L(), ws.D(), ws.data.matrix, list, ws.rows, ws.rowsA,
                                            ws.tree(), ws.counts.data(), work));
        EXPECT_EQ(ws.values(), v2.values());
        EXPECT_EQ(ws.pivots(), v2.pivots());
        EXPECT_TRUE(std::all_of(work.y.data, work.y.data + sys.N, [](double v) { return v == 0.0; }));
        EXPECT_TRUE(std::all_of(work.w.data, work.w.data + sys.N, [](double v) { return v == 0.0; }));
    }
}

TEST(TamberUpdateRows, DenseFormOnOneScalarBlocks) {
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        const BlockSystem sys = testing::makeSpdSystem(seed, 9, 1, 0.4);
        SCOPED_TRACE(testing::describe(sys));
        const std::vector<Equation> eqs = pickEquations(sys, seed, true);
        Factored f(sys);
        EXPECT_TRUE(TamberUpdate::deleteRows(f.L(), f.D(), toList(eqs), f.rows, f.tree()));
        std::vector<double> rowsOfA(eqs.size() * sys.N);
        kiv::VectorPOD<unsigned int> starts;
        for (std::size_t k = 0; k < eqs.size(); ++k) {
            for (unsigned int q = 0; q < sys.N; ++q) rowsOfA[k * sys.N + q] = sys.dense(eqs[k].first, q);
            starts.push_back(0);
        }
        DenseMatrix<double> E(sys.N, eqs.size(), rowsOfA.data());
        EXPECT_TRUE(TamberUpdate::addRows(f.L(), f.D(), E, starts, toList(eqs), f.rows, f.tree()));
        EXPECT_TRUE(TreeUpdate::validate(f.tree(), f.L(), f.rows));
        EXPECT_LT(factorError(f.data, sys.dense).worst(), 1e-10);
    }
}

// The two preconditions stated in TamberUpdate.h, checked both ways.
TEST(TamberUpdateRows, AdditionOrderAndCouplingPreconditions) {
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        // Uncoupled equations: ascending and descending single additions, and one batch, all exact.
        for (const BlockSystem& sys :
             {testing::makeSaddlePointSystem(seed, 6, 6, 5), testing::makeSpdSystem(seed, 9, 4, 0.3)}) {
            SCOPED_TRACE(testing::describe(sys));
            std::vector<Equation> eqs = pickEquations(sys, seed, true);
            for (int variant = 0; variant < 3; ++variant) {
                Factored f(sys);
                TamberUpdate::deleteRowsV2(f.L(), f.D(), toList(eqs), f.rows, f.tree(), f.counts.data(),
                                           nullptr);
                std::vector<Equation> order = eqs;
                if (variant == 1) std::reverse(order.begin(), order.end());
                if (variant == 2)
                    TamberUpdate::addKRows(f.L(), f.D(), f.data.matrix, toList(order), f.rows, f.rowsA,
                                           f.tree());
                else
                    TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, toList(order), f.rows, f.rowsA,
                                            f.tree(), f.counts.data(), nullptr);
                EXPECT_LT(factorError(f.data, sys.dense).worst(), 1e-10) << "variant " << variant;
            }
        }

        // Coupled equations: the first two scalars of a block of three or more.
        const BlockSystem sys = testing::makeSpdSystem(seed, 7, 5, 0.35);
        SCOPED_TRACE(testing::describe(sys));
        unsigned int b = 0;
        while (b < sys.nb && sys.sizes[b] < 3) ++b;
        if (b == sys.nb) continue;
        const std::vector<Equation> pair = {{b, 0}, {b, 1}};
        std::vector<unsigned char> active(sys.N, 1);
        active[sys.offsets[b]] = active[sys.offsets[b] + 1] = 0;
        for (int variant = 0; variant < 5; ++variant) {
            Factored f(sys);
            TamberUpdate::deleteRowsV2(f.L(), f.D(), toList(pair), f.rows, f.tree(), f.counts.data(),
                                       nullptr);
            EquationList order = toList(pair);
            if (variant % 2 == 1) std::swap(order[0], order[1]);
            TamberUpdate::Workspace ws;
            ws.reserve(sys.nb, sys.N, 2);
            std::vector<unsigned char> flags = active;
            ws.activeScalars = flags.data();
            if (variant < 2) {  // equations read in full: wrong in both orders
                TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, order, f.rows, f.rowsA, f.tree(),
                                        f.counts.data(), nullptr);
                EXPECT_GT(factorError(f.data, sys.dense).worst(), 1e-6) << "variant " << variant;
            } else if (variant < 4) {  // couplings to inactive equations dropped: exact in both orders
                for (const Equation& eq : order) {
                    EquationList one;
                    one.push_back(eq);
                    TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, one, f.rows, f.rowsA, f.tree(),
                                            f.counts.data(), ws);
                    flags[sys.offsets[eq.first] + eq.second] = 1;
                }
                EXPECT_LT(factorError(f.data, sys.dense).worst(), 1e-10) << "variant " << variant;
            } else {  // a batch loses the coupling between its equations
                TamberUpdate::addKRows(f.L(), f.D(), f.data.matrix, order, f.rows, f.rowsA, f.tree());
                EXPECT_GT(factorError(f.data, sys.dense).worst(), 1e-6);
            }
        }

        // The last two scalars of the last block (a root): ascending is exact, descending is not.
        const unsigned int last = sys.nb - 1, s = sys.sizes[last];
        if (s < 2) continue;
        for (int descending = 0; descending < 2; ++descending) {
            Factored f(sys);
            EquationList order = toList({{last, s - 2}, {last, s - 1}});
            TamberUpdate::deleteRowsV2(f.L(), f.D(), order, f.rows, f.tree(), f.counts.data(), nullptr);
            if (descending) std::swap(order[0], order[1]);
            TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, order, f.rows, f.rowsA, f.tree(),
                                    f.counts.data(), nullptr);
            if (descending)
                EXPECT_GT(factorError(f.data, sys.dense).worst(), 1e-6);
            else
                EXPECT_LT(factorError(f.data, sys.dense).worst(), 1e-10);
        }
    }
}

TEST(TamberUpdateRankK, EqualsRankOneUpdatesAndSingleRowOperations) {
    unsigned long seed = 100;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        const unsigned int b = sys.nb / 2;
        // k = 1, and two vectors entering at the same block (lists in reverse order: applied ascending).
        Factored one(sys), k1(sys), two(sys), k2(sys);
        const std::vector<double> w0 = rowPatternVector(one, b, ++seed, 0.5);
        const std::vector<double> w1 = rowPatternVector(one, b, ++seed, 0.3);
        std::vector<double> w = w0;
        DenseMatrix<double> W(sys.N, 1, w.data());
        TamberUpdate::rank1UpdateV2(one.L(), one.D(), W, 1.0, one.rows, one.tree(), b, 0);
        w = w0;
        TamberUpdate::rank1UpdateV2(two.L(), two.D(), W, 1.0, two.rows, two.tree(), b, 0);
        w = w1;
        TamberUpdate::rank1UpdateV2(two.L(), two.D(), W, 0.5, two.rows, two.tree(), b, 0);

        std::vector<double> Wk = w0;
        DenseMatrix<double> W1(sys.N, 1, Wk.data());
        DenseVector<double> sigmas;
        sigmas.resize(1);
        sigmas.data[0] = 1.0;
        std::vector<int> heads(sys.nb, -1), next(1, -1);
        heads[b] = 0;
        ASSERT_TRUE(TamberUpdate::rankKUpdate(k1.L(), k1.D(), W1, sigmas, k1.rows, k1.tree(), heads, next));
        EXPECT_EQ(k1.values(), one.values());
        EXPECT_EQ(k1.pivots(), one.pivots());

        Wk = w0;
        Wk.insert(Wk.end(), w1.begin(), w1.end());
        DenseMatrix<double> W2(sys.N, 2, Wk.data());
        sigmas.resize(2);
        sigmas.data[0] = 1.0;
        sigmas.data[1] = 0.5;
        heads.assign(sys.nb, -1);
        heads[b] = 1;
        next = {-1, 0};
        DenseMatrix<double> wrongRows(sys.N, 3, Wk.data());
        EXPECT_FALSE(
            TamberUpdate::rankKUpdate(k2.L(), k2.D(), wrongRows, sigmas, k2.rows, k2.tree(), heads, next));
        EXPECT_EQ(sigmas.data[1], 0.5);
        ASSERT_TRUE(TamberUpdate::rankKUpdate(k2.L(), k2.D(), W2, sigmas, k2.rows, k2.tree(), heads, next));
        EXPECT_EQ(k2.values(), two.values());
        EXPECT_EQ(k2.pivots(), two.pivots());

        // K-row deletion and addition against the single forms, with the workspace forms alongside.
        const std::vector<Equation> eqs = pickEquations(sys, ++seed, true);
        const std::vector<unsigned char> off = offFlags(sys, eqs);
        Factored single(sys), batch(sys), ws(sys);
        TamberUpdate::Workspace work;
        work.reserve(sys.nb, sys.N, eqs.size());
        TamberUpdate::deleteRowsV2(single.L(), single.D(), toList(eqs), single.rows, single.tree(),
                                   single.counts.data(), nullptr);
        EXPECT_TRUE(TamberUpdate::deleteKRows(batch.L(), batch.D(), toList(eqs), batch.rows, batch.tree()));
        EXPECT_TRUE(TamberUpdate::deleteKRows(ws.L(), ws.D(), toList(eqs), ws.rows, ws.tree(), work));
        EXPECT_TRUE(unitEquations(batch.data, off));
        EXPECT_LT(maxDifference(single.values(), batch.values()), 1e-10);
        EXPECT_LT(maxDifference(single.pivots(), batch.pivots()), 1e-10);
        EXPECT_EQ(ws.values(), batch.values());
        EXPECT_EQ(ws.pivots(), batch.pivots());

        TamberUpdate::addRowsV2(single.L(), single.D(), single.data.matrix, toList(eqs), single.rows,
                                single.rowsA, single.tree(), single.counts.data(), nullptr);
        EXPECT_TRUE(TamberUpdate::addKRows(batch.L(), batch.D(), batch.data.matrix, toList(eqs), batch.rows,
                                           batch.rowsA, batch.tree()));
        EXPECT_TRUE(TamberUpdate::addKRows(ws.L(), ws.D(), ws.data.matrix, toList(eqs), ws.rows, ws.rowsA,
                                           ws.tree(), work));
        EXPECT_LT(maxDifference(single.values(), batch.values()), 1e-10);
        EXPECT_LT(maxDifference(single.pivots(), batch.pivots()), 1e-10);
        EXPECT_LT(factorError(batch.data, sys.dense).worst(), 1e-10);
        EXPECT_EQ(ws.values(), batch.values());
        EXPECT_EQ(ws.pivots(), batch.pivots());
        const unsigned long cleared = sys.N * eqs.size();
        EXPECT_TRUE(std::all_of(work.W.data, work.W.data + cleared, [](double v) { return v == 0.0; }));
        EXPECT_TRUE(
            std::all_of(work.listHeads.data, work.listHeads.data + sys.nb, [](int v) { return v == -1; }));
    }
}

TEST(TamberUpdateRankK, TwoEquationsOfOneColumnAndEmptyLists) {
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        const BlockSystem sys = testing::makeSpdSystem(seed, 6, 4, 0.5);
        unsigned int b = 0;
        while (b < sys.nb && sys.sizes[b] < 2) ++b;
        if (b == sys.nb) continue;
        SCOPED_TRACE(testing::describe(sys));
        Factored f(sys);
        const std::vector<Equation> eqs = {{b, 1}, {b, 0}};
        EXPECT_TRUE(TamberUpdate::deleteKRows(f.L(), f.D(), toList(eqs), f.rows, f.tree()));
        const std::vector<unsigned char> off = offFlags(sys, eqs);
        EXPECT_TRUE(unitEquations(f.data, off));
        EXPECT_LT(factorError(f.data, decoupled(sys.dense, off)).worst(), 1e-10);

        const std::vector<double> values = f.values();
        const EquationList none;
        const auto before = kiv::ByteAllocator::allocationCount();
        EXPECT_TRUE(TamberUpdate::addKRows(f.L(), f.D(), f.data.matrix, none, f.rows, f.rowsA, f.tree()));
        EXPECT_TRUE(TamberUpdate::deleteKRows(f.L(), f.D(), none, f.rows, f.tree()));
        EXPECT_TRUE(TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, none, f.rows, f.rowsA, f.tree(),
                                            f.counts.data(), nullptr));
        EXPECT_TRUE(TamberUpdate::deleteRows(f.L(), f.D(), none, f.rows, f.tree()));
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        EXPECT_EQ(f.values(), values);
    }
}

}  // namespace
}  // namespace kivTamber
