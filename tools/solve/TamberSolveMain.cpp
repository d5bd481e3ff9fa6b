// tamber-solve: solves A·x = b for a symmetric matrix A read from a Matrix Market file, with the library's
// safe saddle-point ordering, L·D·Lᵀ factorization without pivoting and solve, and reports sizes, timings
// and the scaled residual. See usage() for the options and the exit codes.
#include <kiv/Timer.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "Analysis.h"
#include "BlockGrouping.h"
#include "ConditionEstimate.h"
#include "MatrixMarket.h"
#include "Tamber.h"
#include "TamberSolve.h"

namespace {

using namespace kivTamber;

// Exit codes.
constexpr int exitSolved = 0;
constexpr int exitFailure = 1;     // an output file could not be written, out of memory
constexpr int exitBadInput = 2;    // bad command line, malformed file, rejected by the analysis
constexpr int exitBadPivot = 3;    // the factorization met a zero or non-finite pivot
constexpr int exitInaccurate = 4;  // solved, but the answer cannot be trusted (or float cannot hold A, b)

const char* const usageText =
    "usage: tamber-solve MATRIX.mtx[.gz] [--blocks FILE] [--block-size K]\n"
    "                    [--rhs FILE | --rhs-ones | --rhs-random SEED] [--out FILE] [--float]\n"
    "                    [--threads N] [--refine K] [--ordering default|symamd|natural]\n"
    "                    [--max-error E] [--help]\n";

void usage(std::FILE* to) {
    std::fputs(usageText, to);
    if (to != stdout) return;
    std::fputs(
        "\n"
        "Solves A x = b for the symmetric matrix A of a Matrix Market file (coordinate, real or integer,\n"
        "symmetric, or general with symmetric values; gzip-compressed files are read as well) by L D L^T\n"
        "factorization without pivoting in a safe saddle-point order.\n"
        "\n"
        "  --blocks FILE       lines \"n1 <count>\" and \"n2 <count>\": rows 1..n1 are body unknowns, the\n"
        "                      other n2 rows constraints (zero diagonal block). Without it every row is a "
        "body.\n"
        "  --block-size K      group K consecutive rows of one kind into a block (default 1).\n"
        "  --rhs FILE          right-hand side: one value per line, or a Matrix Market array n x 1.\n"
        "  --rhs-ones          b = (1, ..., 1).\n"
        "  --rhs-random SEED   b uniform in [-1, 1] from SEED.\n"
        "                      Default: b = A (1, ..., 1), so that the exact solution is all ones.\n"
        "  --out FILE          write the solution, one value per line (%.17g), in the file's numbering.\n"
        "  --float             factor and solve in single precision (refinement in double).\n"
        "  --threads N         N >= 2: multifrontal factorization on N threads (default 1: serial).\n"
        "  --refine K          at most K steps of iterative refinement (default 0).\n"
        "  --ordering NAME     default: peeling, constrained minimum degree, nested dissection;\n"
        "                      symamd: minimum degree with the zero-leaf swap and a repair;\n"
        "                      natural: the file's order (bodies, then constraints).\n"
        "  --max-error E       largest estimated relative error of x accepted (default 1e-6; 1e-3 with\n"
        "                      --float); the estimate is condition estimate x scaled residual.\n"
        "\n"
        "Prints the sizes, the timings in ms (read: the files; analysis: block grouping, ordering and\n"
        "assembly; factor: factor layout and numeric factorization; solve; refine; check: the condition\n"
        "estimate), the scaled residual |A x - b|_inf / (|A|_inf |x|_inf + |b|_inf) before and after\n"
        "refinement, and the accuracy check.\n"
        "\n"
        "Messages number rows and blocks from 1 in the file's order (block b holds consecutive rows of one\n"
        "kind, bodies first); a message of the analysis, marked \"analysis:\", numbers blocks from 0.\n"
        "\n"
        "Exit codes: 0 solved and the accuracy check passed; 1 an output file could not be written, out of\n"
        "memory; 2 bad command line, malformed input file (\"FILE:LINE: what is wrong\") or a problem the\n"
        "analysis rejects; 3 a zero or non-finite pivot (its row, block and elimination step are named; no\n"
        "solution is written); 4 the answer cannot be trusted: the estimated error exceeds --max-error, or\n"
        "with --float A or b does not fit in float (a warning says why and whether double would do; the\n"
        "solution, if computed, is still written).\n",
        to);
}

struct Settings {
    std::string matrixPath;
    std::string blocksPath;
    std::string rhsPath;
    std::string outPath;
    enum class Rhs { timesOnes, ones, random, file } rhs = Rhs::timesOnes;
    unsigned long seed = 0;
    unsigned int blockSize = 1;
    unsigned int threads = 1;
    unsigned int refine = 0;
    bool useFloat = false;
    double maxError = 0.0;  // 0: the default of the precision
    Analysis::Ordering ordering = Analysis::Ordering::standard;
    const char* orderingName = "default";
};

bool parseCount(const char* text, unsigned long maximum, unsigned long& value) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (*end != '\0' || errno != 0 || v > maximum) return false;
    value = static_cast<unsigned long>(v);
    return true;
}

