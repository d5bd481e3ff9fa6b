// tamber-demo: its support code against dense references (the scene handed to the Solver as bodies,
// constraints and Jacobians, and as a general pattern), then the built program at tiny sizes (every scene,
// both factorizations and precisions; no allocation after the first step; fixed lines to the character; bad
// command lines). No timing.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#if __has_include("demo/DemoSupport.h")
#include "demo/DemoSupport.h"
#include "demo/SceneSystem.h"
#include "testing/DenseReference.h"
#define KIVT_DEMO_SUPPORT 1
#endif

namespace {

#ifdef KIVT_DEMO_SUPPORT

using namespace kivTamber;
using namespace kivTamber::demo;

// A small problem of each scene kind, at a seed-dependent time; the box wall with every potential contact.
std::unique_ptr<scenes::Scene> smallScene(scenes::SceneKind kind, unsigned int seed,
                                          scenes::BlockProblem& p) {
    const unsigned int size = kind == scenes::SceneKind::chain      ? 4
                              : kind == scenes::SceneKind::ragdolls ? 1
                                                                    : 3;
    std::unique_ptr<scenes::Scene> scene = scenes::makeScene(kind, size);
    if (auto* wall = dynamic_cast<scenes::BoxWall*>(scene.get())) wall->includeInactive = true;
    scene->setTime(0.3 * seed);
    scene->build(p);
    return scene;
}

const scenes::SceneKind kKinds[] = {scenes::SceneKind::boxWall, scenes::SceneKind::chain,
                                    scenes::SceneKind::ragdolls, scenes::SceneKind::cloth};

// The scaled residual against dense arithmetic, then the mask: unit equations for inactive contacts, for some
// single constraint equations and for one body equation; every other entry kept.
TEST(DemoSupport, ResidualAndMaskAgreeWithTheDenseMatrix) {
    for (scenes::SceneKind kind : kKinds) {
        for (unsigned int seed = 1; seed <= 3; ++seed) {
            SCOPED_TRACE(::testing::Message() << sceneOptionName(kind) << ", seed " << seed);
            scenes::BlockProblem p;
            std::unique_ptr<scenes::Scene> scene = smallScene(kind, seed, p);
            const unsigned long N = p.scalarSize(), first = p.blockOffsets[p.firstConstraint];
            std::vector<double> A(N * N), x(N), b(N), r(N), rowSums(N), expected(N), after(N * N);
            scenes::assembleDense(p, A.data());
            randomVector(seed, x.data(), N);
            randomVector(seed + 100, b.data(), N);
            double normR = 0, normA = 0, normX = 0, normB = 0;
            for (unsigned long i = 0; i < N; ++i) {
                double ax = 0, rowSum = 0;
                for (unsigned long j = 0; j < N; ++j)
                    ax += A[i * N + j] * x[j], rowSum += std::fabs(A[i * N + j]);
                expected[i] = b[i] - ax;
                normR = std::max(normR, std::fabs(expected[i]));
                normA = std::max(normA, rowSum);
                normX = std::max(normX, std::fabs(x[i]));
                normB = std::max(normB, std::fabs(b[i]));
            }
            const double scaled = scaledResidual(p, x.data(), b.data(), r.data(), rowSums.data());
            for (unsigned long i = 0; i < N; ++i)
                ASSERT_NEAR(r[i], expected[i], 1e-12 * (1 + normA)) << "row " << i;
            EXPECT_NEAR(scaled, normR / (normA * normX + normB), 1e-14);

            EquationMask mask;
            mask.reset(p);
            EXPECT_EQ(mask.activeConstraintEquations(p), N - first);
            if (auto* wall = dynamic_cast<scenes::BoxWall*>(scene.get())) {
                mask.fromContacts(p, *wall);
                for (unsigned int c = 0; c < wall->numContacts(); ++c) {
                    const unsigned int blk = p.firstConstraint + c;
                    for (unsigned int k = 0; k < p.blockSizes[blk]; ++k)
                        EXPECT_EQ(mask.isActive(p.blockOffsets[blk] + k), wall->isActive(c))
                            << "contact " << c;
                }
            }
            randomVector(seed + 7, x.data(), N);
            for (unsigned long k = first; k < N; ++k)
                if (x[k] > 0.4) mask.set(k, false);
            mask.set(seed % first, false);
            unsigned long activeConstraints = 0;
            for (unsigned long k = first; k < N; ++k) activeConstraints += mask.isActive(k) ? 1 : 0;
            EXPECT_EQ(mask.activeConstraintEquations(p), activeConstraints);
            mask.apply(p);
            scenes::assembleDense(p, after.data());
            for (unsigned long i = 0; i < N; ++i)
                for (unsigned long j = 0; j < N; ++j)
                    ASSERT_EQ(after[i * N + j], mask.isActive(i) && mask.isActive(j)
                                                    ? A[i * N + j]
                                                    : static_cast<double>(i == j))
                        << "(" << i << ", " << j << ")";
        }
    }
}

// The scene as the Solver sees it: J(c, b) as the physics holds it is the transpose of the stored entry (b,
// c); both roads (bodies/constraints/Jacobians, and the general pattern with setPatternValues) solve the
// active system like a dense L·D·Lᵀ of the scene's matrix with the switched-off equations as unit equations.
TEST(SceneSystem, BothRoadsSolveTheActiveSystemLikeTheDenseReference) {
    for (scenes::SceneKind kind : kKinds) {
        for (unsigned int seed = 1; seed <= 2; ++seed) {
            SCOPED_TRACE(::testing::Message() << sceneOptionName(kind) << ", seed " << seed);
            scenes::BlockProblem p;
            std::unique_ptr<scenes::Scene> scene = smallScene(kind, seed, p);
            const unsigned long N = p.scalarSize();
            const unsigned int first = p.firstConstraint;
            kivTamber::testing::DenseSymmetric A(static_cast<unsigned int>(N));
            scenes::assembleDense(p, A.a.data());

            SceneSystem<double> bodies, general;
            bodies.describe(p);
            general.describe(p, true);
            ASSERT_FALSE(bodies.general());
            ASSERT_TRUE(general.general());
            const SystemStructure& s = bodies.structure();
            ASSERT_EQ(s.numBodies(), first);
            ASSERT_EQ(s.numConstraints(), p.numBlocks - first);
            bodies.gather(p);
            general.gather(p);
            const double* J = bodies.jacobians();
            for (const auto& cb : s.jacobians) {
                const unsigned int c = cb.first, b = cb.second, sc = s.constraintSizes[c],
                                   sb = s.bodySizes[b];
                for (unsigned int r = 0; r < sc; ++r)
                    for (unsigned int k = 0; k < sb; ++k)
                        ASSERT_EQ(*J++, A(p.blockOffsets[first + c] + r, p.blockOffsets[b] + k))
                            << "J(" << c << ", " << b << ") (" << r << ", " << k << ")";
            }
            EXPECT_EQ(s.jacobians.size(), bodies.jacobianBlocks());

            // Switch off about a third of the constraint rows in both solvers and in the reference.
            EquationMask mask;
            mask.reset(p);
            std::vector<double> pick(N), b(N), x1(N, 7.0), x2(N, 7.0);
            randomVector(seed + 40, pick.data(), N);
            randomVector(seed + 50, b.data(), N);
            Solver<double> s1, s2;
            ASSERT_TRUE(bodies.analyze(s1, p).ok());
            ASSERT_TRUE(general.analyze(s2, p).ok());
            ASSERT_TRUE(bodies.setValues(s1, p).ok());
            ASSERT_TRUE(general.setValues(s2, p).ok());
            for (unsigned int blk = first; blk < p.numBlocks; ++blk) {
                for (unsigned int k = 0; k < p.blockSizes[blk]; ++k) {
                    const unsigned long q = p.blockOffsets[blk] + k;
                    if (pick[q] > 0.35) continue;
                    mask.set(q, false);
                    b[q] = 0.0;
                    ASSERT_TRUE(s1.setActive(blk - first, k, false).ok());
                    ASSERT_TRUE(s2.setActive(blk - first, k, false).ok());
                }
            }
            ASSERT_TRUE(s1.factor().ok());
            ASSERT_TRUE(s2.factor().ok());
            ASSERT_TRUE(s1.solve(b.data(), x1.data()).ok());
            ASSERT_TRUE(s2.solve(b.data(), x2.data()).ok());
            mask.apply(p);
            kivTamber::testing::DenseSymmetric masked(static_cast<unsigned int>(N));
            scenes::assembleDense(p, masked.a.data());
            const std::vector<double> xd =
                kivTamber::testing::denseSolve(kivTamber::testing::denseLdlt(masked), b);
            EXPECT_LT(relativeDifference(x1.data(), xd.data(), N), 1e-10);
            EXPECT_LT(relativeDifference(x2.data(), xd.data(), N), 1e-10);
            EXPECT_LT(kivTamber::testing::scaledResidual(masked, x1.data(), b.data()), 1e-14);

            // Single precision: the arrays in float, the residual against the double matrix.
            SceneSystem<float> single;
            single.describe(p);
            Solver<float> s3;
            std::vector<float> bf(b.begin(), b.end()), xf(N);
            std::vector<double> bd(bf.begin(), bf.end());
            scene->build(p);  // the values before the mask
            single.gather(p);
            ASSERT_TRUE(single.analyze(s3, p).ok());
            ASSERT_TRUE(single.setValues(s3, p).ok());
            for (unsigned long q = p.blockOffsets[first]; q < N; ++q)
                if (!mask.isActive(q)) {
                    unsigned int blk = first;
                    while (p.blockOffsets[blk + 1] <= q) ++blk;
                    ASSERT_TRUE(
                        s3.setActive(blk - first, static_cast<unsigned int>(q - p.blockOffsets[blk]), false)
                            .ok());
                }
            ASSERT_TRUE(s3.factor().ok());
            ASSERT_TRUE(s3.solve(bf.data(), xf.data()).ok());
            std::vector<double> xfd(xf.begin(), xf.end());
            EXPECT_LT(kivTamber::testing::scaledResidual(masked, xfd.data(), bd.data()), 1e-5);
        }
    }
}

// A pattern the body/constraint form cannot hold goes to the Solver as a general pattern: a non-zero
// constraint diagonal block (a compliance) found by describe.
TEST(SceneSystem, ACompliantConstraintMakesTheGeneralPattern) {
    scenes::BlockProblem p;
    smallScene(scenes::SceneKind::chain, 1, p);
    SceneSystem<double> s;
    s.describe(p);
    EXPECT_FALSE(s.general());
    const unsigned long diagonal = p.colPointers[p.numBlocks] - 1;  // the last constraint's diagonal block
    p.entryValues(diagonal)[0] = -1e-3;
    s.describe(p);
    EXPECT_TRUE(s.general());
}

TEST(DemoSupport, SeriesAndTableRows) {
    Series s;
    for (double v : {5.0, 1.0, 4.0, 2.0}) s.add(v);
    EXPECT_EQ(s.median(), 3.0);  // the mean of the middle two
    EXPECT_EQ(withSeparators(999), "999");
    EXPECT_EQ(withSeparators(1234567), "1,234,567");
    EXPECT_EQ(displayWidth("‖x‖ µs ×"), 8u);
    EXPECT_EQ(padLeft("2.0×", 6), "  2.0×");
    EXPECT_EQ(padRight("µs", 4), "µs  ");

    Series t;
    for (double v : {2e-3, 1e-3, 3.5e-3}) t.add(v);
    EXPECT_EQ(timeRow("factor", t, 8), "  factor       2.000 ms      1.000 ms      3.500 ms");
    Series u;
    for (double v : {5e-6, 1.5e-3}) u.add(v);  // median 752.5 µs: the unit follows the median
    EXPECT_EQ(timeRow("x", u, 1), "  x   752.500 µs      5.000 µs   1500.000 µs");
    Series v;
    v.add(1.5);
    EXPECT_EQ(timeRow("y", v, 1), "  y     1.500 s       1.500 s       1.500 s ");
    EXPECT_EQ(valueRow("‖r‖", t, "%.1e", 4), "  ‖r‖       2.0e-03       1.0e-03       3.5e-03");
    Series c;
    for (double x : {1234.0, 99.0, 1235.0, 5000000.0}) c.add(x);
    EXPECT_EQ(countRow("n", c, 1), "  n        1,235            99     5,000,000");
}

#endif  // KIVT_DEMO_SUPPORT

// <build>/tools/tamber-demo, found from this test's own path <build>/tests/Demo_test; empty when absent.
std::string demoPath() {
    const std::string path =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools/tamber-demo")
            .string();
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

struct DemoRun {
    int status;
    std::string out, err;
};

std::string takeFile(const std::string& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    std::remove(file.c_str());
    return text.str();
}

// Runs the demo with `args` (already shell-quoted where needed), capturing both streams.
DemoRun runDemo(const std::string& args) {
    const std::string base = ::testing::TempDir() + "tamber-demo-" + std::to_string(getpid());
    const int raw =
        std::system(("'" + demoPath() + "' " + args + " >'" + base + ".out' 2>'" + base + ".err'").c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, takeFile(base + ".out"), takeFile(base + ".err")};
}

std::vector<std::string> linesWith(const std::string& text, const std::string& needle) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find(needle) != std::string::npos) lines.push_back(line);
    return lines;
}

