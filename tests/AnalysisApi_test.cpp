// The user-facing analysis: every ordering follows the safe-order rule (against the rule's own statement) and
// yields consistent permutation, skeleton, tree and layout (against dense symbolic elimination); physical
// saddle-point systems assemble, factor with the right inertia and solve, while unrepaired symamd + zero-leaf
// swap breaks down; fill; input errors and unchanged data; allocation-free reuse; a real KKT matrix.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Analysis.h"
#include "Reordering.h"
#include "Tamber.h"
#include "scenes/Scenes.h"
#include "testing/Bits.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"
#include "testing/Patterns.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;
using namespace kivTamber::Analysis;
using Blocks = std::vector<unsigned int>;
using Rows = std::vector<std::vector<double>>;

namespace {

// A problem in list form: column j lists the blocks i <= j coupled to j, ascending, diagonal last; entry e
// holds its s_i × s_j values (row-major) at values[valuePointers[e]]. A generated saddle-point system also
// has its dense twin `sys` and the number of its constraint rows.
struct ListProblem {
    Blocks sizes, colPointers{0}, rowIndices;
    std::vector<unsigned long> valuePointers;
    std::vector<double> values;
    unsigned int firstConstraint = 0, constraintRows = 0;
    kt::BlockSystem sys;

    Problem problem() const {
        return {static_cast<unsigned int>(sizes.size()), firstConstraint, colPointers.data(),
                rowIndices.data(), sizes.data()};
    }
    // Appends block j = sizes.size() of size s, coupled to the blocks `rows` (all < j).
    void addColumn(unsigned int s, Blocks rows) {
        rows.push_back(static_cast<unsigned int>(sizes.size()));
        std::sort(rows.begin(), rows.end());
        sizes.push_back(s);
        rowIndices.insert(rowIndices.end(), rows.begin(), rows.end());
        colPointers.push_back(static_cast<unsigned int>(rowIndices.size()));
    }
};

// `bodies` bodies of size bodySize, then the constraints (rows, bodies).
ListProblem patternOf(unsigned int bodies, unsigned int bodySize,
                      const std::vector<std::pair<unsigned int, Blocks>>& constraints) {
    ListProblem p;
    for (unsigned int b = 0; b < bodies; ++b) p.addColumn(bodySize, {});
    for (const auto& c : constraints) p.addColumn(c.first, c.second);
    p.firstConstraint = bodies;
    return p;
}

// Orthonormalises v against `basis` (two passes) and appends it, unless it keeps < 0.1 of its norm.
bool extend(Rows& basis, std::vector<double> v) {
    auto dot = [](const std::vector<double>& a, const std::vector<double>& b) {
        return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
    };
    const double norm0 = std::sqrt(dot(v, v));
    for (int pass = 0; pass < 2; ++pass)
        for (const std::vector<double>& b : basis) {
            const double d = dot(v, b);
            for (std::size_t q = 0; q < v.size(); ++q) v[q] -= d * b[q];
        }
    const double norm = std::sqrt(dot(v, v));
    if (norm < 0.1 * norm0) return false;
    for (double& x : v) x /= norm;
    basis.push_back(v);
    return true;
}

// Seed s: rigid bodies (6 rows: translation, rotation; s % 3 != 1) and particles (3 rows; s % 3 != 0) along
// a line. A constraint joins a body to another body or to the world: two particles (or a particle and the
// world) get a 1-row distance constraint ±dᵀ, every other pair a 3-row point contact whose rows are
// ±(d, r × d) for the directions d of a random frame and the lever arm r of the contact point from the body.
// A constraint is kept only when J stays of full row rank. M is symmetric and diagonally dominant; bodies
// couple to each other when s % 5 == 4.
ListProblem makeSaddle(unsigned long seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::normal_distribution<double> g;
    const unsigned int rigid = seed % 3 == 1 ? 0 : 3 + seed % 6;
    const unsigned int nb = rigid + (seed % 3 == 0 ? 0 : 5 + seed % 9);
    Blocks sizes, offset;
    unsigned int dofs = 0;
    Rows position, J, basis;  // J: the accepted constraint rows (dofs each); basis: their orthonormal span
    for (unsigned int k = 0; k < nb; ++k) {
        sizes.push_back(k < rigid ? 6 : 3);
        offset.push_back(dofs);
        dofs += sizes.back();
        position.push_back({2.0 * k + 0.3 * u(rng), u(rng), u(rng)});
    }
    for (unsigned int t = 0; t < 3 * nb; ++t) {
        const unsigned int a = static_cast<unsigned int>(rng() % nb);
        unsigned int c = static_cast<unsigned int>(rng() % (nb + 1));  // nb: the world
        if (c == a) c = nb;
        Rows frame, block(sizes[a] == 3 && (c == nb || sizes[c] == 3) ? 1 : 3, std::vector<double>(dofs));
        while (frame.size() < 3) extend(frame, {g(rng), g(rng), g(rng)});
        double p[3];
        for (double& x : p) x = 0.5 * u(rng);
        for (unsigned int body : {a, c}) {
            if (body == nb) continue;
            const double sign = body == a ? 1.0 : -1.0;
            double r[3];
            for (int q = 0; q < 3; ++q) r[q] = position[a][q] + p[q] - position[body][q];
            for (unsigned int k = 0; k < block.size(); ++k) {
                const std::vector<double>& d = frame[k];
                double* row = block[k].data() + offset[body];
                for (int q = 0; q < 3; ++q) row[q] = sign * d[q];
                if (sizes[body] == 3) continue;
                row[3] = sign * (r[1] * d[2] - r[2] * d[1]);
                row[4] = sign * (r[2] * d[0] - r[0] * d[2]);
                row[5] = sign * (r[0] * d[1] - r[1] * d[0]);
            }
        }
        Rows span = basis;
        bool independent = true;
        for (const std::vector<double>& row : block) independent = independent && extend(span, row);
        if (!independent) continue;
        basis.swap(span);
        J.insert(J.end(), block.begin(), block.end());
        sizes.push_back(static_cast<unsigned int>(block.size()));
    }
    kt::DenseSymmetric A(dofs + static_cast<unsigned int>(J.size()));
    auto fill = [&](unsigned int x, unsigned int y) {  // a random block of M
        for (unsigned int r = 0; r < sizes[x]; ++r)
            for (unsigned int c = 0; c < sizes[y]; ++c)
                A.setSymmetric(offset[x] + r, offset[y] + c, 0.3 * u(rng));
    };
    for (unsigned int b = 0; b < nb; ++b) fill(b, b);
    for (unsigned int t = 0; seed % 5 == 4 && t < nb / 2; ++t) {
        const unsigned int x = static_cast<unsigned int>(rng() % nb);
        fill(x, static_cast<unsigned int>(rng() % nb));
    }
    for (unsigned int i = 0; i < dofs; ++i) {
        A(i, i) = 1.0;
        for (unsigned int j = 0; j < dofs; ++j) A(i, i) += j == i ? 0.0 : std::fabs(A(i, j));
    }
    for (unsigned int k = 0; k < J.size(); ++k)
        for (unsigned int q = 0; q < dofs; ++q) A.setSymmetric(dofs + k, q, J[k][q]);
    ListProblem s;
    s.sys = kt::makeFromDense(sizes, A);
    s.constraintRows = static_cast<unsigned int>(J.size());
    s.firstConstraint = nb;
    for (unsigned int j = 0; j < s.sys.nb; ++j) {
        s.sys.isConstraint[j] = j >= nb;
        s.addColumn(sizes[j], s.sys.lowerRows[j]);
        for (unsigned int e = s.colPointers[j]; e < s.colPointers[j + 1]; ++e) {
            const unsigned int i = s.rowIndices[e];
            s.valuePointers.push_back(s.values.size());
            for (unsigned int r = 0; r < sizes[i]; ++r)
                for (unsigned int c = 0; c < sizes[j]; ++c)
                    s.values.push_back(A(s.sys.offsets[i] + r, s.sys.offsets[j] + c));
        }
    }
    return s;
}

// The safe-order rule read straight from its statement: every constraint c follows all its bodies (S), or
// (R, when allowed) directly follows one of its bodies b, every other constraint of b placed before c.
bool followsRule(const ListProblem& p, const unsigned int* forward, bool allowR = true) {
    const unsigned int n = static_cast<unsigned int>(p.sizes.size()), fc = p.firstConstraint;
    std::vector<Blocks> adjacent(n);
    Blocks at(n);
    for (unsigned int j = 0; j < n; ++j) {
        at[forward[j]] = j;
        for (unsigned int e = p.colPointers[j]; e + 1 < p.colPointers[j + 1]; ++e) {
            adjacent[p.rowIndices[e]].push_back(j);
            adjacent[j].push_back(p.rowIndices[e]);
        }
    }
    for (unsigned int c = fc; c < n; ++c) {
        bool s = true;
        for (unsigned int b : adjacent[c]) s = s && (b >= fc || at[b] < at[c]);
        const unsigned int b = at[c] > 0 ? forward[at[c] - 1] : c;
        bool r = allowR && b < fc && std::count(adjacent[c].begin(), adjacent[c].end(), b) > 0;
        for (unsigned int o : adjacent[b]) r = r && (o < fc || o == c || at[o] < at[c]);
        if (!s && !r) return false;
    }
    return true;
}

// The pivots are finite, none of magnitude <= tiny, and exactly `negative` of them negative.
template <typename T>
bool goodPivots(const TamberData<T>& data, unsigned long negative, double tiny) {
    unsigned long count = 0;
    for (unsigned long k = 0; k < data.diagonal.size; ++k) {
        const double d = data.diagonal.data[k];
        if (!std::isfinite(d) || std::fabs(d) <= tiny) return false;
        count += d < 0 ? 1 : 0;
    }
    return count == negative;
}

// data holds what analyze promises: permutation and its inverse, the filled pattern of the permuted pattern
// (dense symbolic elimination), the elimination tree read off it with a valid post order, and the matrix
// laid out on the permuted pattern with the permuted sizes.
template <typename T>
void expectConsistent(const ListProblem& s, const TamberData<T>& data) {
    const unsigned int n = s.sys.nb;
    const Permutation& P = data.permutation;
    ASSERT_EQ(P.size, n);
    for (unsigned int k = 0; k < n; ++k) ASSERT_EQ(P.inverse[P.forward[k]], k);
    const kt::BlockPattern pattern = kt::permutePattern(s.sys.pattern(), P.forward);
    const kt::BlockPattern filled = kt::symbolicFactor(pattern);
    ASSERT_EQ(kt::checkSkeletonForm(data.skeleton), "");
    ASSERT_TRUE(kt::fromSkeleton(data.skeleton) == filled);
    const std::vector<unsigned int> parent = kt::eliminationParent(filled);
    ASSERT_EQ(data.etree.numNodes, n);
    const SparseMatrix<T>& A = data.matrix;
    ASSERT_EQ(A.numBlockCols, n);
    ASSERT_EQ(A.numBlocks, pattern.numUpperEntries());
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = data.skeleton.colPointers[j]; e < data.skeleton.colPointers[j + 1]; ++e)
            ASSERT_EQ(data.skeleton.fillFlags[e], pattern(j, data.skeleton.rowIndices[e]) ? 0 : 1);
        ASSERT_EQ(data.etree.parent[j], parent[j]);
        ASSERT_TRUE(parent[j] == j || data.etree.postOrder[j] < data.etree.postOrder[parent[j]]);
        for (unsigned int c = data.etree.firstChild[j]; c != Tree::noNode; c = data.etree.sibling[c])
            ASSERT_EQ(parent[c], j);
        ASSERT_EQ(A.blockSizes[j], s.sys.sizes[P.forward[j]]);
        Blocks expected;
        for (unsigned int r = 0; r <= j; ++r)
            if (pattern(r, j)) expected.push_back(r);
        ASSERT_EQ(Blocks(A.rowIndices + A.colPointers[j], A.rowIndices + A.colPointers[j + 1]), expected);
    }
    ASSERT_EQ(data.isFactored, 0);
}

