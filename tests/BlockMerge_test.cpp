// Block merging in the analysis, on small physics scenes and random saddle-point and SPD systems: merged and
// unmerged analyses solve alike against the dense matrix; the merged factor reproduces A on its pattern,
// serially and multifrontal alike; the maps between user blocks and merged blocks agree with the vector
// permutation; groups keep the size limit and the reported explicit zeros; setBlock after the analysis
// overwrites every place; equations switched off and on in merged data match the unmerged result; a merge
// that cannot happen leaves the unmerged structure.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Analysis.h"
#include "RankMod.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "scenes/Scenes.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;
using namespace kivTamber::Analysis;

namespace {

// A problem in the user's numbering with its values and its dense twin.
struct Case {
    std::string name;
    unsigned int firstConstraint = 0;
    std::vector<unsigned int> sizes, colPointers{0}, rowIndices, offsets{0};
    std::vector<unsigned long> valuePointers;
    std::vector<double> values;
    kt::DenseSymmetric dense;

    Problem problem() const {
        return {static_cast<unsigned int>(sizes.size()), firstConstraint, colPointers.data(),
                rowIndices.data(), sizes.data()};
    }
};

Case fromScene(scenes::SceneKind kind, unsigned int size, unsigned int seed, const char* name) {
    std::unique_ptr<scenes::Scene> scene = scenes::makeScene(kind, size);
    if (auto* wall = dynamic_cast<scenes::BoxWall*>(scene.get())) wall->includeInactive = true;
    scene->setTime(0.3 * seed);
    scenes::BlockProblem p;
    scene->build(p);
    Case c;
    c.name = std::string(name) + " " + std::to_string(size) + " seed " + std::to_string(seed);
    c.firstConstraint = p.firstConstraint;
    c.sizes.assign(p.blockSizes.data(), p.blockSizes.data() + p.numBlocks);
    c.colPointers.assign(p.colPointers.data(), p.colPointers.data() + p.numBlocks + 1);
    c.rowIndices.assign(p.rowIndices.data(), p.rowIndices.data() + p.numEntries());
    c.offsets.assign(p.blockOffsets.data(), p.blockOffsets.data() + p.numBlocks + 1);
    c.valuePointers.assign(p.valuePointers.data(), p.valuePointers.data() + p.numEntries());
    c.values.assign(p.values.data(), p.values.data() + p.values.size());
    c.dense = kt::DenseSymmetric(p.scalarSize());
    scenes::assembleDense(p, c.dense.a.data());
    return c;
}

// A generated system renumbered bodies first, then constraints.
Case fromSystem(const kt::BlockSystem& sys, const std::string& name) {
    std::vector<unsigned int> oldOf;
    for (int pass = 0; pass < 2; ++pass)
        for (unsigned int b = 0; b < sys.nb; ++b)
            if (sys.isConstraint[b] == pass) oldOf.push_back(b);
    Case c;
    c.name = name + " " + kt::describe(sys);
    c.firstConstraint = static_cast<unsigned int>(
        std::count(sys.isConstraint.begin(), sys.isConstraint.end(), static_cast<unsigned char>(0)));
    auto coupled = [&](unsigned int a, unsigned int b) {
        const std::vector<unsigned int>& r = sys.lowerRows[std::max(a, b)];
        return a == b || std::binary_search(r.begin(), r.end(), std::min(a, b));
    };
    for (unsigned int j = 0; j < sys.nb; ++j) {
        c.sizes.push_back(sys.sizes[oldOf[j]]);
        c.offsets.push_back(c.offsets.back() + c.sizes.back());
    }
    c.dense = kt::DenseSymmetric(sys.N);
    for (unsigned int j = 0; j < sys.nb; ++j) {
        for (unsigned int i = 0; i <= j; ++i) {
            if (!coupled(oldOf[i], oldOf[j])) continue;
            c.rowIndices.push_back(i);
            c.valuePointers.push_back(c.values.size());
            for (unsigned int r = 0; r < c.sizes[i]; ++r)
                for (unsigned int q = 0; q < c.sizes[j]; ++q) {
                    const double v = sys.dense(sys.offsets[oldOf[i]] + r, sys.offsets[oldOf[j]] + q);
                    c.values.push_back(v);
                    c.dense.setSymmetric(c.offsets[i] + r, c.offsets[j] + q, v);
                }
        }
        c.colPointers.push_back(static_cast<unsigned int>(c.rowIndices.size()));
    }
    return c;
}

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (unsigned int seed = 1; seed <= 2; ++seed) {
        cases.push_back(fromScene(scenes::SceneKind::chain, 12, seed, "chain"));
        cases.push_back(fromScene(scenes::SceneKind::ragdolls, 2, seed, "ragdolls"));
        cases.push_back(fromScene(scenes::SceneKind::cloth, 7, seed, "cloth"));
        cases.push_back(fromScene(scenes::SceneKind::boxWall, 4, seed, "boxwall"));
    }
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        cases.push_back(fromSystem(kt::makeSaddlePointSystem(seed, 14, 10, 5, 0.25), "saddle"));
        cases.push_back(fromSystem(kt::makeSpdSystem(seed, 16, 4, 0.25), "spd"));
    }
    return cases;
}