// Parses the command line; on an error prints it with the usage and returns false with `code` set.
bool parseArguments(int argc, char** argv, Settings& s, int& code) {
    int rhsOptions = 0;
    auto fail = [&](const std::string& what) {
        std::fprintf(stderr, "tamber-solve: %s\n%s", what.c_str(), usageText);
        code = exitBadInput;
        return false;
    };
    for (int k = 1; k < argc; ++k) {
        const std::string arg = argv[k];
        const char* next = k + 1 < argc ? argv[k + 1] : nullptr;
        auto needValue = [&]() { return next != nullptr; };
        unsigned long v = 0;
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            code = exitSolved;
            return false;
        } else if (arg == "--blocks" || arg == "--rhs" || arg == "--out") {
            if (!needValue()) return fail(arg + " needs a file name");
            (arg == "--blocks" ? s.blocksPath : arg == "--rhs" ? s.rhsPath : s.outPath) = next;
            if (arg == "--rhs") {
                s.rhs = Settings::Rhs::file;
                ++rhsOptions;
            }
            ++k;
        } else if (arg == "--block-size") {
            if (!parseCount(next, 1u << 16, v) || v == 0)
                return fail("--block-size needs a block size from 1 to 65536");
            s.blockSize = static_cast<unsigned int>(v);
            ++k;
        } else if (arg == "--rhs-ones") {
            s.rhs = Settings::Rhs::ones;
            ++rhsOptions;
        } else if (arg == "--rhs-random") {
            if (!parseCount(next, std::numeric_limits<unsigned long>::max(), v))
                return fail("--rhs-random needs a non-negative integer seed");
            s.rhs = Settings::Rhs::random;
            s.seed = v;
            ++rhsOptions;
            ++k;
        } else if (arg == "--float") {
            s.useFloat = true;
        } else if (arg == "--threads") {
            if (!parseCount(next, 1024, v) || v == 0)
                return fail("--threads needs a thread count from 1 to 1024");
            s.threads = static_cast<unsigned int>(v);
            ++k;
        } else if (arg == "--refine") {
            if (!parseCount(next, 1000, v)) return fail("--refine needs a step count from 0 to 1000");
            s.refine = static_cast<unsigned int>(v);
            ++k;
        } else if (arg == "--ordering") {
            const std::string name = next != nullptr ? next : "";
            if (name == "default") {
                s.ordering = Analysis::Ordering::standard;
                s.orderingName = "default";
            } else if (name == "symamd") {
                s.ordering = Analysis::Ordering::symamdSwap;
                s.orderingName = "symamd";
            } else if (name == "natural") {
                s.ordering = Analysis::Ordering::natural;
                s.orderingName = "natural";
            } else {
                return fail("--ordering needs one of default, symamd, natural");
            }
            ++k;
        } else if (arg == "--max-error") {
            char* end = nullptr;
            const double e = next != nullptr ? std::strtod(next, &end) : 0.0;
            if (next == nullptr || end == next || *end != '\0' || !(e > 0.0) || !std::isfinite(e))
                return fail("--max-error needs a positive number");
            s.maxError = e;
            ++k;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return fail("unknown option " + io::quoted(arg));
        } else if (s.matrixPath.empty()) {
            s.matrixPath = arg;
        } else {
            return fail("more than one matrix file (" + io::quoted(s.matrixPath) + ", " + io::quoted(arg) +
                        ")");
        }
    }
    if (s.matrixPath.empty()) return fail("no matrix file");
    if (rhsOptions > 1) return fail("give at most one of --rhs, --rhs-ones, --rhs-random");
    return true;
}