// Assembles the values (how 0: setBlocks; 1: setBlock entry by entry, found by (i, j); 2: the same from float
// values) and checks the round trip P·A·Pᵀ·(P·x) = P·(A·x) against the dense matrix (blocks moved across
// the diagonal must come out transposed) and unpermute(permute(x)) = x exactly. Counts the moved blocks.
template <typename T>
void expectRoundTrip(const ListProblem& s, const Analyzer& analyzer, TamberData<T>& data, int how,
                     double tolerance, unsigned long& transposed) {
    ASSERT_EQ(analyzer.scalarSize(), s.sys.N);
    ASSERT_EQ(analyzer.numEntries(), s.rowIndices.size());
    if (how == 0) analyzer.setBlocks(data, s.values.data(), s.valuePointers.data());
    for (unsigned int j = 0; how > 0 && j < s.sys.nb; ++j)
        for (unsigned int e = s.colPointers[j]; e < s.colPointers[j + 1]; ++e) {
            ASSERT_EQ(analyzer.findEntry(s.rowIndices[e], j), e);
            const double* v = s.values.data() + s.valuePointers[e];
            const std::vector<float> f(v, v + s.sys.sizes[s.rowIndices[e]] * s.sys.sizes[j]);
            how == 2 ? analyzer.setBlock(data, e, f.data()) : analyzer.setBlock(data, e, v);
        }
    ASSERT_EQ(analyzer.findEntry(1, 0), Analyzer::noEntry);
    std::vector<unsigned int> position(s.sys.nb);  // of each user block (data's blocks may be merged groups)
    for (unsigned int k = 0; k < s.sys.nb; ++k) position[analyzer.order()[k]] = k;
    for (unsigned int j = 0; j < s.sys.nb; ++j)
        for (unsigned int i : s.sys.lowerRows[j]) transposed += position[i] > position[j] ? 1 : 0;
    const unsigned int N = s.sys.N;
    const std::vector<double> x = kt::randomVector(N, N), y = kt::denseMultiply(s.sys.dense, x);
    std::vector<T> xu(x.begin(), x.end()), xp(N), yp(N), yu(N);
    analyzer.permuteVector(xu.data(), xp.data());
    data.matrix.multiply(xp.data(), yp.data());
    analyzer.unpermuteVector(yp.data(), yu.data());
    const double scale = 1.0 + kt::normInf(y.data(), N);
    for (unsigned int k = 0; k < N; ++k) ASSERT_NEAR(yu[k], y[k], tolerance * scale) << "row " << k;
    analyzer.unpermuteVector(xp.data(), yp.data());
    ASSERT_EQ(yp, xu);
}

