#include "Solver.h"

#include <kiv/Timer.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

#include "Analysis.h"
#include "ConditionEstimate.h"
#include "RankMod.h"
#include "ScalarBlocks.h"
#include "Tamber.h"
#include "TamberSolve.h"

namespace kivTamber {

const char* statusCodeName(StatusCode code) {
    switch (code) {
        case StatusCode::ok:
            return "ok";
        case StatusCode::invalidArgument:
            return "invalid argument";
        case StatusCode::badStructure:
            return "bad structure";
        case StatusCode::notAnalyzed:
            return "not analyzed";
        case StatusCode::notFactored:
            return "not factored";
        case StatusCode::nonFiniteValue:
            return "non-finite value";
        case StatusCode::zeroPivot:
            return "zero pivot";
        case StatusCode::nonFinitePivot:
            return "non-finite pivot";
        case StatusCode::outOfMemory:
            return "out of memory";
        case StatusCode::updateFailed:
            return "update failed";
    }
    return "unknown";
}

unsigned int SystemStructure::addBody(unsigned int size) {
    bodySizes.push_back(size);
    return static_cast<unsigned int>(bodySizes.size() - 1);
}

unsigned int SystemStructure::addConstraint(unsigned int rows, bool isCompliant) {
    constraintSizes.push_back(rows);
    compliant.push_back(isCompliant ? 1 : 0);
    return static_cast<unsigned int>(constraintSizes.size() - 1);
}

void SystemStructure::addJacobian(unsigned int constraint, unsigned int body) {
    jacobians.emplace_back(constraint, body);
}

void SystemStructure::addBodyCoupling(unsigned int body1, unsigned int body2) {
    couplings.emplace_back(body1, body2);
}

namespace {

Status fail(StatusCode code, const char* format, ...) __attribute__((format(printf, 2, 3)));

Status fail(StatusCode code, const char* format, ...) {
    Status s;
    s.code = code;
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    s.message = buffer;
    return s;
}

double secondsSince(std::uint64_t start) {
    return kiv::Timer::seconds(start, kiv::Timer::ticks());
}

// Where an item of the structure lives in the analysed pattern.
struct Slot {
    unsigned long entry = Analysis::Analyzer::noEntry;
    unsigned char transposed = 0;  // the caller's block is A(j, i) of entry (i, j)
    unsigned int rows = 0, cols = 0;
};

template <typename T>
bool allFinite(const T* v, unsigned long count) {
    for (unsigned long k = 0; k < count; ++k)
        if (!std::isfinite(v[k])) return false;
    return true;
}

}  // namespace

template <typename T>
struct Solver<T>::Impl {
    SolverOptions options;
    SolverReport report;
    PivotLocation noPivot;

    // The analysed system.
    bool analyzed = false;
    Analysis::Analyzer analyzer;
    TamberData<T> data;
    Tamber tamber;
    unsigned int numBodies = 0, numConstraints = 0, numBlocks = 0;
    unsigned long N = 0;
    std::vector<unsigned int> blockSizes;      // [blocks] user numbering
    std::vector<unsigned long> userOffsets;    // [blocks + 1]
    std::vector<unsigned int> compliantIndex;  // [constraints] index among compliant ones, or ~0u
    std::vector<Slot> bodySlots, jacobianSlots, couplingSlots, complianceSlots;
    std::vector<unsigned long> jacobianValueOffsets, couplingValueOffsets, complianceValueOffsets;
    unsigned long bodyValues = 0, jacobianValues = 0, couplingValues = 0, complianceValues = 0;
    std::vector<T> negated;  // scratch for −C, max constraint size squared

    // The items of a body/constraint structure by the block column of data.matrix their values land in:
    // column k's items are columnItems[columnItemStart[k] .. columnItemStart[k + 1] − 1] (made at analyze;
    // empty for the other kinds of input). They let a one-call step write each column just before the serial
    // factorization reads it.
    enum : unsigned char { bodyKind = 0, jacobianKind, couplingKind, complianceKind };
    struct ColumnItem {
        Slot slot;
        unsigned long value;  // offset of its values in the array of its kind
        unsigned char kind;   // bodyKind … complianceKind (a compliance goes in as −C)
    };
    std::vector<unsigned int> columnItemStart;
    std::vector<ColumnItem> columnItems;
    void buildColumnItems();

    // The values of a one-call step: the four arrays of setValues (any may be null), or the values and
    // value pointers of setPatternValues (pattern non-null).
    struct StepInput {
        const T* arrays[4] = {nullptr, nullptr, nullptr, nullptr};
        const T* pattern = nullptr;
        const unsigned long* valuePointers = nullptr;
    };
    // The source of Tamber::factorSerial(data, input) for the arrays of a step.
    struct ArrayColumns final : InputColumns {
        ArrayColumns(Impl& impl, const T* const* a) : m(impl), arrays(a) {}
        void write(unsigned int first, unsigned int end) override { m.writeColumns(arrays, first, end); }
        Impl& m;
        const T* const* arrays;
    };
    // The checks of setValues and setPatternValues (their messages), before anything is written.
    Status checkArrays(const T* const* arrays) const;
    Status checkPattern(const T* values, const unsigned long* valuePointers) const;
    // Writes the arrays (setValues without its checks); the items of columns [first, end) only.
    void writeArrays(const T* const* arrays);
    void writeColumns(const T* const* arrays, unsigned int first, unsigned int end);

    // Per factor-order scalar p: offset of the diagonal element A(p, p) in data.matrix.values, whether the
    // equation is a constraint row, and its user row.
    std::vector<unsigned long> diagonalOffset;
    std::vector<unsigned char> constraintRow;
    std::vector<unsigned int> factorToUser;
    // Per factor block: tiles (indices into data.matrix's blocks) of its block row off the diagonal.
    std::vector<unsigned int> rowTilePointers, rowTiles;
    std::vector<unsigned int> tileColumn;  // [tiles] the block column of each tile of data.matrix
    // Predicted cost of switching one equation of a factor block in place (entries touched on its root path).
    std::vector<double> pathCost;

    // Activity: desired (per user scalar row) and as held by the factor; a count of the inactive desired.
    std::vector<unsigned char> desiredActive, factorActive;
    bool factorAllActive = true;  // no equation of factorActive is switched off (the common case: no lookups)
    bool switchPending = false;

    // Factor state.
    bool valuesChanged = true;  // since the last factorization
    bool factorValid = false;
    bool rankModPrepared = false;
    unsigned int chosenThreads = 0;  // the automatic thread count of this structure (0: not chosen yet)
    RankMod rankMod;                 // double only
    RankMod::EquationList switchOff, switchOn;

    // Save areas for a masked or regularised factorization (sized at analyze).
    std::vector<T> savedTiles;
    std::vector<unsigned int> savedTileList;  // tiles saved by maskInactive, in the order of savedTiles
    std::vector<unsigned char> tileSaved;     // [tiles]
    std::vector<T> savedDiagonal;             // [N]

    // Work vectors of the solves (grown to N·k).
    std::vector<T> permutedB, permutedX, residual, best;
    std::vector<double> normRowSums, bestNorm, bestScaled;
    std::vector<unsigned char> improving;
    std::vector<T*> current, trial;  // per right-hand side: its best iterate and the next one
    std::vector<T> conditionWork;    // [2N]
    std::vector<double> normWork;    // [N]

    Impl() = default;

    // ---- structure ----
    Status analyzeProblem(const Analysis::Problem& problem, unsigned int bodies, bool peel = true);
    void forgetStructure();

    // A scalar matrix given to analyzeScalar: its block problem and the block values its scalars scatter to.
    Analysis::ScalarProblem scalar;
    bool scalarInput = false;
    bool problemInput = false;        // analysed from an Analysis::Problem
    unsigned long scalarEntries = 0;  // colPointers[n] of the scalar matrix
    std::vector<T> scalarBlockValues;
    void layoutSlots();
    Slot slotOf(unsigned int i, unsigned int j) const;
    Status writeSlot(const Slot& s, const T* values, const char* what, unsigned int id1, unsigned int id2);
    // Writes a caller's block into the factorization's input (no checks).
    void store(const Slot& s, const T* values);
    void storeNegated(const Slot& s, const T* values);