std::string format3(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", v);
    return text;
}

double milliseconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double normInf(const std::vector<double>& x) {
    double m = 0.0;
    for (double v : x) m = std::max(m, std::fabs(v));
    return m;
}

// ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞); r: work array of n values.
double scaledResidual(const io::SymmetricMatrix& A, double normA, const std::vector<double>& x,
                      const std::vector<double>& b, std::vector<double>& r) {
    A.multiply(x.data(), r.data());
    double num = 0.0;
    for (std::size_t k = 0; k < r.size(); ++k) num = std::max(num, std::fabs(r[k] - b[k]));
    const double den = normA * normInf(x) + normInf(b);
    if (!std::isfinite(num)) return num;
    return den > 0.0 ? num / den : num;
}

// b uniform in [−1, 1] from a splitmix64 stream (the same numbers on every platform).
void randomVector(unsigned long seed, std::vector<double>& b) {
    unsigned long state = seed;
    for (double& v : b) {
        unsigned long z = (state += 0x9E3779B97F4A7C15ul);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ul;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBul;
        z ^= z >> 31;
        v = static_cast<double>(z >> 11) * 0x1.0p-52 - 1.0;
    }
}

// Everything the solve needs, shared by the two precisions.
struct Run {
    Settings settings;
    io::SymmetricMatrix A;
    io::RowSplit split;
    io::BlockedProblem blocked;
    std::vector<double> b;
    double normA = 0.0;
    double readMs = 0.0, analysisMs = 0.0, factorMs = 0.0, solveMs = 0.0, refineMs = 0.0, checkMs = 0.0;
};

void printTimes(const Run& run, bool solved) {
    std::printf("time (ms): read %.3f, analysis %.3f, factor %.3f", run.readMs, run.analysisMs, run.factorMs);
    if (solved) std::printf(", solve %.3f, refine %.3f, check %.3f", run.solveMs, run.refineMs, run.checkMs);
    std::printf("\n");
    std::fflush(stdout);
}

// The diagonal entry A(r, r) of the file, 0 when it is not given.
double diagonalEntry(const io::SymmetricMatrix& A, unsigned int r) {
    const unsigned long k = A.colPointers[r];
    return k < A.colPointers[r + 1ul] && A.rowIndices[k] == r ? A.values[k] : 0.0;
}

// A pivot of the factorization: data's block and the index inside it, its elimination step and value.
struct Pivot {
    unsigned int block = 0, local = 0;
    unsigned long step = 0;  // 0-based index into data.diagonal
    double value = 0.0;
};

// Names a pivot for a message: "KIND pivot at row R (block B, local L) of the matrix: elimination step K
// of N, d = V", rows and blocks 1-based in the file's numbering (through the analysis's own map from its
// blocks to the user's, which also knows about merged blocks).
std::string describePivot(const Analysis::Analyzer& analyzer, const io::BlockedProblem& P, const Pivot& p,
                          const char* kind, unsigned int N) {
    unsigned int userBlock = 0, local = 0;
    if (!analyzer.userPosition(p.block, p.local, userBlock, local)) {
        userBlock = p.block;  // not reached for data prepared by analyzer
        local = p.local;
    }
    const unsigned long row = static_cast<unsigned long>(P.blockOffsets[userBlock]) + local;
    char text[300];
    std::snprintf(
        text, sizeof text,
        "%s pivot at row %lu (block %u, local %u) of the matrix: elimination step %lu of %u, d = %.3g", kind,
        row + 1, userBlock + 1, local + 1, p.step + 1, N, p.value);
    return text;
}

// The row (0-based, file's numbering) of a pivot.
unsigned int pivotRow(const Analysis::Analyzer& analyzer, const io::BlockedProblem& P, const Pivot& p) {
    unsigned int userBlock = p.block, local = p.local;
    analyzer.userPosition(p.block, p.local, userBlock, local);
    return P.blockOffsets[userBlock] + local;
}

