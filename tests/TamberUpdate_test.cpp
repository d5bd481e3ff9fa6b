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
DenseSymmetric decoupled(DenseSymmetric B, const std::vector<unsigned char>& off) {
    for (unsigned int k = 0; k < B.n * B.n; ++k)
        if (off[k / B.n] || off[k % B.n]) B.a[k] = k / B.n == k % B.n ? 1.0 : 0.0;
    return B;
}

// Largest relative difference between the factor in `data` and the dense factor of A: L entrywise, the
// pivots, and L·D·Lᵀ against A.
double factorError(const TamberData<double>& data, const DenseSymmetric& A) {
    const DenseLdlt ref = testing::denseLdlt(A);
    DenseLdlt got;
    testing::extractFactor(data, got);
    double e = testing::maxAbsDifference(testing::denseReconstruct(got), A) / (1.0 + testing::normInf(A));
    for (std::size_t k = 0; k < ref.L.size(); ++k) e = std::max(e, std::fabs(ref.L[k] - got.L[k]));
    for (std::size_t k = 0; k < ref.d.size(); ++k)
        e = std::max(e, std::fabs(ref.d[k] - got.d[k]) / (1.0 + std::fabs(ref.d[k])));
    return e;
}

double maxDifference(const std::vector<double>& a, const std::vector<double>& b) {
    double e = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k)
        e = std::max(e, std::fabs(a[k] - b[k]) / (1.0 + std::fabs(a[k])));
    return e;
}

// A subset of equations (every equation of a saddle-point system's constraint blocks, any equation of an SPD
// system) chosen at random, pairwise uncoupled in A, ascending.
std::vector<Equation> pickEquations(const BlockSystem& sys, unsigned long seed) {
    std::mt19937_64 rng(seed);
    const bool any = std::count(sys.isConstraint.begin(), sys.isConstraint.end(), 1) > 0;
    std::vector<Equation> picked;
    for (unsigned int b = 0; b < sys.nb; ++b)
        for (unsigned int s = 0; s < sys.sizes[b] && (sys.isConstraint[b] || !any); ++s) {
            bool free = rng() % 2 == 0;
            for (const Equation& p : picked)
                free = free && sys.dense(sys.offsets[b] + s, sys.offsets[p.first] + p.second) == 0.0;
            if (free) picked.push_back({b, s});
        }
    return picked;
}

// L and D of a and b agree to `tol` (relative); 0 asks for the same values.
void expectClose(const Factored& a, const Factored& b, double tol) {
    EXPECT_LE(maxDifference(b.values(), a.values()), tol);
    EXPECT_LE(maxDifference(b.pivots(), a.pivots()), tol);
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
    bool unit = true;
    for (unsigned int k = 0; k < got.n * got.n; ++k)
        if (off[k / got.n] || off[k % got.n]) unit = unit && got.L[k] == (k / got.n == k % got.n ? 1.0 : 0.0);
    for (unsigned int i = 0; i < got.n; ++i) unit = unit && (!off[i] || got.d[i] == 1.0);
    return unit;
}

// ---------------------------------------------------------------------------------------------------------

