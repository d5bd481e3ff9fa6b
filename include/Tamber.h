// Solver data of one linear system and the driver that factors and solves it.
//
// A caller keeps one `Tamber` and one `TamberData<T>` per system and reuses both from step to step:
//  1. describe the block pattern and build the permuted, filled `skeleton` and the elimination tree `etree`;
//  2. fill `matrix` (setSize, one acquireBlock per block in block-column order, then the values);
//  3. call `Tamber::estimateWork` (lays out `factor`, counts fill blocks and block operations);
//  4. set `useMultifrontal`, `numThreads` and `isFactored` = 0;
//  5. factor (factorSerial, factorMF), then solve (Tamber::solve, TamberSolve::solve); the float solve and
//     unitSolve also factor by themselves when `isFactored` is 0, the double solve never does. The caller
//     clears `isFactored` whenever it changes the values of `matrix`.
// Every array is grown, never shrunk: after the first steps a system allocates nothing. The layout of the
// tiles of `matrix`, `factor` and `scaledFactor` is described once, in SparseTypes.h. Most callers use the
// solver object (Solver.h), which does all of this in the caller's numbering and checks its input.
#ifndef KIVTAMBER_TAMBER_H
#define KIVTAMBER_TAMBER_H

#include "DenseTypes.h"
#include "EliminationTree.h"
#include "FactorPlan.h"
#include "Multifront.h"
#include "Permutation.h"
#include "SkeletonMatrix.h"
#include "SolvePlan.h"
#include "SparseTypes.h"
#include "TamberUtils.h"

namespace kivTamber {

// Everything one linear system A·x = b lives in, A = L·D·Lᵀ with L unit lower block-triangular and D a
// diagonal of scalar pivots. All block indices are in the factor's (permuted) order.
//
// A fresh object holds no storage: every member is empty, `isFactored` = 0, `useMultifrontal` = 0 (serial
// factorization) and `numThreads` = 1. The object owns every array it refers to; it is not copyable.
template <typename T>
class TamberData {
public:
    TamberData() = default;
    TamberData(const TamberData&) = delete;
    TamberData& operator=(const TamberData&) = delete;

