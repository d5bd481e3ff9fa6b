// The comparison benchmark: its peer adapters solve small scene systems to a small residual in both settings
// (so that a broken adapter cannot report a fast time), CHOLMOD's row deletion and addition give the factor
// of the changed matrix and restore the original one, and the built tamber-bench runs to completion at a tiny
// size with and without the peers and writes CSV files that parse.
#if __has_include("bench/Peers.h")
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Analysis.h"
#include "bench/Peers.h"

using namespace kivTamber;
using namespace kivTamber::bench;
using namespace kivTamber::scenes;

namespace {

struct SceneCase {
    SceneKind kind;
    unsigned int size;
    const char* label;
};

const SceneCase kScenes[] = {
    {SceneKind::chain, 7, "chain"},
    {SceneKind::ragdolls, 2, "ragdolls"},
    {SceneKind::cloth, 5, "cloth"},
    {SceneKind::boxWall, 4, "boxwall"},
};

void buildProblem(const SceneCase& c, BlockProblem& problem) {
    auto scene = makeScene(c.kind, c.size);
    scene->step(0.01);
    scene->build(problem);
}

// ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) with the dense matrix of the problem, independent of ScalarMatrix.
double denseResidual(const BlockProblem& problem, const std::vector<double>& b,
                     const std::vector<double>& x) {
    const unsigned int N = problem.scalarSize();
    std::vector<double> dense(static_cast<std::size_t>(N) * N);
    assembleDense(problem, dense.data());
    double r = 0, normA = 0, nx = 0, nb = 0;
    for (unsigned int i = 0; i < N; ++i) {
        double ax = 0, row = 0;
        for (unsigned int j = 0; j < N; ++j) {
            ax += dense[i * N + j] * x[j];
            row += std::fabs(dense[i * N + j]);
        }
        r = std::max(r, std::fabs(ax - b[i]));
        normA = std::max(normA, row);
        nx = std::max(nx, std::fabs(x[i]));
        nb = std::max(nb, std::fabs(b[i]));
    }
    return r / (normA * nx + nb);
}

// Our analysis's order of the problem, expanded to scalars.
std::vector<int> ourScalarOrder(const BlockProblem& problem) {
    const Analysis::Problem p{problem.numBlocks, problem.firstConstraint, problem.colPointers.data(),
                              problem.rowIndices.data(), problem.blockSizes.data()};
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    const Analysis::Report report = analyzer.analyze(p, Analysis::Options(), data);
    EXPECT_TRUE(report.ok) << report.message;
    std::vector<int> order;
    scalarOrder(problem, analyzer.order(), order);
    return order;
}

TEST(PeerBench, ScalarMatrixMatchesTheDenseProblem) {
    for (const SceneCase& c : kScenes) {
        SCOPED_TRACE(c.label);
        BlockProblem problem;
        buildProblem(c, problem);
        ScalarMatrix A;
        scalarMatrixFromProblem(problem, A);
        const unsigned int N = problem.scalarSize();
        ASSERT_EQ(A.n, static_cast<int>(N));
        std::vector<double> dense(static_cast<std::size_t>(N) * N);
        assembleDense(problem, dense.data());
        std::vector<double> x(N), y(N);
        std::mt19937 random(3);
        for (double& v : x) v = std::uniform_real_distribution<double>(-1, 1)(random);
        A.multiply(x.data(), y.data());
        for (unsigned int i = 0; i < N; ++i) {
            double ax = 0;
            for (unsigned int j = 0; j < N; ++j) ax += dense[i * N + j] * x[j];
            ASSERT_NEAR(y[i], ax, 1e-12 * (1 + std::fabs(ax))) << "row " << i;
        }
        // Upper triangle, rows ascending, diagonal last in every column.
        for (int j = 0; j < A.n; ++j) {
            ASSERT_LT(A.colPointers[j], A.colPointers[j + 1]);
            ASSERT_EQ(A.rowIndices[A.colPointers[j + 1] - 1], j);
            for (int p = A.colPointers[j] + 1; p < A.colPointers[j + 1]; ++p)
                ASSERT_LT(A.rowIndices[p - 1], A.rowIndices[p]);
        }
        // The order is a permutation of the scalar rows.
        std::vector<int> order = ourScalarOrder(problem);
        std::sort(order.begin(), order.end());
        for (int k = 0; k < A.n; ++k) ASSERT_EQ(order[k], k);
    }
}

// The matrices the peers get besides A, against their definitions on the dense matrix: the regularised copy
// differs from A only by the shift on the constraint diagonal; the twin keeps A's off-diagonal entries and is
// positive definite (a dense Cholesky factorization succeeds); a unit equation's row and column are the
// identity's and the rest is A.
TEST(PeerBench, MatrixVariantsFollowTheirDefinitions) {
    for (const SceneCase& c : kScenes) {
        SCOPED_TRACE(c.label);
        BlockProblem problem;
        buildProblem(c, problem);
        const int N = static_cast<int>(problem.scalarSize());
        const int firstConstraintRow = static_cast<int>(problem.blockOffsets[problem.firstConstraint]);
        ScalarMatrix A, regularised, twin, unit;
        scalarMatrixFromProblem(problem, A);
        regularisedCopy(problem, A, -1e-8, regularised);
        positiveDefiniteTwin(A, twin);
        const std::vector<int> equations{firstConstraintRow, N - 1};
        unitEquationsCopy(A, equations, unit);
        auto dense = [N](const ScalarMatrix& M) {
            std::vector<double> d(static_cast<std::size_t>(N) * N, 0.0);
            for (int j = 0; j < N; ++j)
                for (int p = M.colPointers[j]; p < M.colPointers[j + 1]; ++p)
                    d[M.rowIndices[p] * N + j] = d[j * N + M.rowIndices[p]] = M.values[p];
            return d;
        };
        const std::vector<double> a = dense(A), r = dense(regularised), t = dense(twin), u = dense(unit);
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j) {
                const std::size_t k = static_cast<std::size_t>(i) * N + j;
                const double shift = i == j && i >= firstConstraintRow ? -1e-8 : 0.0;
                ASSERT_EQ(r[k], a[k] + shift) << i << ", " << j;
                if (i != j) {
                    ASSERT_EQ(t[k], a[k]) << i << ", " << j;
                }
                const bool isUnit = std::find(equations.begin(), equations.end(), i) != equations.end() ||
                                    std::find(equations.begin(), equations.end(), j) != equations.end();
                ASSERT_EQ(u[k], isUnit ? (i == j ? 1.0 : 0.0) : a[k]) << i << ", " << j;
            }
        // Dense Cholesky of the twin, in place on its lower triangle.
        std::vector<double> l = t;
        for (int j = 0; j < N; ++j) {
            double d = l[j * N + j];
            for (int k = 0; k < j; ++k) d -= l[j * N + k] * l[j * N + k];
            ASSERT_GT(d, 0.0) << "pivot " << j;
            l[j * N + j] = std::sqrt(d);
            for (int i = j + 1; i < N; ++i) {
                double v = l[i * N + j];
                for (int k = 0; k < j; ++k) v -= l[i * N + k] * l[j * N + k];
                l[i * N + j] = v / l[j * N + j];
            }
        }
    }
}