const std::vector<Case>& cases() {
    static const std::vector<Case> all = allCases();
    return all;
}

Options unmerged() {
    Options o;
    o.mergeBlocks = false;
    return o;
}

Options merging(unsigned int maxSize, double operationFlops) {
    Options o;
    o.mergeBlocks = true;
    o.maxMergedSize = maxSize;
    o.mergeOperationFlops = operationFlops;
    return o;
}

// The default limits and generous ones (most small problems merge a lot under the latter).
const Options kSettings[] = {merging(Options().maxMergedSize, Options().mergeOperationFlops),
                             merging(20, 1e4)};

// One analysed, assembled and factored system.
struct Solver {
    Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    Report report;

    void run(const Case& c, const Options& options, bool multifrontal = false) {
        report = analyzer.analyze(c.problem(), options, data);
        ASSERT_TRUE(report.ok) << report.message;
        tamber.estimateWork(data, nullptr);
        analyzer.setBlocks(data, c.values.data(), c.valuePointers.data());
        data.numThreads = 2;
        if (multifrontal)
            tamber.factorMF(data);
        else
            tamber.factorSerial(data);
    }
    // x = A⁻¹·b in the user's numbering, with one step of refinement.
    std::vector<double> solve(const std::vector<double>& b) {
        std::vector<double> bp(b.size()), xp(b.size()), x(b.size());
        analyzer.permuteVector(b.data(), bp.data());
        xp = bp;
        TamberSolve::solve(data, xp.data());
        tamber.iterativeRefinement(data, bp.data(), xp.data(), 1);
        analyzer.unpermuteVector(xp.data(), x.data());
        return x;
    }
};

// The user's dense matrix in data's scalar order.
kt::DenseSymmetric permutedDense(const Case& c, const Analyzer& analyzer) {
    const unsigned int N = c.dense.n;
    std::vector<double> index(N), at(N);
    for (unsigned int q = 0; q < N; ++q) index[q] = q;
    analyzer.permuteVector(index.data(), at.data());
    kt::DenseSymmetric P(N);
    for (unsigned int p = 0; p < N; ++p)
        for (unsigned int q = 0; q < N; ++q)
            P(p, q) = c.dense(static_cast<unsigned int>(at[p]), static_cast<unsigned int>(at[q]));
    return P;
}

std::vector<double> randomVector(unsigned long seed, unsigned int n) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(n);
    for (double& x : v) x = u(rng);
    return v;
}

double relativeDifference(const std::vector<double>& a, const std::vector<double>& b) {
    double diff = 0.0, scale = 0.0;
    for (std::size_t k = 0; k < a.size(); ++k) {
        diff = std::max(diff, std::fabs(a[k] - b[k]));
        scale = std::max(scale, std::fabs(b[k]));
    }
    return diff / std::max(scale, 1e-300);
}

