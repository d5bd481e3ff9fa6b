// The command-line solver: its readers (messages to the character), the grouping of rows into blocks, the
// pivot diagnostic (against a dense L·D·Lᵀ), and the built tool (dense solves, exit codes, real matrices).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Analysis.h"
#include "BlockGrouping.h"
#include "MatrixMarket.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "testing/DenseReference.h"

namespace kivTamber {
namespace {

using testing::DenseSymmetric;
using Strings = std::vector<std::string>;

#define SYM "%%MatrixMarket matrix coordinate real symmetric\n"
#define GEN "%%MatrixMarket matrix coordinate real general\n"

std::string g17(double v) {
    char b[40];
    std::snprintf(b, sizeof b, "%.17g", v);
    return b;
}

// The lower triangle of A as a "coordinate real symmetric" file, or both triangles as "general".
std::string toMatrixMarket(const DenseSymmetric& A, bool general = false) {
    std::string entries;
    unsigned long count = 0;
    for (unsigned int c = 0; c < A.n; ++c)
        for (unsigned int r = general ? 0 : c; r < A.n; ++r)
            if (A(r, c) != 0.0) {
                entries += std::to_string(r + 1) + " " + std::to_string(c + 1) + " " + g17(A(r, c)) + "\n";
                ++count;
            }
    return std::string(general ? GEN : SYM) + "% test matrix\n" + std::to_string(A.n) + " " +
           std::to_string(A.n) + " " + std::to_string(count) + "\n" + entries;
}

// [M Jᵀ; J 0] with M (bodies × bodies) symmetric, diagonally dominant and sparse, and J (constraints ×
// bodies) of full row rank: row c has a dominant entry in column c (constraints <= bodies) and a few others.
DenseSymmetric saddlePoint(unsigned int bodies, unsigned int constraints, unsigned long seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    std::bernoulli_distribution present(0.3);
    DenseSymmetric A(bodies + constraints);
    for (unsigned int i = 0; i < bodies; ++i)
        for (unsigned int j = 0; j < i; ++j)
            if (present(rng)) A.setSymmetric(i, j, value(rng));
    for (unsigned int i = 0; i < bodies; ++i) {
        A(i, i) = 1.0;
        for (unsigned int j = 0; j < bodies; ++j) A(i, i) += j == i ? 0.0 : std::fabs(A(i, j));
    }
    for (unsigned int c = 0; c < constraints; ++c) {
        A.setSymmetric(bodies + c, c, 4.0 + value(rng));
        for (unsigned int j = constraints; j < bodies; ++j)
            if (present(rng)) A.setSymmetric(bodies + c, j, value(rng));
    }
    return A;
}

// A table row: a file's text and the message it must produce.
struct BadFile {
    const char* text;
    const char* message;
};

TEST(SolveToolReader, RejectsEveryKindOfMalformedMatrixWithItsLine) {
    const BadFile cases[] = {
        {"", "m:1: empty file (expected the banner \"%%MatrixMarket matrix coordinate real symmetric\")"},
        {"3 3 1\n1 1 1\n",
         "m:1: missing Matrix Market banner (expected \"%%MatrixMarket matrix coordinate real "
         "symmetric\", found \"3 3 1\")"},
        {"%%MatrixMarket matrix coordinate real\n1 1 1\n1 1 1\n",
         "m:1: garbled banner \"%%MatrixMarket matrix coordinate real\" (expected \"%%MatrixMarket "
         "matrix FORMAT FIELD SYMMETRY\")"},
        {"%%MatrixMarket vector coordinate real general\n",
         "m:1: unsupported object \"vector\" (only \"matrix\")"},
        {"%%MatrixMarket matrix array real symmetric\n1 1\n1\n",
         "m:1: unsupported format \"array\" (only \"coordinate\")"},
        {"%%MatrixMarket matrix coordinate pattern symmetric\n1 1 1\n1 1\n",
         "m:1: unsupported field \"pattern\" (only \"real\" or \"integer\")"},
        {"%%MatrixMarket matrix coordinate real skew-symmetric\n",
         "m:1: unsupported symmetry \"skew-symmetric\" (only \"symmetric\" or \"general\")"},
        {SYM "% only comments\n", "m:2: the file ends before the size line"},
        {SYM "3 3\n",
         "m:2: bad size line \"3 3\" (expected \"rows columns entries\", three non-negative integers)"},
        {SYM "%\n3 4 1\n1 1 1\n", "m:3: the matrix is not square (3 rows, 4 columns)"},
        {SYM "0 0 0\n", "m:2: empty matrix (0 rows)"},
        {SYM "2 2 4\n", "m:2: 4 entries declared, more than the 3 of a 2 x 2 lower triangle"},
        {SYM "4000000000 4000000000 3\n",
         "m:2: 3 entries declared for 4000000000 rows: a non-singular matrix needs at least 2000000000 "
         "(every row needs an entry)"},
        {SYM "3 3 3\n1 1 1\n2 2 1\n\n", "m:5: the file ends after 2 of the 3 entries declared on line 2"},
        {SYM "2 2 1\n1 1 1\n2 2 1\n", "m:4: more entries than the 1 declared on line 2"},
        {SYM "3 3 2\n1 1\n", "m:3: expected \"row column value\", found \"1 1\""},
        {SYM "3 3 2\n1 1 1 0.5 x\n", "m:3: extra text \"0.5 x\" after the value"},
        {SYM "3 3 2\n1.5 1 1\n", "m:3:1: row index \"1.5\" is not an integer"},
        {SYM "3 3 2\n1 1 1\n4 1 2\n", "m:4:1: row index \"4\" out of range 1..3"},
        {SYM "3 3 2\n2 0 1\n", "m:3:3: column index \"0\" out of range 1..3"},
        {SYM "3 3 2\n2 1 1.0D+00\n", "m:3:5: value \"1.0D+00\" is not a number"},
        {SYM "3 3 2\n2 1 nan\n", "m:3:5: value \"nan\" is not finite"},
        {"%%MatrixMarket matrix coordinate integer symmetric\n3 3 2\n2 1 2.5\n",
         "m:3:5: value \"2.5\" is not an integer (the field is integer)"},
        {SYM "3 3 3\n2 1 1\n3 3 2\n2 1 1\n", "m:5: duplicate entry (2, 1), already given on line 3"},
        {SYM "3 3 2\n1 2 1\n2 1 1\n", "m:4: duplicate entry (2, 1), already given as (1, 2) on line 3"},
        {GEN "3 3 3\n2 1 3\n3 3 2\n1 2 4\n",
         "m:5: the general matrix is not symmetric: A(2, 1) = 3 on line 3, A(1, 2) = 4 on line 5"},
        {GEN "3 3 2\n1 1 1\n1 3 0.25\n",
         "m:4: the general matrix is not symmetric: A(1, 3) = 0.25 on line 4, A(3, 1) is not given (0)"},
        // Of several offences found after reading, the one on the earliest line is reported.
        {GEN "3 3 5\n3 1 1\n1 3 1\n2 1 5\n1 2 6\n3 1 1\n",
         "m:6: the general matrix is not symmetric: A(2, 1) = 5 on line 5, A(1, 2) = 6 on line 6"},
    };
    for (const BadFile& c : cases) {
        io::SymmetricMatrix A;
        std::string message;
        EXPECT_FALSE(io::parseMatrixMarket("m", c.text, A, message)) << c.text;
        EXPECT_EQ(message, c.message);
    }
}

TEST(SolveToolReader, ReadsTheLowerTriangleOfEveryAcceptedForm) {
    // The same matrix [[4, 1, 0], [1, 5, 2], [0, 2, 0]] with an explicit zero at (3, 1) and no (3, 3), given
    // five ways: lower triangle; mixed triangles in odd order with comments, blank lines, CRLF and an
    // odd-case banner; integer field; general with both triangles; general with only one triangle of a zero.
    const char* forms[] = {
        SYM "3 3 5\n1 1 4\n2 1 1\n3 1 0\n2 2 5\n3 2 2\n",
        "%%matrixmarket MATRIX Coordinate Real Symmetric\r\n% comment\r\n\r\n  3 3 5  \r\n2 3 2\r\n%  "
        "another comment\r\n1 2 1e0\r\n\t2 2 5.0\r\n1 1 +4\r\n1 3 -0\r\n",
        "%%MatrixMarket matrix coordinate integer symmetric\n3 3 5\n1 1 4\n2 1 1\n3 1 0\n2 2 5\n3 2 2",
        GEN "3 3 7\n1 1 4\n2 1 1\n1 2 1\n3 1 0\n2 2 5\n3 2 2\n2 3 2\n",
        GEN "3 3 7\n1 1 4\n1 2 1\n2 1 1\n1 3 0\n2 2 5\n3 2 2\n2 3 2\n% a comment at the end\n",
    };
    for (int f = 0; f < 5; ++f) {
        SCOPED_TRACE(f);
        io::SymmetricMatrix A;
        std::string message;
        ASSERT_TRUE(io::parseMatrixMarket("m", forms[f], A, message)) << message;
        EXPECT_EQ(A.n, 3u);
        EXPECT_EQ(A.general, f >= 3);
        EXPECT_EQ(A.colPointers, (std::vector<unsigned long>{0, 3, 5, 5}));
        EXPECT_EQ(A.rowIndices, (std::vector<unsigned int>{0, 1, 2, 1, 2}));
        EXPECT_EQ(A.values, (std::vector<double>{4, 1, 0, 5, 2}));
        EXPECT_EQ(A.fullEntries(), 8u);
        EXPECT_EQ(A.normInf(), 8.0);
    }
}

// Malformed input of any shape is answered with a located message, never a crash.
TEST(SolveToolReader, SurvivesRandomEdits) {
    const std::string bases[] = {toMatrixMarket(saddlePoint(5, 2, 3)),
                                 toMatrixMarket(saddlePoint(4, 2, 4), true)};
    const char alphabet[] = "0123456789 \n\t.-+eE%x\r";
    std::mt19937_64 rng(2024);
    for (int trial = 0; trial < 3000; ++trial) {
        std::string text = bases[trial % 2];
        for (unsigned long edits = 1 + rng() % 4; edits > 0; --edits) {
            const std::size_t at = rng() % (text.size() + 1);
            const char c = alphabet[rng() % (sizeof alphabet - 1)];
            const unsigned long kind = rng() % 3;
            if (kind == 0) text.insert(at, 1, c);
            if (kind == 1 && at < text.size()) text.erase(at, 1);
            if (kind == 2 && at < text.size()) text[at] = c;
        }
        SCOPED_TRACE(text);
        io::SymmetricMatrix A;
        std::string message;
        if (io::parseMatrixMarket("m", text, A, message)) {
            ASSERT_EQ(A.colPointers.size(), A.n + 1ul);
            ASSERT_EQ(A.colPointers[A.n], A.rowIndices.size());
            for (unsigned int c = 0; c < A.n; ++c)
                for (unsigned long k = A.colPointers[c]; k < A.colPointers[c + 1]; ++k) {
                    ASSERT_TRUE(A.rowIndices[k] >= c && A.rowIndices[k] < A.n);
                    ASSERT_TRUE(k == A.colPointers[c] || A.rowIndices[k - 1] < A.rowIndices[k]);
                }
        } else {
            ASSERT_EQ(message.rfind("m:", 0), 0u) << message;
            char* end = nullptr;
            const unsigned long line = std::strtoul(message.c_str() + 2, &end, 10);
            EXPECT_TRUE(line >= 1 &&
                        line <= 1 + static_cast<unsigned long>(std::count(text.begin(), text.end(), '\n')))
                << message;
            if (*end == ':' && end[1] != ' ') std::strtoul(end + 1, &end, 10);  // "m:LINE:COLUMN: "
            EXPECT_EQ(std::string(end, 2), ": ") << message;
        }
    }
}

TEST(SolveToolReader, BlocksFilesAndVectors) {
    io::RowSplit split;
    std::string message;
    ASSERT_TRUE(io::parseRowSplit("b", "# comment\nn2 2\n\nn1 3\n", 5, split, message)) << message;
    EXPECT_EQ(split.bodyRows, 3u);
    EXPECT_EQ(split.constraintRows, 2u);
    const BadFile badSplits[] = {
        {"n1 3\nn3 2\n", "b:2: unknown key \"n3\" (expected \"n1 <count>\" or \"n2 <count>\")"},
        {"n1\n", "b:1: count missing of n1 is not a non-negative integer"},
        {"n1 3 rows\n", "b:1: extra text \"rows\" after the count of n1"},
        {"n1 3\n#\nn1 3\n", "b:3: n1 given twice (first on line 1)"},
        {"n1 5\n# no n2\n", "b:2: missing the line \"n2 <count>\""},
        {"", "b:1: missing the line \"n1 <count>\""},
        {"n1 3\nn2 3\n", "b:2: n1 + n2 = 3 + 3 = 6 does not match the 5 rows of the matrix"},
    };
    for (const BadFile& c : badSplits) {
        EXPECT_FALSE(io::parseRowSplit("b", c.text, 5, split, message)) << c.text;
        EXPECT_EQ(message, c.message);
    }
    std::vector<double> v;
    ASSERT_TRUE(io::parseVector("v", "# plain\n1\n -2.5 \n\n3e1\n", 3, v, message)) << message;
    EXPECT_EQ(v, (std::vector<double>{1, -2.5, 30}));
    ASSERT_TRUE(
        io::parseVector("v", "%%MatrixMarket matrix array real general\n% c\n3 1\n1\n2\n3\n", 3, v, message))
        << message;
    EXPECT_EQ(v, (std::vector<double>{1, 2, 3}));
    const BadFile badVectors[] = {
        {"1\n2\n", "v:2: the file ends after 2 of 3 values"},
        {"1\n2\n3\n4\n", "v:4: more values than the 3 rows of the matrix"},
        {"1 2\n", "v:1: extra text \"2\" after the value"},
        {"1\nx\n", "v:2:1: value \"x\" is not a number"},
        {"inf\n", "v:1:1: value \"inf\" is not finite"},
        {GEN "3 1 3\n", "v:1: unsupported format \"coordinate\" for a vector (only \"array\")"},
        {"%%MatrixMarket matrix array real general\n3 2\n",
         "v:2: the vector is 3 x 2, the matrix needs 3 x 1"},
        {"\n%%MatrixMarket matrix array real general\n3 1\n1\n2\n3\n",
         "v:1: the Matrix Market banner must be the first line"},
    };
    for (const BadFile& c : badVectors) {
        EXPECT_FALSE(io::parseVector("v", c.text, 3, v, message)) << c.text;
        EXPECT_EQ(message, c.message);
    }
}

// Integers outside their type are refused with line, column and word, never wrapped around; words of any
// bytes and any length come back quoted, escaped and cut.
TEST(SolveToolReader, IntegersNeverWrapAndWordsArePrintable) {
    const BadFile matrices[] = {
        {SYM "3 3 2\n18446744073709551617 1 1\n",
         "m:3:1: row index \"18446744073709551617\" out of range 1..3"},
        {SYM "3 3 2\n2 -18446744073709551615 1\n",
         "m:3:3: column index \"-18446744073709551615\" out of range 1..3"},
        {SYM "3 3 2\n9223372036854775808 1 1\n",
         "m:3:1: row index \"9223372036854775808\" out of range 1..3"},
        {SYM "3 3 2\n-1 1 1\n", "m:3:1: row index \"-1\" out of range 1..3"},
        {SYM "18446744073709551619 3 2\n",
         "m:2:1: row count \"18446744073709551619\" out of range 0..4294967294"},
        {SYM "3 4294967295 2\n", "m:2:3: column count \"4294967295\" out of range 0..4294967294"},
        {SYM "3 3 99999999999999999999\n",
         "m:2:5: entry count \"99999999999999999999\" out of range 0..9223372036854775807"},
        {SYM "2147483648 2147483648 1\n",
         "m:2: 1 entries declared for 2147483648 rows: a non-singular matrix needs at least 1073741824 "
         "(every row needs an entry)"},
        {SYM "3 3 2\n2 1 1\x01\x1b[2J\n", "m:3:5: value \"1\\x01\\x1b[2J\" is not a number"},
        {"%%MatrixMarket matrix coordinate \xff\xfe symmetric\n",
         "m:1: unsupported field \"\\xff\\xfe\" (only \"real\" or \"integer\")"},
    };
    for (const BadFile& c : matrices) {
        io::SymmetricMatrix A;
        std::string message;
        EXPECT_FALSE(io::parseMatrixMarket("m", c.text, A, message)) << c.text;
        EXPECT_EQ(message, c.message);
    }
    // A NUL inside a word, and a 5 MB word: the message stays short and whole.
    io::SymmetricMatrix A;
    std::string message;
    EXPECT_FALSE(
        io::parseMatrixMarket("m", std::string(SYM "3 3 2\n2 1 1\0x\n", sizeof(SYM) + 13), A, message));
    EXPECT_EQ(message, "m:3:5: value \"1\\x00x\" is not a number");
    EXPECT_FALSE(
        io::parseMatrixMarket("m", SYM "3 3 2\n2 1 " + std::string(5u << 20, '7') + "q\n", A, message));
    EXPECT_EQ(message, "m:3:5: value \"" + std::string(57, '7') + "...\" is not a number");
    EXPECT_EQ(io::printable(std::string("a\nb\tc\x7f"), 100), "a\\x0ab\\x09c\\x7f");
    EXPECT_EQ(io::printable(std::string(10, 'z'), 8), "zzzzz...");

    io::RowSplit split;
    const BadFile splits[] = {
        {"n1 18446744073709551618\nn2 1\n",
         "b:1:4: count \"18446744073709551618\" of n1 out of range 0..5 (the matrix has 5 rows)"},
        {"n1 4294967295\nn2 6\n",
         "b:1:4: count \"4294967295\" of n1 out of range 0..5 (the matrix has 5 rows)"},
        {"n1 3\nn2 -1\n", "b:2:4: count \"-1\" of n2 is not a non-negative integer"},
        {"n1 x\x07\n", "b:1:4: count \"x\\x07\" of n1 is not a non-negative integer"},
        {"\x1b]0;title\x07 3\n",
         "b:1: unknown key \"\\x1b]0;title\\x07\" (expected \"n1 <count>\" or \"n2 <count>\")"},
    };
    for (const BadFile& c : splits) {
        split = io::RowSplit();
        EXPECT_FALSE(io::parseRowSplit("b", c.text, 5, split, message)) << c.text;
        EXPECT_EQ(message, c.message);
        EXPECT_EQ(split.bodyRows + split.constraintRows, 0u);  // nothing of a refused file is used
    }
    std::vector<double> v;
    EXPECT_FALSE(io::parseVector("v", "%%MatrixMarket matrix array real general\n18446744073709551619 1\n", 3,
                                 v, message));
    EXPECT_EQ(message, "v:2:1: row count \"18446744073709551619\" out of range 0..9223372036854775807");
    EXPECT_FALSE(io::parseVector("v", "%%MatrixMarket matrix array real general\n-3 1\n", 3, v, message));
    EXPECT_EQ(message, "v:2: bad size line \"-3 1\" (expected \"rows columns\", two non-negative integers)");
    // An integer field takes integers of any length (they are values, not counts).
    ASSERT_TRUE(io::parseVector(
        "v", "%%MatrixMarket matrix array integer general\n1 1\n1" + std::string(30, '0') + "\n", 1, v,
        message))
        << message;
    EXPECT_EQ(v[0], 1e30);
    // A file name with control bytes is escaped in every message.
    EXPECT_FALSE(io::parseRowSplit("a\nb", "n1 1\n", 5, split, message));
    EXPECT_EQ(message, "a\\x0ab:1: missing the line \"n2 <count>\"");
}

// A temporary folder, removed with everything in it.
class TempDir {
public:
    TempDir() : path_(::testing::TempDir() + "kivtamber-solvetool-XXXXXX") { mkdtemp(&path_[0]); }
    ~TempDir() { std::filesystem::remove_all(path_); }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }
    std::string writeGzip(const std::string& name, const std::string& text) const {
        gzFile f = gzopen(file(name).c_str(), "wb");
        gzwrite(f, text.data(), static_cast<unsigned int>(text.size()));
        gzclose(f);
        return file(name);
    }

private:
    std::string path_;
};

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The grouped problem, expanded back to scalars, is the matrix; bodies come before constraints.
TEST(SolveToolGrouping, BlocksReproduceTheScalarMatrix) {
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        for (unsigned int K : {1u, 2u, 3u, 5u}) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", block size " + std::to_string(K));
            const unsigned int bodies = 4 + static_cast<unsigned int>(seed % 4), constraints = 3;
            const DenseSymmetric A = saddlePoint(bodies, constraints, seed);
            io::SymmetricMatrix S;
            io::BlockedProblem P;
            std::string message;
            ASSERT_TRUE(io::parseMatrixMarket("m", toMatrixMarket(A), S, message)) << message;
            ASSERT_TRUE(io::groupIntoBlocks(S, bodies, K, P, message)) << message;
            ASSERT_TRUE(Analysis::checkProblem(P.problem(), &message)) << message;
            EXPECT_EQ(P.firstConstraint, (bodies + K - 1) / K);
            EXPECT_EQ(P.numBlocks, P.firstConstraint + (constraints + K - 1) / K);
            EXPECT_EQ(P.blockOffsets[P.firstConstraint], bodies);
            DenseSymmetric B(A.n);
            for (unsigned int j = 0; j < P.numBlocks; ++j)
                for (unsigned int e = P.colPointers[j]; e < P.colPointers[j + 1]; ++e) {
                    const unsigned int i = P.rowIndices[e];
                    for (unsigned int r = 0; r < P.blockSizes[i]; ++r)
                        for (unsigned int c = 0; c < P.blockSizes[j]; ++c)
                            B.setSymmetric(P.blockOffsets[i] + r, P.blockOffsets[j] + c,
                                           P.values[P.valuePointers[e] + r * P.blockSizes[j] + c]);
                }
            EXPECT_EQ(testing::maxAbsDifference(A, B), 0.0);
            for (unsigned int r = 0; r < A.n; ++r)
                EXPECT_EQ(P.blockOf(r), r < bodies ? r / K : P.firstConstraint + (r - bodies) / K);
        }
    }
}