const Ordering kOrderings[] = {Ordering::standard, Ordering::symamdSwap, Ordering::natural};
const char* const kNames[] = {"standard", "symamdSwap", "natural"};

// Every ordering, with and without peeling, and a random user order (accepted exactly when it follows the
// rule, and always once repaired): the order, the structure, the reported cost, the assembly in double and
// float, the pivots and the solve.
TEST(AnalysisApi, EveryOrderingSatisfiesTheRuleAssemblesAndFactorsWithoutZeroPivots) {
    Analyzer analyzer, analyzerF;
    TamberData<double> data;
    TamberData<float> dataF;
    Tamber tamber;
    unsigned long repaired = 0, peeled = 0, transposed = 0, accepted = 0, rejected = 0;
    for (unsigned long seed = 0; seed < 90; ++seed) {
        const ListProblem s = makeSaddle(seed);
        const Problem problem = s.problem();
        SCOPED_TRACE("seed " + std::to_string(seed) + " " + kt::describe(s.sys));
        auto assembleFactorAndSolve = [&](int how) {
            expectRoundTrip(s, analyzer, data, how, 1e-13, transposed);
            tamber.estimateWork(data, nullptr);
            tamber.factorSerial(data);
            ASSERT_TRUE(goodPivots(data, s.constraintRows, 1e-8));
            const std::vector<double> b = kt::randomVector(s.sys.N, seed);
            std::vector<double> bp(s.sys.N), xp(s.sys.N), x(s.sys.N);
            analyzer.permuteVector(b.data(), bp.data());
            ASSERT_TRUE(tamber.solve(data, bp.data(), xp.data()));
            analyzer.unpermuteVector(xp.data(), x.data());
            ASSERT_LT(kt::scaledResidual(s.sys.dense, x.data(), b.data()), 1e-13);
        };
        for (unsigned int o = 0; o < 3; ++o) {
            for (bool peel : {true, false}) {
                SCOPED_TRACE(std::string(kNames[o]) + (peel ? "" : " no peel"));
                Options options;
                options.ordering = kOrderings[o];
                options.peel = peel;
                options.nestedDissectionThreshold = seed % 2 ? 0.0 : 5e7;  // exercise nested dissection too
                options.mergeBlocks = false;  // data's blocks are the problem's (merging: BlockMerge_test)
                const Report report = analyzer.analyze(problem, options, data);
                ASSERT_TRUE(report.ok && report.message.empty()) << report.message;
                std::string why;
                ASSERT_TRUE(checkOrder(problem, data.permutation.forward, &why, peel)) << why;
                ASSERT_TRUE(followsRule(s, data.permutation.forward, peel));
                expectConsistent(s, data);
                repaired += report.movedConstraints;
                peeled += report.peeledBlocks;
                // The cost the report gives is the one of the filled pattern and of the prediction.
                Blocks sizes(s.sys.nb);
                for (unsigned int k = 0; k < s.sys.nb; ++k)
                    sizes[k] = s.sys.sizes[data.permutation.forward[k]];
                const FactorCost fromPattern = factorCost(data.skeleton, sizes.data());
                const FactorCost predicted = predictCost(problem, data.permutation.forward);
                ASSERT_EQ(std::make_tuple(report.cost.scalarEntries, report.cost.blockEntries,
                                          predicted.scalarEntries),
                          std::make_tuple(fromPattern.scalarEntries, data.skeleton.numEntries(),
                                          fromPattern.scalarEntries));
                ASSERT_DOUBLE_EQ(predicted.flops, report.cost.flops);
                assembleFactorAndSolve((seed + o) % 2);
            }
        }
        Blocks order(s.sys.nb);
        std::iota(order.begin(), order.end(), 0u);
        std::shuffle(order.begin(), order.end(), std::mt19937_64(seed));
        Options options;
        options.ordering = Ordering::user;
        options.userOrder = order.data();
        options.mergeBlocks = false;
        for (int attempt = 0; attempt < 2; ++attempt) {
            std::string why;
            const bool legal = checkOrder(problem, order.data(), &why);
            ASSERT_EQ(legal, followsRule(s, order.data())) << why;
            const Report r = analyzer.analyze(problem, options, data);
            ASSERT_EQ(r.ok, legal) << r.message;
            if (r.ok) {
                ++accepted;
                ASSERT_EQ(Blocks(data.permutation.forward, data.permutation.forward + s.sys.nb), order);
                assembleFactorAndSolve(0);
                break;
            }
            ++rejected;
            EXPECT_EQ(r.message, why);
            ASSERT_TRUE(repairOrder(problem, order.data()));  // and try again
        }
        ASSERT_TRUE(analyzerF.analyze(problem, Options(), dataF).ok);
        expectRoundTrip(s, analyzerF, dataF, seed % 3, 1e-5, transposed);
    }
    EXPECT_GT(repaired, 0u);  // the repair had work to do
    EXPECT_GT(peeled, 0u);
    EXPECT_GT(transposed, 5u);
    EXPECT_EQ(accepted, 90u);
    EXPECT_GT(rejected, 60u);
}

