// The multifrontal factorization on the physics scenes (chain, ragdolls, cloth, box wall), analysed the
// library's standard way with and without block merging: equal to the serial factorization within rounding
// for 1 … 16 threads, the shared steps of the top's large nodes on and off giving the same bits, and the same
// bits on every repeat. (Needs the scene library of the tools, so it is not among the thread-sanitizer tests;
// Multifront_test covers the threads there on random patterns.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Tamber.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using namespace kivTamber::scenes;

namespace {

// A scene's system analysed as the solver analyses it, values set.
struct SceneSystem {
    BlockProblem problem;
    Analysis::Analyzer analyzer;

    bool load(SceneKind kind, unsigned long blocks, bool merge, TamberData<double>& data) {
        auto scene = makeScene(kind, sizeForBlockCount(kind, blocks));
        scene->step(0.01);
        scene->build(problem);
        const Analysis::Problem p = problem.pattern();
        Analysis::Options options;
        options.mergeBlocks = merge;
        if (!analyzer.analyze(p, options, data).ok) return false;
        Tamber tamber;
        tamber.estimateWork(data, nullptr);
        analyzer.setBlocks(data, problem.values.data(), problem.valuePointers.data());
        return true;
    }
};

// D and every used element of L's tiles (s_i rows of s_j columns), in pattern order.
std::vector<double> factorValues(const TamberData<double>& d) {
    std::vector<double> v(d.diagonal.data, d.diagonal.data + d.diagonal.size);
    const SkeletonMatrix& S = d.skeleton;
    for (unsigned int i = 0; i < S.n; ++i) {
        for (unsigned int e = S.colPointers[i]; e < S.colPointers[i + 1]; ++e) {
            const unsigned int j = S.rowIndices[e], s_i = d.factor.blockSizes[i],
                               s_j = d.factor.blockSizes[j];
            const unsigned int p_j = d.factor.blockStrides[j];
            for (unsigned int r = 0; r < s_i; ++r)
                for (unsigned int c = 0; c < s_j; ++c)
                    v.push_back(d.factor.blockPointers[e][static_cast<unsigned long>(r) * p_j + c]);
        }
    }
    return v;
}

// Largest |a − b| / (1 + |a|).
double relativeDifference(const std::vector<double>& a, const std::vector<double>& b) {
    EXPECT_EQ(a.size(), b.size());
    double worst = 0.0;
    for (std::size_t k = 0; k < std::min(a.size(), b.size()); ++k)
        worst = std::max(worst, std::fabs(a[k] - b[k]) / (1.0 + std::fabs(a[k])));
    return worst;
}

struct Case {
    SceneKind kind;
    const char* name;
    unsigned long blocks;
};

class MfScenes : public ::testing::TestWithParam<Case> {};

TEST_P(MfScenes, EqualToSerialSharedOrNotForEveryThreadCountMergedOrNot) {
    for (bool merge : {false, true}) {
        SCOPED_TRACE(merge ? "merged" : "not merged");
        SceneSystem sys;
        TamberData<double> serial, shared, unshared;
        ASSERT_TRUE(sys.load(GetParam().kind, GetParam().blocks, merge, serial));
        ASSERT_TRUE(sys.load(GetParam().kind, GetParam().blocks, merge, shared));
        ASSERT_TRUE(sys.load(GetParam().kind, GetParam().blocks, merge, unshared));
        Tamber tamber;
        tamber.factorSerial(serial);
        const std::vector<double> reference = factorValues(serial);
        double scale = 1.0;
        for (double x : reference) scale = std::max(scale, std::fabs(x));
        shared.multifront.minSharedWork = 0.0;
        unshared.multifront.intraFrontSplit = false;
        for (unsigned int threads : {1u, 2u, 3u, 4u, 8u, 16u}) {
            SCOPED_TRACE(std::to_string(threads) + " threads");
            shared.numThreads = unshared.numThreads = threads;
            tamber.factorMF(shared);
            tamber.factorMF(unshared);
            ASSERT_EQ(shared.isFactored, 1);
            EXPECT_EQ(shared.badPivot.scalar, TamberData<double>::BadPivot::noPivot);
            const std::vector<double> bits = factorValues(shared);
            ASSERT_TRUE(factorValues(unshared) == bits) << "sharing the top's steps changed the result";
            EXPECT_LE(relativeDifference(reference, bits), 1e-9 * scale);
            for (int run = 0; run < 3; ++run) {
                tamber.factorMF(shared);
                ASSERT_TRUE(factorValues(shared) == bits) << "run " << run;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Scenes, MfScenes,
                         ::testing::Values(Case{SceneKind::chain, "chain", 400},
                                           Case{SceneKind::ragdolls, "ragdolls", 600},
                                           Case{SceneKind::cloth, "cloth", 1500},
                                           Case{SceneKind::boxWall, "boxwall", 1500}),
                         [](const ::testing::TestParamInfo<Case>& c) { return std::string(c.param.name); });

}  // namespace