#define SKIP_WITHOUT_DEMO()                                        \
    if (demoPath().empty())                                        \
    GTEST_SKIP() << "tamber-demo is not built next to this test (" \
                 << "<build>/tools/tamber-demo); build the target tamber-demo"

class DemoRuns : public ::testing::TestWithParam<const char*> {};

TEST_P(DemoRuns, CompletesWithoutAllocatingAfterTheFirstStep) {
    SKIP_WITHOUT_DEMO();
    SCOPED_TRACE(GetParam());
    const DemoRun run = runDemo(GetParam());
    const bool switching = std::string(GetParam()).find("--switch 0") == std::string::npos;  // phase 3 runs
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.find('\r'), std::string::npos) << "a progress line was written to a pipe";

    EXPECT_EQ(linesWith(run.out, "Phase 1 · analysis, once per structure: Solver::analyze (5 runs)").size(),
              1u);
    EXPECT_EQ(
        linesWith(run.out, "Phase 2 · time steps: set values → factor → solve → refine, through the Solver")
            .size(),
        1u);
    EXPECT_EQ(linesWith(run.out, "Phase 3 · switching").size(), switching ? 1u : 0u);
    EXPECT_EQ(linesWith(run.out, "Summary (medians): ").size(), 1u);

    // One allocation line per phase, each reporting zero steady-state allocations from both counters.
    const std::vector<std::string> alloc = linesWith(run.out, "allocations per step after the first");
    ASSERT_EQ(alloc.size(), switching ? 2u : 1u) << run.out;
    for (const std::string& line : alloc)
        EXPECT_NE(line.find(" 0   (max 0; kiv allocator 0, operator new 0; first step "), std::string::npos)
            << line;
    EXPECT_EQ(linesWith(run.out, "!!").size(), 0u) << run.out;
}