// symamd followed by the zero-leaf swap, without the repair. On these systems it breaks the rule and meets
// (numerically) zero pivots; every order it yields that does satisfy the rule factors well.
TEST(AnalysisApi, UnrepairedSymamdSwapMeetsZeroPivots) {
    SkeletonMatrix S, T;
    EliminationTree tree;
    Permutation P;
    ScratchPad pad;
    Tamber tamber;
    unsigned int broken = 0, singular = 0;
    for (unsigned long seed = 0; seed < 90; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const ListProblem s = makeSaddle(seed);
        s.sys.buildSkeleton(S);
        ASSERT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
        if (!Reordering::zeroLeafSwap(S, T, tree, s.firstConstraint, P, pad)) continue;
        const bool legal = checkOrder(s.problem(), P.forward);
        ASSERT_EQ(legal, followsRule(s, P.forward));
        // The system in elimination order, factored as it stands (the analysis would refuse the order).
        Blocks sizes, scalars;
        for (unsigned int k = 0; k < s.sys.nb; ++k) {
            sizes.push_back(s.sys.sizes[P.forward[k]]);
            for (unsigned int r = 0; r < sizes.back(); ++r)
                scalars.push_back(s.sys.offsets[P.forward[k]] + r);
        }
        kt::DenseSymmetric A(s.sys.N);
        for (unsigned int i = 0; i < s.sys.N; ++i)
            for (unsigned int j = 0; j < s.sys.N; ++j) A(i, j) = s.sys.dense(scalars[i], scalars[j]);
        TamberData<double> data;
        kt::makeFromDense(sizes, A).fillData(data);
        tamber.factorSerial(data);
        const bool bad = !goodPivots(data, s.constraintRows, 1e-10);
        EXPECT_FALSE(legal && bad) << "an order that satisfies the rule broke down";
        broken += legal ? 0 : 1;
        singular += !legal && bad ? 1 : 0;
    }
    EXPECT_GT(broken, 60u);    // measured: 90 of 90
    EXPECT_GT(singular, 60u);  // measured: 89 of them
}

// The repair by hand. Bodies 0, 1, 2; constraint 3 couples to bodies 0 and 1, constraint 4 to bodies 0 and 2.
// In 3, 0, 4, 1, 2 constraint 3 leads while 4 follows body 0 by rule R. Moving 3 behind its last body 1
// takes R away from 4 (body 0's other constraint now comes later), so a second round moves 4 behind body 2.
// In 2, 4, 0, 1, 3 constraint 4 follows body 2 by rule R; with R disallowed it moves behind body 0.
TEST(AnalysisApi, RepairMovesConstraintsRoundAfterRound) {
    const ListProblem p = patternOf(3, 6, {{3, {0, 1}}, {3, {0, 2}}});
    const struct {
        Blocks order, repaired;
        bool allowR;
        unsigned long moved;
    } cases[] = {{{3, 0, 4, 1, 2}, {0, 1, 3, 2, 4}, true, 2}, {{2, 4, 0, 1, 3}, {2, 0, 4, 1, 3}, false, 1}};
    for (const auto& c : cases) {
        Blocks order = c.order;
        unsigned long moved = 0;
        std::string why;
        EXPECT_FALSE(checkOrder(p.problem(), order.data(), &why, c.allowR));
        ASSERT_TRUE(repairOrder(p.problem(), order.data(), &moved, &why, c.allowR));
        EXPECT_EQ(order, c.repaired);
        EXPECT_EQ(moved, c.moved);
        EXPECT_TRUE(checkOrder(p.problem(), order.data(), &why, c.allowR)) << why;
    }
    Blocks order{0, 0, 1, 2, 3};  // bad input is reported, the order left alone
    std::string why;
    EXPECT_FALSE(repairOrder(p.problem(), order.data(), nullptr, &why));
    EXPECT_EQ(why, "order: block 0 is placed twice (positions 0 and 1)");
    EXPECT_EQ(order, (Blocks{0, 0, 1, 2, 3}));
}