// Random SPD matrices of mixed block sizes in a random block order; scalar r gets the diagonal `pivot` and no
// coupling to anything eliminated before it, so its pivot is exactly `pivot`. The report names r in both
// numberings and agrees with a dense L·D·Lᵀ of P·A·Pᵀ on the first bad pivot and (unless tiny: later pivots
// are then rounding noise) on their count. Before the factorization nothing is scanned.
template <typename T>
void checkPivotReports(double pivot, double threshold, TamberSolve::PivotReport::Kind kind) {
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 rng(seed);
        const unsigned int n = 3 + static_cast<unsigned int>(seed % 4);
        std::vector<unsigned int> sizes(n), order(n), offsets(n + 1, 0), position(n);
        for (unsigned int b = 0; b < n; ++b) {
            sizes[b] = 1 + static_cast<unsigned int>(rng() % 3);
            offsets[b + 1] = offsets[b] + sizes[b];
            order[b] = b;
        }
        std::shuffle(order.begin(), order.end(), rng);
        for (unsigned int k = 0; k < n; ++k) position[order[k]] = k;
        const unsigned int N = offsets[n];
        DenseSymmetric A = saddlePoint(N, 0, seed);
        const unsigned int userBlock = static_cast<unsigned int>(rng() % n);
        const unsigned int local = static_cast<unsigned int>(rng() % sizes[userBlock]);
        const unsigned int r = offsets[userBlock] + local;
        for (unsigned int b = 0; b < n; ++b)
            for (unsigned int t = 0; t < sizes[b]; ++t)
                if (position[b] < position[userBlock] || (b == userBlock && t < local))
                    A.setSymmetric(r, offsets[b] + t, 0.0);
        A(r, r) = pivot;

        // The dense reference on P·A·Pᵀ.
        std::vector<unsigned int> scalarOrder;
        for (unsigned int k = 0; k < n; ++k)
            for (unsigned int t = 0; t < sizes[order[k]]; ++t) scalarOrder.push_back(offsets[order[k]] + t);
        DenseSymmetric PA(N);
        for (unsigned int i = 0; i < N; ++i)
            for (unsigned int j = 0; j < N; ++j) PA(i, j) = A(scalarOrder[i], scalarOrder[j]);
        const testing::DenseLdlt F = testing::denseLdlt(PA);
        unsigned long first = N, bad = 0;
        for (unsigned int k = 0; k < N; ++k) {
            if (std::isfinite(F.d[k]) && std::fabs(F.d[k]) > threshold) continue;
            if (bad++ == 0) first = k;
        }
        ASSERT_EQ(scalarOrder[first], r);

        // The library: every pair of blocks an entry (a dense pattern), analysed in the user order `order`.
        std::vector<unsigned int> colPointers{0}, rowIndices;
        std::vector<unsigned long> valuePointers;
        std::vector<double> values;
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i <= j; ++i) {
                rowIndices.push_back(i);
                valuePointers.push_back(values.size());
                for (unsigned int q = 0; q < sizes[i] * sizes[j]; ++q)
                    values.push_back(A(offsets[i] + q / sizes[j], offsets[j] + q % sizes[j]));
            }
            colPointers.push_back(static_cast<unsigned int>(rowIndices.size()));
        }
        Analysis::Options options;
        options.ordering = Analysis::Ordering::user;
        options.userOrder = order.data();
        options.mergeBlocks = false;  // the report's blocks are the problem's blocks in `position`
        Analysis::Analyzer analyzer;
        TamberData<T> data;
        const Analysis::Problem problem{n, n, colPointers.data(), rowIndices.data(), sizes.data()};
        ASSERT_TRUE(analyzer.analyze(problem, options, data).ok);
        analyzer.setBlocks(data, values.data(), valuePointers.data());
        Tamber tamber;
        tamber.estimateWork(data, nullptr);
        TamberSolve::PivotReport report;
        EXPECT_FALSE(TamberSolve::findBadPivot(data, report));  // not factored yet
        EXPECT_EQ(report.scanned, 0u);
        tamber.factorSerial(data);
        ASSERT_TRUE(TamberSolve::findBadPivot(data, report, threshold));
        EXPECT_EQ(std::make_tuple(report.kind, report.scalar, report.block, report.local, report.userBlock,
                                  report.userScalar, report.scanned),
                  std::make_tuple(kind, first, position[userBlock], local, userBlock, r, N));
        EXPECT_TRUE(kind == TamberSolve::PivotReport::tiny || report.count == bad)
            << report.count << " vs " << bad;
        EXPECT_TRUE(kind == TamberSolve::PivotReport::nonFinite ? std::isnan(report.value)
                                                                : report.value == double(T(pivot)))
            << report.value;
    }
}

