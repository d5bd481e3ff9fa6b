// The command-line solver and what it is built from: the readers (every kind of malformed file gets its
// message, to the character), the grouping of rows into blocks (checked against the scalar matrix), the
// pivot diagnostic of the library (checked against a dense L·D·Lᵀ of the permuted matrix), and the built
// tool itself: solutions against a dense solve, exit codes, messages, and the real matrices.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
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

// ---------------------------------------------------------------------------------------------------------
// Small matrices as Matrix Market text
// ---------------------------------------------------------------------------------------------------------

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
    return std::string("%%MatrixMarket matrix coordinate real ") + (general ? "general" : "symmetric") +
           "\n% test matrix\n" + std::to_string(A.n) + " " + std::to_string(A.n) + " " +
           std::to_string(count) + "\n" + entries;
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
        double sum = 1.0;
        for (unsigned int j = 0; j < bodies; ++j) sum += std::fabs(A(i, j));
        A(i, i) = sum;
    }
    for (unsigned int c = 0; c < constraints; ++c) {
        A.setSymmetric(bodies + c, c, 4.0 + value(rng));
        for (unsigned int j = constraints; j < bodies; ++j)
            if (present(rng)) A.setSymmetric(bodies + c, j, value(rng));
    }
    return A;
}

// x = A⁻¹·b by a dense L·D·Lᵀ in the given order (bodies first keeps every pivot of a saddle point non-zero).
std::vector<double> denseSolve(const DenseSymmetric& A, const std::vector<double>& b) {
    return testing::denseSolve(testing::denseLdlt(A), b);
}

double maxRelativeDifference(const std::vector<double>& x, const std::vector<double>& y) {
    double scale = 0.0, diff = 0.0;
    for (std::size_t k = 0; k < x.size(); ++k) {
        scale = std::max(scale, std::fabs(y[k]));
        diff = std::max(diff, std::fabs(x[k] - y[k]));
    }
    return diff / scale;
}

// ---------------------------------------------------------------------------------------------------------
// Readers
// ---------------------------------------------------------------------------------------------------------

struct BadFile {
    const char* what;
    const char* text;
    const char* message;
};