TEST(BlockMerge, MergedFactorsSolveLikeTheUnmergedAndReproduceA) {
    unsigned long mergedSomewhere = 0;
    for (const Case& c : cases()) {
        const unsigned int n = static_cast<unsigned int>(c.sizes.size()), N = c.dense.n;
        const std::vector<double> b = randomVector(n, N);
        Solver plain;
        plain.run(c, unmerged());
        const std::vector<double> x0 = plain.solve(b);
        for (const Options& options : kSettings) {
            SCOPED_TRACE(c.name + ", limits " + std::to_string(options.maxMergedSize) + " " +
                         std::to_string(options.mergeOperationFlops));
            Solver merged;
            merged.run(c, options);
            const Report& r = merged.report;
            const TamberData<double>& d = merged.data;
            ASSERT_EQ(r.mergedBlocks, d.skeleton.n);
            ASSERT_EQ(r.mergedBlocks, merged.analyzer.numFactorBlocks());
            EXPECT_EQ(r.cost.scalarEntries, r.unmergedCost.scalarEntries + r.explicitZeros);
            EXPECT_EQ(r.unmergedCost.scalarEntries, plain.report.cost.scalarEntries);
            mergedSomewhere += n - r.mergedBlocks;

            // Every scalar maps to a group and back, to the place permuteVector gives it; groups keep the
            // size limit unless they hold a single block.
            std::vector<double> index(N), at(N);
            for (unsigned int q = 0; q < N; ++q) index[q] = q;
            merged.analyzer.permuteVector(index.data(), at.data());
            std::vector<unsigned int> members(r.mergedBlocks, 0);
            for (unsigned int ub = 0; ub < n; ++ub) {
                for (unsigned int l = 0; l < c.sizes[ub]; ++l) {
                    unsigned int g = 0, q = 0, back = 0, lb = 0;
                    ASSERT_TRUE(merged.analyzer.factorPosition(ub, l, g, q));
                    ASSERT_TRUE(merged.analyzer.userPosition(g, q, back, lb));
                    ASSERT_EQ(back, ub);
                    ASSERT_EQ(lb, l);
                    ASSERT_EQ(at[d.matrix.blockOffsets[g] + q], c.offsets[ub] + l);
                    if (l == 0) ++members[g];
                }
                unsigned int g = 0, q = 0;
                ASSERT_TRUE(plain.analyzer.factorPosition(ub, 0, g, q));
                ASSERT_EQ(g, plain.data.permutation.inverse[ub]);
            }
            for (unsigned int g = 0; g < r.mergedBlocks; ++g)
                EXPECT_TRUE(d.matrix.blockSizes[g] <= options.maxMergedSize || members[g] == 1)
                    << "group " << g;
            unsigned int ub = 0, l = 0;
            EXPECT_FALSE(merged.analyzer.factorPosition(n, 0, ub, l));
            EXPECT_FALSE(merged.analyzer.userPosition(r.mergedBlocks, 0, ub, l));
            EXPECT_FALSE(merged.analyzer.userPosition(0, d.matrix.blockSizes[0], ub, l));

            // L·D·Lᵀ = A on the merged pattern (explicit zeros of the tiles included), and the solution.
            const kt::DenseSymmetric P = permutedDense(c, merged.analyzer);
            const double normA = kt::normInf(c.dense);
            EXPECT_LE(kt::reconstructionError(d, P), 1e-12 * normA);
            const std::vector<double> x = merged.solve(b);
            EXPECT_LE(kt::scaledResidual(c.dense, x.data(), b.data()), 1e-14);
            EXPECT_LE(relativeDifference(x, x0), 1e-8);

            // The multifrontal factor of the merged data equals the serial one.
            Solver mf;
            mf.run(c, options, true);
            kt::DenseLdlt serialFactor, mfFactor;
            kt::extractFactor(d, serialFactor);
            kt::extractFactor(mf.data, mfFactor);
            double dl = 0.0, dd = 0.0, dmax = 0.0;
            for (std::size_t k = 0; k < serialFactor.L.size(); ++k)
                dl = std::max(dl, std::fabs(serialFactor.L[k] - mfFactor.L[k]));
            for (std::size_t k = 0; k < serialFactor.d.size(); ++k) {
                dd = std::max(dd, std::fabs(serialFactor.d[k] - mfFactor.d[k]));
                dmax = std::max(dmax, std::fabs(serialFactor.d[k]));
            }
            EXPECT_LE(dl, 1e-9);
            EXPECT_LE(dd, 1e-12 * dmax);
        }
    }
    EXPECT_GT(mergedSomewhere, 0ul);  // the cases do exercise merging
}