// Every peer in both settings: solve, refine, refactor after switching equations, and (where it can) modify
// the factor in place; all to a small residual.
TEST(PeerBench, PeersSolveSmallSystemsInBothSettings) {
    std::vector<PeerEntry> peers = makePeers();
    if (peers.empty()) GTEST_SKIP() << "no peer library in this build";
    for (const SceneCase& c : kScenes) {
        BlockProblem problem;
        buildProblem(c, problem);
        const unsigned int N = problem.scalarSize();
        ScalarMatrix A, regularised, twin;
        scalarMatrixFromProblem(problem, A);
        regularisedCopy(problem, A, -1e-8, regularised);
        positiveDefiniteTwin(A, twin);
        const std::vector<int> order = ourScalarOrder(problem);
        // Three constraint equations of different blocks.
        std::vector<int> equations;
        for (unsigned int k = 0; k < 3; ++k) {
            const unsigned int block =
                problem.firstConstraint + k * (problem.numBlocks - problem.firstConstraint) / 3;
            equations.push_back(
                static_cast<int>(problem.blockOffsets[block] + k % problem.blockSizes[block]));
        }
        std::vector<double> b(N), x(N);
        for (unsigned int k = 0; k < N; ++k) b[k] = std::cos(0.7 * k) + 0.25;

        for (PeerEntry& entry : peers) {
            for (PeerOrdering ordering : {PeerOrdering::given, PeerOrdering::ownAmd}) {
                const bool given = ordering == PeerOrdering::given;
                SCOPED_TRACE(std::string(c.label) + ", " + entry.peer->name() +
                             (given ? ", our order" : ", AMD"));
                Peer& peer = *entry.peer;
                const ScalarMatrix& M = entry.positiveDefiniteOnly ? twin : given ? A : regularised;
                // AMD without pivoting takes the −1e-8 pivots early: its solves are accurate to about 1e-9
                // only (one refinement step against A repairs that). A broken adapter is off by O(1).
                const double tolerance = given || entry.positiveDefiniteOnly ? 1e-12 : 1e-7;
                ASSERT_TRUE(peer.analyze(M, ordering, order.data())) << peer.lastError();
                ASSERT_TRUE(peer.factor(M)) << peer.lastError();
                EXPECT_GT(peer.factorEntries(), N - 1.0);
                ASSERT_TRUE(peer.solve(b.data(), x.data())) << peer.lastError();
                EXPECT_LT(scaledResidual(M, b.data(), x.data()), tolerance);
                if (!entry.positiveDefiniteOnly) {
                    // Against the saddle-point matrix itself (the regularised factor is 1e-8 off before
                    // refinement).
                    ASSERT_TRUE(peer.refine(A, b.data(), x.data())) << peer.lastError();
                    EXPECT_LT(denseResidual(problem, b, x), 1e-12);
                }

                ScalarMatrix changed;
                unitEquationsCopy(M, equations, changed);
                ASSERT_TRUE(peer.factor(changed)) << peer.lastError();
                ASSERT_TRUE(peer.solve(b.data(), x.data())) << peer.lastError();
                EXPECT_LT(scaledResidual(changed, b.data(), x.data()), tolerance);
                for (int e : equations) EXPECT_NEAR(x[e], b[e], 1e-12);  // unit equations

                ASSERT_TRUE(peer.factor(M)) << peer.lastError();
                if (!peer.canModifyRows()) continue;
                ASSERT_TRUE(peer.prepareModification(M)) << peer.lastError();
                for (int round = 0; round < 2; ++round) {
                    ASSERT_TRUE(peer.switchOff(equations)) << peer.lastError();
                    ASSERT_TRUE(peer.solve(b.data(), x.data())) << peer.lastError();
                    EXPECT_LT(scaledResidual(changed, b.data(), x.data()), tolerance) << "round " << round;
                    ASSERT_TRUE(peer.switchOn(M, equations)) << peer.lastError();
                    ASSERT_TRUE(peer.solve(b.data(), x.data())) << peer.lastError();
                    EXPECT_LT(scaledResidual(M, b.data(), x.data()), tolerance) << "round " << round;
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------------------
// The built benchmark
// ---------------------------------------------------------------------------------------------------------

// <build>/tools/tamber-bench, from this test's own path <build>/tests/PeerBench_test.
std::string benchBinary() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) return std::string();
    std::string self(path, n);
    const std::size_t slash = self.rfind('/');
    const std::size_t parent = slash == std::string::npos ? std::string::npos : self.rfind('/', slash - 1);
    if (parent == std::string::npos) return std::string();
    return self.substr(0, parent) + "/tools/tamber-bench";
}

// Splits one CSV line into fields (quoted fields may hold commas and doubled quotes).
std::vector<std::string> csvFields(const std::string& line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (std::size_t k = 0; k < line.size(); ++k) {
        const char ch = line[k];
        if (quoted) {
            if (ch == '"' && k + 1 < line.size() && line[k + 1] == '"') {
                fields.back() += '"';
                ++k;
            } else if (ch == '"') {
                quoted = false;
            } else {
                fields.back() += ch;
            }
        } else if (ch == '"') {
            quoted = true;
        } else if (ch == ',') {
            fields.emplace_back();
        } else {
            fields.back() += ch;
        }
    }
    return fields;
}

// The CSV file as header + rows; every row has the header's field count and every field that is not
// quoted text is empty, "inf" or a number.
std::vector<std::vector<std::string>> readCsv(const std::string& path,
                                              const std::vector<std::string>& textColumns) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    std::vector<std::vector<std::string>> table;
    std::string line;
    while (std::getline(in, line)) table.push_back(csvFields(line));
    if (table.empty()) return table;
    const std::vector<std::string>& header = table[0];
    for (std::size_t r = 1; r < table.size(); ++r) {
        EXPECT_EQ(table[r].size(), header.size()) << path << " line " << r + 1;
        for (std::size_t c = 0; c < table[r].size() && c < header.size(); ++c) {
            const std::string& field = table[r][c];
            if (std::find(textColumns.begin(), textColumns.end(), header[c]) != textColumns.end()) continue;
            if (field.empty() || field == "inf") continue;
            char* end = nullptr;
            std::strtod(field.c_str(), &end);
            EXPECT_EQ(*end, '\0') << path << " line " << r + 1 << " column " << header[c] << ": " << field;
        }
    }
    return table;
}

std::size_t column(const std::vector<std::string>& header, const char* name) {
    const auto it = std::find(header.begin(), header.end(), name);
    EXPECT_NE(it, header.end()) << name;
    return static_cast<std::size_t>(it - header.begin());
}

TEST(PeerBench, BenchmarkRunsAtATinySizeWithAndWithoutPeers) {
    const std::string binary = benchBinary();
    if (binary.empty() || access(binary.c_str(), X_OK) != 0)
        GTEST_SKIP() << "tamber-bench is not built next to this test (" << binary << ")";
    char dirTemplate[] = "/tmp/peerbench-XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    const std::string dir = dirTemplate;
    const bool havePeers = !availablePeerLibraries().empty();

    for (const bool withPeers : {true, false}) {
        SCOPED_TRACE(withPeers ? "with peers" : "--no-peers");
        const std::string out = dir + (withPeers ? "/with" : "/without");
        const std::string command = "'" + binary +
                                    "' --sizes 40,80 --runs 2 --budget 0 --switch 3 --no-plot --out '" + out +
                                    "'" + (withPeers ? "" : " --no-peers") + " > '" + out + ".txt' 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        std::ifstream printed(out + ".txt");
        const std::string text((std::istreambuf_iterator<char>(printed)), std::istreambuf_iterator<char>());
        EXPECT_NE(text.find("### Summary"), std::string::npos);
        EXPECT_NE(text.find("| chain |"), std::string::npos);
        if (!withPeers) {
            EXPECT_NE(text.find("Peers switched off by --no-peers"), std::string::npos);
        }
        if (!havePeers) {
            EXPECT_NE(text.find("Peers missing from this build"), std::string::npos);
        }

        // Every line of a Markdown table has as many cells as the table's header.
        std::istringstream lines(text);
        std::string line;
        std::size_t cells = 0, tableLines = 0;
        while (std::getline(lines, line)) {
            if (line.empty() || line[0] != '|') {
                cells = 0;
                continue;
            }
            const std::size_t bars = static_cast<std::size_t>(std::count(line.begin(), line.end(), '|'));
            if (cells == 0) cells = bars;
            EXPECT_EQ(bars, cells) << line;
            ++tableLines;
        }
        // Summary and goals (with peers): header, separator, one row per scene and size; every solver: three
        // rows of ours and two per peer (our order, its own AMD) per scene and size.
        const std::size_t peerRows = withPeers ? 2 * makePeers().size() : 0;
        const std::size_t goalLines = peerRows > 0 ? 2 + 8 : 0;
        EXPECT_EQ(tableLines, 2 + 8 + goalLines + 2 + 8 * (3 + peerRows));

        const auto rows = readCsv(out + "/tamber-bench.csv", {"solver", "order", "note", "scene"});
        ASSERT_GT(rows.size(), 1u);
        const std::vector<std::string>& header = rows[0];
        const std::size_t solver = column(header, "solver"), refined = column(header, "residual_refined"),
                          factor = column(header, "factor_ms"), scene = column(header, "scene");
        std::size_t ours = 0, others = 0;
        std::vector<std::string> scenes;
        for (std::size_t r = 1; r < rows.size(); ++r) {
            if (std::find(scenes.begin(), scenes.end(), rows[r][scene]) == scenes.end())
                scenes.push_back(rows[r][scene]);
            EXPECT_FALSE(rows[r][factor].empty()) << "line " << r + 1 << ": " << rows[r][solver];
            if (rows[r][solver].compare(0, 9, "kivTamber") == 0) {
                ++ours;
                if (rows[r][solver] == "kivTamber serial") {
                    EXPECT_LT(std::atof(rows[r][refined].c_str()), 1e-12);
                }
            } else {
                ++others;
            }
        }
        EXPECT_EQ(scenes.size(), 4u);
        EXPECT_EQ(ours, 4u * 2u * 3u);  // serial, MF 1 and 2 threads, per scene and size
        if (withPeers && havePeers)
            EXPECT_GT(others, 0u);
        else
            EXPECT_EQ(others, 0u);
        const auto summary = readCsv(out + "/tamber-bench-summary.csv",
                                     {"scene", "fastest_peer_our_order", "fastest_peer_own_amd",
                                      "fastest_solve_our_order", "fastest_refactor"});
        EXPECT_EQ(summary.size(), 1u + 4u * 2u);
    }
    EXPECT_NE(std::system(("'" + binary + "' --sizes x1 > /dev/null 2>&1").c_str()), 0);
    EXPECT_NE(std::system(("'" + binary + "' --scenes tower > /dev/null 2>&1").c_str()), 0);
    if (std::system(("rm -rf '" + dir + "'").c_str()) != 0) ADD_FAILURE() << "could not remove " << dir;
}

}  // namespace

#else
#include <gtest/gtest.h>
TEST(PeerBench, NeedsTheTools) {
    GTEST_SKIP() << "built without the tools (KIVTAMBER_BUILD_TOOLS=OFF)";
}
#endif