    // Elimination tree of the filled block pattern; node x is block x of the factor.
    EliminationTree etree;
    // Filled block pattern of L: per block row i the ascending block columns j <= i, diagonal last, with
    // fillFlags = 1 on the fill-in entries. Drives the work estimate and the factorizations.
    SkeletonMatrix skeleton;
    // Fill-reducing block permutation (forward[k] = original block placed k-th).
    Permutation permutation;
    // The input matrix A in block form, in the factor's order, filled by the caller. Its blockSizes give the
    // block sizes and blockSizes[numBlockCols] the scalar dimension N.
    SparseMatrix<T> matrix;
    // L, stored by block rows: container column i holds the blocks L(i, j), j < i ascending, then L(i, i),
    // whose diagonal is exactly 1 and whose strict upper triangle is exactly 0.
    SparseMatrix<T> factor;
    // L·D with the structure of `factor`: block (i, j) holds L(i, j) with column t scaled by d[off_j + t].
    // blockFlags[k] = 1 once the factorization has written block k.
    SparseMatrix<T> scaledFactor;
    // The N pivots d_0 … d_{N-1} of D, 16-byte aligned, grown only.
    DenseVector<T> diagonal;
    // Workspace of the multifrontal factorization: node records, fronts, update lists, wait blocks and the
    // split of the elimination tree among the threads. Prepared by Tamber::factorMF whenever the filled
    // pattern, the block sizes or the thread count differ from what it was prepared for.
    MultifrontManager<T> multifront;
    // The steps of the double solves over the layout of `factor` (see SolvePlan.h): made by the first
    // TamberSolve::solve or solveMany after the layout changed, cleared where the library lays the factor
    // out anew (a caller who lays it out by other means clears it). Written by those const solves (one
    // thread per system, as everything here).
    mutable SolvePlan solvePlan;
    // The steps of the serial double factorization over the structure (see FactorPlan.h): made by the first
    // factorSerial after the layout changed (cleared where the library lays the factor out anew), and made
    // again by a factorization that finds that the structure differs from the plan's. factorPlan.use = 0
    // makes factorSerial run its row loop instead (same bits). Not used for float.
    FactorPlan factorPlan;
    // Typed work arrays of factorization and solves (slot 0 is the serial factorization's).
    ScratchPad scratchPad;
    // 0: factor with Tamber::factorSerial; otherwise with the multifrontal factorization.
    unsigned int useMultifrontal = 0;
    // Worker threads of the multifrontal factorization (0 counts as 1).
    unsigned int numThreads = 1;
    // 1 once a factorization has finished; the solves factor first when it is 0. Only the caller clears it.
    unsigned char isFactored = 0;
    // 1 (default): factorSerial writes every block of `scaledFactor` and flags it 1, as the float solve and
    // unitSolve read it. 0: factorSerial keeps each row's L·D blocks only while the row is factored (its own
    // updates are their only reader there), writes no block of `scaledFactor` and leaves every flag of the
    // rows it factored 0; Tamber::computeScaledFactor computes them when a reader needs them. The double
    // solves and the factor modifications read only `factor` and `diagonal`. factorMF always writes them.
    unsigned char writeScaledFactor = 1;
    // 1: a factorization stops right after the diagonal block that holds the first zero or non-finite pivot
    // (the factor is then incomplete and isFactored stays 0); 0 (default): it runs to the end and the bad
    // pivot spreads non-finite values, as an unpivoted factorization does.
    unsigned char stopAtBadPivot = 0;
    // The first zero or non-finite pivot met by the last factorization, in elimination order (scalar index
    // into `diagonal`, its block of the factor and the index inside that block, the value widened to
    // double); scalar = noPivot when every pivot was finite and non-zero. Set by every factorization.
    struct BadPivot {
        static constexpr unsigned long noPivot = ~0ul;
        unsigned long scalar = noPivot;
        unsigned int block = 0;
        unsigned int local = 0;
        double value = 0.0;
    };
    BadPivot badPivot;
};

// Writes the values of the input matrix's block columns [first, end) (container column i holds the blocks
// (j, i), j <= i, of block row i) into `data.matrix`: the source of Tamber::factorSerial(data, input), which
// asks for each column just before it factors that block row, so that the values are still in the cache
// when the factorization reads them. Analysis::Analyzer::setBlocksAndFactor is the one a caller uses.
class InputColumns {
public:
    virtual void write(unsigned int first, unsigned int end) = 0;

protected:
    ~InputColumns() = default;
};

// The driver: factorization, solves and their timers. Durations are in seconds (tick-counter differences
// times kiv::Timer::clockSpeed()).
class Tamber {
public:
    // Duration of the last factorization (symbolic setup plus numeric phase), in seconds.
    double factorTime;
    // Accumulated duration of the timed solves since the last factorization, in seconds.
    double solveTime;

    // Both timers 0.
    Tamber();

    double getFactorTime() const;
    double getSolveTime() const;

    // Lays out `data.factor` and `data.scaledFactor` for the filled pattern `data.skeleton` and the block
    // sizes of `data.matrix`, and counts the work of a factorization. This is the layout the factorizations
    // use: one tile per pattern entry in pattern order (block index = entry index, LD flags 0), at the padded
    // sizes, back to back; each matrix is sized for nb block columns, P = (pattern entries) blocks and
    // 64 + Σ p_i·p_j values, reallocated only when too small, and its values are zeroed only when the layout
    // differs from the one it held. Called again on the same structure it allocates, zeroes and moves nothing
    // (the factor's values stay as they are). Call it whenever the structure changes; a factorization that
    // finds a layout of another structure makes it itself.
    // Preconditions: `data.skeleton` holds the filled pattern by block rows (per row i the ascending columns
    // j <= i, diagonal last) and `data.matrix` the input in the same order, its block column i holding the
    // blocks (j, i), j <= i ascending, diagonal last, a subset of the pattern.
    // work: out, may be null; receives Σ over block rows i of [ the number of off-diagonal entries (i, j)
    // plus, for each of them, the number of columns k < j present in both row i and row j ], the number of
    // block triangular solves and block products of the off-diagonal blocks in factorSerial (the updates of
    // the diagonal blocks are not counted separately). nb = 0 writes 0. The count is 32 bits and wraps
    // beyond 2³² − 1.
    // Returns the number of fill blocks (pattern entries that are not in the input matrix).
    // Aborts with "Not enough memory, <used> <capacity>" when the factor's block capacity is exceeded.
    template <typename T>
    unsigned int estimateWork(TamberData<T>& data, unsigned int* work);