    // ---- factorization ----
    // Factors the values held, or with `input` the values of a one-call step written first or, on the
    // serial path without masks and regularisation, column by column as the factorization reaches them.
    Status factorNow(const StepInput* input = nullptr);
    unsigned long tileValueCount(unsigned int tile) const {
        const SparseMatrix<T>& A = data.matrix;
        return static_cast<unsigned long>(A.blockStrides[A.rowIndices[tile]]) *
               A.blockSizes[tileColumn[tile]];
    }
    bool anyInactive() const;
    // The block of the factor that holds factor-order scalar p.
    unsigned int factorBlockOf(unsigned long p) const {
        const unsigned int* o = data.matrix.blockOffsets;
        const unsigned int nb = static_cast<unsigned int>(data.matrix.numBlockCols);
        return static_cast<unsigned int>(std::upper_bound(o, o + nb, static_cast<unsigned int>(p)) - o - 1);
    }
    Status updateInPlace();
    Status checkSolvable();
    void maskInactive();
    void restoreMasked();
    void regularize();
    void restoreRegularized();
    void scanPivots();
    PivotLocation locate(unsigned long p, double value) const;
    Status applySwitches();
    Status solveMany(const T* b, T* x, unsigned int k, unsigned long ld);
    void solveFactor(T* v, unsigned int k);
    // max(m, a) that keeps a NaN once met (std::max drops a NaN in its second argument): a non-finite
    // solution then shows as a NaN residual instead of a small one.
    static double maxKeepingNaN(double m, double a) { return a > m || a != a ? a : m; }
    double normInf(const T* v) const {
        double m = 0;
        for (unsigned long p = 0; p < N; ++p) m = maxKeepingNaN(m, std::fabs(static_cast<double>(v[p])));
        return m;
    }
    void residualOf(const T* b, const T* x, T* r) const;
    void residualAndNorm(const T* b, const T* x, T* r);
    double scaledResidual(const T* b, const T* x, const T* r) const;
    double normA = -1.0;
    double matrixNormInf();
};

// ---------------------------------------------------------------------------------------------------------
// Analysis
// ---------------------------------------------------------------------------------------------------------

template <typename T>
Status Solver<T>::Impl::analyzeProblem(const Analysis::Problem& problem, unsigned int bodies, bool peel) {
    const std::uint64_t start = kiv::Timer::ticks();
    Analysis::Options o;
    o.peel = peel;
    o.mergeBlocks = options.mergeBlocks;
    switch (options.ordering) {
        case OrderingMethod::automatic:
            o.ordering = Analysis::Ordering::standard;
            break;
        case OrderingMethod::minimumDegree:
            o.ordering = Analysis::Ordering::symamdSwap;
            break;
        case OrderingMethod::natural:
            o.ordering = Analysis::Ordering::natural;
            break;
        case OrderingMethod::centroid:
            o.ordering = Analysis::Ordering::centroid;
            break;
    }
    Analysis::Report r;
    try {
        r = analyzer.analyze(problem, o, data);
    } catch (const std::bad_alloc&) {
        analyzed = false;
        return fail(StatusCode::outOfMemory, "out of memory while analysing %u blocks", problem.numBlocks);
    }
    if (!r.ok) return fail(StatusCode::badStructure, "%s", r.message.c_str());
    try {
        tamber.estimateWork(data, nullptr);
    } catch (const std::bad_alloc&) {
        analyzed = false;
        return fail(StatusCode::outOfMemory, "out of memory while laying out the factor");
    }
    data.stopAtBadPivot = 1;
    // The double solves read only L and D: the factorization keeps no L·D (the float solve reads it).
    data.writeScaledFactor = std::is_same<T, double>::value ? 0 : 1;

    numBlocks = problem.numBlocks;
    numBodies = bodies;
    numConstraints = numBlocks - bodies;
    blockSizes.assign(problem.blockSizes, problem.blockSizes + numBlocks);
    userOffsets.assign(numBlocks + 1, 0);
    for (unsigned int b = 0; b < numBlocks; ++b) userOffsets[b + 1] = userOffsets[b] + blockSizes[b];
    N = userOffsets[numBlocks];

    // Factor-order scalars: diagonal offsets, kind, user row.
    const SparseMatrix<T>& A = data.matrix;
    const unsigned int nb = static_cast<unsigned int>(A.numBlockCols);
    diagonalOffset.assign(N, 0);
    constraintRow.assign(N, 0);
    factorToUser.assign(N, 0);
    for (unsigned int b = 0; b < numBlocks; ++b) {
        for (unsigned int l = 0; l < blockSizes[b]; ++l) {
            unsigned int k = 0, lk = 0;
            analyzer.factorPosition(b, l, k, lk);
            const unsigned long p = A.blockOffsets[k] + lk;
            const unsigned int tile = A.colPointers[k + 1] - 1;  // the diagonal tile, last of its column
            diagonalOffset[p] = static_cast<unsigned long>(A.blockPointers[tile] - A.values) +
                                static_cast<unsigned long>(lk) * A.blockStrides[k] + lk;
            constraintRow[p] = b >= bodies;
            factorToUser[p] = static_cast<unsigned int>(userOffsets[b] + l);
        }
    }
    // Row index of the matrix's tiles.
    tileColumn.assign(A.numBlocks, 0);
    for (unsigned int j = 0; j < nb; ++j)
        for (unsigned int e = A.colPointers[j]; e < A.colPointers[j + 1]; ++e) tileColumn[e] = j;
    rowTilePointers.assign(nb + 1, 0);
    for (unsigned int j = 0; j < nb; ++j)
        for (unsigned int e = A.colPointers[j]; e + 1 < A.colPointers[j + 1]; ++e)
            ++rowTilePointers[A.rowIndices[e] + 1];
    for (unsigned int k = 0; k < nb; ++k) rowTilePointers[k + 1] += rowTilePointers[k];
    rowTiles.assign(rowTilePointers[nb], 0);
    {
        std::vector<unsigned int> next(rowTilePointers.begin(), rowTilePointers.end() - 1);
        for (unsigned int j = 0; j < nb; ++j)
            for (unsigned int e = A.colPointers[j]; e + 1 < A.colPointers[j + 1]; ++e)
                rowTiles[next[A.rowIndices[e]]++] = e;
    }
    // Cost of switching an equation of block k in place: the scalars of L in the block columns on the
    // path from k to its root (each is touched by a few flops per modified equation).
    pathCost.assign(nb, 0.0);
    {
        std::vector<double> below(nb, 0.0);
        const SkeletonMatrix& S = data.skeleton;  // rows: per block row i the columns j <= i
        for (unsigned int i = 0; i < nb; ++i)
            for (unsigned int e = S.colPointers[i]; e + 1 < S.colPointers[i + 1]; ++e)
                below[S.rowIndices[e]] += A.blockSizes[i];
        for (unsigned int k = nb; k-- > 0;) {
            const unsigned int parent = data.etree.parent[k];
            pathCost[k] = A.blockSizes[k] * (below[k] + A.blockSizes[k]) +
                          (parent != k && parent < nb ? pathCost[parent] : 0.0);
        }
    }
    tileSaved.assign(A.numBlocks, 0);
    savedTileList.clear();
    savedTileList.reserve(A.numBlocks);
    {
        // Sized on the first factorization with switched-off equations (then never again).
        savedTiles.clear();
    }
    savedDiagonal.assign(N, T(0));
    desiredActive.assign(N, 1);
    factorActive.assign(N, 1);
    factorAllActive = true;
    switchPending = false;
    valuesChanged = true;
    factorValid = false;
    rankModPrepared = false;
    chosenThreads = 0;
    normA = -1.0;

    report = SolverReport();
    report.bodies = numBodies;
    report.constraints = numConstraints;
    report.rows = N;
    report.blocks = numBlocks;
    report.factorBlocks = r.mergedBlocks;
    report.factorEntries = r.cost.scalarEntries;
    report.explicitZeros = r.explicitZeros;
    report.flops = r.cost.flops;
    if (o.ordering == Analysis::Ordering::standard || r.centroidFallback) {
        report.ordering = r.usedNestedDissection ? "nested dissection" : "minimum degree";
        if (r.peeledBlocks > 0) report.ordering = "peeling + " + report.ordering;
        if (r.peeledBlocks == numBlocks) report.ordering = "peeling";
        if (r.centroidFallback) report.ordering += " (centroid not applicable)";
    } else if (o.ordering == Analysis::Ordering::symamdSwap) {
        report.ordering = "minimum degree (symamd)";
    } else if (o.ordering == Analysis::Ordering::natural) {
        report.ordering = "natural";
    } else {
        report.ordering = "centroid";
    }
    // The analysis's time model of the serial factorization, in flops, at the 0.20 ns per flop it was fitted
    // with (a machine-dependent constant: only a guide to the order of magnitude).
    report.predictedFactorSeconds = 0.20e-9 * r.cost.modelFlops();
    report.analyzeSeconds = secondsSince(start);
    analyzed = true;
    return Status();
}

template <typename T>
Slot Solver<T>::Impl::slotOf(unsigned int i, unsigned int j) const {
    Slot s;
    if (i >= numBlocks || j >= numBlocks) return s;
    s.rows = blockSizes[i];
    s.cols = blockSizes[j];
    if (i <= j) {
        s.entry = analyzer.findEntry(i, j);
    } else {
        s.entry = analyzer.findEntry(j, i);
        s.transposed = 1;
    }
    return s;
}

template <typename T>
Status Solver<T>::Impl::writeSlot(const Slot& s, const T* values, const char* what, unsigned int id1,
                                  unsigned int id2) {
    if (values == nullptr)
        return fail(StatusCode::invalidArgument, "%s (%u, %u): values are null", what, id1, id2);
    if (options.checkValues) {
        const unsigned long count = static_cast<unsigned long>(s.rows) * s.cols;
        for (unsigned long k = 0; k < count; ++k) {
            if (!std::isfinite(values[k]))
                return fail(StatusCode::nonFiniteValue, "%s (%u, %u): value %lu (row %lu, column %lu) is %g",
                            what, id1, id2, k, k / s.cols, k % s.cols, static_cast<double>(values[k]));
        }
    }
    store(s, values);
    return Status();
}

template <typename T>
void Solver<T>::Impl::store(const Slot& s, const T* values) {
    if (s.transposed)
        analyzer.setBlockTransposed(data, s.entry, values);
    else
        analyzer.setBlock(data, s.entry, values);
    valuesChanged = true;
    normA = -1.0;
}

// A compliance block C goes into the matrix as −C.
template <typename T>
void Solver<T>::Impl::storeNegated(const Slot& s, const T* values) {
    const unsigned long count = static_cast<unsigned long>(s.rows) * s.cols;
    for (unsigned long k = 0; k < count; ++k) negated[k] = -values[k];
    store(s, negated.data());
}

// ---------------------------------------------------------------------------------------------------------
// Factorization
// ---------------------------------------------------------------------------------------------------------

// ---------------------------------------------------------------------------------------------------------
// Factorization
// ---------------------------------------------------------------------------------------------------------

template <typename T>
bool Solver<T>::Impl::anyInactive() const {
    return N > 0 && std::memchr(desiredActive.data(), 0, N) != nullptr;
}

// Replaces every switched-off equation p of the matrix by a unit equation (row and column p zero, 1 on the
// diagonal), so that the factorization sees the active system. The tiles touched are saved first, each
// once, and restoreMasked puts them back: the caller's values are never lost.
template <typename T>
void Solver<T>::Impl::maskInactive() {
    SparseMatrix<T>& A = data.matrix;
    const unsigned int nb = static_cast<unsigned int>(A.numBlockCols);
    if (savedTiles.empty()) {
        unsigned long all = 0;
        for (unsigned int e = 0; e < A.numBlocks; ++e) all += tileValueCount(e);
        savedTiles.assign(all, T(0));
    }
    savedTileList.clear();
    unsigned long at = 0;
    auto save = [&](unsigned int e) {
        if (tileSaved[e]) return;
        tileSaved[e] = 1;
        savedTileList.push_back(e);
        const unsigned long count = tileValueCount(e);
        std::memcpy(savedTiles.data() + at, A.blockPointers[e], count * sizeof(T));
        at += count;
    };
    for (unsigned int k = 0; k < nb; ++k) {
        const unsigned int s = A.blockSizes[k];
        const unsigned long p0 = A.blockOffsets[k];
        for (unsigned int l = 0; l < s; ++l) {
            if (desiredActive[factorToUser[p0 + l]]) continue;
            for (unsigned int e = A.colPointers[k]; e < A.colPointers[k + 1]; ++e) save(e);
            for (unsigned int t = rowTilePointers[k]; t < rowTilePointers[k + 1]; ++t) save(rowTiles[t]);
            // Column l of the tiles of block column k (rows of the diagonal tile included).
            for (unsigned int e = A.colPointers[k]; e < A.colPointers[k + 1]; ++e) {
                const unsigned int r = A.rowIndices[e];
                const unsigned long ld = A.blockStrides[r];
                T* tile = A.blockPointers[e];
                for (unsigned int q = 0; q < A.blockSizes[r]; ++q) tile[l * ld + q] = T(0);
            }
            // Row l of the tiles of block row k: the diagonal tile and the tiles (k, j), j > k.
            {
                const unsigned long ld = A.blockStrides[k];
                T* tile = A.blockPointers[A.colPointers[k + 1] - 1];
                for (unsigned int c = 0; c < s; ++c) tile[c * ld + l] = T(0);
                for (unsigned int t = rowTilePointers[k]; t < rowTilePointers[k + 1]; ++t) {
                    const unsigned int e = rowTiles[t];
                    T* row = A.blockPointers[e];
                    for (unsigned int c = 0; c < A.blockSizes[tileColumn[e]]; ++c) row[c * ld + l] = T(0);
                }
            }
            A.values[diagonalOffset[p0 + l]] = T(1);
        }
    }
}

template <typename T>
void Solver<T>::Impl::restoreMasked() {
    SparseMatrix<T>& A = data.matrix;
    unsigned long at = 0;
    for (unsigned int e : savedTileList) {
        const unsigned long count = tileValueCount(e);
        std::memcpy(A.blockPointers[e], savedTiles.data() + at, count * sizeof(T));
        at += count;
        tileSaved[e] = 0;
    }
    savedTileList.clear();
}

// A + diag(+δ on body rows, −δ on constraint rows); restoreRegularized puts the exact diagonal back.
template <typename T>
void Solver<T>::Impl::regularize() {
    const T delta = static_cast<T>(options.regularization);
    T* const values = data.matrix.values;
    for (unsigned long p = 0; p < N; ++p) {
        T& d = values[diagonalOffset[p]];
        savedDiagonal[p] = d;
        d = constraintRow[p] ? d - delta : d + delta;
    }
}

template <typename T>
void Solver<T>::Impl::restoreRegularized() {
    T* const values = data.matrix.values;
    for (unsigned long p = 0; p < N; ++p) values[diagonalOffset[p]] = savedDiagonal[p];
}

template <typename T>
PivotLocation Solver<T>::Impl::locate(unsigned long p, double value) const {
    PivotLocation at;
    at.found = true;
    at.step = p;
    at.value = value;
    at.userRow = factorToUser[p];
    const unsigned int b = static_cast<unsigned int>(
        std::upper_bound(userOffsets.begin(), userOffsets.end(), at.userRow) - userOffsets.begin() - 1);
    at.isConstraint = b >= numBodies;
    at.id = at.isConstraint ? b - numBodies : b;
    at.row = static_cast<unsigned int>(at.userRow - userOffsets[b]);
    return at;
}

// Inertia, the smallest |pivot| and the first bad pivot of a finished factorization (one pass over D).
template <typename T>
void Solver<T>::Impl::scanPivots() {
    const T* d = data.diagonal.data;
    unsigned long pos = 0, neg = 0, zero = 0, smallest = 0;
    double smallestValue = std::numeric_limits<double>::infinity();
    for (unsigned long p = 0; p < N; ++p) {
        const double v = static_cast<double>(d[p]);
        if (v > 0)
            ++pos;
        else if (v < 0)
            ++neg;
        else
            ++zero;
        if (std::fabs(v) < smallestValue) {
            smallestValue = std::fabs(v);
            smallest = p;
        }
    }
    report.positivePivots = pos;
    report.negativePivots = neg;
    report.zeroPivots = zero;
    report.smallestPivot = N > 0 ? locate(smallest, static_cast<double>(d[smallest])) : PivotLocation();
}

template <typename T>
Status Solver<T>::Impl::factorNow(const StepInput* input) {
    const std::uint64_t start = kiv::Timer::ticks();
    factorValid = false;
    rankModPrepared = false;
    report.badPivot = PivotLocation();
    unsigned int threads = options.threads;
    if (threads == 0) {
        // Decided once per structure from the predicted work (small systems stay serial).
        if (chosenThreads == 0) chosenThreads = tamber.chooseThreads(data, options.maxThreads);
        threads = chosenThreads;
    }
    const bool masked = anyInactive();
    const bool regularized = options.regularization > 0.0;
    // The values of a one-call step go in column by column when the serial factorization reads the matrix
    // as it is; masks, regularisation and the multifrontal factorization need the whole matrix first.
    const bool byColumns =
        input != nullptr && threads <= 1 && !masked && !regularized &&
        (input->pattern != nullptr || columnItemStart.size() == data.matrix.numBlockCols + 1);
    if (input != nullptr && !byColumns) {
        if (input->pattern != nullptr)
            analyzer.setBlocks(data, input->pattern, input->valuePointers);
        else
            writeArrays(input->arrays);
    }
    if (masked) maskInactive();
    if (regularized) regularize();
    data.stopAtBadPivot = 1;
    data.badPivot = typename TamberData<T>::BadPivot();
    data.isFactored = 0;
    if (threads > 1) {
        data.useMultifrontal = 1;
        data.numThreads = threads;
        tamber.factorMF(data);
    } else {
        data.useMultifrontal = 0;
        data.numThreads = 1;
        if (!byColumns) {
            tamber.factorSerial(data);
        } else if (input->pattern != nullptr) {
            analyzer.setBlocksAndFactor(tamber, data, input->pattern, input->valuePointers);
        } else {
            ArrayColumns columns(*this, input->arrays);
            tamber.factorSerial(data, columns);
        }
    }
    if (regularized) restoreRegularized();
    if (masked) restoreMasked();
    report.path = threads > 1 ? "multifrontal" : "serial";
    report.threads = threads;
    report.regularized = regularized;
    report.factorizations += 1;

    // The first bad pivot, as both factorizations record it (no second pass over the pivots).
    const unsigned long bad = data.badPivot.scalar;
    const double badValue = data.badPivot.value;
    if (factorActive != desiredActive) normA = -1.0;  // ‖A‖∞ is the norm of the active equations
    factorActive = desiredActive;
    factorAllActive = !masked;
    switchPending = false;
    valuesChanged = false;
    report.factorSeconds = secondsSince(start);
    if (bad != TamberData<T>::BadPivot::noPivot) {
        data.isFactored = 0;
        report.badPivot = locate(bad, badValue);
        const PivotLocation& at = report.badPivot;
        const bool zero = badValue == 0.0;
        return fail(zero ? StatusCode::zeroPivot : StatusCode::nonFinitePivot,
                    "%s pivot %g at elimination step %lu: %s %u, row %u (row %lu of the system)%s",
                    zero ? "zero" : "non-finite", badValue, at.step, at.isConstraint ? "constraint" : "body",
                    at.id, at.row, at.userRow,
                    regularized ? "" : "; if the body part is only semidefinite, try the regularised mode");
    }
    scanPivots();
    factorValid = true;
    return Status();
}

// Brings the factor's active set to the desired one: in place through RankMod (double precision) when that
// is predicted cheaper than factoring again, otherwise by a masked factorization.
template <typename T>
Status Solver<T>::Impl::applySwitches() {
    const std::uint64_t start = kiv::Timer::ticks();
    unsigned long off = 0, on = 0;
    double cost = 0.0;
    for (unsigned long p = 0; p < N; ++p) {
        const unsigned int u = factorToUser[p];
        if (desiredActive[u] == factorActive[u]) continue;
        (desiredActive[u] ? on : off) += 1;
        cost += pathCost[factorBlockOf(p)];
    }
    switchPending = false;
    report.switchedOff = off;
    report.switchedOn = on;
    if (off + on == 0) return Status();
    bool byUpdate = false;
    if (std::is_same<T, double>::value && options.regularization <= 0.0) {
        if (options.switching == SwitchMethod::update)
            byUpdate = true;
        else if (options.switching == SwitchMethod::automatic)
            byUpdate = 6.0 * cost < report.flops;
    }
    if (byUpdate) {
        Status st = updateInPlace();
        if (st.ok()) {
            report.switchPath = "update";
            report.switchSeconds = secondsSince(start);
            return st;
        }
    }
    Status st = factorNow();
    report.switchPath = "refactor";
    report.switchSeconds = secondsSince(start);
    return st;
}

template <typename T>
Status Solver<T>::Impl::updateInPlace() {
    if constexpr (std::is_same<T, double>::value) {
        try {
            if (!rankModPrepared) {
                if (!rankMod.prepare(data))
                    return fail(StatusCode::updateFailed, "the factor could not be prepared for switching");
                // Each equation is listed at most once per switch: lists of N never grow again.
                switchOff.reserve(N);
                switchOn.reserve(N);
                // Equations masked by the last factorization are unit equations of the factor already.
                for (unsigned long p = 0; p < N; ++p) {
                    if (factorActive[factorToUser[p]]) continue;
                    rankMod.active[p] = 0;
                    --rankMod.activeCounts[factorBlockOf(p)];
                }
                rankModPrepared = true;
            }
            switchOff.clear();
            switchOn.clear();
            for (unsigned long p = 0; p < N; ++p) {
                const unsigned int u = factorToUser[p];
                if (desiredActive[u] == factorActive[u]) continue;
                const unsigned int k = factorBlockOf(p);
                const RankMod::Equation eq(k, static_cast<unsigned int>(p - data.matrix.blockOffsets[k]));
                (desiredActive[u] ? switchOn : switchOff).push_back(eq);
            }
            const bool ok = rankMod.apply(data, switchOff, switchOn, RankMod::batched);
            factorActive = desiredActive;
            normA = -1.0;  // of another set of active equations
            factorAllActive = !anyInactive();
            if (!ok) {
                factorValid = false;
                valuesChanged = true;  // the next solve asks for a factorization
                return fail(StatusCode::updateFailed, "switching %lu equations in place failed",
                            static_cast<unsigned long>(switchOff.size() + switchOn.size()));
            }
        } catch (const std::bad_alloc&) {
            factorValid = false;
            valuesChanged = true;
            return fail(StatusCode::outOfMemory, "out of memory while switching equations");
        }
        scanPivots();
        const T* d = data.diagonal.data;
        for (unsigned long p = 0; p < N; ++p) {
            if (d[p] == T(0) || !std::isfinite(d[p])) {
                factorValid = false;
                report.badPivot = locate(p, static_cast<double>(d[p]));
                return fail(
                    d[p] == T(0) ? StatusCode::zeroPivot : StatusCode::nonFinitePivot,
                    "switching equations on made pivot %lu (%s %u, row %u) %g: the active constraints are "
                    "dependent",
                    p, report.badPivot.isConstraint ? "constraint" : "body", report.badPivot.id,
                    report.badPivot.row, static_cast<double>(d[p]));
            }
        }
        return Status();
    } else {
        return fail(StatusCode::updateFailed, "single-precision factors are switched by factoring again");
    }
}

// ---------------------------------------------------------------------------------------------------------
// Solves
// ---------------------------------------------------------------------------------------------------------

// ‖A‖∞ of the matrix of the active equations, while some are switched off (with all active, the first
// residual of a solve computes it: residualAndNorm).
template <typename T>
double Solver<T>::Impl::matrixNormInf() {
    if (normA >= 0.0) return normA;
    const SparseMatrix<T>& A = data.matrix;
    std::vector<double>& rows = normRowSums;  // N values
    rows.assign(N, 0.0);
    const unsigned int nb = static_cast<unsigned int>(A.numBlockCols);
    for (unsigned int j = 0; j < nb; ++j) {
        const unsigned int oj = A.blockOffsets[j], sj = A.blockSizes[j];
        for (unsigned int e = A.colPointers[j]; e < A.colPointers[j + 1]; ++e) {
            const unsigned int i = A.rowIndices[e], oi = A.blockOffsets[i], si = A.blockSizes[i];
            const unsigned long ld = A.blockStrides[i];
            const T* tile = A.blockPointers[e];
            for (unsigned int c = 0; c < sj; ++c) {
                for (unsigned int r = 0; r < si; ++r) {
                    if (i == j && r > c) continue;  // diagonal tiles: the triangle r <= c
                    const double v = std::fabs(static_cast<double>(tile[c * ld + r]));
                    if (!factorActive[factorToUser[oi + r]] || !factorActive[factorToUser[oj + c]]) continue;
                    rows[oi + r] += v;
                    if (i != j || r != c) rows[oj + c] += v;
                }
            }
        }
    }
    normA = 0.0;
    for (unsigned long p = 0; p < N; ++p) normA = std::max(normA, rows[p]);
    return normA;
}

// r = b − A·x with every equation active (the bits of residualOf), and ‖A‖∞ (normA) from the same pass over
// the tiles.
template <typename T>
void Solver<T>::Impl::residualAndNorm(const T* b, const T* x, T* r) {
    std::vector<double>& rows = normRowSums;
    if (rows.size() != N) rows.assign(N, 0.0);
    data.matrix.multiplyWithRowSums(x, r, rows.data());
    for (unsigned long p = 0; p < N; ++p) r[p] = b[p] - r[p];
    normA = 0.0;
    for (unsigned long p = 0; p < N; ++p) normA = std::max(normA, rows[p]);
}

// r = b − A·x over the active equations (factor order; rows of switched-off equations are 0).
template <typename T>
void Solver<T>::Impl::residualOf(const T* b, const T* x, T* r) const {
    data.matrix.multiply(x, r);
    if (factorAllActive) {
        for (unsigned long p = 0; p < N; ++p) r[p] = b[p] - r[p];
        return;
    }
    for (unsigned long p = 0; p < N; ++p) r[p] = factorActive[factorToUser[p]] ? b[p] - r[p] : T(0);
}

template <typename T>
double Solver<T>::Impl::scaledResidual(const T* b, const T* x, const T* r) const {
    double nr = 0, nx = 0, nb = 0;
    for (unsigned long p = 0; p < N; ++p) {
        nr = maxKeepingNaN(nr, std::fabs(static_cast<double>(r[p])));
        nx = maxKeepingNaN(nx, std::fabs(static_cast<double>(x[p])));
        nb = maxKeepingNaN(nb, std::fabs(static_cast<double>(b[p])));
    }
    const double scale = normA * nx + nb;
    return scale > 0 ? nr / scale : nr;
}

template <typename T>
Status Solver<T>::Impl::checkSolvable() {
    if (!analyzed) return fail(StatusCode::notAnalyzed, "solve before a successful analyze");
    if (valuesChanged)
        return fail(StatusCode::notFactored,
                    factorValid || report.factorizations == 0
                        ? "solve without a factorization of the current values: call factor()"
                        : "solve without a valid factor: the last factor() failed");
    if (switchPending) {
        Status st = applySwitches();
        if (!st) return st;
    }
    if (!factorValid)
        return fail(StatusCode::notFactored, "solve without a valid factor: the last factor() failed");
    return Status();
}

// Solves the factor for the k columns of `v` (factor order, leading dimension N): all at once in double
// precision (each column gets exactly the operations of a single solve), one by one in single precision.
template <typename T>
void Solver<T>::Impl::solveFactor(T* v, unsigned int k) {
    if constexpr (std::is_same<T, double>::value) {
        TamberSolve::solveMany(data, v, k, N);
    } else {
        // A refinement residual is tiny: solved at any scale (see TamberSolve::solveAtAnyScale).
        for (unsigned int c = 0; c < k; ++c)
            TamberSolve::solveAtAnyScale(tamber, data, v + static_cast<unsigned long>(c) * N);
    }
}

template <typename T>
Status Solver<T>::Impl::solveMany(const T* b, T* x, unsigned int k, unsigned long ld) {
    if (b == nullptr || x == nullptr)
        return fail(StatusCode::invalidArgument, "solve: null right-hand side or solution");
    if (k > 1 && ld < N)
        return fail(StatusCode::invalidArgument, "solve: leading dimension %lu is less than the %lu rows", ld,
                    N);
    Status st = checkSolvable();
    if (!st) return st;
    if (k == 0) return Status();
    const std::uint64_t start = kiv::Timer::ticks();
    const unsigned long total = static_cast<unsigned long>(k) * N;
    const unsigned int steps = options.refinementSteps;
    // Work vectors grow to the largest k seen, then stay.
    auto atLeast = [](auto& v, unsigned long n) {
        if (v.size() < n) v.resize(n);
    };
    atLeast(permutedB, total);
    atLeast(permutedX, total);
    if (steps > 0) {
        atLeast(residual, total);
        atLeast(best, total);
        atLeast(bestNorm, k);
        atLeast(bestScaled, k);
        atLeast(improving, k);
        atLeast(current, k);
        atLeast(trial, k);
    }
    T* const PB = permutedB.data();
    T* const PX = permutedX.data();
    for (unsigned int c = 0; c < k; ++c) {
        T* pb = PB + static_cast<unsigned long>(c) * N;
        analyzer.permuteVector(b + c * ld, pb);
        for (unsigned long p = 0; !factorAllActive && p < N; ++p)
            if (!factorActive[factorToUser[p]]) pb[p] = T(0);
    }
    std::memcpy(PX, PB, total * sizeof(T));
    solveFactor(PX, k);
    const std::uint64_t refineStart = kiv::Timer::ticks();
    double worst = -1.0;
    unsigned int stepsRun = 0;
    if (steps > 0) {
        // Iterative refinement against the true matrix. Each right-hand side keeps its iterate of smallest
        // residual and stops at the first step that does not lower it, or once its scaled residual is at the
        // rounding level of T (a correction computed in T cannot lower it further). The best iterate and the
        // next one swap buffers instead of being copied; the corrections are solved in place of the
        // residuals, all columns in one pass.
        // ‖A‖∞ for the scaled residuals: after new values, from the pass of the first residual.
        const bool normWithResidual = normA < 0.0 && factorAllActive;
        if (!normWithResidual) matrixNormInf();
        const double roundoff = static_cast<double>(std::numeric_limits<T>::epsilon());
        T* const R = residual.data();
        unsigned int live = 0;
        for (unsigned int c = 0; c < k; ++c) {
            const unsigned long o = static_cast<unsigned long>(c) * N;
            current[c] = PX + o;
            trial[c] = best.data() + o;
            if (c == 0 && normWithResidual)
                residualAndNorm(PB + o, current[c], R + o);
            else
                residualOf(PB + o, current[c], R + o);
            bestNorm[c] = normInf(R + o);
            bestScaled[c] = scaledResidual(PB + o, current[c], R + o);
            improving[c] = bestNorm[c] > 0 && bestScaled[c] > roundoff;
            live += improving[c];
        }
        for (unsigned int it = 0; it < steps && live > 0; ++it) {
            solveFactor(R, k);  // δ = A⁻¹·r per column (the columns that stopped are solved and ignored)
            ++stepsRun;
            live = 0;
            for (unsigned int c = 0; c < k; ++c) {
                if (!improving[c]) continue;
                const unsigned long o = static_cast<unsigned long>(c) * N;
                const T* px = current[c];
                T* next = trial[c];
                for (unsigned long p = 0; p < N; ++p) next[p] = px[p] + R[o + p];
                residualOf(PB + o, next, R + o);
                const double norm = normInf(R + o);
                if (!(norm < bestNorm[c])) {  // no progress (or NaN): keep the best iterate
                    improving[c] = 0;
                    continue;
                }
                bestNorm[c] = norm;
                bestScaled[c] = scaledResidual(PB + o, next, R + o);
                std::swap(current[c], trial[c]);
                improving[c] = norm > 0 && bestScaled[c] > roundoff;
                live += improving[c];
            }
        }
        for (unsigned int c = 0; c < k; ++c) worst = maxKeepingNaN(worst, bestScaled[c]);
    }
    for (unsigned int c = 0; c < k; ++c)
        analyzer.unpermuteVector(steps > 0 ? current[c] : PX + static_cast<unsigned long>(c) * N, x + c * ld);
    report.solveSeconds = kiv::Timer::seconds(start, refineStart);
    report.refineSeconds = secondsSince(refineStart);
    report.refinementSteps = stepsRun;
    report.residual = worst;
    return Status();
}

// ---------------------------------------------------------------------------------------------------------
// The public object
// ---------------------------------------------------------------------------------------------------------

template <typename T>
Solver<T>::Solver() : impl_(new Impl) {}

template <typename T>
Solver<T>::~Solver() = default;

template <typename T>
Solver<T>::Solver(Solver&&) noexcept = default;

template <typename T>
Solver<T>& Solver<T>::operator=(Solver&&) noexcept = default;

template <typename T>
Status Solver<T>::setOptions(const SolverOptions& o) {
    if (!(o.regularization >= 0.0) || !std::isfinite(o.regularization))
        return fail(StatusCode::invalidArgument, "regularization %g must be finite and >= 0",
                    o.regularization);
    if (o.refinementSteps > 100)
        return fail(StatusCode::invalidArgument, "refinementSteps %u is more than 100", o.refinementSteps);
    if (o.threads > 256) return fail(StatusCode::invalidArgument, "threads %u is more than 256", o.threads);
    if (o.maxThreads > 256)
        return fail(StatusCode::invalidArgument, "maxThreads %u is more than 256", o.maxThreads);
    if (static_cast<unsigned int>(o.ordering) > static_cast<unsigned int>(OrderingMethod::centroid))
        return fail(StatusCode::invalidArgument, "unknown ordering %u",
                    static_cast<unsigned int>(o.ordering));
    if (static_cast<unsigned int>(o.switching) > static_cast<unsigned int>(SwitchMethod::refactor))
        return fail(StatusCode::invalidArgument, "unknown switching method %u",
                    static_cast<unsigned int>(o.switching));
    Impl& m = *impl_;
    if (o.regularization != m.options.regularization)
        m.valuesChanged = true;  // the factor is of another matrix
    if (o.threads != m.options.threads || o.maxThreads != m.options.maxThreads)
        m.chosenThreads = 0;  // decided again at the next factor()
    m.options = o;
    return Status();
}

template <typename T>
const SolverOptions& Solver<T>::options() const {
    return impl_->options;
}

template <typename T>
Status Solver<T>::analyze(const SystemStructure& s) {
    Impl& m = *impl_;
    const unsigned long nb = s.bodySizes.size(), nc = s.constraintSizes.size();
    if (nb + nc == 0) return fail(StatusCode::badStructure, "the structure has no body and no constraint");
    if (nb + nc > 0xFFFFFFF0ul) return fail(StatusCode::badStructure, "too many blocks: %lu", nb + nc);
    if (s.compliant.size() != nc && !s.compliant.empty())
        return fail(StatusCode::badStructure, "compliant flags: %lu for %lu constraints",
                    static_cast<unsigned long>(s.compliant.size()), nc);
    unsigned long rows = 0;
    for (unsigned long b = 0; b < nb; ++b) {
        if (s.bodySizes[b] == 0) return fail(StatusCode::badStructure, "body %lu has size 0", b);
        rows += s.bodySizes[b];
    }
    for (unsigned long c = 0; c < nc; ++c) {
        if (s.constraintSizes[c] == 0) return fail(StatusCode::badStructure, "constraint %lu has 0 rows", c);
        rows += s.constraintSizes[c];
    }
    if (rows > 0xFFFFFFFFul)
        return fail(StatusCode::badStructure, "%lu rows in all: more than 2^32 - 1", rows);
    std::vector<std::vector<unsigned int>> lists(nb + nc);
    std::vector<unsigned char> coupled(nc, 0);
    for (unsigned long k = 0; k < s.jacobians.size(); ++k) {
        const unsigned int c = s.jacobians[k].first, b = s.jacobians[k].second;
        if (c >= nc)
            return fail(StatusCode::badStructure, "Jacobian %lu: unknown constraint %u (%lu constraints)", k,
                        c, nc);
        if (b >= nb)
            return fail(StatusCode::badStructure, "Jacobian %lu: unknown body %u (%lu bodies)", k, b, nb);
        lists[nb + c].push_back(b);
        coupled[c] = 1;
    }
    for (unsigned long k = 0; k < s.couplings.size(); ++k) {
        const unsigned int b1 = s.couplings[k].first, b2 = s.couplings[k].second;
        if (b1 >= nb || b2 >= nb)
            return fail(StatusCode::badStructure, "body coupling %lu: unknown body %u (%lu bodies)", k,
                        b1 >= nb ? b1 : b2, nb);
        if (b1 == b2)
            return fail(StatusCode::badStructure, "body coupling %lu couples body %u with itself", k, b1);
        lists[std::max(b1, b2)].push_back(std::min(b1, b2));
    }
    for (unsigned long c = 0; c < nc; ++c)
        if (!coupled[c])
            return fail(StatusCode::badStructure, "constraint %lu has no Jacobian block (acts on no body)",
                        c);
    std::vector<unsigned int> colPointers(nb + nc + 1, 0), rowIndices, sizes(nb + nc);
    for (unsigned long j = 0; j < nb + nc; ++j) {
        std::vector<unsigned int>& l = lists[j];
        std::sort(l.begin(), l.end());
        for (unsigned long t = 1; t < l.size(); ++t) {
            if (l[t] == l[t - 1]) {
                if (j >= nb)
                    return fail(StatusCode::badStructure, "constraint %lu has two Jacobian blocks on body %u",
                                j - nb, l[t]);
                return fail(StatusCode::badStructure, "bodies %u and %lu are coupled twice", l[t], j);
            }
        }
        rowIndices.insert(rowIndices.end(), l.begin(), l.end());
        rowIndices.push_back(static_cast<unsigned int>(j));
        colPointers[j + 1] = static_cast<unsigned int>(rowIndices.size());
        sizes[j] = j < nb ? s.bodySizes[j] : s.constraintSizes[j - nb];
    }
    Analysis::Problem problem{static_cast<unsigned int>(nb + nc), static_cast<unsigned int>(nb),
                              colPointers.data(), rowIndices.data(), sizes.data()};
    Status st = m.analyzeProblem(problem, static_cast<unsigned int>(nb));
    if (!st) return st;
    m.scalarInput = false;
    m.problemInput = false;

    // Where each item of the structure goes, and its place in the arrays of setValues.
    m.bodySlots.assign(nb, Slot());
    m.bodyValues = 0;
    for (unsigned int b = 0; b < nb; ++b) {
        m.bodySlots[b] = m.slotOf(b, b);
        m.bodyValues += static_cast<unsigned long>(sizes[b]) * sizes[b];
    }
    m.jacobianSlots.assign(s.jacobians.size(), Slot());
    m.jacobianValueOffsets.assign(s.jacobians.size() + 1, 0);
    for (unsigned long k = 0; k < s.jacobians.size(); ++k) {
        const unsigned int c = s.jacobians[k].first, b = s.jacobians[k].second;
        m.jacobianSlots[k] = m.slotOf(static_cast<unsigned int>(nb + c), b);
        m.jacobianValueOffsets[k + 1] =
            m.jacobianValueOffsets[k] + static_cast<unsigned long>(sizes[nb + c]) * sizes[b];
    }
    m.jacobianValues = m.jacobianValueOffsets.back();
    m.couplingSlots.assign(s.couplings.size(), Slot());
    m.couplingValueOffsets.assign(s.couplings.size() + 1, 0);
    for (unsigned long k = 0; k < s.couplings.size(); ++k) {
        const unsigned int b1 = s.couplings[k].first, b2 = s.couplings[k].second;
        m.couplingSlots[k] = m.slotOf(b1, b2);
        m.couplingValueOffsets[k + 1] =
            m.couplingValueOffsets[k] + static_cast<unsigned long>(sizes[b1]) * sizes[b2];
    }
    m.couplingValues = m.couplingValueOffsets.back();
    m.compliantIndex.assign(nc, ~0u);
    m.complianceSlots.clear();
    m.complianceValueOffsets.assign(1, 0);
    unsigned int largest = 0;
    for (unsigned long c = 0; c < nc; ++c) {
        largest = std::max(largest, sizes[nb + c]);
        if (s.compliant.empty() || !s.compliant[c]) continue;
        m.compliantIndex[c] = static_cast<unsigned int>(m.complianceSlots.size());
        m.complianceSlots.push_back(
            m.slotOf(static_cast<unsigned int>(nb + c), static_cast<unsigned int>(nb + c)));
        m.complianceValueOffsets.push_back(m.complianceValueOffsets.back() +
                                           static_cast<unsigned long>(sizes[nb + c]) * sizes[nb + c]);
    }
    m.complianceValues = m.complianceValueOffsets.back();
    m.negated.assign(static_cast<unsigned long>(largest) * largest, T(0));
    m.buildColumnItems();
    return Status();
}

template <typename T>
Status Solver<T>::analyze(const Analysis::Problem& problem) {
    Impl& m = *impl_;
    std::string why;
    if (!Analysis::checkProblem(problem, &why)) return fail(StatusCode::badStructure, "%s", why.c_str());
    // The arrays are the caller's: keep the sizes before they are released.
    const unsigned int n = problem.numBlocks;
    std::vector<unsigned int> sizes(problem.blockSizes, problem.blockSizes + n);
    Analysis::Problem own = problem;
    own.blockSizes = sizes.data();
    Status st = m.analyzeProblem(own, problem.firstConstraint);
    if (!st) return st;
    m.forgetStructure();
    m.problemInput = true;
    return Status();
}

template <typename T>
bool Solver<T>::isAnalyzed() const {
    return impl_->analyzed;
}

template <typename T>
Status Solver<T>::setBody(unsigned int body, const T* values) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setBody before a successful analyze");
    if (body >= m.bodySlots.size())
        return fail(StatusCode::invalidArgument, "setBody: unknown body %u (%lu bodies)", body,
                    static_cast<unsigned long>(m.bodySlots.size()));
    return m.writeSlot(m.bodySlots[body], values, "body", body, body);
}

