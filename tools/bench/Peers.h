// Other sparse direct solvers, behind one small interface, for the comparison benchmark tamber-bench.
//
// Every peer gets the same scalar matrix: the block problem's values in compressed sparse columns, upper
// triangle, user numbering. It is run in one of two settings:
//  - `given`: in the elimination order of our analysis, expanded to scalars (block by block, the rows of a
//    block in their own order), on the saddle-point matrix itself. None of the peers' LDLᵀ factorizations
//    pivots, so this order is as safe for them as it is for us;
//  - `ownAmd`: with the peer's own AMD ordering, on a copy whose constraint diagonal is −1e-8 (the usual
//    regularisation that lets a non-pivoting solver take any order on a saddle-point matrix).
// CHOLMOD's supernodal factorization is L·Lᵀ only and fails on a saddle-point matrix; it is timed on the
// positive definite twin of the matrix (same pattern, see positiveDefiniteTwin), which measures its speed
// on the same structure.
//
// The peers are optional: each adapter is compiled only when its library was found (KIVT_HAVE_CHOLMOD,
// KIVT_HAVE_EIGEN), and makePeers returns only the available ones.
#ifndef KIVTAMBER_TOOLS_BENCH_PEERS_H
#define KIVTAMBER_TOOLS_BENCH_PEERS_H

#include <memory>
#include <string>
#include <vector>

#include "scenes/Scenes.h"

namespace kivTamber {
namespace bench {

// ---------------------------------------------------------------------------------------------------------
// Scalar matrices
// ---------------------------------------------------------------------------------------------------------

// A symmetric n × n matrix by its upper triangle in compressed sparse columns: the entries colPointers[j] …
// colPointers[j+1]−1 of rowIndices/values are the rows i ≤ j of column j, strictly ascending, the diagonal
// (possibly zero) always present and last. 32-bit indices, as the peers' int interfaces take them.
class ScalarMatrix {
public:
    int n = 0;
    std::vector<int> colPointers;  // [n + 1]
    std::vector<int> rowIndices;   // [nnz]
    std::vector<double> values;    // [nnz]

    long nnz() const { return n == 0 ? 0 : colPointers[n]; }

    // y = A·x with the full symmetric matrix. x: in, n values; y: out, n values.
    void multiply(const double* x, double* y) const;

    // ‖A‖∞ of the full symmetric matrix.
    double normInf() const;
};

// The problem's matrix in scalar form: every non-zero value of every stored block (upper triangle, user
// numbering) and every diagonal entry, also the zero ones of the constraints. The exact zeros inside the
// blocks (the I3 pattern of a joint, the zero diagonal of a cross product) are left out, as a user of a
// scalar solver would. A: out.
void scalarMatrixFromProblem(const scenes::BlockProblem& problem, ScalarMatrix& A);

// A copy of A with `shift` added to the diagonal of every constraint row (rows at or above the first
// constraint's scalar offset). out: must not be A.
void regularisedCopy(const scenes::BlockProblem& problem, const ScalarMatrix& A, double shift,
                     ScalarMatrix& out);

// A symmetric positive definite matrix with the pattern of A: the off-diagonal values of A, and
// diagonal_i = 1 + Σ_j |a_ij| (strict diagonal dominance). out: must not be A.
void positiveDefiniteTwin(const ScalarMatrix& A, ScalarMatrix& out);

// A copy of A with each listed scalar equation e replaced by the identity's: row and column e zero (the
// entries stay in the pattern as explicit zeros), a_ee = 1. equations: scalar indices < n. out: must not be
// A.
void unitEquationsCopy(const ScalarMatrix& A, const std::vector<int>& equations, ScalarMatrix& out);

// The scalar elimination order of a block order: the rows of block forward[0], then those of forward[1], …
// forward: [numBlocks], the user block placed k-th. order: out, N entries, the user row placed k-th.
void scalarOrder(const scenes::BlockProblem& problem, const unsigned int* forward, std::vector<int>& order);

// The scaled residual ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) (0 for a zero denominator, +inf when a value is not
// finite). b, x: in, n values.
double scaledResidual(const ScalarMatrix& A, const double* b, const double* x);

// ---------------------------------------------------------------------------------------------------------
// The peer interface
// ---------------------------------------------------------------------------------------------------------

enum class PeerOrdering { given, ownAmd };

// One sparse direct solver. The calling order is analyze → factor → solve / refine, then any number of
// factor (same pattern, new values) and solves. Every call returns false when the peer reports a failure
// (its status, a non-finite result); the message is then in lastError().
class Peer {
public:
    virtual ~Peer() = default;