    // A = L·D·Lᵀ by a left-looking block-row factorization without pivoting, in one thread: for each block
    // row i in order, L(i, j) = (A(i, j) − Σ_{k<j} L(i, k)·D_k·L(j, k)ᵀ)·L_jj⁻ᵀ·D_j⁻¹ for its off-diagonal
    // blocks, then the dense unpivoted L_ii·D_i·L_iiᵀ of A(i, i) − Σ_{k<i} L(i, k)·D_k·L(i, k)ᵀ.
    // Block sizes come from `data.matrix`; preconditions as estimateWork.
    // Writes `data.factor` and `data.scaledFactor` (one block per pattern entry, block index = entry index;
    // every LD block written is flagged 1, which after a factorization is every diagonal block and every
    // off-diagonal block, since each one is an update source of its row's diagonal block) and
    // `data.diagonal` (grown only); scratch from `data.scratchPad` slot 0. Sets `data.isFactored` = 1,
    // `factorTime` to the duration (setup plus numeric phase) and `solveTime` to 0. A zero pivot yields
    // non-finite values, not an error. Once the matrices and the scratch pad have seen a structure, a
    // factorization of it allocates nothing.
    // With `data.writeScaledFactor` = 0 no block of `data.scaledFactor` is written and the flags of the rows
    // factored are 0 (each row's LD blocks are kept in scratch-pad slot 0x100011 of T while the row is
    // factored; see computeScaledFactor); L, D and badPivot are the same bits either way.
    // The layout of L and LD is the one estimateWork makes; it is not made again while the structure stays
    // the same. Each block row is checked against the pattern and the block sizes when the factorization
    // reaches it (O(1) per entry); on a mismatch both matrices are laid out anew and the factorization starts
    // over from row 0.
    // double: the rows run through `data.factorPlan` (made here when it is not made; see FactorPlan.h), the
    // same bits as the row loop: the plan compares each group of FactorPlan::groupRows rows with the pattern,
    // the block sizes, the input's pattern and the layout before it runs them, and hands the rest to the row
    // loop (and its check) from the first group that differs.
    // `data.badPivot` receives the first zero or non-finite pivot in elimination order (checked after each
    // diagonal block's dense factorization); with `data.stopAtBadPivot` = 1 the factorization returns right
    // there, after O(work up to that block, plus one group of rows checked), with `isFactored` = 0 and the
    // rows after that block untouched. factorTime is set either way.
    template <typename T>
    void factorSerial(TamberData<T>& data);

    // factorSerial with the input's values written as the factorization reaches them: input.write(first,
    // end) for consecutive ranges of columns that together cover every block column 0 … nb − 1 once, each
    // before the factorization reads the values of its rows, all of them before the call returns (also
    // after a stop at a bad pivot). The same results as writing every column and then calling
    // factorSerial(data).
    template <typename T>
    void factorSerial(TamberData<T>& data, InputColumns& input);

    // LD(i, j) = L(i, j)·D_j for every block of `data.scaledFactor` whose flag is 0, flagged 1 (padding
    // columns 0): the values factorSerial writes when `writeScaledFactor` is 1, bit for bit. Costs O(1) when
    // the last block's flag is 1 (every factorization that writes LD writes it last), O(blocks) otherwise.
    // Preconditions: a finished factorization of `data` (isFactored = 1).
    template <typename T>
    void computeScaledFactor(TamberData<T>& data);

    // The same factor as factorSerial (L, D and LD, within rounding; every LD block flagged 1), computed
    // by the multifrontal method on `data.numThreads` worker threads of one "MultiFront factor" task: each
    // node j of the elimination tree of the filled pattern assembles its front F(·, j) = A(·, j) plus the
    // updates −L(r, k)·D_k·L(s, k)ᵀ of its descendants k, factors F(j, j) = L_jj·D_j·L_jjᵀ, solves the
    // off-diagonal blocks (LD(r, j) = F(r, j)·L_jj⁻ᵀ, L(r, j) = LD(r, j)·D_j⁻¹) and passes its own update on.
    // Subtrees that one worker owns whole run the serial row kernels in place instead (one thread gives
    // factorSerial's factor bit for bit); fronts are used only at the top of the tree, where the work of
    // large nodes is shared among the workers in fixed chunks (see Multifront.h).
    // Results are the same from run to run for a fixed thread count, bit for bit. Records the first bad
    // pivot (data.badPivot) and honours data.stopAtBadPivot as factorSerial does.
    // Before the numeric work it makes sure that `data.multifront` is prepared for the current filled
    // pattern, block sizes and thread count (see prepareMultifrontal) and prepares it otherwise; a
    // factorization of a structure the manager is prepared for allocates nothing.
    // Preconditions as factorSerial; `data.skeleton` must be the filled pattern (closed under elimination).
    // Sets `data.isFactored` = 1, `factorTime` (set-up plus threaded phase, including a preparation) and
    // `solveTime` = 0.
    template <typename T>
    void factorMF(TamberData<T>& data);