TEST(SolveToolReader, RejectsEveryKindOfMalformedMatrixWithItsLine) {
    const BadFile cases[] = {
        {"empty", "",
         "m.mtx:1: empty file (expected the banner \"%%MatrixMarket matrix coordinate real symmetric\")"},
        {"no banner", "3 3 1\n1 1 1\n",
         "m.mtx:1: missing Matrix Market banner (expected \"%%MatrixMarket matrix coordinate real "
         "symmetric\", "
         "found \"3 3 1\")"},
        {"garbled banner", "%%MatrixMarket matrix coordinate real\n1 1 1\n1 1 1\n",
         "m.mtx:1: garbled banner \"%%MatrixMarket matrix coordinate real\" (expected \"%%MatrixMarket "
         "matrix "
         "FORMAT FIELD SYMMETRY\")"},
        {"object", "%%MatrixMarket vector coordinate real general\n",
         "m.mtx:1: unsupported object \"vector\" (only \"matrix\")"},
        {"array", "%%MatrixMarket matrix array real symmetric\n1 1\n1\n",
         "m.mtx:1: unsupported format \"array\" (only \"coordinate\")"},
        {"pattern", "%%MatrixMarket matrix coordinate pattern symmetric\n1 1 1\n1 1\n",
         "m.mtx:1: unsupported field \"pattern\" (only \"real\" or \"integer\")"},
        {"complex", "%%MatrixMarket matrix coordinate complex hermitian\n",
         "m.mtx:1: unsupported field \"complex\" (only \"real\" or \"integer\")"},
        {"skew", "%%MatrixMarket matrix coordinate real skew-symmetric\n",
         "m.mtx:1: unsupported symmetry \"skew-symmetric\" (only \"symmetric\" or \"general\")"},
        {"no size line", "%%MatrixMarket matrix coordinate real symmetric\n% only comments\n",
         "m.mtx:2: the file ends before the size line"},
        {"size words", "%%MatrixMarket matrix coordinate real symmetric\n3 3\n",
         "m.mtx:2: bad size line \"3 3\" (expected \"rows columns entries\", three non-negative integers)"},
        {"size value", "%%MatrixMarket matrix coordinate real symmetric\n3 3 -1\n",
         "m.mtx:2: bad size line \"3 3 -1\" (expected \"rows columns entries\", three non-negative "
         "integers)"},
        {"not square", "%%MatrixMarket matrix coordinate real symmetric\n%\n3 4 1\n1 1 1\n",
         "m.mtx:3: the matrix is not square (3 rows, 4 columns)"},
        {"empty matrix", "%%MatrixMarket matrix coordinate real symmetric\n0 0 0\n",
         "m.mtx:2: empty matrix (0 rows)"},
        {"too many declared", "%%MatrixMarket matrix coordinate real symmetric\n2 2 4\n",
         "m.mtx:2: 4 entries declared, more than the 3 of a 2 x 2 lower triangle"},
        {"too few for n", "%%MatrixMarket matrix coordinate real symmetric\n4000000000 4000000000 3\n",
         "m.mtx:2: 3 entries declared for 4000000000 rows: a non-singular matrix needs at least 2000000000 "
         "(every "
         "row needs an entry)"},
        {"too few", "%%MatrixMarket matrix coordinate real symmetric\n3 3 3\n1 1 1\n2 2 1\n\n",
         "m.mtx:5: the file ends after 2 of the 3 entries declared on line 2"},
        {"too many", "%%MatrixMarket matrix coordinate real symmetric\n2 2 1\n1 1 1\n2 2 1\n",
         "m.mtx:4: more entries than the 1 declared on line 2"},
        {"short entry", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n1 1\n",
         "m.mtx:3: expected \"row column value\", found \"1 1\""},
        {"extra text", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n1 1 1 0.5 x\n",
         "m.mtx:3: extra text \"0.5 x\" after the value"},
        {"row not integer", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n1.5 1 1\n",
         "m.mtx:3: row index \"1.5\" is not an integer"},
        {"row too large", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n1 1 1\n4 1 2\n",
         "m.mtx:4: row index 4 out of range 1..3"},
        {"column zero", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n2 0 1\n",
         "m.mtx:3: column index 0 out of range 1..3"},
        {"not a number", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n2 1 1.0D+00\n",
         "m.mtx:3: value \"1.0D+00\" is not a number"},
        {"nan", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n2 1 nan\n",
         "m.mtx:3: value \"nan\" is not finite"},
        {"overflow", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n2 1 -1e999\n",
         "m.mtx:3: value \"-1e999\" is not finite"},
        {"integer field", "%%MatrixMarket matrix coordinate integer symmetric\n3 3 2\n2 1 2.5\n",
         "m.mtx:3: value \"2.5\" is not an integer (the field is integer)"},
        {"duplicate", "%%MatrixMarket matrix coordinate real symmetric\n3 3 3\n2 1 1\n3 3 2\n2 1 1\n",
         "m.mtx:5: duplicate entry (2, 1), already given on line 3"},
        {"duplicate mirrored", "%%MatrixMarket matrix coordinate real symmetric\n3 3 2\n1 2 1\n2 1 1\n",
         "m.mtx:4: duplicate entry (2, 1), already given as (1, 2) on line 3"},
        {"asymmetric", "%%MatrixMarket matrix coordinate real general\n3 3 3\n2 1 3\n3 3 2\n1 2 4\n",
         "m.mtx:5: the general matrix is not symmetric: A(2, 1) = 3 on line 3, A(1, 2) = 4 on line 5"},
        {"missing partner", "%%MatrixMarket matrix coordinate real general\n3 3 2\n1 1 1\n1 3 0.25\n",
         "m.mtx:4: the general matrix is not symmetric: A(1, 3) = 0.25 on line 4, A(3, 1) is not given (0)"},
        {"general duplicate", "%%MatrixMarket matrix coordinate real general\n3 3 3\n1 2 1\n2 1 1\n1 2 1\n",
         "m.mtx:5: duplicate entry (1, 2), already given on line 3"},
        // Of several offences found after reading, the one on the earliest line is reported.
        {"earliest offence",
         "%%MatrixMarket matrix coordinate real general\n3 3 5\n3 1 1\n1 3 1\n2 1 5\n1 2 6\n3 1 1\n",
         "m.mtx:6: the general matrix is not symmetric: A(2, 1) = 5 on line 5, A(1, 2) = 6 on line 6"},
        {"binary", "\x1f\x8b\x08",
         "m.mtx:1: missing Matrix Market banner (expected \"%%MatrixMarket matrix coordinate real "
         "symmetric\", "
         "found \"\\x1f\\x8b\\x08\")"},
    };
    for (const BadFile& c : cases) {
        SCOPED_TRACE(c.what);
        io::SymmetricMatrix A;
        std::string message;
        EXPECT_FALSE(io::parseMatrixMarket("m.mtx", c.text, A, message));
        EXPECT_EQ(message, c.message);
    }
}