template <typename T>
Status Solver<T>::setJacobian(unsigned int constraint, unsigned int body, const T* values) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setJacobian before a successful analyze");
    if (constraint >= m.numConstraints || body >= m.numBodies || m.bodySlots.empty())
        return fail(StatusCode::invalidArgument, "setJacobian: unknown %s %u",
                    constraint >= m.numConstraints ? "constraint" : "body",
                    constraint >= m.numConstraints ? constraint : body);
    const Slot s = m.slotOf(m.numBodies + constraint, body);
    if (s.entry == Analysis::Analyzer::noEntry)
        return fail(StatusCode::invalidArgument,
                    "setJacobian: constraint %u has no Jacobian block on body %u", constraint, body);
    return m.writeSlot(s, values, "Jacobian", constraint, body);
}

template <typename T>
Status Solver<T>::setBodyCoupling(unsigned int body1, unsigned int body2, const T* values) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setBodyCoupling before a successful analyze");
    if (body1 >= m.numBodies || body2 >= m.numBodies || body1 == body2)
        return fail(StatusCode::invalidArgument, "setBodyCoupling: bodies %u and %u (%u bodies)", body1,
                    body2, m.numBodies);
    const Slot s = m.slotOf(body1, body2);
    if (s.entry == Analysis::Analyzer::noEntry)
        return fail(StatusCode::invalidArgument, "setBodyCoupling: bodies %u and %u are not coupled", body1,
                    body2);
    return m.writeSlot(s, values, "body coupling", body1, body2);
}