// The lines whose content does not depend on the machine, to the character: the chain's structure is known
// in closed form (link 0 hangs from the world, so its joint has one Jacobian block), and so are the Solver's
// choices for it (peeling, no merging, serial when told so).
TEST(DemoOutput, FixedLinesOfASmallChain) {
    SKIP_WITHOUT_DEMO();
    const DemoRun run = runDemo("--scene chain --size 8 --steps 3 --threads 1 --switch 24");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(
        run.out.rfind("tamber-demo: a hanging chain of 8 links and 8 ball joints (16 blocks, N = 72); 3 "
                      "steps, double, serial factorization\n\n",
                      0),
        0u)
        << run.out;
    for (const char* line :
         {"  system        8 bodies, 8 constraints, 15 Jacobian blocks\n", "  ordering      peeling\n",
          "  merging       none: no group of blocks is predicted to factor faster\n",
          "  factor L      486 scalar entries, 3.47e+03 flops per factorization, predicted "})
        EXPECT_NE(run.out.find(line), std::string::npos) << line << run.out;
    ASSERT_EQ(linesWith(run.out, "  factor (serial)          ").size(), 1u) << run.out;
    ASSERT_EQ(linesWith(run.out, "  factor again (serial)          ").size(), 1u) << run.out;
    // Every constraint equation of the chain switches each step: the Solver's choice, named in the label.
    const std::vector<std::string> sw = linesWith(run.out, "  switch (update in ");
    ASSERT_EQ(sw.size(), 1u) << run.out;
    EXPECT_NE(sw[0].find(" of 3 steps)"), std::string::npos) << sw[0];
    EXPECT_EQ(linesWith(run.out,
                        "  equations switched per step                        24            24            24")
                  .size(),
              1u)
        << run.out;
}