TEST(SolveToolPivots, ZeroNonFiniteAndTinyPivotsAreNamedInBothNumberings) {
    checkPivotReports<double>(0.0, 0.0, TamberSolve::PivotReport::zero);
    checkPivotReports<float>(0.0, 0.0, TamberSolve::PivotReport::zero);
    checkPivotReports<double>(std::numeric_limits<double>::quiet_NaN(), 0.0,
                              TamberSolve::PivotReport::nonFinite);
    checkPivotReports<double>(1e-30, 1e-20, TamberSolve::PivotReport::tiny);
    checkPivotReports<float>(1e-30f, 1e-20, TamberSolve::PivotReport::tiny);
}

// <build>/tools/tamber-solve, next to <build>/tests/SolveTool_test; empty when absent.
std::string toolPath() {
    char buffer[4096];
    const ssize_t len = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    std::string path(buffer, static_cast<std::size_t>(std::max<ssize_t>(len, 0)));
    path = path.substr(0, path.rfind('/', path.rfind('/') - 1)) + "/tools/tamber-solve";
    return len > 0 && access(path.c_str(), X_OK) == 0 ? path : "";
}

struct ToolRun {
    int status = -1;  // exit code (128 + n when the tool died from signal n)
    std::string out, err;
};

// Runs the tool with `args` (each quoted for the shell), both streams captured in files of `dir`.
ToolRun runTool(const TempDir& dir, const Strings& args) {
    const std::string out = dir.file("stdout"), err = dir.file("stderr");
    std::string command = "'" + toolPath() + "'";
    for (const std::string& a : args) command += " '" + a + "'";
    const int raw = std::system((command + " >'" + out + "' 2>'" + err + "'").c_str());
    ToolRun run;
    run.status = raw != -1 && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = readText(out);
    run.err = readText(err);
    return run;
}