template <typename T>
Status Solver<T>::setCompliance(unsigned int constraint, const T* values) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setCompliance before a successful analyze");
    if (constraint >= m.compliantIndex.size())
        return fail(StatusCode::invalidArgument, "setCompliance: unknown constraint %u (%u constraints)",
                    constraint, m.numConstraints);
    if (m.compliantIndex[constraint] == ~0u || m.complianceSlots.empty())
        return fail(StatusCode::invalidArgument, "setCompliance: constraint %u is not compliant", constraint);
    if (values == nullptr)
        return fail(StatusCode::invalidArgument, "setCompliance (%u): values are null", constraint);
    const Slot& s = m.complianceSlots[m.compliantIndex[constraint]];
    if (m.options.checkValues) {
        const unsigned long count = static_cast<unsigned long>(s.rows) * s.cols;
        for (unsigned long k = 0; k < count; ++k)
            if (!std::isfinite(values[k]))
                return fail(StatusCode::nonFiniteValue,
                            "compliance (%u, %u): value %lu (row %lu, column %lu) is %g", constraint,
                            constraint, k, k / s.cols, k % s.cols, static_cast<double>(values[k]));
    }
    m.storeNegated(s, values);
    return Status();
}

template <typename T>
Status Solver<T>::setBlock(unsigned int i, unsigned int j, const T* values) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setBlock before a successful analyze");
    if (i >= m.numBlocks || j >= m.numBlocks)
        return fail(StatusCode::invalidArgument, "setBlock: block (%u, %u) out of range (%u blocks)", i, j,
                    m.numBlocks);
    const Slot s = m.slotOf(i, j);
    if (s.entry == Analysis::Analyzer::noEntry)
        return fail(StatusCode::invalidArgument, "setBlock: block (%u, %u) is not in the pattern", i, j);
    return m.writeSlot(s, values, "block", i, j);
}