TEST(DemoOutput, ThreadsNameThePath) {
    SKIP_WITHOUT_DEMO();
    const DemoRun two = runDemo("--scene ragdolls --size 2 --steps 2 --threads 2 --switch 0");
    ASSERT_EQ(two.status, 0) << two.out << two.err;
    EXPECT_NE(two.out.find("; 2 steps, double, multifrontal factorization on 2 threads\n"),
              std::string::npos);
    EXPECT_EQ(linesWith(two.out, "  factor (multifrontal, 2 threads)    ").size(), 1u) << two.out;
    const DemoRun decide = runDemo("--scene ragdolls --size 2 --steps 2 --switch 0");
    ASSERT_EQ(decide.status, 0) << decide.out << decide.err;
    EXPECT_NE(decide.out.find("; 2 steps, double, serial or multifrontal as the Solver decides\n"),
              std::string::npos);
    EXPECT_EQ(linesWith(decide.out, "  factor (serial)    ").size(), 1u) << decide.out;  // a small system
}

INSTANTIATE_TEST_SUITE_P(
    TinyScenes, DemoRuns,
    ::testing::Values("--scene boxes --size 3 --steps 3 --threads 0 --switch 6",
                      "--scene boxes --size 4 --steps 4 --threads 2 --float --switch 9",
                      "--scene chain --size 8 --steps 3 --threads 1",
                      "--scene ragdolls --size=2 --steps=3 --threads=2 --switch=11",
                      "--scene cloth --size 4 --steps 3 --threads 0 --switch 0 --double"));