    // Short name for tables ("CHOLMOD simplicial LDLᵀ", …).
    virtual const char* name() const = 0;

    // Ordering and symbolic factorization of the pattern of A. order: [n] the row placed k-th, used when
    // the setting is `given`; ignored (may be null) for `ownAmd`.
    virtual bool analyze(const ScalarMatrix& A, PeerOrdering ordering, const int* order) = 0;

    // Numeric factorization of A (the pattern analysed). A must stay alive and unchanged until the next
    // factor (a peer may keep pointers into it).
    virtual bool factor(const ScalarMatrix& A) = 0;

    // x = A⁻¹·b with the current factor. b: in, n values; x: out, n values (x ≠ b).
    virtual bool solve(const double* b, double* x) = 0;

    // Entries of the factor L (diagonal included), or 0 before a factorization.
    virtual double factorEntries() const = 0;

    // Whether the factor can be modified in place by switchOff / switchOn.
    virtual bool canModifyRows() const { return false; }

    // Prepares the in-place modifications for the factor of A (outside the timed part: the analogue of
    // RankMod::prepare). Only when canModifyRows().
    virtual bool prepareModification(const ScalarMatrix& A) {
        (void)A;
        return false;
    }

    // Replaces each listed scalar equation (user numbering) by the identity's in the factor, in place. Only
    // when canModifyRows().
    virtual bool switchOff(const std::vector<int>& equations) {
        (void)equations;
        return false;
    }

    // Undoes switchOff for the listed equations, adding each one back from A (the matrix given to
    // prepareModification) with its couplings to the equations that are switched on at that moment, in list
    // order. Only when canModifyRows().
    virtual bool switchOn(const ScalarMatrix& A, const std::vector<int>& equations) {
        (void)A;
        (void)equations;
        return false;
    }

    // One step of iterative refinement of x as a solution of A·x = b, with A the matrix the residual is
    // wanted for (the original one, also when the factor is of a regularised copy): r = b − A·x, solve
    // A_f·δ = r with the current factor, x ← x + δ. b: in, x: in/out, n values each.
    bool refine(const ScalarMatrix& A, const double* b, double* x);

    const std::string& lastError() const { return error_; }

protected:
    std::string error_;
    std::vector<double> r_, delta_;  // refinement work vectors
};

// Names of the peer libraries this build was compiled with, and without.
std::vector<std::string> availablePeerLibraries();
std::vector<std::string> missingPeerLibraries();

// The BLAS library that CHOLMOD's supernodal factorization calls (the file that provides dgemm_), or an empty
// string when it cannot be told or CHOLMOD is not built in.
std::string blasLibrary();

// The peers of this build, in a fixed order: CHOLMOD simplicial LDLᵀ, CHOLMOD supernodal LLᵀ (run on the
// positive definite twin by its caller), Eigen SimplicialLDLT. `positiveDefiniteOnly` is set to true for the
// ones that need the twin. Empty when no peer is built in.
struct PeerEntry {
    std::unique_ptr<Peer> peer;
    bool positiveDefiniteOnly;
};
std::vector<PeerEntry> makePeers();

}  // namespace bench
}  // namespace kivTamber

#endif  // KIVTAMBER_TOOLS_BENCH_PEERS_H