// Every equation read from A (both forms) is the dense row on the coupled blocks, untouched elsewhere, and
// writing it back changes no bit; read from L it is row i left of the diagonal, 1, column i below; the
// partial product below i (both forms) is the dense sum, and an empty block set or one starting after b does
// nothing.
TEST(TamberUpdateEquations, ReadInsertAndPartialProductAgreeWithDenseMatrices) {
    const double sentinel = 7.25;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        Factored f(sys);
        DenseLdlt Ld;
        testing::extractFactor(f.data, Ld);
        const SparseMatrix<double>& A = f.data.matrix;
        const std::vector<double> matrixValues(A.values, A.values + A.valueCapacity);
        const unsigned int N = sys.N;
        DenseVector<double> y, x;
        y.resize(N), x.resize(N);
        std::vector<double> rowBuffer(2 * N);
        DenseMatrix<double> M(N, 2, rowBuffer.data());
        for (unsigned int b = 0; b < sys.nb; ++b) {
            std::set<unsigned int> column(sys.lowerRows[b].begin(), sys.lowerRows[b].end()), coupled;
            column.insert(b);
            coupled = column;
            for (unsigned int c = b + 1; c < sys.nb; ++c)
                if (std::count(sys.lowerRows[c].begin(), sys.lowerRows[c].end(), b)) coupled.insert(c);
            for (unsigned int s = 0; s < sys.sizes[b]; ++s) {
                const unsigned int i = sys.offsets[b] + s;
                std::fill(y.data, y.data + N, sentinel);
                std::fill(rowBuffer.begin(), rowBuffer.end(), sentinel);
                std::set<unsigned int> touched;
                TamberUpdate::readEquation(A, y, {b, s}, f.rowsA, touched);
                EXPECT_EQ(TamberUpdate::readEquation(A, M, 1, {b, s}, f.rowsA), *column.begin());
                EXPECT_EQ(touched, column);
                EXPECT_TRUE(std::equal(y.data, y.data + N, rowBuffer.data() + N));
                for (unsigned int c = 0; c < sys.nb; ++c)
                    for (unsigned int q = sys.offsets[c]; q < sys.offsets[c + 1]; ++q)
                        ASSERT_EQ(y.data[q], coupled.count(c) ? sys.dense(i, q) : sentinel) << i << "," << q;
                TamberUpdate::insertData(f.data.matrix, y, {b, s}, f.rowsA);
                ASSERT_EQ(0,
                          std::memcmp(matrixValues.data(), A.values, matrixValues.size() * sizeof(double)));

                std::fill(y.data, y.data + N, 0.0);
                TamberUpdate::readEquation(f.data.factor, y, {b, s}, f.rows, touched);
                for (unsigned int q = 0; q < N; ++q)
                    ASSERT_EQ(y.data[q], q < i ? Ld.L[i * N + q] : Ld.L[q * N + i]) << i << "," << q;

                const std::vector<double> xr = testing::randomVector(N, 3 * i + 1),
                                          yr = testing::randomVector(N, 3 * i + 2);
                std::copy(xr.begin(), xr.end(), x.data);
                std::copy(yr.begin(), yr.end(), y.data);
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s});
                const std::vector<double> dense(y.data, y.data + N);
                for (unsigned int p = 0; p < N; ++p) {
                    double expect = yr[p];
                    for (unsigned int q = 0; q < i && p > i; ++q) expect -= Ld.L[p * N + q] * xr[q] * yr[q];
                    ASSERT_NEAR(dense[p], expect, 1e-12 * (1.0 + std::fabs(expect)));
                }
                std::set<unsigned int> upToB;
                for (unsigned int c = 0; c <= b; ++c) upToB.insert(c);
                std::copy(yr.begin(), yr.end(), y.data);
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s}, f.rows, upToB);
                EXPECT_TRUE(std::equal(dense.begin(), dense.end(), y.data));
                std::copy(yr.begin(), yr.end(), y.data);
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s}, f.rows, std::set<unsigned int>());
                TamberUpdate::funnyMult(f.data.factor, x, y, {b, s}, f.rows, std::set<unsigned int>{b + 1});
                EXPECT_TRUE(std::equal(yr.begin(), yr.end(), y.data));
            }
        }
        // The row index (whose contents the checks above and every update rely on): the reuse form builds
        // what the by-value form builds and allocates nothing the second time; unfactored data give an empty
        // index.
        for (SparseMatrix<double>* S : {&f.data.factor, &f.data.matrix}) {
            MetaLayout reused;
            TamberUpdate::buildAdditionalStructure(*S, reused);
            const auto before = kiv::ByteAllocator::allocationCount();
            TamberUpdate::buildAdditionalStructure(*S, reused);
            EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
            const MetaLayout byValue = TamberUpdate::buildAdditionalStructure(*S);
            auto same = [](const auto& u, const auto& v) {
                return u.size() == v.size() && std::equal(u.begin(), u.end(), v.begin());
            };
            EXPECT_TRUE(same(byValue.colPointers, reused.colPointers) &&
                        same(byValue.rowIndices, reused.rowIndices) && same(byValue.blocks, reused.blocks) &&
                        byValue.colPointers.size() == sys.nb + 1ul);
        }
        EXPECT_EQ(TamberUpdate::buildAdditionalStructure(f.data).rowIndices.size(), f.rows.rowIndices.size());
        f.data.isFactored = 0;
        const MetaLayout unfactored = TamberUpdate::buildAdditionalStructure(f.data);
        EXPECT_TRUE(unfactored.colPointers.empty() && unfactored.rowIndices.empty() &&
                    unfactored.blocks.empty());
    }
    SparseMatrix<double> empty;  // an empty matrix: the single pointer 0
    const MetaLayout none = TamberUpdate::buildAdditionalStructure(empty);
    EXPECT_TRUE(none.colPointers.size() == 1 && none.colPointers[0] == 0 && none.rowIndices.empty() &&
                none.blocks.empty());
}