template <typename T>
Status Solver<T>::Impl::checkArrays(const T* const* arrays) const {
    if (!analyzed) return fail(StatusCode::notAnalyzed, "setValues before a successful analyze");
    if (bodySlots.empty() && numBodies > 0)
        return fail(StatusCode::invalidArgument,
                    "setValues needs a structure of bodies and constraints; use setBlock");
    if (options.checkValues) {
        // Check everything before writing anything.
        const unsigned long counts[4] = {bodyValues, jacobianValues, couplingValues, complianceValues};
        const char* const what[4] = {"body", "Jacobian", "coupling", "compliance"};
        for (int a = 0; a < 4; ++a) {
            const T* v = arrays[a];
            if (v == nullptr) continue;
            for (unsigned long k = 0; k < counts[a]; ++k)
                if (!std::isfinite(v[k]))
                    return fail(StatusCode::nonFiniteValue, "setValues: %s value %lu is %g", what[a], k,
                                static_cast<double>(v[k]));
        }
    }
    return Status();
}

template <typename T>
void Solver<T>::Impl::writeArrays(const T* const* arrays) {
    const T *bodies = arrays[bodyKind], *jacobians = arrays[jacobianKind], *couplings = arrays[couplingKind],
            *compliances = arrays[complianceKind];
    unsigned long at = 0;
    for (unsigned int b = 0; bodies && b < bodySlots.size(); ++b) {
        store(bodySlots[b], bodies + at);
        at += static_cast<unsigned long>(bodySlots[b].rows) * bodySlots[b].cols;
    }
    for (unsigned long k = 0; jacobians && k < jacobianSlots.size(); ++k)
        store(jacobianSlots[k], jacobians + jacobianValueOffsets[k]);
    for (unsigned long k = 0; couplings && k < couplingSlots.size(); ++k)
        store(couplingSlots[k], couplings + couplingValueOffsets[k]);
    for (unsigned long k = 0; compliances && k < complianceSlots.size(); ++k)
        storeNegated(complianceSlots[k], compliances + complianceValueOffsets[k]);
}