TEST(SolveToolReader, ReadsTheLowerTriangleOfEveryAcceptedForm) {
    // The same matrix [[4, 1, 0], [1, 5, 2], [0, 2, 0]] with an explicit zero at (3, 1) and no (3, 3), given
    // five ways: lower triangle; mixed triangles in odd order with comments, blank lines, CRLF and an
    // odd-case banner; integer field; general with both triangles; general with only one triangle of a zero.
    const char* forms[] = {
        "%%MatrixMarket matrix coordinate real symmetric\n3 3 5\n1 1 4\n2 1 1\n3 1 0\n2 2 5\n3 2 2\n",
        "%%matrixmarket MATRIX Coordinate Real Symmetric\r\n% comment\r\n\r\n  3 3 5  \r\n2 3 2\r\n"
        "%  another comment\r\n1 2 1e0\r\n\t2 2 5.0\r\n1 1 +4\r\n1 3 -0\r\n",
        "%%MatrixMarket matrix coordinate integer symmetric\n3 3 5\n1 1 4\n2 1 1\n3 1 0\n2 2 5\n3 2 2",
        "%%MatrixMarket matrix coordinate real general\n3 3 7\n1 1 4\n2 1 1\n1 2 1\n3 1 0\n2 2 5\n3 2 2\n2 3 "
        "2\n",
        "%%MatrixMarket matrix coordinate real general\n3 3 7\n1 1 4\n1 2 1\n2 1 1\n1 3 0\n2 2 5\n3 2 2\n2 3 "
        "2\n"
        "% a comment at the end\n",
    };
    for (int f = 0; f < 5; ++f) {
        SCOPED_TRACE(f);
        io::SymmetricMatrix A;
        std::string message;
        ASSERT_TRUE(io::parseMatrixMarket("m.mtx", forms[f], A, message)) << message;
        EXPECT_EQ(A.n, 3u);
        EXPECT_EQ(A.general, f >= 3);
        EXPECT_EQ(A.colPointers, (std::vector<unsigned long>{0, 3, 5, 5}));
        EXPECT_EQ(A.rowIndices, (std::vector<unsigned int>{0, 1, 2, 1, 2}));
        EXPECT_EQ(A.values, (std::vector<double>{4, 1, 0, 5, 2}));
        EXPECT_EQ(A.fullEntries(), 8u);
        EXPECT_EQ(A.normInf(), 8.0);
        const double x[3] = {1, 2, 3};
        double y[3];
        A.multiply(x, y);
        EXPECT_EQ(y[0], 6.0);
        EXPECT_EQ(y[1], 17.0);
        EXPECT_EQ(y[2], 4.0);
    }
}

// Random edits of valid files: each result is a well-formed lower triangle or a message "m.mtx:LINE: ..."
// naming a line of the edited text; nothing crashes (the sanitizer build watches every access).
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
            switch (rng() % 3) {
                case 0:
                    text.insert(at, 1, c);
                    break;
                case 1:
                    if (at < text.size()) text.erase(at, 1);
                    break;
                default:
                    if (at < text.size()) text[at] = c;
                    break;
            }
        }
        SCOPED_TRACE(text);
        io::SymmetricMatrix A;
        std::string message;
        if (io::parseMatrixMarket("m.mtx", text, A, message)) {
            ASSERT_EQ(A.colPointers.size(), A.n + 1ul);
            ASSERT_EQ(A.colPointers[A.n], A.rowIndices.size());
            for (unsigned int c = 0; c < A.n; ++c)
                for (unsigned long k = A.colPointers[c]; k < A.colPointers[c + 1]; ++k) {
                    ASSERT_TRUE(A.rowIndices[k] >= c && A.rowIndices[k] < A.n);
                    ASSERT_TRUE(k == A.colPointers[c] || A.rowIndices[k - 1] < A.rowIndices[k]);
                }
        } else {
            ASSERT_EQ(message.rfind("m.mtx:", 0), 0u) << message;
            char* end = nullptr;
            const unsigned long line = std::strtoul(message.c_str() + 6, &end, 10);
            const unsigned long lines =
                static_cast<unsigned long>(std::count(text.begin(), text.end(), '\n')) + 1;
            EXPECT_TRUE(line >= 1 && line <= lines) << message;
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
        {"unknown key", "n1 3\nn3 2\n",
         "b:2: unknown key \"n3\" (expected \"n1 <count>\" or \"n2 <count>\")"},
        {"negative", "n1 -3\n", "b:1: count \"-3\" of n1 is not a non-negative integer"},
        {"missing count", "n1\n", "b:1: count missing of n1 is not a non-negative integer"},
        {"extra", "n1 3 rows\n", "b:1: extra text \"rows\" after the count of n1"},
        {"twice", "n1 3\n#\nn1 3\n", "b:3: n1 given twice (first on line 1)"},
        {"missing key", "n1 5\n# no n2\n", "b:2: missing the line \"n2 <count>\""},
        {"empty", "", "b:1: missing the line \"n1 <count>\""},
        {"inconsistent", "n1 3\nn2 3\n", "b:2: n1 + n2 = 3 + 3 = 6 does not match the 5 rows of the matrix"},
    };
    for (const BadFile& c : badSplits) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(io::parseRowSplit("b", c.text, 5, split, message));
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
        {"short", "1\n2\n", "v:2: the file ends after 2 of 3 values"},
        {"long", "1\n2\n3\n4\n", "v:4: more values than the 3 rows of the matrix"},
        {"two per line", "1 2\n", "v:1: extra text \"2\" after the value"},
        {"word", "1\nx\n", "v:2: value \"x\" is not a number"},
        {"inf", "inf\n", "v:1: value \"inf\" is not finite"},
        {"coordinate", "%%MatrixMarket matrix coordinate real general\n3 1 3\n",
         "v:1: unsupported format \"coordinate\" for a vector (only \"array\")"},
        {"array size", "%%MatrixMarket matrix array real general\n3 2\n",
         "v:2: the vector is 3 x 2, the matrix needs 3 x 1"},
        {"banner late", "\n%%MatrixMarket matrix array real general\n3 1\n1\n2\n3\n",
         "v:1: the Matrix Market banner must be the first line"},
    };
    for (const BadFile& c : badVectors) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(io::parseVector("v", c.text, 3, v, message));
        EXPECT_EQ(message, c.message);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Files on disk and the tool