// setBlock after an analysis reaches every place setBlocks does (mirror halves of group tiles included):
// values first set to garbage, then entry by entry to the true ones, must factor to A.
TEST(BlockMerge, SetBlockAfterAnalysisThenRefactor) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        Solver s;
        s.run(c, kSettings[1]);
        std::vector<double> garbage(c.values.size());
        for (std::size_t k = 0; k < garbage.size(); ++k) garbage[k] = 1.0 + 0.25 * static_cast<double>(k % 7);
        s.analyzer.setBlocks(s.data, garbage.data(), c.valuePointers.data());
        s.tamber.factorSerial(s.data);
        for (unsigned long e = 0; e < s.analyzer.numEntries(); ++e)
            s.analyzer.setBlock(s.data, e, c.values.data() + c.valuePointers[e]);
        ASSERT_EQ(s.data.isFactored, 0);
        s.tamber.factorSerial(s.data);
        EXPECT_LE(kt::reconstructionError(s.data, permutedDense(c, s.analyzer)),
                  1e-12 * kt::normInf(c.dense));
    }
}

// Switching constraint equations off and on again in merged data (found through factorPosition) solves like
// the same switches in unmerged data, and switching them back restores the first solution.
TEST(BlockMerge, RankModOnMergedDataMatchesUnmerged) {
    for (const Case& c : cases()) {
        const unsigned int n = static_cast<unsigned int>(c.sizes.size());
        if (c.firstConstraint == n) continue;
        SCOPED_TRACE(c.name);
        Solver plain, merged;
        plain.run(c, unmerged());
        merged.run(c, kSettings[1]);
        RankMod plainMod, mergedMod;
        ASSERT_TRUE(plainMod.prepare(plain.data, 4));
        ASSERT_TRUE(mergedMod.prepare(merged.data, 4));
        std::mt19937 rng(n);
        RankMod::EquationList plainOff, mergedOff, none;
        for (unsigned int k = 0; k < 5; ++k) {
            const unsigned int ub = c.firstConstraint + rng() % (n - c.firstConstraint);
            const unsigned int l = rng() % c.sizes[ub];
            RankMod::Equation eq;
            ASSERT_TRUE(RankMod::toFactorNumbering(merged.analyzer, ub, l, eq));
            mergedOff.push_back(eq);
            plainOff.push_back(RankMod::toFactorNumbering(plain.data, ub, l));
        }
        const std::vector<double> b = randomVector(n + 7, c.dense.n);
        auto solveBoth = [&](std::vector<double>& xPlain, std::vector<double>& xMerged) {
            for (Solver* s : {&plain, &merged}) {
                std::vector<double> xp(b.size()), x(b.size());
                s->analyzer.permuteVector(b.data(), xp.data());
                TamberSolve::solve(s->data, xp.data());
                s->analyzer.unpermuteVector(xp.data(), x.data());
                (s == &plain ? xPlain : xMerged) = x;
            }
        };
        std::vector<double> before, mergedBefore, off, mergedOffX, after, mergedAfter;
        solveBoth(before, mergedBefore);
        ASSERT_TRUE(plainMod.apply(plain.data, plainOff, none, RankMod::batched));
        ASSERT_TRUE(mergedMod.apply(merged.data, mergedOff, none, RankMod::batched));
        EXPECT_EQ(plainMod.numActive(), mergedMod.numActive());
        solveBoth(off, mergedOffX);
        EXPECT_LE(relativeDifference(mergedOffX, off), 1e-8);
        EXPECT_GT(relativeDifference(off, before), 1e-6);  // the switch did change the system
        ASSERT_TRUE(plainMod.apply(plain.data, none, plainOff, RankMod::singles));
        ASSERT_TRUE(mergedMod.apply(merged.data, none, mergedOff, RankMod::singles));
        solveBoth(after, mergedAfter);
        EXPECT_LE(relativeDifference(mergedAfter, after), 1e-8);
        EXPECT_LE(relativeDifference(mergedAfter, mergedBefore), 1e-8);
    }
}