// Fill: on cloth (a particle grid with 1-row constraints on the edges and one diagonal per square) and piles
// of boxes (3-row contacts on the ground or the box below and against the +x, +y neighbours) the standard
// ordering fills no more than symamd with the repair. Peeling never makes fill: a chain is placed
// completely; a constraint on six bodies, each of which has no other neighbour, waits until only two of its
// bodies are left (placing it earlier would join the others).
TEST(AnalysisApi, StandardOrderingFillsNoMoreThanRepairedSymamdAndPeelingMakesNoFill) {
    std::vector<ListProblem> cases;
    for (unsigned int side : {8u, 16u, 24u}) {
        std::vector<std::pair<unsigned int, Blocks>> c;
        for (unsigned int v = 0; v < side * side; ++v) {
            const unsigned int x = v % side, y = v / side;
            if (x + 1 < side) c.push_back({1, {v, v + 1}});
            if (y + 1 < side) c.push_back({1, {v, v + side}});
            if (x + 1 < side && y + 1 < side)
                c.push_back({1, (x + y) % 2 ? Blocks{v, v + side + 1} : Blocks{v + 1, v + side}});
        }
        cases.push_back(patternOf(side * side, 3, c));
    }
    for (const Blocks& xyz : {Blocks{4, 4, 3}, Blocks{8, 8, 2}, Blocks{6, 6, 6}}) {
        const unsigned int nx = xyz[0], layer = xyz[0] * xyz[1];
        std::vector<std::pair<unsigned int, Blocks>> c;
        for (unsigned int a = 0; a < layer * xyz[2]; ++a) {
            c.push_back({3, a < layer ? Blocks{a} : Blocks{a - layer, a}});
            if (a % nx + 1 < nx) c.push_back({3, {a, a + 1}});
            if (a % layer + nx < layer) c.push_back({3, {a, a + nx}});
        }
        cases.push_back(patternOf(layer * xyz[2], 6, c));
    }
    Analyzer analyzer;
    TamberData<double> data;
    for (const ListProblem& p : cases) {
        SCOPED_TRACE("blocks " + std::to_string(p.sizes.size()));
        Options standard, repaired;
        repaired.ordering = Ordering::symamdSwap;
        const Report a = analyzer.analyze(p.problem(), standard, data);
        ASSERT_TRUE(a.ok) << a.message;
        const Report b = analyzer.analyze(p.problem(), repaired, data);
        ASSERT_TRUE(b.ok) << b.message;
        EXPECT_LE(a.unmergedCost.scalarEntries, b.unmergedCost.scalarEntries);  // the orders' fill
        EXPECT_LE(a.unmergedCost.flops, b.unmergedCost.flops);
        EXPECT_GT(b.movedConstraints, 0u);
    }
    std::vector<std::pair<unsigned int, Blocks>> joints{{3, {0}}};
    for (unsigned int k = 1; k < 20; ++k) joints.push_back({3, {k - 1, k}});
    for (const ListProblem& p : {patternOf(20, 6, joints), patternOf(6, 3, {{1, {0, 1, 2, 3, 4, 5}}})}) {
        const Report r = analyzer.analyze(p.problem(), Options(), data);
        ASSERT_TRUE(r.ok) << r.message;
        EXPECT_EQ(r.peeledBlocks, p.sizes.size());
        for (unsigned long e = 0; e < data.skeleton.numEntries(); ++e)
            EXPECT_EQ(data.skeleton.fillFlags[e], 0);
    }
}

// Everything analyze may change: the data's permutation, pattern and tree, and the analyzer's order.
template <typename T>
std::vector<std::vector<unsigned long>> snapshot(const TamberData<T>& d, const Analyzer& a) {
    using V = std::vector<unsigned long>;
    return {V(d.permutation.forward, d.permutation.forward + d.permutation.size),
            V(d.permutation.inverse, d.permutation.inverse + d.permutation.size),
            V(d.skeleton.rowIndices, d.skeleton.rowIndices + d.skeleton.numEntries()),
            V(d.skeleton.colPointers, d.skeleton.colPointers + d.skeleton.n + 1),
            V(d.etree.parent, d.etree.parent + d.etree.numNodes),
            V(a.order(), a.order() + a.numBlocks()),
            {reinterpret_cast<unsigned long>(d.matrix.values), d.matrix.numBlocks, d.isFactored}};
}