// Every rank-one form against the dense factor of A + w·wᵀ: V2 with a tree and without one (every block
// visited, only rounding differs), RM with the same bits as V2 and a valid tree, CM on the column-major copy
// with the same bits as V2's result transposed (and the dispatcher sending a multi-tile column 0 there); two
// vectors of a rank-k update give the bits of two rank-one updates, and a W of the wrong height is refused
// untouched; σ = −1 with the same w restores L and D.
TEST(TamberUpdateRankOne, EveryFormMatchesTheRefactoredMatrixAndDowndateRestores) {
    for (const BlockSystem& sys : systems()) {
        for (unsigned int b = 0; b < sys.nb; b += 1 + sys.nb / 4) {
            SCOPED_TRACE(testing::describe(sys) + " start " + std::to_string(b));
            Factored original(sys), v2(sys), rm(sys), none(sys), cm(sys), k2(sys);
            const std::vector<double> w0 = rowPatternVector(v2, b, b + 17, 0.5),
                                      w1 = rowPatternVector(v2, b, b + 18, 0.3);
            DenseSymmetric updated = sys.dense;
            for (unsigned int k = 0; k < sys.N * sys.N; ++k) updated.a[k] += w0[k / sys.N] * w0[k % sys.N];
            std::vector<double> w = w0;
            DenseMatrix<double> W(sys.N, 1, w.data());
            ASSERT_TRUE(TamberUpdate::rank1UpdateV2(v2.L(), v2.D(), W, 1.0, v2.rows, v2.tree(), b, 0));
            EXPECT_LT(factorError(v2.data, updated), 1e-10);
            w = w0;
            ASSERT_TRUE(
                TamberUpdate::rank1UpdateV2(none.L(), none.D(), W, 1.0, none.rows, nullptr, sys.nb, 0));
            EXPECT_LT(factorError(none.data, updated), 1e-10);
            w = w0;
            ASSERT_TRUE(TamberUpdate::rank1UpdateRM(rm.L(), rm.D(), W, 1.0, rm.rows, rm.tree(), b, 0));
            expectClose(rm, v2, 0.0);
            EXPECT_TRUE(TreeUpdate::validate(rm.tree(), rm.L(), rm.rows));

            SparseMatrix<double> C, C2;
            toColumnMajor(cm, C);
            w = w0;
            ASSERT_TRUE(TamberUpdate::rank1UpdateCM(C, cm.D(), W, 1.0, cm.rows, cm.tree(), b, 0));
            EXPECT_EQ(cm.pivots(), v2.pivots());
            toColumnMajor(v2, C2);
            ASSERT_EQ(C.valueCapacity, C2.valueCapacity);
            EXPECT_EQ(0, std::memcmp(C.values, C2.values, C.valueCapacity * sizeof(double)));
            w = w0;
            if (C.colPointers[1] > 1) {
                ASSERT_TRUE(TamberUpdate::rank1Update(C, cm.D(), W, -1.0, cm.rows, cm.tree(), b, 0));
                EXPECT_LT(maxDifference(original.pivots(), cm.pivots()), 1e-10);
            }

            std::vector<double> Wk = w0;
            Wk.insert(Wk.end(), w1.begin(), w1.end());
            DenseMatrix<double> W2(sys.N, 2, Wk.data()), wrongRows(sys.N, 3, Wk.data());
            DenseVector<double> sigmas;
            sigmas.resize(2);
            sigmas.data[0] = 1.0, sigmas.data[1] = 0.5;
            std::vector<int> heads(sys.nb, -1), next = {-1, 0};
            heads[b] = 1;
            EXPECT_FALSE(TamberUpdate::rankKUpdate(k2.L(), k2.D(), wrongRows, sigmas, k2.rows, k2.tree(),
                                                   heads, next));
            EXPECT_EQ(sigmas.data[1], 0.5);
            expectClose(k2, original, 0.0);
            ASSERT_TRUE(
                TamberUpdate::rankKUpdate(k2.L(), k2.D(), W2, sigmas, k2.rows, k2.tree(), heads, next));
            w = w1;
            TamberUpdate::rank1UpdateV2(rm.L(), rm.D(), W, 0.5, rm.rows, rm.tree(), b, 0);
            expectClose(k2, rm, 0.0);

            w = w0;
            ASSERT_TRUE(TamberUpdate::rank1Update(v2.L(), v2.D(), W, -1.0, v2.rows, v2.tree(), b, 0));
            expectClose(v2, original, 1e-10);
        }
    }
}