// ---------------------------------------------------------------------------------------------------------

class TempDir {
public:
    TempDir() {
        std::string pattern = ::testing::TempDir() + "kivtamber-solvetool-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) != nullptr) path_ = name.data();
    }
    ~TempDir() {
        for (const std::string& f : files_) std::remove(f.c_str());
        if (!path_.empty()) rmdir(path_.c_str());
    }
    // A file name inside the folder (removed with it).
    std::string file(const std::string& name) {
        files_.push_back(path_ + "/" + name);
        return files_.back();
    }
    std::string write(const std::string& name, const std::string& text) {
        const std::string p = file(name);
        std::ofstream(p, std::ios::binary) << text;
        return p;
    }
    std::string writeGzip(const std::string& name, const std::string& text) {
        const std::string p = file(name);
        gzFile f = gzopen(p.c_str(), "wb");
        gzwrite(f, text.data(), static_cast<unsigned int>(text.size()));
        gzclose(f);
        return p;
    }

private:
    std::string path_;
    std::vector<std::string> files_;
};

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

TEST(SolveToolReader, ReadsGzipAndReportsBrokenFiles) {
    TempDir dir;
    const DenseSymmetric A = saddlePoint(5, 2, 7);
    const std::string text = toMatrixMarket(A);
    io::SymmetricMatrix plain, packed;
    std::string message;
    ASSERT_TRUE(io::parseMatrixMarket("m", text, plain, message)) << message;
    ASSERT_TRUE(io::readMatrixMarket(dir.writeGzip("m.mtx.gz", text), packed, message)) << message;
    EXPECT_EQ(packed.rowIndices, plain.rowIndices);
    EXPECT_EQ(packed.values, plain.values);

    // A gzip stream cut in half, and a file that is not there.
    std::string cut = readText(dir.file("m.mtx.gz"));
    cut.resize(cut.size() / 2);
    const std::string cutPath = dir.write("cut.mtx.gz", cut);
    EXPECT_FALSE(io::readMatrixMarket(cutPath, packed, message));
    EXPECT_EQ(message, cutPath + ": read error (unexpected end of file)");
    EXPECT_FALSE(io::readMatrixMarket(dir.file("absent.mtx"), packed, message));
    EXPECT_EQ(message, dir.file("absent.mtx") + ": cannot open (No such file or directory)");
}

// The grouped problem, expanded back to scalars, is the matrix; bodies come before constraints.
TEST(SolveToolGrouping, BlocksReproduceTheScalarMatrix) {
    for (unsigned long seed = 1; seed <= 6; ++seed) {
        for (unsigned int K : {1u, 2u, 3u, 5u}) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", block size " + std::to_string(K));
            const unsigned int bodies = 4 + static_cast<unsigned int>(seed % 4), constraints = 3;
            const DenseSymmetric A = saddlePoint(bodies, constraints, seed);
            io::SymmetricMatrix S;
            std::string message;
            ASSERT_TRUE(io::parseMatrixMarket("m", toMatrixMarket(A), S, message)) << message;
            io::BlockedProblem P;
            ASSERT_TRUE(io::groupIntoBlocks(S, bodies, K, P, message)) << message;
            ASSERT_TRUE(Analysis::checkProblem(P.problem(), &message)) << message;
            EXPECT_EQ(P.firstConstraint, (bodies + K - 1) / K);
            EXPECT_EQ(P.numBlocks, P.firstConstraint + (constraints + K - 1) / K);
            EXPECT_EQ(P.blockOffsets[P.firstConstraint], bodies);
            DenseSymmetric B(A.n);
            for (unsigned int j = 0; j < P.numBlocks; ++j) {
                for (unsigned int e = P.colPointers[j]; e < P.colPointers[j + 1]; ++e) {
                    const unsigned int i = P.rowIndices[e];
                    for (unsigned int r = 0; r < P.blockSizes[i]; ++r)
                        for (unsigned int c = 0; c < P.blockSizes[j]; ++c)
                            B.setSymmetric(P.blockOffsets[i] + r, P.blockOffsets[j] + c,
                                           P.values[P.valuePointers[e] + r * P.blockSizes[j] + c]);
                }
            }
            EXPECT_EQ(testing::maxAbsDifference(A, B), 0.0);
            for (unsigned int r = 0; r < A.n; ++r)
                EXPECT_EQ(P.blockOf(r), r < bodies ? r / K : P.firstConstraint + (r - bodies) / K);
        }
    }
}

// ---------------------------------------------------------------------------------------------------------
// The pivot diagnostic
// ---------------------------------------------------------------------------------------------------------

// A symmetric matrix of user blocks `sizes` in list form with its values, for Analysis::Analyzer: every pair
// of blocks is an entry (dense pattern), so every order gives the same filled pattern.
struct ListProblem {
    std::vector<unsigned int> sizes, offsets, colPointers, rowIndices;
    std::vector<unsigned long> valuePointers;
    std::vector<double> values;