// The estimated relative forward error |x - x*|_inf / |x|_inf of x (user numbering) for the factored data.
template <typename T>
double forwardErrorBound(const Run& run, const Analysis::Analyzer& analyzer, Tamber& tamber,
                         TamberData<T>& data, const std::vector<double>& x) {
    const io::SymmetricMatrix& A = run.A;
    const unsigned int N = A.n;
    std::vector<double> r(N), scale(N), f(N), fp(N);
    std::vector<unsigned int> rowCount(N, 0);
    A.multiply(x.data(), r.data());
    for (unsigned int c = 0; c < N; ++c)
        for (unsigned long k = A.colPointers[c]; k < A.colPointers[c + 1]; ++k) {
            const unsigned int i = A.rowIndices[k];
            const double a = std::fabs(A.values[k]);
            scale[i] += a * std::fabs(x[c]);  // (|A| |x|)_i
            ++rowCount[i];
            if (i != c) {
                scale[c] += a * std::fabs(x[i]);
                ++rowCount[c];
            }
        }
    const double c = 1.0 + *std::max_element(rowCount.begin(), rowCount.end());
    const double epsilon = std::numeric_limits<double>::epsilon();
    for (unsigned int i = 0; i < N; ++i)
        f[i] = std::fabs(run.b[i] - r[i]) + c * epsilon * (scale[i] + std::fabs(run.b[i]));
    analyzer.permuteVector(f.data(), fp.data());
    const double bound = estimateInverseNorm1(tamber, data, 5, fp.data());
    const double size = normInf(x);
    return size > 0.0 ? bound / size : bound > 0.0 ? std::numeric_limits<double>::infinity() : 0.0;
}