// Refusals (w of the wrong length) and updates with nothing to do change no bit; an empty factor is fine.
TEST(TamberUpdateRankOne, NothingToDoAndRefusals) {
    Factored f(testing::makeSpdSystem(5, 6, 4, 0.4)), original(testing::makeSpdSystem(5, 6, 4, 0.4));
    std::vector<double> w(f.sys.N + 1, 0.0);
    DenseMatrix<double> tooLong(f.sys.N + 1, 1, w.data()), W(f.sys.N, 1, w.data()), none(0, 1, w.data());
    EXPECT_FALSE(TamberUpdate::rank1UpdateV2(f.L(), f.D(), tooLong, 1.0, f.rows, f.tree(), 0, 0));
    EXPECT_FALSE(TamberUpdate::rank1UpdateRM(f.L(), f.D(), tooLong, 1.0, f.rows, f.tree(), 0, 0));
    EXPECT_FALSE(TamberUpdate::rank1UpdateCM(f.L(), f.D(), tooLong, 1.0, f.rows, f.tree(), 0, 0));
    EXPECT_TRUE(TamberUpdate::rank1UpdateV2(f.L(), f.D(), W, 1.0, f.rows, f.tree(), f.sys.nb, 0));
    EXPECT_TRUE(TamberUpdate::rank1UpdateV2(f.L(), f.D(), W, 1.0, f.rows, nullptr, 0, 0));  // w = 0, σ = 1
    expectClose(f, original, 0.0);
    SparseMatrix<double> empty;
    DenseVector<double> D;
    MetaLayout rows;
    EXPECT_TRUE(TamberUpdate::rank1Update(empty, D, none, 1.0, rows, nullptr, 0, 0));
}