    ListProblem(const std::vector<unsigned int>& blockSizes, const DenseSymmetric& A) : sizes(blockSizes) {
        const unsigned int n = static_cast<unsigned int>(sizes.size());
        offsets.assign(n + 1, 0);
        for (unsigned int b = 0; b < n; ++b) offsets[b + 1] = offsets[b] + sizes[b];
        colPointers.push_back(0);
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int i = 0; i <= j; ++i) {
                rowIndices.push_back(i);
                valuePointers.push_back(values.size());
                for (unsigned int r = 0; r < sizes[i]; ++r)
                    for (unsigned int c = 0; c < sizes[j]; ++c)
                        values.push_back(A(offsets[i] + r, offsets[j] + c));
            }
            colPointers.push_back(static_cast<unsigned int>(rowIndices.size()));
        }
    }
    Analysis::Problem problem() const {
        return {static_cast<unsigned int>(sizes.size()), static_cast<unsigned int>(sizes.size()),
                colPointers.data(), rowIndices.data(), sizes.data()};
    }
};

// Factors A (user blocks `sizes`) in the block order `order` and scans the pivots.
template <typename T>
bool factorAndScan(const std::vector<unsigned int>& sizes, const DenseSymmetric& A,
                   const std::vector<unsigned int>& order, double threshold,
                   TamberSolve::PivotReport& report) {
    const ListProblem L(sizes, A);
    Analysis::Options options;
    options.ordering = Analysis::Ordering::user;
    options.userOrder = order.data();
    Analysis::Analyzer analyzer;
    TamberData<T> data;
    const Analysis::Report r = analyzer.analyze(L.problem(), options, data);
    EXPECT_TRUE(r.ok) << r.message;
    analyzer.setBlocks(data, L.values.data(), L.valuePointers.data());
    Tamber tamber;
    tamber.estimateWork(data, nullptr);
    EXPECT_FALSE(TamberSolve::findBadPivot(data, report));  // not factored yet
    EXPECT_EQ(report.scanned, 0u);
    tamber.factorSerial(data);
    return TamberSolve::findBadPivot(data, report, threshold);
}

// For random SPD matrices of mixed block sizes, one scalar r gets the diagonal value `pivot` and loses its
// couplings to every scalar eliminated before it, so that its pivot is exactly `pivot`; the report must name
// r in both numberings, and agree with a dense L·D·Lᵀ of the permuted matrix on what comes first and on how
// many pivots are bad.
// The count of bad pivots is compared only when every later pivot is bound to be non-finite (a zero or NaN
// pivot): after a tiny one, the later pivots are rounding noise that the two factorizations need not share.
template <typename T>
void checkPivotReports(double pivot, double threshold, TamberSolve::PivotReport::Kind kind) {
    for (unsigned long seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 rng(seed);
        const unsigned int n = 3 + static_cast<unsigned int>(seed % 4);
        std::vector<unsigned int> sizes(n);
        for (unsigned int& s : sizes) s = 1 + static_cast<unsigned int>(rng() % 3);
        std::vector<unsigned int> order(n);
        for (unsigned int k = 0; k < n; ++k) order[k] = k;
        std::shuffle(order.begin(), order.end(), rng);
        std::vector<unsigned int> offsets(n + 1, 0), position(n);
        for (unsigned int b = 0; b < n; ++b) offsets[b + 1] = offsets[b] + sizes[b];
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

        TamberSolve::PivotReport report;
        ASSERT_TRUE(factorAndScan<T>(sizes, A, order, threshold, report));
        EXPECT_EQ(report.kind, kind);
        EXPECT_EQ(report.scalar, first);
        EXPECT_EQ(report.block, position[userBlock]);
        EXPECT_EQ(report.local, local);
        EXPECT_EQ(report.userBlock, userBlock);
        EXPECT_EQ(report.userScalar, r);
        EXPECT_EQ(report.scanned, N);
        if (kind != TamberSolve::PivotReport::tiny) {
            EXPECT_EQ(report.count, bad);
        }
        if (kind == TamberSolve::PivotReport::nonFinite) {
            EXPECT_TRUE(std::isnan(report.value));
        } else {
            EXPECT_EQ(report.value, static_cast<double>(static_cast<T>(pivot)));
        }
    }
}

TEST(SolveToolPivots, ZeroPivotIsNamedInBothNumberings) {
    checkPivotReports<double>(0.0, 0.0, TamberSolve::PivotReport::zero);
    checkPivotReports<float>(0.0, 0.0, TamberSolve::PivotReport::zero);
}

TEST(SolveToolPivots, NonFiniteAndTinyPivots) {
    checkPivotReports<double>(std::numeric_limits<double>::quiet_NaN(), 0.0,
                              TamberSolve::PivotReport::nonFinite);
    checkPivotReports<double>(1e-30, 1e-20, TamberSolve::PivotReport::tiny);
    checkPivotReports<float>(1e-30f, 1e-20, TamberSolve::PivotReport::tiny);
}

