// tamber-demo: its support code against dense references (the residual it reports, the unit equations it
// makes of inactive constraints, its statistics and table format, its command line), then the built program
// at tiny sizes: every scene, both factorizations and both precisions must run to completion with exit status
// 0 (the demo itself fails on a residual above its limit, on solutions of the updated and the new factor that
// disagree, and on RankMod failures), report no allocation in the steps after the first, and reject bad
// command lines with a message and status 2. No timing is asserted.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numeric>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#if __has_include("demo/DemoSupport.h")
#include "demo/DemoSupport.h"
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

TEST(DemoSupport, ResidualAgreesWithTheDenseMatrix) {
    for (scenes::SceneKind kind : kKinds) {
        for (unsigned int seed = 1; seed <= 3; ++seed) {
            SCOPED_TRACE(::testing::Message() << sceneOptionName(kind) << ", seed " << seed);
            scenes::BlockProblem p;
            smallScene(kind, seed, p);
            const unsigned long N = p.scalarSize();
            std::vector<double> A(N * N), x(N), b(N), r(N), rowSums(N);
            scenes::assembleDense(p, A.data());
            randomVector(seed, x.data(), N);
            randomVector(seed + 100, b.data(), N);

            double normR = 0, normA = 0, normX = 0, normB = 0;
            std::vector<double> expected(N);
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

            // b = A·x exactly (up to the rounding of the product): the scaled residual is at rounding level.
            for (unsigned long i = 0; i < N; ++i) b[i] -= expected[i];
            EXPECT_LT(scaledResidual(p, x.data(), b.data(), r.data(), rowSums.data()), 1e-15);
            EXPECT_DOUBLE_EQ(relativeDifference(x.data(), x.data(), N), 0.0);
            EXPECT_NEAR(relativeDifference(b.data(), std::vector<double>(N, 0.0).data(), N),
                        std::sqrt(std::inner_product(b.begin(), b.end(), b.begin(), 0.0)), 1e-12);
        }
    }
}

TEST(DemoSupport, MaskMakesUnitEquationsOfInactiveEquationsAndKeepsTheRest) {
    for (scenes::SceneKind kind : kKinds) {
        for (unsigned int seed = 1; seed <= 3; ++seed) {
            SCOPED_TRACE(::testing::Message() << sceneOptionName(kind) << ", seed " << seed);
            scenes::BlockProblem p;
            std::unique_ptr<scenes::Scene> scene = smallScene(kind, seed, p);
            const unsigned long N = p.scalarSize(), first = p.blockOffsets[p.firstConstraint];
            EquationMask mask;
            mask.reset(p);
            ASSERT_EQ(mask.size(), N);
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
            // Also single equations of some constraints, and one of a body.
            std::vector<double> pick(N);
            randomVector(seed + 7, pick.data(), N);
            for (unsigned long k = first; k < N; ++k)
                if (pick[k] > 0.4) mask.set(k, false);
            mask.set(seed % first, false);
            unsigned long activeConstraints = 0;
            for (unsigned long k = first; k < N; ++k) activeConstraints += mask.isActive(k) ? 1 : 0;
            EXPECT_EQ(mask.activeConstraintEquations(p), activeConstraints);

            std::vector<double> before(N * N), after(N * N);
            scenes::assembleDense(p, before.data());
            mask.apply(p);
            scenes::assembleDense(p, after.data());
            for (unsigned long i = 0; i < N; ++i) {
                for (unsigned long j = 0; j < N; ++j) {
                    const bool unit = !mask.isActive(i) || !mask.isActive(j);
                    const double want = unit ? (i == j ? 1.0 : 0.0) : before[i * N + j];
                    ASSERT_EQ(after[i * N + j], want) << "(" << i << ", " << j << ")";
                }
            }
        }
    }
}