// Analysis, assembly, factorization, pivot scan, solve and refinement in precision T.
template <typename T>
int solveIn(Run& run) {
    const Settings& s = run.settings;
    const io::BlockedProblem& P = run.blocked;
    const unsigned int N = run.A.n;

    auto clock = std::chrono::steady_clock::now();
    Analysis::Options options;
    options.ordering = s.ordering;
    // In float the accuracy check's error bound is not yet reliable on merged factors (Hilbert 8 and 11:
    // bound 2e-2 for an error of 2.5): float keeps one block per user block until it is.
    options.mergeBlocks = !s.useFloat;
    Analysis::Analyzer analyzer;
    TamberData<T> data;
    const Analysis::Report report = analyzer.analyze(P.problem(), options, data);
    if (!report.ok) {
        const std::string name = io::fileName(s.matrixPath);
        std::fprintf(stderr, "%s: analysis: %s\n", name.c_str(), io::printable(report.message, 2000).c_str());
        if (s.blockSize == 1)
            std::fprintf(stderr,
                         "%s: note: the analysis numbers blocks from 0: its block b is row b+1 of the file\n",
                         name.c_str());
        else
            std::fprintf(
                stderr,
                "%s: note: the analysis numbers blocks from 0: its block b < %u holds rows %u*b+1 .. "
                "%u*b+%u of the file, block b >= %u rows %u+%u*(b-%u)+1 .. (bodies first, then "
                "constraints)\n",
                name.c_str(), P.firstConstraint, s.blockSize, s.blockSize, s.blockSize, P.firstConstraint,
                run.split.bodyRows, s.blockSize, P.firstConstraint);
        return exitBadInput;
    }
    analyzer.setBlocks(data, P.values.data(), P.valuePointers.data());
    run.analysisMs += milliseconds(clock);

    std::printf("analysis: ordering %s", s.orderingName);
    if (report.peeledBlocks > 0) std::printf(", %lu blocks peeled", report.peeledBlocks);
    if (report.usedNestedDissection) std::printf(", nested dissection");
    if (report.movedConstraints > 0) std::printf(", %lu constraints moved", report.movedConstraints);
    std::printf("; factor %lu entries, %.4g flops predicted\n", report.cost.scalarEntries, report.cost.flops);
    if (s.threads > 1)
        std::printf("factorization: %s, multifrontal on %u threads\n", s.useFloat ? "float" : "double",
                    s.threads);
    else
        std::printf("factorization: %s, serial\n", s.useFloat ? "float" : "double");

    Tamber tamber;
    clock = std::chrono::steady_clock::now();
    tamber.estimateWork(data, nullptr);
    data.useMultifrontal = s.threads > 1 ? 1 : 0;
    data.numThreads = s.threads;
    data.stopAtBadPivot = 1;  // stop at the first zero or non-finite pivot, in time of the work up to it
    if (data.useMultifrontal)
        tamber.factorMF(data);
    else
        tamber.factorSerial(data);
    run.factorMs = milliseconds(clock);

    // A zero or non-finite pivot makes the solution meaningless: name it and stop. The factorization
    // records the first one; a factorization that does not (it ran to the end) is scanned for it.
    const std::string name = io::fileName(s.matrixPath);
    Pivot bad;
    bool found = false;
    if (data.badPivot.scalar != TamberData<T>::BadPivot::noPivot) {
        bad.block = data.badPivot.block;
        bad.local = data.badPivot.local;
        bad.step = data.badPivot.scalar;
        bad.value = data.badPivot.value;
        found = true;
    } else {
        TamberSolve::PivotReport scan;
        if (TamberSolve::findBadPivot(data, scan)) {
            bad.block = scan.block;
            bad.local = scan.local;
            bad.step = scan.scalar;
            bad.value = scan.value;
            found = true;
        }
    }
    if (found) {
        printTimes(run, false);
        const char* kind = bad.value == 0.0 ? "zero" : "non-finite";
        std::fprintf(stderr, "%s: %s\n", name.c_str(), describePivot(analyzer, P, bad, kind, N).c_str());
        const unsigned int row = pivotRow(analyzer, P, bad);
        if (bad.value != 0.0 && s.useFloat)
            std::fprintf(stderr,
                         "%s: note: the factorization left the range of float; double may be needed (run "
                         "without --float)\n",
                         name.c_str());
        else if (row < run.split.bodyRows && diagonalEntry(run.A, row) == 0.0) {
            if (s.blocksPath.empty())
                std::fprintf(stderr,
                             "%s: note: A(%u, %u) is zero; if the rows with a zero diagonal are constraint "
                             "rows, name them with --blocks\n",
                             name.c_str(), row + 1, row + 1);
            else
                std::fprintf(
                    stderr,
                    "%s: note: body row %u has a zero diagonal entry; an order without pivoting needs "
                    "invertible leading body blocks\n",
                    name.c_str(), row + 1);
        }
        return exitBadPivot;
    }
    // A pivot at the rounding level of the terms it was computed from has no correct digit: warn and go on
    // (the accuracy check below decides whether the answer can be trusted).
    const double epsilon = std::numeric_limits<T>::epsilon();
    TinyPivot tiny;
    if (findTinyPivot(data, epsilon, tiny)) {
        std::fflush(stdout);
        Pivot p;
        p.block = tiny.block;
        p.local = tiny.local;
        p.step = tiny.scalar;
        p.value = tiny.value;
        std::fprintf(stderr,
                     "%s: warning: %s; |d| <= eps (|a_kk| + sum_j l_kj^2 |d_j|) = %.3g: no digit of it is "
                     "reliable\n",
                     name.c_str(), describePivot(analyzer, P, p, "tiny", N).c_str(), epsilon * tiny.scale);
    }

    // Solve in the elimination order.
    std::vector<T> bp(N), xp(N);
    std::vector<T> bt(run.b.begin(), run.b.end());
    analyzer.permuteVector(bt.data(), bp.data());
    clock = std::chrono::steady_clock::now();
    tamber.solve(data, bp.data(), xp.data());
    run.solveMs = milliseconds(clock);
    std::vector<double> x(N), work(N);
    {
        std::vector<T> xt(N);
        analyzer.unpermuteVector(xp.data(), xt.data());
        std::copy(xt.begin(), xt.end(), x.begin());
    }
    const double before = scaledResidual(run.A, run.normA, x, run.b, work);

    // Refinement: the library's in double; in float a mixed one, residuals in double, corrections by the
    // float factor, stopping (with the previous iterate) when the residual grows.
    clock = std::chrono::steady_clock::now();
    if (s.refine > 0) {
        if constexpr (std::is_same<T, double>::value) {
            tamber.iterativeRefinement(data, bp.data(), xp.data(), static_cast<int>(s.refine));
            analyzer.unpermuteVector(xp.data(), x.data());
        } else {
            std::vector<T> rp(N), rt(N);
            std::vector<double> previous = x;
            double previousNorm = std::numeric_limits<double>::infinity();
            for (unsigned int step = 0; step < s.refine; ++step) {
                run.A.multiply(x.data(), work.data());
                double norm = 0.0;
                for (unsigned int k = 0; k < N; ++k) {
                    rt[k] = static_cast<T>(run.b[k] - work[k]);  // r = b − A·x in double, rounded to T
                    norm = std::max(norm, std::fabs(run.b[k] - work[k]));
                }
                if (!(norm <= previousNorm)) {
                    x = previous;
                    break;
                }
                previousNorm = norm;
                previous = x;
                analyzer.permuteVector(rt.data(), rp.data());
                tamber.solve(data, rp.data());
                analyzer.unpermuteVector(rp.data(), rt.data());
                for (unsigned int k = 0; k < N; ++k) x[k] += static_cast<double>(rt[k]);
            }
        }
    }
    run.refineMs = milliseconds(clock);
    const double after = s.refine > 0 ? scaledResidual(run.A, run.normA, x, run.b, work) : before;

    // Accuracy. cond(A) = |A|_1 |A^-1|_1 is estimated from a few solves with the factor; the error of x is
    // bounded by |x - x*|_inf <= | |A^-1| f |_inf with f = |r| + c eps (|A| |x| + |b|) (r = b - A x in
    // double, c the largest row count + 1), estimated the same way with the weights f: tighter than
    // cond(A) x residual when the rows are badly scaled, and it tells whether refinement converged.
    clock = std::chrono::steady_clock::now();
    const double condition = matrixNorm1(data) * estimateInverseNorm1(tamber, data);
    const double errorBound = forwardErrorBound(run, analyzer, tamber, data, x);
    run.checkMs = milliseconds(clock);
    const double maxError = s.maxError > 0.0 ? s.maxError : s.useFloat ? 1e-3 : 1e-6;
    bool finite = true;
    for (double v : x) finite = finite && std::isfinite(v);
    const bool trusted = finite && errorBound <= maxError;

    printTimes(run, true);
    std::printf("residual: %.3e\n", before);
    if (s.refine > 0) std::printf("residual after refinement: %.3e (at most %u steps)\n", after, s.refine);
    std::printf("accuracy: condition estimate %.3e, error bound %.3e (limit %.3g)\n", condition, errorBound,
                maxError);
    if (s.rhs == Settings::Rhs::timesOnes) {
        double error = 0.0;
        for (double v : x) error = std::max(error, std::fabs(v - 1.0));
        std::printf("error: %.3e (max |x_k - 1|)\n", error);
    }
    if (!s.outPath.empty()) {
        std::string message;
        if (!io::writeVector(s.outPath, x.data(), N, message)) {
            std::fprintf(stderr, "%s\n", message.c_str());
            return exitFailure;
        }
        std::printf("solution: written to %s\n", io::fileName(s.outPath).c_str());
    }
    if (!trusted) {
        std::fflush(stdout);
        const double doubleLevel = condition * std::numeric_limits<double>::epsilon();
        std::string why;
        if (!finite)
            why = "the solution holds non-finite values";
        else
            why = "estimated relative error " + format3(errorBound) + " above " + format3(maxError) +
                  " (condition estimate " + format3(condition) + ", residual " + format3(after) + ")";
        std::string advice;
        if (s.useFloat && std::isfinite(condition) && doubleLevel <= maxError)
            advice =
                condition * std::numeric_limits<float>::epsilon() < 0.1
                    ? "; double would be needed (run without --float)"
                    : "; double would be needed (run without --float), and may not suffice: in float the "
                      "condition estimate is only a lower bound";
        else if (!s.useFloat && std::isfinite(condition) && doubleLevel <= maxError && s.refine == 0)
            advice = "; --refine may help";
        else
            advice = "; the matrix is too ill-conditioned for this precision";
        std::fprintf(stderr, "%s: warning: the solution cannot be trusted: %s%s\n", name.c_str(), why.c_str(),
                     advice.c_str());
        return exitInaccurate;
    }
    return exitSolved;
}