// Deletion leaves unit equations, the factor of the decoupled matrix and the active counts; addition
// restores the factor, the counts and the tree. The k-row forms agree with the single forms; the
// re-parenting forms keep the tree valid at every step (and add back exactly in descending order too); the
// workspace forms compute the same bits as their plain twins and leave their vectors cleared.
TEST(TamberUpdateRows, DeletionDecouplesAndAdditionRestores) {
    unsigned long seed = 0, equations = 0;
    for (const BlockSystem& sys : systems()) {
        SCOPED_TRACE(testing::describe(sys));
        const std::vector<Equation> eqs = pickEquations(sys, ++seed);
        const EquationList list = toList(eqs);
        equations += eqs.size();
        const std::vector<unsigned char> off = offFlags(sys, eqs);
        const DenseSymmetric reduced = decoupled(sys.dense, off);
        Factored original(sys), v2(sys), tf(sys), ws(sys), batch(sys), wsK(sys);
        TamberUpdate::Workspace work, workK;
        work.reserve(sys.nb, sys.N, 4);
        workK.reserve(sys.nb, sys.N, eqs.size());
        EXPECT_TRUE(
            TamberUpdate::deleteRowsV2(v2.L(), v2.D(), list, v2.rows, v2.tree(), v2.counts.data(), nullptr));
        EXPECT_TRUE(unitEquations(v2.data, off));
        EXPECT_LT(factorError(v2.data, reduced), 1e-10);
        for (unsigned int b = 0; b < sys.nb; ++b)
            EXPECT_EQ(v2.counts[b],
                      sys.sizes[b] - std::count_if(eqs.begin(), eqs.end(),
                                                   [&](const Equation& e) { return e.first == b; }));
        EXPECT_TRUE(
            TamberUpdate::deleteRowsV2(ws.L(), ws.D(), list, ws.rows, ws.tree(), ws.counts.data(), work));
        EXPECT_TRUE(TamberUpdate::deleteKRows(batch.L(), batch.D(), list, batch.rows, batch.tree()));
        EXPECT_TRUE(TamberUpdate::deleteKRows(wsK.L(), wsK.D(), list, wsK.rows, wsK.tree(), workK));
        EXPECT_TRUE(unitEquations(batch.data, off));
        expectClose(ws, v2, 0.0);
        expectClose(batch, v2, 1e-10);
        expectClose(wsK, batch, 0.0);

        EXPECT_TRUE(TamberUpdate::addRowsV2(v2.L(), v2.D(), v2.data.matrix, list, v2.rows, v2.rowsA,
                                            v2.tree(), v2.counts.data(), nullptr));
        EXPECT_TRUE(TamberUpdate::addRowsV2(ws.L(), ws.D(), ws.data.matrix, list, ws.rows, ws.rowsA,
                                            ws.tree(), ws.counts.data(), work));
        EXPECT_TRUE(TamberUpdate::addKRows(batch.L(), batch.D(), batch.data.matrix, list, batch.rows,
                                           batch.rowsA, batch.tree()));
        EXPECT_TRUE(TamberUpdate::addKRows(wsK.L(), wsK.D(), wsK.data.matrix, list, wsK.rows, wsK.rowsA,
                                           wsK.tree(), workK));
        EXPECT_EQ(v2.counts, original.counts);
        EXPECT_TRUE(
            std::equal(v2.data.etree.parent, v2.data.etree.parent + sys.nb, original.data.etree.parent));
        expectClose(v2, original, 1e-9);
        expectClose(ws, v2, 0.0);
        expectClose(batch, v2, 1e-10);
        expectClose(wsK, batch, 0.0);
        EXPECT_LT(factorError(batch.data, sys.dense), 1e-10);
        auto zero = [](const double* x, unsigned long n) {
            return std::all_of(x, x + n, [](double v) { return v == 0; });
        };
        EXPECT_TRUE(zero(work.y.data, sys.N) && zero(work.w.data, sys.N) &&
                    zero(workK.W.data, sys.N * eqs.size()));
        EXPECT_TRUE(
            std::all_of(workK.listHeads.data, workK.listHeads.data + sys.nb, [](int v) { return v == -1; }));

        for (const Equation& eq : eqs) {
            EXPECT_TRUE(TamberUpdate::deleteRows(tf.L(), tf.D(), toList({eq}), tf.rows, tf.tree()));
            ASSERT_TRUE(TreeUpdate::validate(tf.tree(), tf.L(), tf.rows));
        }
        EXPECT_LT(factorError(tf.data, reduced), 1e-10);
        const EquationList descending = toList(std::vector<Equation>(eqs.rbegin(), eqs.rend()));
        EXPECT_TRUE(
            TamberUpdate::addRows(tf.L(), tf.D(), tf.data.matrix, descending, tf.rows, tf.rowsA, tf.tree()));
        EXPECT_TRUE(TreeUpdate::validate(tf.tree(), tf.L(), tf.rows));
        EXPECT_LT(factorError(tf.data, sys.dense), 1e-10);

        const std::vector<double> values = tf.values();  // empty lists: no change, no allocation
        const EquationList none;
        const auto before = kiv::ByteAllocator::allocationCount();
        EXPECT_TRUE(
            TamberUpdate::addKRows(tf.L(), tf.D(), tf.data.matrix, none, tf.rows, tf.rowsA, tf.tree()));
        EXPECT_TRUE(TamberUpdate::deleteKRows(tf.L(), tf.D(), none, tf.rows, tf.tree()));
        EXPECT_TRUE(TamberUpdate::addRowsV2(tf.L(), tf.D(), tf.data.matrix, none, tf.rows, tf.rowsA,
                                            tf.tree(), tf.counts.data(), nullptr));
        EXPECT_TRUE(TamberUpdate::deleteRows(tf.L(), tf.D(), none, tf.rows, tf.tree()));
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
        EXPECT_EQ(tf.values(), values);
    }
    EXPECT_GT(equations, 3 * systems().size());  // not a vacuous run
}