// Every input error and every refused user order: its message from analyze and from checkProblem or
// checkOrder, the data and the analyzer unchanged. The problem has 3 bodies and 2 constraints: constraint 3
// couples to bodies 0 and 1, constraint 4 to bodies 1 and 2.
TEST(AnalysisApi, InputErrorsAndRefusedOrdersAreReportedAndLeaveTheDataUnchanged) {
    const ListProblem good = patternOf(3, 6, {{3, {0, 1}}, {1, {1, 2}}});
    // `expected` null: analyze accepts the user order; otherwise it fails with `expected` (the checker said
    // `why`), leaving everything as it was.
    auto expectReport = [&](const Problem& problem, const Options& options, const char* expected,
                            const std::string& why) {
        Analyzer analyzer;
        TamberData<double> data;
        ASSERT_TRUE(analyzer.analyze(good.problem(), Options(), data).ok);
        const auto before = snapshot(data, analyzer);
        const Report r = analyzer.analyze(problem, options, data);
        EXPECT_EQ(r.ok, expected == nullptr);
        EXPECT_EQ(r.message, expected ? expected : "");
        EXPECT_EQ(why, expected ? expected : "");
        EXPECT_TRUE(expected ? snapshot(data, analyzer) == before
                             : std::equal(options.userOrder, options.userOrder + 5, analyzer.order()));
    };
    using P = ListProblem&;
    const struct {
        const char* expected;
        void (*mutate)(ListProblem&);
    } errors[] = {
        {"block 1 has size 0; every block needs at least one scalar row", [](P s) { s.sizes[1] = 0; }},
        {"firstConstraint 6 exceeds the number of blocks 5", [](P s) { s.firstConstraint = 6; }},
        {"colPointers[0] is 1; it must be 0", [](P s) { s.colPointers[0] = 1; }},
        {"colPointers decreases at block 2 (colPointers[3] = 1 after colPointers[2] = 2)",
         [](P s) { s.colPointers[3] = 1; }},
        {"list of block 2 is empty (it must end with its diagonal 2)", [](P s) { s.colPointers[3] = 2; }},
        {"list of block 3: entry 4 names block 0 after block 1 (a list is strictly ascending)",
         [](P s) { s.rowIndices[3] = 1, s.rowIndices[4] = 0; }},
        {"list of block 3: entry 4 names block 9, but the problem has 5 blocks",
         [](P s) { s.rowIndices[4] = 9; }},
        {"list of block 3: entry 4 names block 4, which is larger than 3 (a list holds the blocks i <= 3)",
         [](P s) { s.rowIndices[4] = 4; }},
        {"list of block 4: it ends with block 2 instead of its diagonal 4",  // the diagonal of 4 is missing
         [](P s) { s.rowIndices.pop_back(), s.colPointers[5] = 8; }},
        {"constraint block 4 couples to no body block (bodies are blocks 0 .. 2); its pivot would be zero",
         [](P s) { s.rowIndices = {0, 1, 2, 0, 1, 3, 4}, s.colPointers[5] = 7; }},
        {"constraint block 0 couples to no body block (the problem has no bodies: firstConstraint is 0); "
         "its pivot would be zero",
         [](P s) { s.firstConstraint = 0; }},
        {"the problem's colPointers, rowIndices and blockSizes must not be null (numBlocks = 5)",
         [](P s) { s.sizes.clear(); }},
    };
    for (const auto& c : errors) {
        SCOPED_TRACE(c.expected);
        ListProblem bad = good;
        c.mutate(bad);
        Problem problem = bad.problem();
        problem.numBlocks = 5;
        if (bad.sizes.empty()) problem.blockSizes = nullptr;
        std::string why;
        EXPECT_FALSE(checkProblem(problem, &why));
        expectReport(problem, Options(), c.expected, why);
    }
    const struct {
        const char* expected;  // null: accepted
        Blocks order;          // empty: no Options::userOrder
        bool peel = true;
    } orders[] = {
        {nullptr, {0, 1, 2, 3, 4}},
        {nullptr, {0, 3, 2, 1, 4}},  // 3 directly after body 0, whose only constraint it is (R)
        {nullptr, {0, 1, 3, 2, 4}},  // 3 after both its bodies (S)
        {"order: constraint block 3 (position 1) precedes its body block 0 (position 2), and the body it "
         "directly follows, block 1, has another constraint, block 4, placed later (position 4); place it "
         "after all its bodies, or directly after a body whose last constraint it is",
         {1, 3, 0, 2, 4}},
        {"order: constraint block 4 (position 0) precedes its body block 1 (position 3) and does not "
         "directly follow one of its bodies; place it after all its bodies, or directly after a body whose "
         "last constraint it is",
         {4, 2, 0, 1, 3}},
        {"order: constraint block 3 (position 1) precedes its body block 1 (position 3); with peeling "
         "switched off every constraint must follow all its bodies",  // nor rule R with peeling off
         {0, 3, 2, 1, 4},
         false},
        {"order: block 3 is placed twice (positions 3 and 4)", {0, 1, 2, 3, 3}},
        {"order: position 4 holds block 7, but the problem has 5 blocks", {0, 1, 2, 3, 7}},
        {"ordering 'user' needs Options::userOrder", {}},
    };
    for (const auto& c : orders) {
        SCOPED_TRACE(c.expected ? c.expected : "accepted");
        Options options;
        options.ordering = Ordering::user;
        options.userOrder = c.order.empty() ? nullptr : c.order.data();
        options.peel = c.peel;
        std::string why = c.order.empty() ? c.expected : "";
        EXPECT_EQ(!c.order.empty() && checkOrder(good.problem(), c.order.data(), &why, c.peel),
                  c.expected == nullptr);
        expectReport(good.problem(), options, c.expected, why);
    }
}

// After the first steps, a time step (values, vectors) allocates nothing, and neither does the analysis of
// an unchanged structure from the third call on (the ordering libraries' own calloc and the zero-leaf swap's
// local arrays aside). An empty problem is analysed by every ordering.
TEST(AnalysisApi, SteadyStateAllocatesNothingAndEmptyProblems) {
    const ListProblem s = makeSaddle(14);
    Analyzer analyzer;
    TamberData<double> data;
    std::vector<double> b(s.sys.N, 1.0), bp(s.sys.N);
    for (unsigned int o = 0; o < 3; ++o) {
        SCOPED_TRACE(kNames[o]);
        Options options;
        options.ordering = kOrderings[o];
        options.nestedDissectionThreshold = 0.0;
        for (int k = 0; k < 2; ++k) ASSERT_TRUE(analyzer.analyze(s.problem(), options, data).ok);
        const std::uint64_t before = kiv::ByteAllocator::allocationCount();
        ASSERT_TRUE(analyzer.analyze(s.problem(), options, data).ok);
        analyzer.setBlocks(data, s.values.data(), s.valuePointers.data());
        analyzer.permuteVector(b.data(), bp.data());
        analyzer.unpermuteVector(bp.data(), b.data());
        // The zero-leaf swap keeps its node states, post positions and emission list local (3 arrays).
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before + (o == 1 ? 3 : 0));

        TamberData<double> empty;
        const Report r = analyzer.analyze({0, 0, nullptr, nullptr, nullptr}, options, empty);
        EXPECT_TRUE(r.ok) << r.message;
        EXPECT_EQ(empty.permutation.size + empty.skeleton.n + empty.etree.numNodes + r.cost.scalarEntries,
                  0u);
    }
}