// The merge criterion against the time model it minimizes, w·(block operations) + flops with the block
// operations counted by Tamber::estimateWork on the resulting pattern: at weight 0 only joins that add no
// explicit zero are taken (the flops stay those of the blocks); at the default weight the modelled time
// of the merged pattern lies below the unmerged one, and a block operation made far dearer merges more.
TEST(BlockMerge, CriterionLowersTheModelledTime) {
    auto modelled = [](Solver& s, double w) {
        unsigned int work = 0;
        s.tamber.estimateWork(s.data, &work);
        return w * work + s.report.cost.flops;
    };
    unsigned long zeroFreeMerges = 0;
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const unsigned int n = static_cast<unsigned int>(c.sizes.size());
        Solver zeroFree;
        zeroFree.run(c, merging(Options().maxMergedSize, 0.0));
        EXPECT_EQ(zeroFree.report.explicitZeros, 0ul);
        EXPECT_EQ(zeroFree.report.cost.scalarEntries, zeroFree.report.unmergedCost.scalarEntries);
        EXPECT_DOUBLE_EQ(zeroFree.report.cost.flops, zeroFree.report.unmergedCost.flops);
        zeroFreeMerges += n - zeroFree.report.mergedBlocks;
    }
    EXPECT_GT(zeroFreeMerges, 0ul);

    const double w = Options().mergeOperationFlops;
    const struct {
        scenes::SceneKind kind;
        unsigned int size;
        const char* name;
    } larger[] = {{scenes::SceneKind::cloth, 24, "cloth"}, {scenes::SceneKind::boxWall, 12, "boxwall"}};
    for (const auto& scene : larger) {
        const Case c = fromScene(scene.kind, scene.size, 1, scene.name);
        SCOPED_TRACE(c.name);
        Solver plain, merged, dear;
        plain.run(c, unmerged());
        merged.run(c, merging(Options().maxMergedSize, w));
        dear.run(c, merging(Options().maxMergedSize, 1e3 * w));
        EXPECT_LT(merged.report.mergedBlocks, plain.report.mergedBlocks);
        EXPECT_LT(dear.report.mergedBlocks, merged.report.mergedBlocks);
        EXPECT_LT(modelled(merged, w), modelled(plain, w));  // (estimateWork resets the factors)
    }
}

// With a size limit of one scalar nothing can merge: the merged analysis yields the unmerged structure and
// values, up to the permutation, which is the identity of the positions.
TEST(BlockMerge, NoMergeGivesTheUnmergedStructure) {
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        Solver plain, merged;
        plain.run(c, unmerged());
        merged.run(c, merging(1, 1e6));
        const unsigned int n = static_cast<unsigned int>(c.sizes.size());
        ASSERT_EQ(merged.report.mergedBlocks, n);
        EXPECT_EQ(merged.report.explicitZeros, 0ul);
        const SkeletonMatrix &S0 = plain.data.skeleton, &S1 = merged.data.skeleton;
        ASSERT_EQ(S0.numEntries(), S1.numEntries());
        EXPECT_TRUE(std::equal(S0.colPointers, S0.colPointers + n + 1, S1.colPointers));
        EXPECT_TRUE(std::equal(S0.rowIndices, S0.rowIndices + S0.numEntries(), S1.rowIndices));
        EXPECT_TRUE(std::equal(S0.fillFlags, S0.fillFlags + S0.numEntries(), S1.fillFlags));
        EXPECT_TRUE(
            std::equal(plain.data.etree.parent, plain.data.etree.parent + n, merged.data.etree.parent));
        EXPECT_TRUE(std::equal(plain.data.etree.postOrder, plain.data.etree.postOrder + n,
                               merged.data.etree.postOrder));
        for (unsigned int k = 0; k < n; ++k) EXPECT_EQ(merged.data.permutation.forward[k], k);
        const SparseMatrix<double>&A0 = plain.data.matrix, &A1 = merged.data.matrix;
        ASSERT_EQ(A0.numBlocks, A1.numBlocks);
        const unsigned long last = A0.numBlocks - 1;
        const unsigned long values = static_cast<unsigned long>(A0.blockPointers[last] - A0.values) +
                                     A0.blockStrides[A0.rowIndices[last]] * A0.blockStrides[n - 1];
        EXPECT_EQ(std::memcmp(A0.values, A1.values, values * sizeof(double)), 0);
        EXPECT_EQ(
            std::memcmp(plain.data.diagonal.data, merged.data.diagonal.data, c.dense.n * sizeof(double)), 0);
    }
}

}  // namespace