#define REQUIRE_TOOL() \
    if (toolPath().empty()) GTEST_SKIP() << "tamber-solve is not built next to this test"

// The number after "key: " on the line that starts with it, or NaN.
double valueAfter(const std::string& text, const std::string& key) {
    const std::string::size_type at = ("\n" + text).find("\n" + key + ": ");
    return at == std::string::npos ? NAN : std::strtod(text.c_str() + at + key.size() + 2, nullptr);
}

// A small saddle point through every input form and option: the solution written matches a dense solve.
// Then every line of the report.
TEST(SolveToolRun, SolutionMatchesDenseSolveAndTheReportFormat) {
    REQUIRE_TOOL();
    TempDir dir;
    const unsigned int N = 13;
    const DenseSymmetric A = saddlePoint(9, 4, 11);
    std::vector<double> b(N), ones(N, 1.0);
    std::string rhs = "# b\n", rhsArray = "%%MatrixMarket matrix array real general\n13 1\n";
    for (unsigned int k = 0; k < N; ++k) {
        b[k] = std::sin(1.0 + k);
        rhs += g17(b[k]) + "\n";
        rhsArray += g17(b[k]) + "\n";
    }
    const std::vector<double> expected = testing::denseSolve(testing::denseLdlt(A), b),
                              expectedOnes = testing::denseSolve(testing::denseLdlt(A), ones);
    const std::string symmetric = dir.write("a.mtx", toMatrixMarket(A)),
                      general = dir.write("g.mtx", toMatrixMarket(A, true)),
                      packed = dir.writeGzip("a.mtx.gz", toMatrixMarket(A)),
                      blocks = dir.write("a.blocks", "# split\nn1 9\nn2 4\n"),
                      rhsPlain = dir.write("b.txt", rhs), rhsMm = dir.write("b.mtx", rhsArray),
                      out = dir.file("x.txt");
    const struct {
        Strings args;
        double tolerance;
    } cases[] = {
        {{symmetric, "--rhs", rhsPlain}, 1e-13},
        {{general, "--rhs", rhsMm, "--ordering", "natural"}, 1e-13},
        {{packed, "--rhs", rhsPlain, "--ordering", "symamd", "--block-size", "2"}, 1e-13},
        {{symmetric, "--rhs-ones", "--block-size", "3", "--threads", "2"}, 1e-13},
        {{symmetric, "--rhs", rhsPlain, "--float"}, 1e-4},
        {{symmetric, "--rhs", rhsPlain, "--float", "--refine", "4", "--block-size", "4"}, 1e-12},
        {{symmetric, "--rhs", rhsPlain, "--refine", "2", "--threads", "3"}, 1e-13},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const std::string& a : c.args) line += " " + a;
        SCOPED_TRACE(line);
        std::remove(out.c_str());
        Strings args = c.args;
        args.insert(args.end(), {"--blocks", blocks, "--out", out});
        const ToolRun run = runTool(dir, args);
        ASSERT_EQ(run.status, 0) << run.out << run.err;
        EXPECT_EQ(run.err, "");
        std::ifstream in(out);
        const std::vector<double> x{std::istream_iterator<double>(in), std::istream_iterator<double>()};
        const std::vector<double>& reference = c.args[1] == "--rhs-ones" ? expectedOnes : expected;
        ASSERT_EQ(x.size(), N);
        double diff = 0.0;
        for (unsigned int k = 0; k < N; ++k) diff = std::max(diff, std::fabs(x[k] - reference[k]));
        EXPECT_LT(diff / testing::normInf(reference.data(), N), c.tolerance);
        const bool refined = std::find(c.args.begin(), c.args.end(), "--refine") != c.args.end();
        EXPECT_LT(valueAfter(run.out, refined ? "residual after refinement" : "residual"), c.tolerance);
        EXPECT_NE(run.out.find("solution: written to " + out + "\n"), std::string::npos);
    }
    // Every line of the report, the timings by their labels only.
    const ToolRun run = runTool(dir, {symmetric, "--blocks", blocks, "--block-size", "2", "--refine", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    io::SymmetricMatrix S;
    io::BlockedProblem P;
    std::string message;
    ASSERT_TRUE(io::parseMatrixMarket("m", toMatrixMarket(A), S, message) &&
                io::groupIntoBlocks(S, 9, 2, P, message));
    const std::string matrix = "matrix: " + symmetric + ", n 13, nnz " + std::to_string(S.fullEntries()) +
                               " (" + std::to_string(S.numEntries()) + " in the lower triangle), symmetric\n",
                      blocksLine = "blocks: 7 (5 body, 2 constraint), block size 2, " +
                                   std::to_string(P.numEntries()) + " block entries; constraint rows 4\n";
    const std::string lines[] = {matrix,
                                 blocksLine,
                                 "right-hand side: A*ones\n",
                                 "analysis: ordering default",
                                 "factorization: double, serial\n",
                                 "time (ms): read ",
                                 "residual: ",
                                 "residual after refinement: ",
                                 "accuracy: condition estimate ",
                                 "error: "};
    std::istringstream report(run.out);
    std::string line;
    for (const std::string& e : lines) {
        ASSERT_TRUE(std::getline(report, line)) << run.out;
        EXPECT_EQ((line + "\n").substr(0, e.size()), e);
    }
    EXPECT_FALSE(std::getline(report, line)) << run.out;
    EXPECT_NE(run.out.find(", analysis "), std::string::npos);
    EXPECT_NE(run.out.find(", refine "), std::string::npos);
    EXPECT_NE(run.out.find(", check "), std::string::npos);
    EXPECT_NE(run.out.find(" (at most 1 steps)\n"), std::string::npos);
    EXPECT_NE(run.out.find(", error bound "), std::string::npos);
    EXPECT_NE(run.out.find(" (limit 1e-06)\n"), std::string::npos);
    EXPECT_LT(valueAfter(run.out, "error"), 1e-12);
}

// Malformed input, a constraint row coupled to no body and command-line mistakes exit with 2 (the last with
// the usage); --help exits with 0.
TEST(SolveToolRun, MalformedInputExitsWithTwoAndItsLine) {
    REQUIRE_TOOL();
    TempDir dir;
    const std::string good = dir.write("good.mtx", toMatrixMarket(saddlePoint(3, 1, 5))),
                      bad = dir.write("bad.mtx", GEN "2 2 2\n1 2 1\n2 1 1.5\n"),
                      blocks = dir.write("bad.blocks", "n1 3\nn2 2\n"), absent = dir.file("absent.mtx"),
                      lonely = dir.write("lonely.mtx", SYM "3 3 3\n1 1 2\n2 2 2\n3 3 0\n"),
                      split = dir.write("lonely.blocks", "n1 2\nn2 1\n");
    std::string cut = readText(dir.writeGzip("cut.mtx.gz", toMatrixMarket(saddlePoint(5, 2, 7))));
    cut.resize(cut.size() / 2);  // a gzip stream cut in half
    const std::string cutPath = dir.write("cut.mtx.gz", cut);
    const struct {
        Strings args;
        std::string err;  // the whole message, or (ending in "...") its start
    } cases[] = {
        {{bad},
         bad + ":4: the general matrix is not symmetric: A(1, 2) = 1 on line 3, A(2, 1) = 1.5 on line 4\n"},
        {{good, "--blocks", blocks},
         blocks + ":2: n1 + n2 = 3 + 2 = 5 does not match the 4 rows of the matrix\n"},
        {{absent}, absent + ": cannot open (No such file or directory)\n"},
        {{cutPath}, cutPath + ": read error (unexpected end of file)\n"},
        {{lonely, "--blocks", split}, lonely + ": ..."},
        {{}, "tamber-solve: ..."},
        {{good, "--bogus"}, "tamber-solve: ..."},
        {{good, "--block-size", "0"}, "tamber-solve: ..."},
        {{good, "--rhs-ones", "--rhs-random", "3"}, "tamber-solve: ..."},
        {{good, "--threads"}, "tamber-solve: ..."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "no arguments" : c.args.back());
        const ToolRun run = runTool(dir, c.args);
        EXPECT_EQ(run.status, 2);
        EXPECT_TRUE(run.out.empty() || c.err == lonely + ": ...") << run.out;  // the report comes first
        const bool prefix = c.err.compare(c.err.size() - 3, 3, "...") == 0;
        const std::string expected = prefix ? c.err.substr(0, c.err.size() - 3) : c.err;
        EXPECT_EQ(prefix ? run.err.substr(0, expected.size()) : run.err, expected);
        EXPECT_TRUE(c.err != "tamber-solve: ..." ||
                    run.err.find("\nusage: tamber-solve MATRIX.mtx[.gz]") != -1ul)
            << run.err;
    }
    const ToolRun help = runTool(dir, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit codes:"), std::string::npos);
}

// The accuracy check: Hilbert matrices of order 7 to 12 in float (and from order 8 on in double) are
// answered with exit 4 and a warning that says whether double would do; small orders pass. A matrix whose
// values float cannot hold is refused for --float with the same exit code, and solved in double.
TEST(SolveToolRun, WarnsWhenTheAnswerCannotBeTrusted) {
    REQUIRE_TOOL();
    TempDir dir;
    for (unsigned int n = 2; n <= 12; ++n) {
        DenseSymmetric H(n);
        for (unsigned int i = 0; i < n; ++i)
            for (unsigned int j = 0; j < n; ++j) H(i, j) = 1.0 / (i + j + 1.0);
        const std::string path = dir.write("h" + std::to_string(n) + ".mtx", toMatrixMarket(H));
        for (bool single : {false, true}) {
            SCOPED_TRACE("Hilbert " + std::to_string(n) + (single ? " float" : " double"));
            const ToolRun run =
                runTool(dir, single ? Strings{path, "--float", "--refine", "3"} : Strings{path});
            // (Float order 6 may go either way: merged into one dense block under the default analysis it
            // solves to 1.6e-4, within the limit.)
            const bool expectWarning = single ? n >= 7 : n >= 8;
            if (!expectWarning && (single ? n > 4 : n > 6))
                continue;  // the orders in between may go either way
            ASSERT_EQ(run.status, expectWarning ? 4 : 0) << run.out << run.err;
            if (!expectWarning) {
                EXPECT_EQ(run.err, "");
                continue;
            }
            const std::string start =
                path + ": warning: the solution cannot be trusted: estimated relative error ";
            EXPECT_EQ(run.err.substr(0, start.size()), start);
            EXPECT_NE(run.err.find(single ? "; double would be needed (run without --float)"
                                          : "; the matrix is too ill-conditioned for this precision"),
                      std::string::npos)
                << run.err;
            // The bound is honest: within a factor 10 of the error the run actually made, or above it.
            const double bound = std::strtod(run.out.c_str() + run.out.find("error bound ") + 12, nullptr);
            EXPECT_GE(bound, 0.1 * valueAfter(run.out, "error")) << run.out;
        }
    }
    // 3e38 fits in float, but b = A·(1, 1, 1) does not.
    const std::string big = dir.write("big.mtx", SYM "3 3 4\n1 1 3e38\n2 1 2e38\n2 2 3e38\n3 3 1\n");
    const ToolRun single = runTool(dir, {big, "--float"});
    EXPECT_EQ(single.status, 4);
    EXPECT_EQ(single.err,
              big +
                  ": warning: A or b holds values beyond the range of float (largest |value| 5e+38, "
                  "float holds up to 3.4e+38); double would be needed (run without --float)\n");
    const ToolRun twice = runTool(dir, {big});
    EXPECT_EQ(twice.status, 0) << twice.err;
}

// The bad-input table: every kind of malformed file, option and problem, each the smallest input that shows
// it, answered with its exit code and the start of its message ($M, $B, $R: the matrix, blocks and
// right-hand-side files; $D a folder). A few good inputs in between check that nothing is refused wrongly.
TEST(SolveToolRun, BadInputTable) {
    REQUIRE_TOOL();
    TempDir dir;
    const std::string ok = SYM "3 3 4\n1 1 4\n2 1 1\n2 2 4\n3 3 4\n";
    const std::string kkt = SYM "3 3 4\n1 1 2\n2 2 2\n3 1 1\n3 2 1\n";
    std::string diagonal = SYM "12000 12000 12000\n";  // one block of 12000 rows would hold 1.44e8 values
    for (int i = 1; i <= 12000; ++i) diagonal += std::to_string(i) + " " + std::to_string(i) + " 1\n";
    std::string hilbert = SYM "8 8 36\n";
    for (int j = 1; j <= 8; ++j)
        for (int i = j; i <= 8; ++i)
            hilbert += std::to_string(i) + " " + std::to_string(j) + " " + g17(1.0 / (i + j - 1)) + "\n";
    std::string cut = readText(dir.writeGzip("full.gz", ok)), corrupt = cut;
    cut.resize(cut.size() - 6);
    corrupt[corrupt.size() / 2] = static_cast<char>(corrupt[corrupt.size() / 2] ^ 0x5a);
    const std::string folder = dir.file("folder");
    std::filesystem::create_directory(folder);
    struct Case {
        std::string matrix;  // the text of $M, or "<missing>", "<folder>", "<gz-cut>", "<gz-corrupt>"
        std::string blocks;  // the text of $B
        std::string rhs;     // the text of $R
        Strings args;        // after $M
        int status;
        std::string err;  // start of standard error
    };
    const std::string big(1u << 20, '9');
    const Case cases[] = {
        // Files that are not there or not readable.
        {"<missing>", "", "", {}, 2, "$M: cannot open (No such file or directory)"},
        {"<folder>", "", "", {}, 2, "$M: read error (Is a directory)"},
        {"<gz-cut>", "", "", {}, 2, "$M: read error (unexpected end of file)"},
        {"<gz-corrupt>", "", "", {}, 2, "$M: read error ("},
        {"\x1f\x8b", "", "", {}, 2, "$M: read error ("},
        {ok, "<missing>", "", {"--blocks", "$B"}, 2, "$B: cannot open (No such file or directory)"},
        {ok, "", "<folder>", {"--rhs", "$R"}, 2, "$R: read error (Is a directory)"},
        // Banner.
        {"", "", "", {}, 2, "$M:1: empty file (expected the banner"},
        {"\n\n", "", "", {}, 2, "$M:1: missing Matrix Market banner"},
        {"3 3 1\n1 1 1\n", "", "", {}, 2, "$M:1: missing Matrix Market banner"},
        {"%%MatrixMarkt matrix coordinate real symmetric\n",
         "",
         "",
         {},
         2,
         "$M:1: missing Matrix Market banner"},
        {"%%MatrixMarket matrix coordinate real\n", "", "", {}, 2, "$M:1: garbled banner"},
        {"%%MatrixMarket matrix coordinate real symmetric x\n", "", "", {}, 2, "$M:1: garbled banner"},
        {"%%MatrixMarket vector coordinate real symmetric\n",
         "",
         "",
         {},
         2,
         "$M:1: unsupported object \"vector\""},
        {"%%MatrixMarket matrix array real symmetric\n", "", "", {}, 2, "$M:1: unsupported format \"array\""},
        {"%%MatrixMarket matrix coordinate complex symmetric\n",
         "",
         "",
         {},
         2,
         "$M:1: unsupported field \"complex\""},
        {"%%MatrixMarket matrix coordinate pattern symmetric\n",
         "",
         "",
         {},
         2,
         "$M:1: unsupported field \"pattern\""},
        {"%%MatrixMarket matrix coordinate real skew-symmetric\n",
         "",
         "",
         {},
         2,
         "$M:1: unsupported symmetry \"skew-symmetric\""},
        {"%%MatrixMarket matrix coordinate real hermitian\n",
         "",
         "",
         {},
         2,
         "$M:1: unsupported symmetry \"hermitian\""},
        {"%%MatrixMarket matrix coordinate integer symmetric\n2 2 2\n1 1 2.5\n2 2 1\n",
         "",
         "",
         {},
         2,
         "$M:3:5: value \"2.5\" is not an integer (the field is integer)"},
        {"%%MatrixMarket matrix coordinate integer symmetric\n2 2 2\n1 1 2\n2 2 3\n", "", "", {}, 0, ""},
        {"%%matrixmarket MATRIX Coordinate REAL Symmetric\n1 1 1\n1 1 2\n", "", "", {}, 0, ""},
        // Size line.
        {SYM, "", "", {}, 2, "$M:1: the file ends before the size line"},
        {SYM "3 3\n", "", "", {}, 2, "$M:2: bad size line \"3 3\""},
        {SYM "3 3 3 3\n", "", "", {}, 2, "$M:2: bad size line \"3 3 3 3\""},
        {SYM "3 3 x\n", "", "", {}, 2, "$M:2: bad size line \"3 3 x\""},
        {SYM "-3 -3 3\n", "", "", {}, 2, "$M:2:1: row count \"-3\" out of range 0..4294967294"},
        {SYM "3 4 3\n", "", "", {}, 2, "$M:2: the matrix is not square (3 rows, 4 columns)"},
        {SYM "0 0 0\n", "", "", {}, 2, "$M:2: empty matrix (0 rows)"},
        {SYM "2147483648 2147483648 1\n1 1 1\n",
         "",
         "",
         {},
         2,
         "$M:2: 1 entries declared for 2147483648 rows"},
        {SYM "4294967296 4294967296 1\n",
         "",
         "",
         {},
         2,
         "$M:2:1: row count \"4294967296\" out of range 0..4294967294"},
        {SYM "18446744073709551619 18446744073709551619 1\n",
         "",
         "",
         {},
         2,
         "$M:2:1: row count \"18446744073709551619\" out of range"},
        {SYM "3 3 18446744073709551620\n",
         "",
         "",
         {},
         2,
         "$M:2:5: entry count \"18446744073709551620\" out of range"},
        {SYM "2 2 4\n", "", "", {}, 2, "$M:2: 4 entries declared, more than the 3 of a 2 x 2 lower triangle"},
        // Entry count.
        {SYM "3 3 4\n1 1 4\n2 2 4\n3 3 4\n",
         "",
         "",
         {},
         2,
         "$M:5: the file ends after 3 of the 4 entries declared on line 2"},
        {SYM "3 3 2\n1 1 4\n2 2 4\n3 3 4\n",
         "",
         "",
         {},
         2,
         "$M:5: more entries than the 2 declared on line 2"},
        {SYM "3 3 3\n1 1\n", "", "", {}, 2, "$M:3: expected \"row column value\", found \"1 1\""},
        {SYM "3 3 3\n1 1 1 1\n", "", "", {}, 2, "$M:3: extra text \"1\" after the value"},
        // Indices.
        {SYM "3 3 3\n0 1 1\n", "", "", {}, 2, "$M:3:1: row index \"0\" out of range 1..3"},
        {SYM "3 3 3\n1 0 1\n", "", "", {}, 2, "$M:3:3: column index \"0\" out of range 1..3"},
        {SYM "3 3 3\n-1 1 1\n", "", "", {}, 2, "$M:3:1: row index \"-1\" out of range 1..3"},
        {SYM "3 3 3\n4 1 1\n", "", "", {}, 2, "$M:3:1: row index \"4\" out of range 1..3"},
        {SYM "3 3 3\n1 4 1\n", "", "", {}, 2, "$M:3:3: column index \"4\" out of range 1..3"},
        {SYM "3 3 3\n18446744073709551617 1 1\n",
         "",
         "",
         {},
         2,
         "$M:3:1: row index \"18446744073709551617\" out of range 1..3"},
        {SYM "3 3 3\n9223372036854775808 1 1\n",
         "",
         "",
         {},
         2,
         "$M:3:1: row index \"9223372036854775808\" out of range 1..3"},
        {SYM "3 3 3\n4294967297 1 1\n", "", "", {}, 2, "$M:3:1: row index \"4294967297\" out of range 1..3"},
        {SYM "3 3 3\n1 -18446744073709551615 1\n",
         "",
         "",
         {},
         2,
         "$M:3:3: column index \"-18446744073709551615\" out of range 1..3"},
        {SYM "3 3 3\n1.0 1 1\n", "", "", {}, 2, "$M:3:1: row index \"1.0\" is not an integer"},
        {SYM "3 3 3\n1e0 1 1\n", "", "", {}, 2, "$M:3:1: row index \"1e0\" is not an integer"},
        {SYM "3 3 3\n0x1 1 1\n", "", "", {}, 2, "$M:3:1: row index \"0x1\" is not an integer"},
        {SYM "3 3 3\n+1 1 4\n2 2 4\n3 3 4\n", "", "", {}, 0, ""},
        // Duplicates, triangles and symmetry.
        {SYM "3 3 4\n1 1 4\n2 2 4\n3 3 4\n1 1 5\n",
         "",
         "",
         {},
         2,
         "$M:6: duplicate entry (1, 1), already given on line 3"},
        {SYM "3 3 5\n1 1 4\n2 1 1\n2 2 4\n3 3 4\n1 2 1\n",
         "",
         "",
         {},
         2,
         "$M:7: duplicate entry (1, 2), already given as (2, 1) on line 4"},
        {SYM "3 3 4\n1 1 4\n1 2 1\n2 2 4\n3 3 4\n", "", "", {}, 0, ""},  // an upper entry stands for both
        {GEN "2 2 4\n1 1 4\n2 1 1\n1 2 2\n2 2 4\n",
         "",
         "",
         {},
         2,
         "$M:5: the general matrix is not symmetric: A(2, 1) = 1 on line 4, A(1, 2) = 2 on line 5"},
        {GEN "2 2 3\n1 1 4\n2 1 1\n2 2 4\n",
         "",
         "",
         {},
         2,
         "$M:4: the general matrix is not symmetric: A(2, 1) = 1 on line 4, A(1, 2) is not given (0)"},
        {GEN "2 2 4\n1 1 4\n2 1 1\n1 2 1\n2 2 4\n", "", "", {}, 0, ""},
        // Values.
        {SYM "2 2 2\n1 1 nan\n2 2 1\n", "", "", {}, 2, "$M:3:5: value \"nan\" is not finite"},
        {SYM "2 2 2\n1 1 inf\n2 2 1\n", "", "", {}, 2, "$M:3:5: value \"inf\" is not finite"},
        {SYM "2 2 2\n1 1 -Infinity\n2 2 1\n", "", "", {}, 2, "$M:3:5: value \"-Infinity\" is not finite"},
        {SYM "2 2 2\n1 1 1e400\n2 2 1\n", "", "", {}, 2, "$M:3:5: value \"1e400\" is not finite"},
        {SYM "2 2 2\n1 1 1.0D+00\n2 2 1\n", "", "", {}, 2, "$M:3:5: value \"1.0D+00\" is not a number"},
        {SYM "2 2 2\n1 1 one\n2 2 1\n", "", "", {}, 2, "$M:3:5: value \"one\" is not a number"},
        {std::string(SYM "2 2 2\n1 1 1\0x\n2 2 1\n", sizeof(SYM) + 18),
         "",
         "",
         {},
         2,
         "$M:3:5: value \"1\\x00x\" is not a number"},
        {SYM "2 2 2\n1 1 1\x1b[2J\x07\n2 2 1\n",
         "",
         "",
         {},
         2,
         "$M:3:5: value \"1\\x1b[2J\\x07\" is not a number"},
        {SYM "2 2 2\n1 1 " + big + "x\n2 2 1\n",
         "",
         "",
         {},
         2,
         "$M:3:5: value \"" + std::string(57, '9') + "...\" is not a number"},
        {std::string("\x7f"
                     "ELF\x02\x01\x01\0\0\0",
                     10),
         "",
         "",
         {},
         2,
         "$M:1: missing Matrix Market banner (expected \"%%MatrixMarket matrix coordinate real symmetric\", "
         "found \"\\x7fELF\\x02\\x01\\x01\\x00\\x00\\x00\")"},
        // Problems the file reader accepts and the solver refuses.
        {SYM "3 3 2\n1 1 1\n2 2 1\n",
         "",
         "",
         {},
         3,
         "$M: zero pivot at row 3 (block 3, local 1) of the matrix: elimination step 3 of 3, d = 0"},
        {SYM "2 2 2\n1 1 0\n2 2 0\n",
         "",
         "",
         {},
         3,
         "$M: zero pivot at row 1 (block 1, local 1) of the matrix: elimination step 1 of 2, d = 0"},
        {kkt, "", "", {"--ordering", "natural"}, 0, ""},
        {SYM "3 3 3\n1 1 2\n2 2 2\n3 3 0\n", "n1 2\nn2 1\n", "", {"--blocks", "$B"}, 2, "$M: analysis: "},
        {SYM "3 3 1\n1 1 1\n",
         "",
         "",
         {},
         2,
         "$M:2: 1 entries declared for 3 rows: a non-singular matrix needs at least 2"},
        // Blocks files.
        {kkt, "n1 2\nn2 1\n", "", {"--blocks", "$B"}, 0, ""},
        {kkt, "", "", {"--blocks", "$B"}, 2, "$B:1: missing the line \"n1 <count>\""},
        {kkt,
         "n1 2\nn2 2\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:2: n1 + n2 = 2 + 2 = 4 does not match the 3 rows of the matrix"},
        {kkt,
         "n1 1\nn2 1\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:2: n1 + n2 = 1 + 1 = 2 does not match the 3 rows of the matrix"},
        {kkt,
         "n1 18446744073709551618\nn2 1\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:1:4: count \"18446744073709551618\" of n1 out of range 0..3 (the matrix has 3 rows)"},
        {kkt,
         "n1 4294967295\nn2 4\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:1:4: count \"4294967295\" of n1 out of range 0..3"},
        {kkt,
         "n1 2\nn2 -1\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:2:4: count \"-1\" of n2 is not a non-negative integer"},
        {kkt,
         "n1 2.0\nn2 1\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:1:4: count \"2.0\" of n1 is not a non-negative integer"},
        {kkt,
         "n1\nn2 1\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:1: count missing of n1 is not a non-negative integer"},
        {kkt, "n1 2\n", "", {"--blocks", "$B"}, 2, "$B:1: missing the line \"n2 <count>\""},
        {kkt, "n2 1\n", "", {"--blocks", "$B"}, 2, "$B:1: missing the line \"n1 <count>\""},
        {kkt, "n1 2\nn1 2\n", "", {"--blocks", "$B"}, 2, "$B:2: n1 given twice (first on line 1)"},
        {kkt, "n1 2\nn3 1\n", "", {"--blocks", "$B"}, 2, "$B:2: unknown key \"n3\""},
        {kkt,
         "n1 2 bodies\nn2 1\n",
         "",
         {"--blocks", "$B"},
         2,
         "$B:1: extra text \"bodies\" after the count of n1"},
        // Right-hand sides.
        {ok, "", "1\n2\n3\n", {"--rhs", "$R"}, 0, ""},
        {ok, "", "1\n2\n", {"--rhs", "$R"}, 2, "$R:2: the file ends after 2 of 3 values"},
        {ok, "", "1\n2\n3\n4\n", {"--rhs", "$R"}, 2, "$R:4: more values than the 3 rows of the matrix"},
        {ok, "", "1\nnan\n3\n", {"--rhs", "$R"}, 2, "$R:2:1: value \"nan\" is not finite"},
        {ok, "", "1 2\n3\n", {"--rhs", "$R"}, 2, "$R:1: extra text \"2\" after the value"},
        {ok, "", "1\ntwo\n3\n", {"--rhs", "$R"}, 2, "$R:2:1: value \"two\" is not a number"},
        {ok,
         "",
         "%%MatrixMarket matrix array real general\n4 1\n1\n2\n3\n4\n",
         {"--rhs", "$R"},
         2,
         "$R:2: the vector is 4 x 1, the matrix needs 3 x 1"},
        {ok,
         "",
         "%%MatrixMarket matrix array real general\n18446744073709551619 1\n1\n2\n3\n",
         {"--rhs", "$R"},
         2,
         "$R:2:1: row count \"18446744073709551619\" out of range"},
        {ok,
         "",
         "%%MatrixMarket matrix coordinate real general\n3 1 3\n",
         {"--rhs", "$R"},
         2,
         "$R:1: unsupported format \"coordinate\" for a vector"},
        // Command lines.
        {ok, "", "", {"--bogus"}, 2, "tamber-solve: unknown option \"--bogus\""},
        {ok, "", "", {"--\x1b[31m"}, 2, "tamber-solve: unknown option \"--\\x1b[31m\""},
        {ok, "", "", {"$M"}, 2, "tamber-solve: more than one matrix file"},
        {ok,
         "",
         "",
         {"--block-size", "0"},
         2,
         "tamber-solve: --block-size needs a block size from 1 to 65536"},
        {ok,
         "",
         "",
         {"--block-size", "65537"},
         2,
         "tamber-solve: --block-size needs a block size from 1 to 65536"},
        {ok, "", "", {"--threads", "0"}, 2, "tamber-solve: --threads needs a thread count from 1 to 1024"},
        {ok, "", "", {"--refine", "x"}, 2, "tamber-solve: --refine needs a step count from 0 to 1000"},
        {ok,
         "",
         "",
         {"--ordering", "best"},
         2,
         "tamber-solve: --ordering needs one of default, symamd, natural"},
        {ok,
         "",
         "",
         {"--rhs-ones", "--rhs-random", "1"},
         2,
         "tamber-solve: give at most one of --rhs, --rhs-ones, --rhs-random"},
        {ok, "", "", {"--max-error", "-1"}, 2, "tamber-solve: --max-error needs a positive number"},
        {ok, "", "", {"--rhs"}, 2, "tamber-solve: --rhs needs a file name"},
        {ok, "", "", {"--out", "$D"}, 1, "$D: cannot write (Is a directory)"},
        {diagonal,
         "",
         "",
         {"--block-size", "65536"},
         2,
         "tamber-solve: blocks of 65536 rows need more values than the tool's limit of 134217728 (1 GiB)"},
        // Answers that cannot be trusted.
        {hilbert,
         "",
         "",
         {"--float"},
         4,
         "$M: warning: the solution cannot be trusted: estimated relative error "},
        {SYM "2 2 2\n1 1 1e39\n2 2 1\n",
         "",
         "",
         {"--float"},
         4,
         "$M: warning: A or b holds values beyond the range of float"},
    };
    const std::string M = dir.file("m.mtx"), B = dir.file("b.txt"), R = dir.file("r.txt");
    auto place = [&](const std::string& text, const std::string& path) {
        std::filesystem::remove_all(path);
        if (text == "<folder>")
            std::filesystem::create_directory(path);
        else if (text == "<gz-cut>")
            dir.write(path.substr(path.rfind('/') + 1), cut);
        else if (text == "<gz-corrupt>")
            dir.write(path.substr(path.rfind('/') + 1), corrupt);
        else if (text != "<missing>")
            dir.write(path.substr(path.rfind('/') + 1), text);
    };
    auto expand = [&](std::string t) {
        for (const auto& [key, value] :
             {std::pair<std::string, std::string>{"$M", M}, {"$B", B}, {"$R", R}, {"$D", folder}})
            for (std::string::size_type at; (at = t.find(key)) != std::string::npos;) t.replace(at, 2, value);
        return t;
    };
    unsigned int count = 0;
    for (const Case& c : cases) {
        place(c.matrix, M);
        place(c.blocks, B);
        place(c.rhs, R);
        Strings args = {M};
        for (const std::string& a : c.args) args.push_back(expand(a));
        const ToolRun run = runTool(dir, args);
        const std::string expected = expand(c.err);
        SCOPED_TRACE(c.matrix.substr(0, 80) + " | " + c.blocks + " | " + c.rhs.substr(0, 40) + " | " +
                     (c.args.empty() ? "" : c.args[0]));
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_EQ(run.err.substr(0, expected.size()), expected);
        EXPECT_TRUE(c.status != 0 || run.err.empty()) << run.err;
        EXPECT_LT(run.err.size(), 4000u);
        for (char ch : run.err) EXPECT_TRUE(ch == '\n' || (ch >= 0x20 && ch < 0x7f)) << run.err;
        ++count;
    }
    EXPECT_GE(count, 92u);
}

// A zero, a non-finite or a zero body pivot exits with 3 and names the row in the user's numbering; no
// solution is written.
TEST(SolveToolRun, BadPivotExitsWithThreeAndNamesTheRow) {
    REQUIRE_TOOL();
    TempDir dir;
    // In the natural order with blocks of 2 rows: d1 = 4, d2 = 3.75, d3 = 1, d4 = 1 − 1²/1 = 0 (row 4 =
    // block 2, local 2); rows 5 and 6 depend on it and turn non-finite.
    const std::string zero =
                          dir.write("zero.mtx", SYM
                                    "6 6 9\n1 1 4\n2 1 1\n2 2 4\n3 3 1\n4 3 1\n4 4 1\n5 4 1\n5 5 4\n6 6 4\n"),
                      out = dir.file("x.txt");
    for (const char* precision : {"--rhs-ones", "--float"})  // both precisions, both factorizations
        for (const char* threads : {"1", "2"}) {
            SCOPED_TRACE(std::string(precision) + " --threads " + threads);
            const ToolRun run = runTool(dir, {zero, "--ordering", "natural", "--block-size", "2", "--out",
                                              out, precision, "--threads", threads});
            EXPECT_EQ(run.status, 3);
            EXPECT_EQ(run.err,
                      zero +
                          ": zero pivot at row 4 (block 2, local 2) of the matrix: elimination step 4 "
                          "of 6, d = 0\n");
            EXPECT_FALSE(std::filesystem::exists(out));
            EXPECT_EQ(run.out.find("residual"), std::string::npos);
            EXPECT_NE(run.out.find("time (ms): read "), std::string::npos);
        }
    // A zero diagonal last is no zero pivot (d3 = 0 − 1/2); first, it is, with the hint to name constraint
    // rows. 1 − (1e200)²: the second pivot overflows.
    const std::string kkt = dir.write("kkt.mtx", SYM "3 3 3\n1 1 2\n2 2 2\n3 1 1\n"),
                      kktFirst = dir.write("kkt1.mtx", SYM "3 3 3\n2 1 1\n2 2 2\n3 3 2\n"),
                      huge = dir.write("huge.mtx", SYM "2 2 3\n1 1 1\n2 1 1e200\n2 2 1\n");
    const struct {
        std::string path, err;
    } cases[] = {
        {kkt, ""},
        {kktFirst, kktFirst +
                       ": zero pivot at row 1 (block 1, local 1) of the matrix: elimination step 1 of 3, d = "
                       "0\n" +
                       kktFirst +
                       ": note: A(1, 1) is zero; if the rows with a zero diagonal are constraint rows, name "
                       "them with --blocks\n"},
        {huge, huge +
                   ": non-finite pivot at row 2 (block 2, local 1) of the matrix: elimination step 2 of 2, "
                   "d = -inf\n"},
    };
    for (const auto& c : cases) {
        const ToolRun run = runTool(dir, {c.path, "--ordering", "natural"});
        EXPECT_EQ(run.status, c.err.empty() ? 0 : 3);
        EXPECT_EQ(run.err, c.err);
    }
}

// Every real matrix either solves to a small residual or has its failing pivot named; the positive definite
// ones must solve.
TEST(SolveToolRun, RealMatrices) {
    REQUIRE_TOOL();
    const char* data = std::getenv("KIVTAMBER_DATA_DIR");
    if (data == nullptr) GTEST_SKIP() << "KIVTAMBER_DATA_DIR is not set";
    const char* names[] = {"494_bus.mtx",      "bcsstk13.mtx.gz",  "AUG3DCQP_kkt.mtx", "CVXQP3_M_kkt.mtx",
                           "HUES-MOD_kkt.mtx", "DTOC3_kkt.mtx.gz", "AUG2DC_kkt.mtx",   "CONT-101_kkt.mtx"};
    TempDir dir;
    for (const char* name : names) {
        const std::string path = std::string(data) + "/" + name;
        if (!std::filesystem::exists(path)) continue;
        SCOPED_TRACE(path);
        const std::string base = path.substr(0, path.find(".mtx"));
        Strings args = {path, "--refine", "2"};
        if (std::filesystem::exists(base + ".blocks"))
            args.insert(args.end(), {"--blocks", base + ".blocks"});
        const ToolRun run = runTool(dir, args);
        if (run.status == 0) {
            EXPECT_LT(valueAfter(run.out, "residual after refinement"), 1e-12) << run.out;
            EXPECT_EQ(run.err, "");  // no warning on these well-conditioned matrices
            // Mixed-precision refinement gets the float factor to an answer that passes the check as well.
            Strings single = args;
            single.insert(single.end(), {"--float", "--refine", "3"});
            const ToolRun floatRun = runTool(dir, single);
            EXPECT_EQ(floatRun.status, 0) << floatRun.err;
            EXPECT_EQ(floatRun.err, "");
            continue;
        }
        EXPECT_NE(base.find("_kkt"), std::string::npos) << "a positive definite matrix failed";
        ASSERT_EQ(run.status, 3) << run.out << run.err;
        const std::string::size_type at = run.err.find(" pivot at row ");
        ASSERT_NE(at, std::string::npos) << run.err;
        const unsigned long row = std::strtoul(run.err.c_str() + at + 14, nullptr, 10);
        const unsigned long n = std::strtoul(run.out.c_str() + run.out.find(", n ") + 4, nullptr, 10);
        EXPECT_TRUE(row >= 1 && row <= n) << run.err;
    }
}

}  // namespace
}  // namespace kivTamber