// The items of block columns [first, end) of data.matrix, each written as writeArrays writes it (so the
// matrix holds the same bits whichever of the two wrote it).
template <typename T>
void Solver<T>::Impl::writeColumns(const T* const* arrays, unsigned int first, unsigned int end) {
    const ColumnItem* const items = columnItems.data();
    const unsigned int qEnd = columnItemStart[end];
    for (unsigned int q = columnItemStart[first]; q < qEnd; ++q) {
        const ColumnItem& item = items[q];
        const T* v = arrays[item.kind];
        if (v == nullptr) continue;
        if (item.kind == complianceKind)
            storeNegated(item.slot, v + item.value);
        else
            store(item.slot, v + item.value);
    }
}

// Buckets the slots of a body/constraint structure by the block column of data.matrix they are written to
// (Analyzer::entryMatrixColumn). Leaves the lists empty, so that every step writes its values first, if an
// entry had no column (not expected after a successful analysis).
template <typename T>
void Solver<T>::Impl::buildColumnItems() {
    const unsigned int nb = static_cast<unsigned int>(data.matrix.numBlockCols);
    columnItemStart.assign(static_cast<unsigned long>(nb) + 2, 0);
    columnItems.clear();
    auto forEachItem = [&](auto&& f) {
        unsigned long at = 0;
        for (const Slot& s : bodySlots) {
            f(s, bodyKind, at);
            at += static_cast<unsigned long>(s.rows) * s.cols;
        }
        for (unsigned long k = 0; k < jacobianSlots.size(); ++k)
            f(jacobianSlots[k], jacobianKind, jacobianValueOffsets[k]);
        for (unsigned long k = 0; k < couplingSlots.size(); ++k)
            f(couplingSlots[k], couplingKind, couplingValueOffsets[k]);
        for (unsigned long k = 0; k < complianceSlots.size(); ++k)
            f(complianceSlots[k], complianceKind, complianceValueOffsets[k]);
    };
    bool placed = true;
    unsigned long count = 0;
    forEachItem([&](const Slot& s, unsigned char, unsigned long) {
        const unsigned int column = analyzer.entryMatrixColumn(s.entry);
        if (column >= nb) {
            placed = false;
            return;
        }
        ++columnItemStart[column + 2];
        ++count;
    });
    if (!placed) {
        columnItemStart.clear();
        return;
    }
    for (unsigned int k = 0; k < nb; ++k) columnItemStart[k + 2] += columnItemStart[k + 1];
    columnItems.resize(count);
    forEachItem([&](const Slot& s, unsigned char kind, unsigned long value) {
        const unsigned int column = analyzer.entryMatrixColumn(s.entry);
        columnItems[columnItemStart[column + 1]++] = ColumnItem{s, value, kind};
    });
    columnItemStart.pop_back();  // now [nb + 1]: the start of each column and the end
}