// Every bit setBlocks followed by factorSerial leaves: the input's values up to the end of its last tile,
// the tiles of L and L·D, the pivots, the bad-pivot record and isFactored.
template <typename T>
std::vector<double> stepBits(const TamberData<T>& data) {
    std::vector<double> v;
    for (const SparseMatrix<T>* X : {&data.matrix, &data.factor, &data.scaledFactor}) {
        const unsigned long nb = X->numBlockCols, blocks = X->numBlocks;
        if (blocks == 0) continue;
        const unsigned long p = X->blockStrides[nb - 1];
        v.insert(v.end(), X->values, X->blockPointers[blocks - 1] + p * p);
    }
    v.insert(v.end(), data.diagonal.data, data.diagonal.data + data.diagonal.size);
    v.insert(v.end(), {static_cast<double>(data.badPivot.scalar), data.badPivot.value,
                       static_cast<double>(data.isFactored)});
    return v;
}

// setBlocksAndFactor against setBlocks + factorSerial, bit for bit (the input too, NaN payloads and signed
// zeros included): saddle-point problems in every ordering, merged and not, in double and float (values
// given in double), with L·D kept and not, through the plan and the row loop; after a step with other
// values (every column must be rewritten), with a bad pivot in the middle with and without the stop (the
// whole input is written even when the factorization stops), and allocation-free after a complete step.
TEST(AnalysisApi, SetBlocksAndFactorEqualsSetBlocksThenFactorSerial) {
    // `nanAt`: the value that becomes NaN in the step with a bad pivot.
    auto check = [](auto zero, const Problem& problem, const std::vector<double>& values,
                    const unsigned long* pointers, unsigned long nanAt, const Options& options,
                    unsigned char lean, unsigned char usePlan, unsigned char stop) {
        using T = decltype(zero);
        SCOPED_TRACE(std::string(sizeof(T) == 8 ? "double" : "float") + " lean " + std::to_string(lean) +
                     " plan " + std::to_string(usePlan) + " stop " + std::to_string(stop));
        Analyzer analyzer;
        Tamber tamber;
        TamberData<T> twoCalls, oneCall;
        for (TamberData<T>* data : {&twoCalls, &oneCall}) {
            ASSERT_TRUE(analyzer.analyze(problem, options, *data).ok);
            tamber.estimateWork(*data, nullptr);
            data->writeScaledFactor = lean ? 0 : 1;
            data->factorPlan.use = usePlan;
            data->stopAtBadPivot = stop;
        }
        std::vector<double> other(values.size()), singular = values;
        for (std::size_t k = 0; k < other.size(); ++k) other[k] = k % 7 == 3 ? -0.0 : -3.0 * values[k];
        singular[nanAt] = std::nan("");
        const std::vector<double>* const steps[] = {&other, &values, &singular, &values};
        for (int step = 0; step < 4; ++step) {
            const std::vector<double>* const v = steps[step];
            const std::uint64_t before = kiv::ByteAllocator::allocationCount();
            analyzer.setBlocksAndFactor(tamber, oneCall, v->data(), pointers);
            if (step >= 2) {  // after a complete factorization (the first one may stop early)
                EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before);
            }
            analyzer.setBlocks(twoCalls, v->data(), pointers);
            tamber.factorSerial(twoCalls);
            const std::vector<double> a = stepBits(oneCall), b = stepBits(twoCalls);
            ASSERT_TRUE(kt::sameBits(a, b)) << "step " << step << ": " << kt::firstDifference(a, b);
            if (step > 0) {
                ASSERT_EQ(oneCall.badPivot.scalar == TamberData<T>::BadPivot::noPivot, v != &singular);
            }
        }
    };
    auto everyForm = [&](const Problem& problem, const std::vector<double>& values,
                         const unsigned long* pointers, unsigned long nanAt, const Options& options,
                         bool withFloat) {
        for (unsigned char lean : {0, 1})
            for (unsigned char usePlan : {1, 0})
                for (unsigned char stop : {0, 1}) {
                    check(0.0, problem, values, pointers, nanAt, options, lean, usePlan, stop);
                    if (withFloat && lean == 0 && usePlan == 1)
                        check(0.0f, problem, values, pointers, nanAt, options, lean, usePlan, stop);
                }
    };
    for (unsigned long seed = 0; seed < 12; ++seed) {
        const ListProblem s = makeSaddle(seed);
        if (s.firstConstraint == 0) continue;
        SCOPED_TRACE("seed " + std::to_string(seed));
        {  // entryMatrixColumn: an entry's values land in the tiles of that block column and nowhere else
            Analyzer analyzer;
            TamberData<double> data;
            Options options;
            options.mergeBlocks = seed % 2 == 1;
            ASSERT_TRUE(analyzer.analyze(s.problem(), options, data).ok);
            const SparseMatrix<double>& A = data.matrix;
            const double* const end = A.blockPointers[A.numBlocks - 1] +
                                      static_cast<unsigned long>(A.blockStrides[A.numBlockCols - 1]) *
                                          A.blockStrides[A.numBlockCols - 1];
            const std::vector<double> ones(144, 1.0);
            for (unsigned long e = 0; e < analyzer.numEntries(); ++e) {
                std::fill(A.values, A.values + A.valueCapacity, 0.0);
                ASSERT_TRUE(analyzer.setBlock(data, e, ones.data()));
                const unsigned int c = analyzer.entryMatrixColumn(e);
                ASSERT_LT(c, A.numBlockCols);
                const double* const first = A.blockPointers[A.colPointers[c]];
                const double* const last =
                    c + 1 < A.numBlockCols ? A.blockPointers[A.colPointers[c + 1]] : end;
                for (const double* v = A.values; v < end; ++v) {
                    if (*v != 0.0) {
                        ASSERT_TRUE(v >= first && v < last) << "entry " << e;
                    }
                }
            }
            EXPECT_EQ(analyzer.entryMatrixColumn(analyzer.numEntries()), ~0u);
        }
        // A NaN on a body's diagonal: a bad pivot where the order places it, or earlier.
        const unsigned int body = (s.firstConstraint + 1) / 2;
        for (unsigned int o = 0; o < 3; ++o) {
            Options options;
            options.ordering = kOrderings[o];
            options.mergeBlocks = seed % 2 == 1;
            SCOPED_TRACE(std::string(kNames[o]) + (options.mergeBlocks ? " merged" : ""));
            everyForm(s.problem(), s.values, s.valuePointers.data(),
                      s.valuePointers[s.colPointers[body + 1] - 1], options, true);
        }
    }
    // The scenes, large enough for several groups of the plan's rows.
    using namespace kivTamber::scenes;
    for (SceneKind kind : {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall}) {
        auto scene = makeScene(kind, sizeForBlockCount(kind, 700));
        scene->step(0.01);
        BlockProblem problem;
        scene->build(problem);
        const Problem view = problem.pattern();
        const unsigned int body = view.firstConstraint / 2;
        const std::vector<double> values(problem.values.data(),
                                         problem.values.data() + problem.values.size());
        for (bool merge : {false, true}) {
            SCOPED_TRACE(std::to_string(static_cast<int>(kind)) + (merge ? " merged" : ""));
            Options options;
            options.mergeBlocks = merge;
            everyForm(view, values, problem.valuePointers.data(),
                      problem.valuePointers[view.colPointers[body + 1] - 1], options, false);
        }
    }
}