int run(int argc, char** argv) {
    Run run;
    Settings& s = run.settings;
    int code = exitSolved;
    if (!parseArguments(argc, argv, s, code)) return code;

    // The library times its phases with the core clock, whose first use calibrates it (about 20 ms): do it
    // here, outside the phases this tool times.
    kiv::Timer::clockSpeed();

    std::string message;
    auto clock = std::chrono::steady_clock::now();
    if (!io::readMatrixMarket(s.matrixPath, run.A, message)) {
        std::fprintf(stderr, "%s\n", message.c_str());
        return exitBadInput;
    }
    const unsigned int N = run.A.n;
    run.split.bodyRows = N;
    if (!s.blocksPath.empty() && !io::readRowSplit(s.blocksPath, N, run.split, message)) {
        std::fprintf(stderr, "%s\n", message.c_str());
        return exitBadInput;
    }
    run.b.assign(N, 1.0);
    switch (s.rhs) {
        case Settings::Rhs::timesOnes: {
            const std::vector<double> ones(N, 1.0);
            run.A.multiply(ones.data(), run.b.data());
            break;
        }
        case Settings::Rhs::ones:
            break;
        case Settings::Rhs::random:
            randomVector(s.seed, run.b);
            break;
        case Settings::Rhs::file:
            if (!io::readVector(s.rhsPath, N, run.b, message)) {
                std::fprintf(stderr, "%s\n", message.c_str());
                return exitBadInput;
            }
            break;
    }
    run.readMs = milliseconds(clock);
    run.normA = run.A.normInf();

    clock = std::chrono::steady_clock::now();
    if (!io::groupIntoBlocks(run.A, run.split.bodyRows, s.blockSize, run.blocked, message)) {
        std::fprintf(stderr, "tamber-solve: %s\n", message.c_str());
        return exitBadInput;
    }
    run.analysisMs = milliseconds(clock);

    const io::BlockedProblem& P = run.blocked;
    std::printf("matrix: %s, n %u, nnz %lu (%lu in the lower triangle), %s\n",
                io::fileName(s.matrixPath).c_str(), N, run.A.fullEntries(), run.A.numEntries(),
                run.A.general ? "general" : "symmetric");
    std::printf("blocks: %u (%u body, %u constraint), block size %u, %lu block entries; constraint rows %u\n",
                P.numBlocks, P.firstConstraint, P.numBlocks - P.firstConstraint, s.blockSize, P.numEntries(),
                N - run.split.bodyRows);
    const char* rhsName[] = {"A*ones", "ones", "random", "file"};
    if (s.rhs == Settings::Rhs::random)
        std::printf("right-hand side: random, seed %lu\n", s.seed);
    else if (s.rhs == Settings::Rhs::file)
        std::printf("right-hand side: %s\n", io::fileName(s.rhsPath).c_str());
    else
        std::printf("right-hand side: %s\n", rhsName[static_cast<int>(s.rhs)]);
    std::fflush(stdout);

    if (s.useFloat) {
        // Values beyond the range of float turn into infinities before the solve starts. (Values below its
        // smallest normal number only lose digits, as the tiniest entries of a row may.)
        double largest = 0.0;
        for (double v : run.A.values) largest = std::max(largest, std::fabs(v));
        for (double v : run.b) largest = std::max(largest, std::fabs(v));
        if (largest > std::numeric_limits<float>::max()) {
            std::fprintf(
                stderr,
                "%s: warning: A or b holds values beyond the range of float (largest |value| %.3g, float "
                "holds up to %.3g); double would be needed (run without --float)\n",
                io::fileName(s.matrixPath).c_str(), largest,
                static_cast<double>(std::numeric_limits<float>::max()));
            return exitInaccurate;
        }
        return solveIn<float>(run);
    }
    return solveIn<double>(run);
}

}  // namespace

// The whole tool as a function: main's body, callable in-process by the fuzz target of the tool
// (fuzz/ToolFuzz.cpp builds this file with KIVTAMBER_SOLVE_NO_MAIN). Returns the exit code.
int tamberSolveMain(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        std::fflush(stdout);
        std::fprintf(stderr, "tamber-solve: out of memory\n");
        return exitFailure;
    }
}

#ifndef KIVTAMBER_SOLVE_NO_MAIN
int main(int argc, char** argv) {
    return tamberSolveMain(argc, argv);
}
#endif