// ---------------------------------------------------------------------------------------------------------
// The tool
// ---------------------------------------------------------------------------------------------------------

// <build>/tools/tamber-solve, found from this test's own path <build>/tests/SolveTool_test; empty when
// absent.
std::string toolPath() {
    char buffer[4096];
    const ssize_t len = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (len <= 0) return "";
    std::string path(buffer, static_cast<std::size_t>(len));
    for (int up = 0; up < 2; ++up) {
        const std::string::size_type slash = path.rfind('/');
        if (slash == std::string::npos) return "";
        path.resize(slash);
    }
    path += "/tools/tamber-solve";
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

struct ToolRun {
    int status = -1;  // exit code, or -1 when the tool died from a signal
    std::string out, err;
};

// Runs the tool with `args`, both streams captured in files of `dir`.
ToolRun runTool(TempDir& dir, const std::vector<std::string>& args) {
    const std::string tool = toolPath();
    const std::string outPath = dir.file("stdout"), errPath = dir.file("stderr");
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(tool.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0) _exit(127);
        dup2(out, 1);
        dup2(err, 2);
        execv(tool.c_str(), argv.data());
        _exit(127);
    }
    ToolRun run;
    int raw = 0;
    if (pid < 0 || waitpid(pid, &raw, 0) != pid) return run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = readText(outPath);
    run.err = readText(errPath);
    return run;
}

#define REQUIRE_TOOL()                                                                         \
    do {                                                                                       \
        if (toolPath().empty()) GTEST_SKIP() << "tamber-solve is not built next to this test"; \
    } while (0)

// The number after "key: " on the line that starts with it, or NaN.
double valueAfter(const std::string& text, const std::string& key) {
    const std::string prefix = key + ": ";
    for (std::string::size_type p = 0; p < text.size();) {
        if (text.compare(p, prefix.size(), prefix) == 0)
            return std::strtod(text.c_str() + p + prefix.size(), nullptr);
        p = text.find('\n', p);
        if (p == std::string::npos) break;
        ++p;
    }
    return std::numeric_limits<double>::quiet_NaN();
}

std::vector<double> readSolution(const std::string& path) {
    std::vector<double> x;
    std::ifstream in(path);
    double v;
    while (in >> v) x.push_back(v);
    return x;
}

// A small saddle point through every input form and option: the solution written matches a dense solve.
TEST(SolveToolRun, SolutionMatchesDenseSolve) {
    REQUIRE_TOOL();
    TempDir dir;
    const unsigned int bodies = 9, constraints = 4, N = bodies + constraints;
    const DenseSymmetric A = saddlePoint(bodies, constraints, 11);
    std::vector<double> b(N);
    for (unsigned int k = 0; k < N; ++k) b[k] = std::sin(1.0 + k);
    std::string rhs = "# b\n", rhsArray = "%%MatrixMarket matrix array real general\n13 1\n";
    for (double v : b) {
        rhs += g17(v) + "\n";
        rhsArray += g17(v) + "\n";
    }
    const std::vector<double> expected = denseSolve(A, b);
    std::vector<double> ones(N, 1.0);
    const std::vector<double> expectedOnes = denseSolve(A, ones);

    const std::string symmetric = dir.write("a.mtx", toMatrixMarket(A));
    const std::string general = dir.write("g.mtx", toMatrixMarket(A, true));
    const std::string packed = dir.writeGzip("a.mtx.gz", toMatrixMarket(A));
    const std::string blocks = dir.write("a.blocks", "# split\nn1 9\nn2 4\n");
    const std::string rhsPlain = dir.write("b.txt", rhs);
    const std::string rhsMm = dir.write("b.mtx", rhsArray);
    const std::string out = dir.file("x.txt");

    struct Case {
        std::vector<std::string> args;
        bool ones;
        double tolerance;
    };
    const std::vector<Case> cases = {
        {{symmetric, "--blocks", blocks, "--rhs", rhsPlain}, false, 1e-13},
        {{general, "--blocks", blocks, "--rhs", rhsMm, "--ordering", "natural"}, false, 1e-13},
        {{packed, "--blocks", blocks, "--rhs", rhsPlain, "--ordering", "symamd", "--block-size", "2"},
         false,
         1e-13},
        {{symmetric, "--blocks", blocks, "--rhs-ones", "--block-size", "3", "--threads", "2"}, true, 1e-13},
        {{symmetric, "--blocks", blocks, "--rhs", rhsPlain, "--float"}, false, 1e-4},
        {{symmetric, "--blocks", blocks, "--rhs", rhsPlain, "--float", "--refine", "4", "--block-size", "4"},
         false,
         1e-12},
        {{symmetric, "--blocks", blocks, "--rhs", rhsPlain, "--refine", "2", "--threads", "3"}, false, 1e-13},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const std::string& a : c.args) line += " " + a;
        SCOPED_TRACE(line);
        std::remove(out.c_str());
        std::vector<std::string> args = c.args;
        args.push_back("--out");
        args.push_back(out);
        const ToolRun run = runTool(dir, args);
        ASSERT_EQ(run.status, 0) << run.out << run.err;
        EXPECT_EQ(run.err, "");
        const std::vector<double> x = readSolution(out);
        ASSERT_EQ(x.size(), N);
        EXPECT_LT(maxRelativeDifference(x, c.ones ? expectedOnes : expected), c.tolerance);
        const bool refined = std::find(c.args.begin(), c.args.end(), "--refine") != c.args.end();
        EXPECT_LT(valueAfter(run.out, refined ? "residual after refinement" : "residual"), c.tolerance);
        EXPECT_NE(run.out.find("solution: written to " + out + "\n"), std::string::npos);
    }
}