// The cost the analysis decides on is the cost of the factor it builds: the report's cost equals the one
// counted on data.skeleton with data's block sizes (merged, explicit zeros included), it is the cost of the
// kept candidate, and the kept candidate has the smaller modelled time. Random and scene patterns, merged
// and not, with nested dissection forced into the decision.
TEST(BlockMerge, DecidedCostIsTheCostOfTheFactorBuilt) {
    std::vector<Case> more = {fromScene(scenes::SceneKind::cloth, 16, 1, "cloth"),
                              fromScene(scenes::SceneKind::boxWall, 8, 1, "boxwall")};
    unsigned long decided = 0, nestedKept = 0;
    auto check = [&](const Case& c) {
        for (const bool merge : {true, false}) {
            for (const double threshold : {0.0, 5e7}) {
                SCOPED_TRACE(c.name + (merge ? " merged" : " unmerged") + " threshold " +
                             std::to_string(threshold));
                Options options;
                options.mergeBlocks = merge;
                options.nestedDissectionThreshold = threshold;
                Analyzer analyzer;
                TamberData<double> data;
                const Report r = analyzer.analyze(c.problem(), options, data);
                ASSERT_TRUE(r.ok) << r.message;
                const FactorCost built = factorCost(data.skeleton, data.matrix.blockSizes);
                ASSERT_EQ(std::make_tuple(r.cost.blocks, r.cost.blockEntries, r.cost.scalarEntries),
                          std::make_tuple(built.blocks, built.blockEntries, built.scalarEntries));
                ASSERT_DOUBLE_EQ(r.cost.flops, built.flops);
                ASSERT_DOUBLE_EQ(r.cost.blockOperations, built.blockOperations);
                ASSERT_EQ(r.cost.scalarEntries, r.unmergedCost.scalarEntries + r.explicitZeros);
                ASSERT_EQ(r.mergedBlocks, built.blocks);
                const FactorCost& kept =
                    r.usedNestedDissection ? r.nestedDissectionCost : r.minimumDegreeCost;
                ASSERT_EQ(kept.scalarEntries, r.cost.scalarEntries);
                ASSERT_DOUBLE_EQ(kept.flops, r.cost.flops);
                if (r.nestedDissectionCost.blocks > 0) {
                    ++decided;
                    const double w = options.mergeOperationFlops;
                    const FactorCost& other =
                        r.usedNestedDissection ? r.minimumDegreeCost : r.nestedDissectionCost;
                    EXPECT_LE(kept.modelFlops(w), other.modelFlops(w));
                    nestedKept += r.usedNestedDissection;
                }
                if (!merge) {
                    EXPECT_EQ(r.explicitZeros, 0ul);
                }
            }
        }
    };
    for (const Case& c : cases()) check(c);
    for (const Case& c : more) check(c);
    EXPECT_GT(decided, 10ul);  // the decision was taken, not just skipped
    RecordProperty("nestedDissectionKept", static_cast<int>(nestedKept));
}