TEST(DemoCommandLine, HelpNamesEveryOption) {
    SKIP_WITHOUT_DEMO();
    const DemoRun run = runDemo("--help");
    ASSERT_TRUE(run.status == 0 && run.err.empty()) << run.status << run.err;
    EXPECT_EQ(run.out.rfind("Usage: tamber-demo [options]\n", 0), 0u) << run.out;
    for (const char* option : {"--scene", "--size", "--threads", "--float", "--double", "--steps", "--switch",
                               "--quiet", "--help", "boxes", "chain", "ragdolls", "cloth"})
        EXPECT_NE(run.out.find(option), std::string::npos) << option;
}

TEST(DemoCommandLine, BadOptionsExitWithStatusTwoAndAMessage) {
    SKIP_WITHOUT_DEMO();
    struct Bad {
        const char* args;
        const char* message;
    };
    const Bad cases[] = {
        {"--x", "tamber-demo: unknown option '--x' (see --help)\n"},
        {"stray", "tamber-demo: unexpected argument 'stray' (see --help)\n"},
        {"--size", "tamber-demo: option '--size' needs a value (see --help)\n"},
        {"--size abc",
         "tamber-demo: option '--size' expects a whole number from 1 to 2000000, got 'abc' (see --help)\n"},
        {"--steps 1",
         "tamber-demo: option '--steps' expects a whole number from 2 to 100000, got '1' (see --help)\n"},
        {"--scene moon",
         "tamber-demo: unknown scene 'moon': choose boxes, chain, ragdolls or cloth (see --help)\n"},
        {"--size 5000", "tamber-demo: --size 5000 is too large for the boxes scene (at most 1000)\n"},
        {"--quiet=yes", "tamber-demo: option '--quiet' takes no value (see --help)\n"},
    };
    for (const Bad& bad : cases) {
        SCOPED_TRACE(bad.args);
        const DemoRun run = runDemo(bad.args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err, bad.message);
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