    // Prepares `data.multifront` for the filled pattern `data.skeleton`, the block sizes of `data.matrix`
    // and `data.numThreads`, unless it already is: the rule is that the prepared state is reused exactly
    // when n, the entry count, the thread count and the arrays skeleton.colPointers[0 .. n],
    // skeleton.rowIndices[0 .. entries-1] and matrix.blockSizes[0 .. n-1] equal the copies taken at the last
    // preparation (a comparison of O(n + entries), no allocation). factorMF applies the same rule by
    // itself; calling this first only moves the preparation out of the timed factorization.
    // Returns true when it prepared, false when the prepared state was reused.
    template <typename T>
    bool prepareMultifrontal(TamberData<T>& data);

    // The worker threads to factor `data` with: 1 means the serial factorization, P > 1 the multifrontal one
    // on P threads. Decided from the predicted work (see Multifront.h, "Choosing the thread count"); prepares
    // `data.multifront` for P threads on the way (reused while the structure stays, so that calling this
    // every step allocates nothing after the first). maxThreads: the most threads wanted, 0 for the
    // processors of the machine. Preconditions as factorMF.
    template <typename T>
    unsigned int chooseThreads(TamberData<T>& data, unsigned int maxThreads);

    // The solve driver. Its whole contract (which forms factor first, what is timed, what is read, the
    // refinement's rule) is stated once, in the notes at the end of TamberSolve.h; in short:
    // x ← A⁻¹·x in place (x: in/out, N elements). The float form factors first when `data.isFactored` is 0;
    // the double form is TamberSolve::solve and never factors, nor checks `isFactored`.
    template <typename T>
    bool solve(TamberData<T>& data, T* x);

    // x ← A⁻¹·b (b: in, N elements; x: out, N elements): b copied into x, then the in-place form.
    template <typename T>
    bool solve(TamberData<T>& data, const T* b, T* x);

    // Solve for a right-hand side whose non-zeros lie in one block and its elimination-tree ancestors
    // (x: in/out, N elements); factors first when `data.isFactored` is 0. Returns the smallest scalar index
    // of x the call may have changed.
    template <typename T>
    unsigned long unitSolve(TamberData<T>& data, T* x, int start);

    // Iterative refinement of x as a solution of A·x = b (b: in, x: in/out, N elements each); does not
    // factor. Returns x's entry value when a step raises the residual (see TamberSolve.h).
    void iterativeRefinement(TamberData<double>& data, const double* b, double* x, int maxIterations);

private:
    template <typename T>
    void factorSerialFrom(TamberData<T>& data, InputColumns* input);
};

extern template unsigned int Tamber::estimateWork<float>(TamberData<float>&, unsigned int*);
extern template unsigned int Tamber::estimateWork<double>(TamberData<double>&, unsigned int*);
extern template void Tamber::factorSerial<float>(TamberData<float>&);
extern template void Tamber::factorSerial<double>(TamberData<double>&);
extern template void Tamber::computeScaledFactor<float>(TamberData<float>&);
extern template void Tamber::computeScaledFactor<double>(TamberData<double>&);
extern template void Tamber::factorMF<float>(TamberData<float>&);
extern template void Tamber::factorMF<double>(TamberData<double>&);
extern template unsigned int Tamber::chooseThreads<float>(TamberData<float>&, unsigned int);
extern template unsigned int Tamber::chooseThreads<double>(TamberData<double>&, unsigned int);
extern template bool Tamber::prepareMultifrontal<float>(TamberData<float>&);
extern template bool Tamber::prepareMultifrontal<double>(TamberData<double>&);
extern template bool Tamber::solve<float>(TamberData<float>&, float*);
extern template bool Tamber::solve<double>(TamberData<double>&, double*);
extern template bool Tamber::solve<float>(TamberData<float>&, const float*, float*);
extern template bool Tamber::solve<double>(TamberData<double>&, const double*, double*);
extern template unsigned long Tamber::unitSolve<float>(TamberData<float>&, float*, int);
extern template unsigned long Tamber::unitSolve<double>(TamberData<double>&, double*, int);

}  // namespace kivTamber

#endif  // KIVTAMBER_TAMBER_H