template <typename T>
Status Solver<T>::setValues(const T* bodies, const T* jacobians, const T* couplings, const T* compliances) {
    Impl& m = *impl_;
    const T* const arrays[4] = {bodies, jacobians, couplings, compliances};
    Status st = m.checkArrays(arrays);
    if (!st) return st;
    m.writeArrays(arrays);
    return Status();
}

template <typename T>
Status Solver<T>::factor(const T* bodies, const T* jacobians, const T* couplings, const T* compliances) {
    Impl& m = *impl_;
    typename Impl::StepInput input;
    input.arrays[0] = bodies;
    input.arrays[1] = jacobians;
    input.arrays[2] = couplings;
    input.arrays[3] = compliances;
    Status st = m.checkArrays(input.arrays);
    if (!st) return st;
    m.normA = -1.0;
    return m.factorNow(&input);
}

template <typename T>
Status Solver<T>::Impl::checkPattern(const T* values, const unsigned long* valuePointers) const {
    if (!analyzed) return fail(StatusCode::notAnalyzed, "setPatternValues before a successful analyze");
    if (!problemInput)
        return fail(StatusCode::invalidArgument,
                    "setPatternValues needs a structure given as an Analysis::Problem");
    if (values == nullptr || valuePointers == nullptr)
        return fail(StatusCode::invalidArgument, "setPatternValues: values or value pointers are null");
    if (options.checkValues) {
        const unsigned long entries = analyzer.numEntries();
        for (unsigned long e = 0; e < entries; ++e) {
            const unsigned long count =
                static_cast<unsigned long>(analyzer.entryRows(e)) * analyzer.entryCols(e);
            const T* v = values + valuePointers[e];
            for (unsigned long k = 0; k < count; ++k)
                if (!std::isfinite(v[k]))
                    return fail(StatusCode::nonFiniteValue, "setPatternValues: entry %lu, value %lu is %g", e,
                                k, static_cast<double>(v[k]));
        }
    }
    return Status();
}

template <typename T>
Status Solver<T>::setPatternValues(const T* values, const unsigned long* valuePointers) {
    Impl& m = *impl_;
    Status st = m.checkPattern(values, valuePointers);
    if (!st) return st;
    m.analyzer.setBlocks(m.data, values, valuePointers);
    m.valuesChanged = true;
    m.normA = -1.0;
    return Status();
}

template <typename T>
Status Solver<T>::factorPatternValues(const T* values, const unsigned long* valuePointers) {
    Impl& m = *impl_;
    Status st = m.checkPattern(values, valuePointers);
    if (!st) return st;
    typename Impl::StepInput input;
    input.pattern = values;
    input.valuePointers = valuePointers;
    m.normA = -1.0;
    return m.factorNow(&input);
}