// Every line of the report, the timings by their labels only.
TEST(SolveToolRun, ReportFormat) {
    REQUIRE_TOOL();
    TempDir dir;
    const std::string text = toMatrixMarket(saddlePoint(9, 4, 11));
    const std::string m = dir.write("a.mtx", text), blocks = dir.write("a.blocks", "n1 9\nn2 4\n");
    const ToolRun run = runTool(dir, {m, "--blocks", blocks, "--block-size", "2", "--refine", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    io::SymmetricMatrix S;
    io::BlockedProblem P;
    std::string message;
    ASSERT_TRUE(io::parseMatrixMarket("m", text, S, message) && io::groupIntoBlocks(S, 9, 2, P, message));
    const std::string expected[] = {
        "matrix: " + m + ", n 13, nnz " + std::to_string(S.fullEntries()) + " (" +
            std::to_string(S.numEntries()) + " in the lower triangle), symmetric\n",
        "blocks: 7 (5 body, 2 constraint), block size 2, " + std::to_string(P.numEntries()) +
            " block entries; constraint rows 4\n",
        "right-hand side: A*ones\n",
        "analysis: ordering default",
        "factorization: double, serial\n",
        "time (ms): read ",
        "residual: ",
        "residual after refinement: ",
        "error: "};
    std::istringstream lines(run.out);
    std::string line;
    for (const std::string& e : expected) {
        ASSERT_TRUE(std::getline(lines, line)) << run.out;
        EXPECT_EQ((line + "\n").substr(0, e.size()), e);
    }
    EXPECT_FALSE(std::getline(lines, line)) << run.out;
    EXPECT_NE(run.out.find(", analysis "), std::string::npos);
    EXPECT_NE(run.out.find(", refine "), std::string::npos);
    EXPECT_NE(run.out.find(" (at most 1 steps)\n"), std::string::npos);
    EXPECT_LT(valueAfter(run.out, "error"), 1e-12);
}

TEST(SolveToolRun, MalformedInputExitsWithTwoAndItsLine) {
    REQUIRE_TOOL();
    TempDir dir;
    const std::string good = dir.write("good.mtx", toMatrixMarket(saddlePoint(3, 1, 5)));
    const std::string bad =
        dir.write("bad.mtx", "%%MatrixMarket matrix coordinate real general\n2 2 2\n1 2 1\n2 1 1.5\n");
    const std::string blocks = dir.write("bad.blocks", "n1 3\nn2 2\n");
    const std::string absent = dir.file("absent.mtx");
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{bad},
         bad + ":4: the general matrix is not symmetric: A(1, 2) = 1 on line 3, A(2, 1) = 1.5 on line 4\n"},
        {{good, "--blocks", blocks},
         blocks + ":2: n1 + n2 = 3 + 2 = 5 does not match the 4 rows of the matrix\n"},
        {{absent}, absent + ": cannot open (No such file or directory)\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        const ToolRun run = runTool(dir, c.args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err, c.err);
        EXPECT_EQ(run.out, "");
    }
    // Command-line mistakes: exit 2 with the usage; --help: exit 0.
    const std::vector<std::vector<std::string>> usageCases = {{},
                                                              {good, "--bogus"},
                                                              {good, "--block-size", "0"},
                                                              {good, "--rhs-ones", "--rhs-random", "3"},
                                                              {good, "--ordering", "best"},
                                                              {good, good},
                                                              {good, "--threads"}};
    for (const std::vector<std::string>& args : usageCases) {
        const ToolRun run = runTool(dir, args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err.rfind("tamber-solve: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find("\nusage: tamber-solve MATRIX.mtx[.gz]"), std::string::npos) << run.err;
    }
    const ToolRun help = runTool(dir, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Exit codes:"), std::string::npos);

    // A constraint row coupled to no body: the analysis names it.
    const std::string lonely = dir.write(
        "lonely.mtx", "%%MatrixMarket matrix coordinate real symmetric\n3 3 3\n1 1 2\n2 2 2\n3 3 0\n");
    const std::string split = dir.write("lonely.blocks", "n1 2\nn2 1\n");
    const ToolRun run = runTool(dir, {lonely, "--blocks", split});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.rfind(lonely + ": ", 0), 0u) << run.err;
}

TEST(SolveToolRun, BadPivotExitsWithThreeAndNamesTheRow) {
    REQUIRE_TOOL();
    TempDir dir;
    // In the natural order with blocks of 2 rows: d1 = 4, d2 = 3.75, d3 = 1, d4 = 1 − 1²/1 = 0 (row 4 =
    // block 2, local 2); rows 5 and 6 depend on it and turn non-finite.
    const std::string zero =
        dir.write("zero.mtx",
                  "%%MatrixMarket matrix coordinate real symmetric\n6 6 9\n1 1 4\n2 1 1\n2 2 4\n"
                  "3 3 1\n4 3 1\n4 4 1\n5 4 1\n5 5 4\n6 6 4\n");
    const std::string out = dir.file("x.txt");
    ToolRun run;
    for (const char* precision : {"--rhs-ones", "--float"}) {  // both precisions, both factorizations
        for (const char* threads : {"1", "2"}) {
            SCOPED_TRACE(std::string(precision) + " --threads " + threads);
            run = runTool(dir, {zero, "--ordering", "natural", "--block-size", "2", "--out", out, precision,
                                "--threads", threads});
            EXPECT_EQ(run.status, 3);
            EXPECT_EQ(run.err, zero +
                                   ": zero pivot at row 4 (block 2, local 2) of the matrix (pivot 4 of 6 in "
                                   "elimination order; 3 bad pivots in all)\n");
            EXPECT_FALSE(exists(out));
            EXPECT_EQ(run.out.find("residual"), std::string::npos);
            EXPECT_NE(run.out.find("time (ms): read "), std::string::npos);
        }
    }

    // A zero diagonal on a body row, with the hint to name constraint rows.
    const std::string kkt =
        dir.write("kkt.mtx", "%%MatrixMarket matrix coordinate real symmetric\n3 3 3\n1 1 2\n2 2 2\n3 1 1\n");
    run = runTool(dir, {kkt, "--ordering", "natural"});
    EXPECT_EQ(run.status, 0) << run.err;  // row 3 comes last: d3 = 0 − 1/2, no zero pivot
    const std::string kktFirst = dir.write(
        "kkt1.mtx", "%%MatrixMarket matrix coordinate real symmetric\n3 3 3\n2 1 1\n2 2 2\n3 3 2\n");
    run = runTool(dir, {kktFirst, "--ordering", "natural"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, kktFirst +
                           ": zero pivot at row 1 (block 1, local 1) of the matrix (pivot 1 of 3 in "
                           "elimination order; 2 bad pivots in all)\n" +
                           kktFirst +
                           ": note: A(1, 1) is zero; if the rows with a zero diagonal are constraint "
                           "rows, name them with --blocks\n");

    // 1 − (1e200)²: the second pivot overflows.
    const std::string huge = dir.write(
        "huge.mtx", "%%MatrixMarket matrix coordinate real symmetric\n2 2 3\n1 1 1\n2 1 1e200\n2 2 1\n");
    run = runTool(dir, {huge, "--ordering", "natural"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.err, huge +
                           ": non-finite pivot at row 2 (block 2, local 1) of the matrix (pivot 2 of 2 in "
                           "elimination order)\n");
}

// Every real matrix either solves to a small residual or has its failing pivot named; the positive definite
// ones must solve.
TEST(SolveToolRun, RealMatrices) {
    REQUIRE_TOOL();
    const char* data = std::getenv("KIVTAMBER_DATA_DIR");
    if (data == nullptr) GTEST_SKIP() << "KIVTAMBER_DATA_DIR is not set";
    const std::string folder = data;
    const char* names[] = {"494_bus.mtx",      "bcsstk13.mtx.gz",  "AUG3DCQP_kkt.mtx", "CVXQP3_M_kkt.mtx",
                           "HUES-MOD_kkt.mtx", "DTOC3_kkt.mtx.gz", "AUG2DC_kkt.mtx",   "CONT-101_kkt.mtx"};
    TempDir dir;
    for (const char* name : names) {
        const std::string path = folder + "/" + name;
        if (!exists(path)) continue;
        SCOPED_TRACE(path);
        std::string base = name;
        base.resize(base.find(".mtx"));
        std::vector<std::string> args = {path, "--refine", "2"};
        if (exists(folder + "/" + base + ".blocks")) {
            args.push_back("--blocks");
            args.push_back(folder + "/" + base + ".blocks");
        }
        const ToolRun run = runTool(dir, args);
        if (run.status == 0) {
            EXPECT_LT(valueAfter(run.out, "residual after refinement"), 1e-12) << run.out;
        } else {
            EXPECT_NE(base.find("_kkt"), std::string::npos) << "a positive definite matrix failed";
            ASSERT_EQ(run.status, 3) << run.out << run.err;
            const std::string::size_type at = run.err.find(" pivot at row ");
            ASSERT_NE(at, std::string::npos) << run.err;
            const unsigned long row = std::strtoul(run.err.c_str() + at + 14, nullptr, 10);
            const unsigned long n = std::strtoul(run.out.c_str() + run.out.find(", n ") + 4, nullptr, 10);
            EXPECT_TRUE(row >= 1 && row <= n) << run.err;
        }
    }
}

}  // namespace
}  // namespace kivTamber