TEST(TamberUpdateRows, DenseFormOnOneScalarBlocks) {
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        const BlockSystem sys = testing::makeSpdSystem(seed, 9, 1, 0.4);
        SCOPED_TRACE(testing::describe(sys));
        const std::vector<Equation> eqs = pickEquations(sys, seed);
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
        EXPECT_LT(factorError(f.data, sys.dense), 1e-10);
    }
}

// Two coupled equations (of one block) deleted as a batch in descending order leave the decoupled factor. The
// preconditions stated in TamberUpdate.h, checked both ways (uncoupled equations in the test above): the two
// come back exactly only one at a time with activeScalars (in either order), not when read in full or as a
// batch; the last two scalars of a root block only ascending.
TEST(TamberUpdateRows, AdditionOrderAndCouplingPreconditions) {
    enum Form { InFull, Active, Batch };
    // Deletes eqs from a fresh factor, adds them back (reversed or not) in the given form: the factor error.
    auto deleteThenAdd = [](const BlockSystem& sys, std::vector<Equation> eqs, bool reverse, Form form) {
        Factored f(sys);
        TamberUpdate::deleteRowsV2(f.L(), f.D(), toList(eqs), f.rows, f.tree(), f.counts.data(), nullptr);
        if (reverse) std::reverse(eqs.begin(), eqs.end());
        if (form == InFull)
            TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, toList(eqs), f.rows, f.rowsA, f.tree(),
                                    f.counts.data(), nullptr);
        if (form == Batch)
            TamberUpdate::addKRows(f.L(), f.D(), f.data.matrix, toList(eqs), f.rows, f.rowsA, f.tree());
        TamberUpdate::Workspace ws;
        ws.reserve(sys.nb, sys.N, eqs.size());
        std::vector<unsigned char> active = offFlags(sys, eqs);
        for (unsigned char& a : active) a = !a;
        ws.activeScalars = active.data();
        for (const Equation& eq : form == Active ? eqs : std::vector<Equation>()) {
            TamberUpdate::addRowsV2(f.L(), f.D(), f.data.matrix, toList({eq}), f.rows, f.rowsA, f.tree(),
                                    f.counts.data(), ws);
            active[sys.offsets[eq.first] + eq.second] = 1;
        }
        return factorError(f.data, sys.dense);
    };
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        const BlockSystem sys = testing::makeSpdSystem(seed, 7, 5, 0.35);
        SCOPED_TRACE(testing::describe(sys));
        const unsigned int b = static_cast<unsigned int>(
            std::find_if(sys.sizes.begin(), sys.sizes.end(), [](unsigned int n) { return n >= 3; }) -
            sys.sizes.begin());
        if (b < sys.nb) {  // deleted as a batch in descending order: the decoupled factor
            Factored g(sys);
            const std::vector<unsigned char> off = offFlags(sys, {{b, 0}, {b, 1}});
            EXPECT_TRUE(TamberUpdate::deleteKRows(g.L(), g.D(), toList({{b, 1}, {b, 0}}), g.rows, g.tree()));
            EXPECT_TRUE(unitEquations(g.data, off));
            EXPECT_LT(factorError(g.data, decoupled(sys.dense, off)), 1e-10);
        }
        for (int reverse = 0; reverse < 2 && b < sys.nb; ++reverse) {
            EXPECT_GT(deleteThenAdd(sys, {{b, 0}, {b, 1}}, reverse, InFull), 1e-6) << reverse;
            EXPECT_LT(deleteThenAdd(sys, {{b, 0}, {b, 1}}, reverse, Active), 1e-10) << reverse;
        }
        EXPECT_TRUE(b == sys.nb || deleteThenAdd(sys, {{b, 0}, {b, 1}}, false, Batch) > 1e-6);
        const unsigned int last = sys.nb - 1, s = sys.sizes[last];
        if (s < 2) continue;
        EXPECT_LT(deleteThenAdd(sys, {{last, s - 2}, {last, s - 1}}, false, InFull), 1e-10);
        EXPECT_GT(deleteThenAdd(sys, {{last, s - 2}, {last, s - 1}}, true, InFull), 1e-6);
    }
}

}  // namespace
}  // namespace kivTamber