// A real KKT matrix: AUG3DCQP (3873 primal unknowns with a positive definite P, 1000 equality rows), one
// block per scalar, in the standard order: every pivot finite, exactly 1000 negative, small residual.
TEST(AnalysisApi, RealKktMatrixFactorsWithTheRightInertia) {
    const char* dir = kt::realDataDir();
    if (dir == nullptr) GTEST_SKIP() << "KIVTAMBER_DATA_DIR is not set";
    const std::string base = std::string(dir) + "/AUG3DCQP_kkt";
    std::ifstream blocks(base + ".blocks"), mtx(base + ".mtx");
    ASSERT_TRUE(blocks && mtx);
    ListProblem p;
    for (std::string key; blocks >> key;)
        if (key == "n1") blocks >> p.firstConstraint;
    while (mtx.peek() == '%') mtx.ignore(1 << 30, '\n');
    unsigned int n = 0, i = 0, j = 0;
    unsigned long declared = 0;
    double v = 0.0, norm = 0.0;
    mtx >> n >> n >> declared;
    // (column, row <= column) of the upper form, with the zero diagonals that the file omits.
    std::map<std::pair<unsigned int, unsigned int>, double> entries;
    while (mtx >> i >> j >> v) entries[{i - 1, j - 1}] = v, norm = std::max(norm, std::fabs(v));
    for (unsigned int r = 0; r < n; ++r) entries.insert({{r, r}, 0.0});
    Blocks rows;
    for (const auto& e : entries) {
        p.valuePointers.push_back(p.values.size());
        p.values.push_back(e.second);
        if (e.first.first != e.first.second) rows.push_back(e.first.second);
        if (e.first.first == e.first.second) p.addColumn(1, rows), rows.clear();  // the diagonal closes it
    }
    ASSERT_EQ(p.sizes.size(), 4873u);
    Analyzer analyzer;
    TamberData<double> data;
    const Report r = analyzer.analyze(p.problem(), Options(), data);
    ASSERT_TRUE(r.ok) << r.message;
    analyzer.setBlocks(data, p.values.data(), p.valuePointers.data());
    Tamber tamber;
    tamber.estimateWork(data, nullptr);
    tamber.factorSerial(data);
    EXPECT_TRUE(goodPivots(data, 1000, 0.0));

    const unsigned int N = analyzer.scalarSize();
    std::vector<double> b = kt::randomVector(N, 3), bp(N), xp(N), yp(N);
    analyzer.permuteVector(b.data(), bp.data());
    ASSERT_TRUE(tamber.solve(data, bp.data(), xp.data()));
    data.matrix.multiply(xp.data(), yp.data());
    double res = 0.0;
    for (unsigned int k = 0; k < N; ++k) res = std::max(res, std::fabs(yp[k] - bp[k]));
    EXPECT_LT(res / (norm * kt::normInf(xp.data(), N) + kt::normInf(bp.data(), N)), 1e-10);
}

}  // namespace

// Sizes whose matrix cannot be stored are answered with ok = false and a message, not an exception, and
// leave the data and the analyzer as they were: two coupled bodies of 65,536 rows (3 tiles of 2^32 values,
// beyond the memory of any machine this runs on) and one body of 2^32 − 1 rows (a tile of 2^64 values).
TEST(AnalysisApi, HugeBlocksAreRefusedWithAMessage) {
    const ListProblem good = patternOf(3, 6, {{3, {0, 1}}, {1, {1, 2}}});
    Analyzer analyzer;
    TamberData<double> data;
    ASSERT_TRUE(analyzer.analyze(good.problem(), Options(), data).ok);
    const auto before = snapshot(data, analyzer);
    const Blocks cp{0, 1, 3}, ri{0, 0, 1}, sizes{65536, 65536};
    Report r = analyzer.analyze({2, 2, cp.data(), ri.data(), sizes.data()}, Options(), data);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message.rfind("the matrix of the problem needs 12884901888 values (103 GB), more than the "
                              "memory of this machine",
                              0),
              0u)
        << r.message;
    EXPECT_TRUE(snapshot(data, analyzer) == before);
    const Blocks one{0, 1}, diagonal{0}, huge{4294967295u};
    r = analyzer.analyze({1, 1, one.data(), diagonal.data(), huge.data()}, Options(), data);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message,
              "the matrix of the problem needs more values than a 64-bit count holds; nothing was changed");
    EXPECT_TRUE(snapshot(data, analyzer) == before);
}