TEST(DemoSupport, SeriesAndTableRows) {
    Series s;
    EXPECT_EQ(s.median(), 0.0);
    for (double v : {5.0, 1.0, 4.0}) s.add(v);
    EXPECT_EQ(s.median(), 4.0);
    s.add(2.0);
    EXPECT_EQ(s.median(), 3.0);  // the mean of the middle two
    EXPECT_EQ(s.min(), 1.0);
    EXPECT_EQ(s.max(), 5.0);

    EXPECT_EQ(withSeparators(0), "0");
    EXPECT_EQ(withSeparators(999), "999");
    EXPECT_EQ(withSeparators(1000), "1,000");
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

TEST(DemoSupport, CommandLinesThatAreAccepted) {
    auto parse = [](std::vector<const char*> args, Options& o) {
        args.insert(args.begin(), "tamber-demo");
        std::string error;
        const bool ok = parseOptions(static_cast<int>(args.size()), args.data(), o, error);
        EXPECT_TRUE(ok) << error;
        EXPECT_EQ(error, "");
    };
    Options o;
    parse({}, o);
    EXPECT_EQ(o.scene, scenes::SceneKind::boxWall);
    EXPECT_EQ(o.size, defaultSize(scenes::SceneKind::boxWall));
    EXPECT_EQ(o.steps, 40u);
    EXPECT_FALSE(o.useFloat || o.quiet || o.help);

    Options c;
    parse({"--scene", "cloth"}, c);
    EXPECT_EQ(c.scene, scenes::SceneKind::cloth);
    EXPECT_EQ(c.size, defaultSize(scenes::SceneKind::cloth));  // the default of the scene chosen

    Options all;
    parse({"--size=7", "--scene", "chain", "--float", "--threads", "0", "--steps=2", "--switch", "0",
           "--quiet"},
          all);
    EXPECT_EQ(all.scene, scenes::SceneKind::chain);
    EXPECT_EQ(all.size, 7u);
    EXPECT_TRUE(all.useFloat);
    EXPECT_EQ(all.threads, 0u);
    EXPECT_EQ(all.steps, 2u);
    EXPECT_EQ(all.switchEquations, 0u);
    EXPECT_TRUE(all.quiet);

    Options last;  // the later of --float and --double wins
    parse({"--float", "--double", "--help"}, last);
    EXPECT_FALSE(last.useFloat);
    EXPECT_TRUE(last.help);

    Options big;  // the size limit is the one of the scene named, wherever --scene stands
    parse({"--size", "2000000", "--scene", "chain"}, big);
    EXPECT_EQ(big.size, 2000000u);
    Options tooBig;
    std::string error;
    const char* argv[] = {"tamber-demo", "--size", "1001", "--scene", "cloth"};
    EXPECT_FALSE(parseOptions(5, argv, tooBig, error));
    EXPECT_EQ(error, "tamber-demo: --size 1001 is too large for the cloth scene (at most 1000)");

    const std::string help = helpText();
    EXPECT_NE(help.find("(default " + std::to_string(defaultThreads()) + ")"), std::string::npos) << help;
}

#endif  // KIVT_DEMO_SUPPORT

// <build>/tools/tamber-demo, found from this test's own path <build>/tests/Demo_test; empty when absent.
std::string demoPath() {
    char buffer[4096];
    const ssize_t len = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (len <= 0) return "";
    buffer[len] = '\0';
    std::string path(buffer);
    for (int up = 0; up < 2; ++up) {
        const std::string::size_type slash = path.rfind('/');
        if (slash == std::string::npos) return "";
        path.resize(slash);
    }
    path += "/tools/tamber-demo";
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

struct DemoRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the demo with `args` (already shell-quoted where needed), capturing both streams.
DemoRun runDemo(const std::string& args) {
    DemoRun run;
    const std::string errFile = ::testing::TempDir() + "tamber-demo-stderr-" + std::to_string(getpid());
    const std::string command = "'" + demoPath() + "' " + args + " 2>'" + errFile + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0) run.out.append(chunk, got);
    const int raw = pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::ifstream err(errFile);
    std::stringstream text;
    text << err.rdbuf();
    run.err = text.str();
    std::remove(errFile.c_str());
    return run;
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

struct Case {
    const char* args;
    bool switching;  // phase 3 runs
};

void PrintTo(const Case& c, std::ostream* os) {
    *os << "tamber-demo " << c.args;
}

class DemoRuns : public ::testing::TestWithParam<Case> {};

TEST_P(DemoRuns, CompletesWithoutAllocatingAfterTheFirstStep) {
    SKIP_WITHOUT_DEMO();
    const Case c = GetParam();
    SCOPED_TRACE(c.args);
    const DemoRun run = runDemo(c.args);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.find('\r'), std::string::npos) << "a progress line was written to a pipe";

    EXPECT_EQ(linesWith(run.out, "Phase 1 · analysis").size(), 1u);
    EXPECT_EQ(linesWith(run.out, "Phase 2 · time steps: assemble → factor → solve → refine").size(), 1u);
    EXPECT_EQ(linesWith(run.out, "Phase 3 · switching").size(), c.switching ? 1u : 0u);
    EXPECT_EQ(linesWith(run.out, "Summary (medians): ").size(), 1u);

    // One allocation line per phase, each reporting zero steady-state allocations from both counters.
    const std::vector<std::string> alloc = linesWith(run.out, "allocations per step after the first");
    ASSERT_EQ(alloc.size(), c.switching ? 2u : 1u) << run.out;
    for (const std::string& line : alloc) {
        EXPECT_NE(line.find(" 0   (max 0; kiv allocator 0, operator new 0; first step "), std::string::npos)
            << line;
    }
    EXPECT_EQ(linesWith(run.out, "!!").size(), 0u) << run.out;
    // Each timed row carries a median, a minimum and a maximum.
    for (const char* row :
         {"assemble (build, setBlocks)", "step (the four above)", "residual after refinement"}) {
        const std::vector<std::string> lines = linesWith(run.out, row);
        ASSERT_EQ(lines.size(), 1u) << row;
        std::istringstream in(lines[0].substr(lines[0].find(row) + std::string(row).size()));
        std::vector<std::string> fields;
        for (std::string f; in >> f;)
            if (f != "ms" && f != "µs" && f != "s") fields.push_back(f);
        EXPECT_EQ(fields.size(), 3u) << lines[0];
    }
}

INSTANTIATE_TEST_SUITE_P(
    TinyScenes, DemoRuns,
    ::testing::Values(Case{"--scene boxes --size 3 --steps 3 --threads 0 --switch 6", true},
                      Case{"--scene boxes --size 4 --steps 4 --threads 2 --float --switch 9", true},
                      Case{"--scene chain --size 8 --steps 3 --threads 1", true},
                      Case{"--scene ragdolls --size=2 --steps=3 --threads=2 --switch=11", true},
                      Case{"--scene cloth --size 4 --steps 3 --threads 0 --switch 0 --double", false}));

TEST(DemoCommandLine, HelpNamesEveryOption) {
    SKIP_WITHOUT_DEMO();
    const DemoRun run = runDemo("--help");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.rfind("Usage: tamber-demo [options]\n", 0), 0u) << run.out;
    for (const char* option : {"--scene", "--size", "--threads", "--float", "--double", "--steps", "--switch",
                               "--quiet", "--help", "boxes", "chain", "ragdolls", "cloth"})
        EXPECT_NE(run.out.find(option), std::string::npos) << option;
    EXPECT_EQ(linesWith(run.out, "Phase 2 ·").size(), 0u) << "--help must not run the demo";
}

TEST(DemoCommandLine, BadOptionsExitWithStatusTwoAndAMessage) {
    SKIP_WITHOUT_DEMO();
    struct Bad {
        const char* args;
        const char* message;
    };
    const Bad cases[] = {
        {"--x", "tamber-demo: unknown option '--x' (see --help)\n"},
        {"--size 3 --fast", "tamber-demo: unknown option '--fast' (see --help)\n"},
        {"stray", "tamber-demo: unexpected argument 'stray' (see --help)\n"},
        {"--size", "tamber-demo: option '--size' needs a value (see --help)\n"},
        {"--size abc",
         "tamber-demo: option '--size' expects a whole number from 1 to 2000000, got 'abc' (see --help)\n"},
        {"--size -3",
         "tamber-demo: option '--size' expects a whole number from 1 to 2000000, got '-3' (see --help)\n"},
        {"--steps 1",
         "tamber-demo: option '--steps' expects a whole number from 2 to 100000, got '1' (see --help)\n"},
        {"--threads 7x",
         "tamber-demo: option '--threads' expects a whole number from 0 to 256, got '7x' (see --help)\n"},
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