template <typename T>
unsigned long Solver<T>::bodyValueCount() const {
    return impl_->bodyValues;
}
template <typename T>
unsigned long Solver<T>::jacobianValueCount() const {
    return impl_->jacobianValues;
}
template <typename T>
unsigned long Solver<T>::couplingValueCount() const {
    return impl_->couplingValues;
}
template <typename T>
unsigned long Solver<T>::complianceValueCount() const {
    return impl_->complianceValues;
}

template <typename T>
Status Solver<T>::setActive(unsigned int constraint, unsigned int row, bool on) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setActive before a successful analyze");
    if (constraint >= m.numConstraints)
        return fail(StatusCode::invalidArgument, "setActive: unknown constraint %u (%u constraints)",
                    constraint, m.numConstraints);
    const unsigned int b = m.numBodies + constraint;
    if (row >= m.blockSizes[b])
        return fail(StatusCode::invalidArgument, "setActive: constraint %u has %u rows, not row %u",
                    constraint, m.blockSizes[b], row);
    unsigned char& a = m.desiredActive[m.userOffsets[b] + row];
    if (a != (on ? 1 : 0)) {
        a = on ? 1 : 0;
        m.switchPending = true;
    }
    return Status();
}

template <typename T>
Status Solver<T>::setConstraintActive(unsigned int constraint, bool on) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setConstraintActive before a successful analyze");
    if (constraint >= m.numConstraints)
        return fail(StatusCode::invalidArgument,
                    "setConstraintActive: unknown constraint %u (%u constraints)", constraint,
                    m.numConstraints);
    for (unsigned int r = 0; r < m.blockSizes[m.numBodies + constraint]; ++r) setActive(constraint, r, on);
    return Status();
}

template <typename T>
bool Solver<T>::isActive(unsigned int constraint, unsigned int row) const {
    const Impl& m = *impl_;
    if (!m.analyzed || constraint >= m.numConstraints || row >= m.blockSizes[m.numBodies + constraint])
        return false;
    return m.desiredActive[m.userOffsets[m.numBodies + constraint] + row] != 0;
}

template <typename T>
Status Solver<T>::factor() {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "factor before a successful analyze");
    m.normA = -1.0;
    return m.factorNow();
}

template <typename T>
Status Solver<T>::solve(const T* b, T* x) {
    return impl_->solveMany(b, x, 1, impl_->N);
}

template <typename T>
Status Solver<T>::solve(T* x) {
    return impl_->solveMany(x, x, 1, impl_->N);
}

template <typename T>
Status Solver<T>::solve(const T* b, T* x, unsigned int k, unsigned long ld) {
    return impl_->solveMany(b, x, k, ld);
}

template <typename T>
Status Solver<T>::estimateCondition(double& kappa) {
    Impl& m = *impl_;
    Status st = m.checkSolvable();
    if (!st) return st;
    try {
        m.conditionWork.resize(2 * m.N);
        m.normWork.resize(m.N);
    } catch (const std::bad_alloc&) {
        return fail(StatusCode::outOfMemory, "out of memory for the condition estimate (%lu rows)", m.N);
    }
    // With switched-off equations the factored matrix is the masked one: mask it again for the norm.
    const bool masked = !m.factorAllActive;
    if (masked) m.maskInactive();
    const double normA = matrixNorm1(m.data, m.normWork.data());
    if (masked) m.restoreMasked();
    const double inverse = estimateInverseNorm1(m.tamber, m.data, m.conditionWork.data());
    kappa = normA * inverse;
    m.report.conditionEstimate = kappa;
    return Status();
}

template <typename T>
unsigned long Solver<T>::size() const {
    return impl_->analyzed ? impl_->N : 0;
}
template <typename T>
unsigned int Solver<T>::numBodies() const {
    return impl_->analyzed ? impl_->numBodies : 0;
}
template <typename T>
unsigned int Solver<T>::numConstraints() const {
    return impl_->analyzed ? impl_->numConstraints : 0;
}
template <typename T>
unsigned long Solver<T>::bodyOffset(unsigned int body) const {
    const Impl& m = *impl_;
    return m.analyzed && body < m.numBodies ? m.userOffsets[body] : ~0ul;
}
template <typename T>
unsigned long Solver<T>::constraintOffset(unsigned int constraint) const {
    const Impl& m = *impl_;
    return m.analyzed && constraint < m.numConstraints ? m.userOffsets[m.numBodies + constraint] : ~0ul;
}
template <typename T>
const SolverReport& Solver<T>::report() const {
    return impl_->report;
}
template <typename T>
const PivotLocation& Solver<T>::badPivot() const {
    return impl_->report.badPivot;
}

template <typename T>
void Solver<T>::Impl::forgetStructure() {
    bodySlots.clear();
    jacobianSlots.clear();
    couplingSlots.clear();
    complianceSlots.clear();
    jacobianValueOffsets.assign(1, 0);
    couplingValueOffsets.assign(1, 0);
    complianceValueOffsets.assign(1, 0);
    compliantIndex.assign(numConstraints, ~0u);
    bodyValues = jacobianValues = couplingValues = complianceValues = 0;
    negated.clear();
    columnItemStart.clear();
    columnItems.clear();
    scalarInput = false;
    problemInput = false;
}

template <typename T>
Status Solver<T>::analyzeScalar(unsigned int n, unsigned int firstConstraintRow,
                                const unsigned int* colPointers, const unsigned int* rowIndices,
                                const unsigned int* blockSizes, unsigned int numBlocks) {
    Impl& m = *impl_;
    if (n == 0 || colPointers == nullptr || rowIndices == nullptr)
        return fail(StatusCode::badStructure, "analyzeScalar: empty matrix or null arrays (n = %u)", n);
    if (firstConstraintRow > n)
        return fail(StatusCode::badStructure, "analyzeScalar: first constraint row %u is beyond the %u rows",
                    firstConstraintRow, n);
    std::string why;
    Analysis::DetectedBlocks found;
    std::vector<unsigned int> sizes;
    unsigned int multiRowConstraints = 0;
    std::string detected;
    try {
        if (blockSizes == nullptr) {
            if (!Analysis::detectBlocks(n, firstConstraintRow, colPointers, rowIndices, found, &why))
                return fail(StatusCode::badStructure, "%s", why.c_str());
            sizes = found.blockSizes;
            multiRowConstraints = found.multiRowConstraintBlocks;
            char text[160];
            std::snprintf(text, sizeof text,
                          "; blocks detected: %u of up to %u rows (%u of more than one row)", found.numBlocks,
                          found.largestBlock, found.multiRowBlocks);
            detected = text;
        } else {
            if (numBlocks == 0)
                return fail(StatusCode::badStructure, "analyzeScalar: block sizes given for 0 blocks");
            sizes.assign(blockSizes, blockSizes + numBlocks);
            unsigned long at = 0;
            for (unsigned int b = 0; b < numBlocks; ++b) {
                if (at >= firstConstraintRow && sizes[b] > 1) ++multiRowConstraints;
                at += sizes[b];
            }
        }
        Analysis::ScalarProblem sp;
        if (!sp.build(n, firstConstraintRow, colPointers, rowIndices, static_cast<unsigned int>(sizes.size()),
                      sizes.data(), &why))
            return fail(StatusCode::badStructure, "%s", why.c_str());
        // A block of constraint rows need not have a full-rank Jacobian block on each single body: every
        // constraint then follows all its bodies.
        Status st = m.analyzeProblem(sp.problem(), sp.firstConstraint(), multiRowConstraints == 0);
        if (!st) return st;
        m.forgetStructure();
        m.scalar = std::move(sp);
        m.scalarInput = true;
        m.scalarEntries = colPointers[n];
        m.scalarBlockValues.assign(m.scalar.numValues(), T(0));
        m.report.ordering += detected;
    } catch (const std::bad_alloc&) {
        return fail(StatusCode::outOfMemory, "out of memory while analysing a scalar matrix of %u rows", n);
    }
    return Status();
}

template <typename T>
Status Solver<T>::setScalarValues(const T* values) {
    Impl& m = *impl_;
    if (!m.analyzed) return fail(StatusCode::notAnalyzed, "setScalarValues before a successful analyze");
    if (!m.scalarInput)
        return fail(StatusCode::invalidArgument, "setScalarValues needs a structure from analyzeScalar");
    if (values == nullptr) return fail(StatusCode::invalidArgument, "setScalarValues: values are null");
    const unsigned long count = m.scalarEntries;
    if (m.options.checkValues)
        for (unsigned long k = 0; k < count; ++k)
            if (!std::isfinite(values[k]))
                return fail(StatusCode::nonFiniteValue, "setScalarValues: value %lu is %g", k,
                            static_cast<double>(values[k]));
    // Two copies: the scalars into the block values, those into the factorization's input.
    m.scalar.scatter(values, m.scalarBlockValues.data());
    m.analyzer.setBlocks(m.data, m.scalarBlockValues.data(), m.scalar.valuePointers().data());
    m.valuesChanged = true;
    m.normA = -1.0;
    return Status();
}

template class Solver<float>;
template class Solver<double>;

}  // namespace kivTamber
