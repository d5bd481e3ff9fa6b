// The solver object: one linear system of a constraint solver, kept from time step to time step.
//
// The system is the symmetric saddle-point matrix of bodies and constraints, in the caller's own numbering:
//
//        [ M   Jᵀ ]     M: block diagonal body blocks M(b, b) (s_b × s_b), plus optional body–body
//    A = [        ]        couplings K(b1, b2) (stiffness between bodies, as deformables have);
//        [ J  −C  ]     J: Jacobian blocks J(c, b) (s_c × s_b), as the physics holds them (not transposed);
//                       C: optional compliance blocks C(c, c) of soft constraints (zero for hard ones).
//
// Unknowns are ordered bodies first (body 0, body 1, ...), then constraints (constraint 0, ...), each with
// its own rows: body b occupies rows bodyOffset(b) .. bodyOffset(b) + s_b − 1, constraint c the rows from
// constraintOffset(c) = (total body rows) + (rows of constraints 0 .. c−1). Every vector the object takes or
// gives (right-hand sides, solutions) is in that numbering. Ids are 0-based.
//
// Typical use:
//
//     kivTamber::SystemStructure s;
//     unsigned int b0 = s.addBody(6), b1 = s.addBody(6);
//     unsigned int joint = s.addConstraint(3);
//     s.addJacobian(joint, b0);
//     s.addJacobian(joint, b1);
//
//     kivTamber::Solver<double> solver;                 // keep it; reuse it every step
//     kivTamber::Status st = solver.analyze(s);          // once per structure
//     every step:
//         solver.setBody(b0, M0);  solver.setBody(b1, M1);       // 6×6 row-major
//         solver.setJacobian(joint, b0, J0);                     // 3×6 row-major
//         solver.setJacobian(joint, b1, J1);
//         if (!(st = solver.factor())) { std::fprintf(stderr, "%s\n", st.message.c_str()); ... }
//         // or every value at once, written as the factorization reaches it: factor(bodies, jacobians)
//         solver.solve(rhs, x);                                  // 15 values each
//
// What the object does for the caller: the analysis (ordering, block merging, the elimination tree) with the
// library's defaults that pick the fast path by themselves; the assembly of values straight into the matrix
// the factorization reads (one copy per value, no second copy of the matrix per step); the factorization,
// serial or multifrontal by predicted work, stopping at the first zero or non-finite pivot; solves with
// iterative refinement that never hands back a worse iterate than the plain solve; switching equations on and
// off between steps (by modifying the factor in place when that is predicted cheaper than factoring again);
// an optional regularised mode for systems whose body part is only semidefinite; and a report of every
// choice it made and what it measured.
//
// Errors: every call that takes input checks it and answers with a Status naming the offending id and value.
// A failed call changes nothing: neither the object's factor nor the caller's arrays. Nothing throws and
// nothing aborts (out of memory is reported as a status). The checks cost a few comparisons per call; the
// optional scan of values for NaN and infinities (Options::checkValues) costs one pass over them.
//
// Allocation: analyze allocates; after the first factor() and solve() of a structure, setting values,
// factoring, solving, refining and switching allocate nothing (as long as the number of right-hand sides per
// call does not grow).
//
// Threads: one object is used by one calling thread at a time. Different objects may be used from
// different threads at the same time.
#ifndef KIVTAMBER_SOLVER_H
#define KIVTAMBER_SOLVER_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kivTamber {

namespace Analysis {
struct Problem;
}

// ---------------------------------------------------------------------------------------------------------
// Status
// ---------------------------------------------------------------------------------------------------------

enum class StatusCode : unsigned int {
    ok = 0,
    invalidArgument,  // an unknown id, a wrong size, a null pointer, a value out of range
    badStructure,     // the structure was rejected (by the object's checks or by the analysis)
    notAnalyzed,      // a call that needs a structure before analyze succeeded
    notFactored,      // a solve without a valid factor (none yet, or values changed since factor())
    nonFiniteValue,   // a NaN or infinite value was given (Options::checkValues)
    zeroPivot,        // the factorization met a zero pivot (see Solver::badPivot())
    nonFinitePivot,   // the factorization met an infinite or NaN pivot
    outOfMemory,      // storage could not be allocated; the object is as before the call
    updateFailed,     // switching equations in place failed; the next factor() factors again
};

// "ok", "invalid argument", "bad structure", ... : the code as words for messages.
const char* statusCodeName(StatusCode code);

// The outcome of a call. Empty message on success.
struct Status {
    StatusCode code = StatusCode::ok;
    std::string message;

    bool ok() const { return code == StatusCode::ok; }
    explicit operator bool() const { return ok(); }
};

// ---------------------------------------------------------------------------------------------------------
// Structure
// ---------------------------------------------------------------------------------------------------------

// The structure of a body/constraint system: which blocks exist and which couple. A plain recorder; every
// check is made by Solver::analyze, which names the first offending id.
class SystemStructure {
public:
    // A body with `size` unknowns (>= 1); returns its id (0, 1, ... in the order of the calls).
    unsigned int addBody(unsigned int size);
    // A constraint with `rows` equations (>= 1); returns its id. compliant: the constraint has a compliance
    // block C(c, c) (soft constraint); otherwise its (2,2) diagonal block is zero.
    unsigned int addConstraint(unsigned int rows, bool compliant = false);
    // The Jacobian block J(c, b): constraint c acts on body b. Each pair at most once.
    void addJacobian(unsigned int constraint, unsigned int body);
    // A body–body coupling K(b1, b2) = K(b2, b1)ᵀ, b1 != b2. Each unordered pair at most once.
    void addBodyCoupling(unsigned int body1, unsigned int body2);

    unsigned int numBodies() const { return static_cast<unsigned int>(bodySizes.size()); }
    unsigned int numConstraints() const { return static_cast<unsigned int>(constraintSizes.size()); }

    // The recorded structure (read by the solver; may also be filled directly).
    std::vector<unsigned int> bodySizes;
    std::vector<unsigned int> constraintSizes;
    std::vector<unsigned char> compliant;                          // [constraints]
    std::vector<std::pair<unsigned int, unsigned int>> jacobians;  // (constraint, body), in call order
    std::vector<std::pair<unsigned int, unsigned int>> couplings;  // (body1, body2), in call order
};

// ---------------------------------------------------------------------------------------------------------
// Options and report
// ---------------------------------------------------------------------------------------------------------

enum class OrderingMethod : unsigned int {
    automatic = 0,  // peeling, constrained minimum degree or nested dissection, chosen by predicted cost
    minimumDegree,  // minimum degree with the zero-leaf swap and a repair
    natural,        // the caller's numbering: bodies, then constraints
    centroid,  // shallow elimination tree when the bodies form a forest (cheap switching); else automatic
};

enum class SwitchMethod : unsigned int {
    automatic = 0,  // modify the factor in place when predicted cheaper than factoring again
    update,         // always modify in place (double precision only; float factors again)
    refactor,       // always factor again with the switched-off equations replaced by unit equations
};

struct SolverOptions {
    OrderingMethod ordering = OrderingMethod::automatic;
    // Block merging (larger dense blocks along the elimination tree) where the analysis predicts a gain.
    bool mergeBlocks = true;
    // Worker threads: 0 = decide by predicted work (small systems stay serial; at most maxThreads), 1 =
    // serial, k = the multifrontal factorization on k threads.
    unsigned int threads = 0;
    // With threads = 0: the most threads the object may use; 0 = the processors of the machine.
    unsigned int maxThreads = 0;
    // Steps of iterative refinement against the true matrix after each solve (0 = none). The best iterate
    // (smallest residual) is kept.
    unsigned int refinementSteps = 1;
    // Scan every value given to the setters for NaN and infinities (one pass over them).
    bool checkValues = false;
    // Regularised mode: factor A + diag(+δ on body rows, −δ on constraint rows) and refine against A.
    // 0 (default) is off. For systems whose body part is only semidefinite (quadratic programs, bodies with
    // zero-mass directions); a few refinement steps recover the accuracy.
    double regularization = 0.0;
    SwitchMethod switching = SwitchMethod::automatic;
};

// Where a pivot lies, in the caller's numbering.
struct PivotLocation {
    bool found = false;
    bool isConstraint = false;
    unsigned int id = 0;        // body or constraint id
    unsigned int row = 0;       // row inside that body or constraint
    unsigned long userRow = 0;  // row of the whole system in the caller's numbering
    unsigned long step = 0;     // elimination step (0-based position in the elimination order)
    double value = 0.0;         // the pivot
};

struct SolverReport {
    // The structure.
    unsigned int bodies = 0, constraints = 0;
    unsigned long rows = 0;  // N, the scalar dimension
    // The analysis: the ordering used ("peeling + minimum degree", "nested dissection", ...), merging, the
    // factor it predicts.
    std::string ordering;
    unsigned long blocks = 0;         // bodies + constraints
    unsigned long factorBlocks = 0;   // blocks of the factor (merged groups)
    unsigned long factorEntries = 0;  // stored scalars of L, diagonal and explicit zeros included
    unsigned long explicitZeros = 0;  // zeros added by merging
    double flops = 0.0;               // predicted flops of one factorization
    double predictedFactorSeconds = 0.0;
    double analyzeSeconds = 0.0;
    // The last factorization.
    std::string path;  // "serial" or "multifrontal"
    unsigned int threads = 1;
    double factorSeconds = 0.0;
    unsigned long factorizations = 0;
    // Inertia of the last factorization (pivots by sign; switched-off equations count as positive unit
    // pivots), the smallest |pivot| and where.
    unsigned long positivePivots = 0, negativePivots = 0, zeroPivots = 0;
    PivotLocation smallestPivot;
    // The first zero or non-finite pivot of the last factorization (found = false when there was none).
    PivotLocation badPivot;
    bool regularized = false;
    // The last solve: seconds of solve and refinement, refinement steps run, scaled residual
    // ‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) of the returned x (the worst over the right-hand sides; NaN when an
    // entry of x or of its residual is not finite), or −1 when no residual was computed (refinementSteps =
    // 0).
    double solveSeconds = 0.0;
    double refineSeconds = 0.0;
    unsigned int refinementSteps = 0;
    double residual = -1.0;
    // The last estimateCondition (−1 before one).
    double conditionEstimate = -1.0;
    // The last switch of equations: how many went off and on, how it was done ("update" or "refactor"),
    // and its seconds.
    unsigned long switchedOff = 0, switchedOn = 0;
    std::string switchPath;
    double switchSeconds = 0.0;
};

// ---------------------------------------------------------------------------------------------------------
// The solver
// ---------------------------------------------------------------------------------------------------------

template <typename T>
class Solver {
public:
    Solver();
    ~Solver();
    Solver(const Solver&) = delete;
    Solver& operator=(const Solver&) = delete;
    Solver(Solver&&) noexcept;
    Solver& operator=(Solver&&) noexcept;

    // Options take effect at the next analyze (ordering, merging) or factor (the rest).
    Status setOptions(const SolverOptions& options);
    const SolverOptions& options() const;

    // Checks and analyses a structure; on success the object holds it with every value zero and every
    // equation active, and no factor. On failure nothing changes (a previous structure stays usable).
    Status analyze(const SystemStructure& structure);
    // The same for a general symmetric block pattern (blocks below problem.firstConstraint are "bodies",
    // the others "constraints", in the problem's own numbering; couplings between any two blocks). Values are
    // then set with setBlock. The arrays are read during the call only.
    Status analyze(const Analysis::Problem& problem);
    // A scalar symmetric matrix in compressed-column form: n rows, the first firstConstraintRow of them body
    // rows and the rest constraint rows; colPointers [n + 1], rowIndices [colPointers[n]] (0-based, ascending
    // in each column), holding the lower triangle, the upper triangle or both: an entry (i, j) stands for
    // itself and its mirror (j, i), so the three storages describe the same matrix. The rows are grouped into
    // blocks: by blockSizes [numBlocks] when given
    // (summing to n; no block mixes body and constraint rows), otherwise by automatic detection of
    // consecutive rows with identical patterns (SolverReport::ordering names what was detected). Values are
    // then set with setScalarValues, in the order of rowIndices.
    Status analyzeScalar(unsigned int n, unsigned int firstConstraintRow, const unsigned int* colPointers,
                         const unsigned int* rowIndices, const unsigned int* blockSizes = nullptr,
                         unsigned int numBlocks = 0);
    bool isAnalyzed() const;

    // ---- values (row-major arrays; each call copies its values straight into the factorization's input)
    // ---- M(b, b), s_b × s_b, the full square (symmetric).
    Status setBody(unsigned int body, const T* values);
    // J(c, b), s_c × s_b, as the physics holds it.
    Status setJacobian(unsigned int constraint, unsigned int body, const T* values);
    // K(b1, b2), s_b1 × s_b2 (the object stores its transpose for K(b2, b1)).
    Status setBodyCoupling(unsigned int body1, unsigned int body2, const T* values);
    // C(c, c), s_c × s_c, for a compliant constraint (the matrix holds −C).
    Status setCompliance(unsigned int constraint, const T* values);
    // Block A(i, j) of the general pattern (or of the body/constraint system, with bodies numbered first),
    // s_i × s_j row-major; (i, j) or (j, i) must be in the pattern.
    Status setBlock(unsigned int i, unsigned int j, const T* values);
    // Every block of a structure given as an Analysis::Problem at once, in the layout of
    // Analysis::Analyzer::setBlocks: entry e of the problem's pattern (the e-th element of its rowIndices,
    // block A(i, j), i <= j, s_i × s_j row-major, a diagonal block in full) at values + valuePointers[e].
    Status setPatternValues(const T* values, const unsigned long* valuePointers);
    // All values at once, each array the blocks concatenated in the order of the structure (bodies by id;
    // Jacobians and couplings in the order they were added; compliance blocks of the compliant constraints
    // by id). Any pointer may be null to leave that kind unchanged.
    Status setValues(const T* bodies, const T* jacobians, const T* couplings = nullptr,
                     const T* compliances = nullptr);
    // The values of a matrix given to analyzeScalar, one per entry of its rowIndices. Of an entry given in
    // both triangles the one in the later column is used; the caller keeps the two equal (not checked here;
    // the Python module checks a full matrix's symmetry before it calls this).
    Status setScalarValues(const T* values);
    // Number of values each array of setValues holds.
    unsigned long bodyValueCount() const;
    unsigned long jacobianValueCount() const;
    unsigned long couplingValueCount() const;
    unsigned long complianceValueCount() const;

    // ---- switching equations ----
    // Switch row `row` of constraint `constraint` (or all its rows) off or on. Takes effect at the next
    // factor() or solve(). A switched-off equation is replaced by a unit equation whose solution is 0: the
    // other unknowns solve the system of the active equations alone.
    Status setActive(unsigned int constraint, unsigned int row, bool on);
    Status setConstraintActive(unsigned int constraint, bool on);
    bool isActive(unsigned int constraint, unsigned int row) const;

    // ---- factorization and solves ----
    // Factors the current values with the current active set. Stops at the first zero or non-finite pivot
    // and names it (badPivot()); the factor is then invalid.
    Status factor();
    // One step in one call: setValues(bodies, jacobians, couplings, compliances) followed by factor(), with
    // the same statuses and messages for bad input (a refused call writes nothing and changes nothing: a
    // valid factor stays valid) and the same results bit for bit (values held, factor, pivots, bad pivot,
    // report). On the serial path (one thread) with every equation active and no regularisation, the
    // values of each block column are written just before the factorization reads them, so that the copies
    // run beside its work instead of in a pass of their own; otherwise the values are written first. A null
    // array leaves that kind of values as it is. report().factorSeconds then covers writing the values too.
    // Allocates nothing after the first factorization of a structure.
    Status factor(const T* bodies, const T* jacobians, const T* couplings = nullptr,
                  const T* compliances = nullptr);
    // The same for a structure given as an Analysis::Problem: setPatternValues(values, valuePointers)
    // followed by factor(), the values written as the serial factorization reaches them where the path
    // allows it.
    Status factorPatternValues(const T* values, const unsigned long* valuePointers);
    // x = A⁻¹·b (b and x: N values each, may be the same array). Applies pending switches first.
    Status solve(const T* b, T* x);
    // In place: x holds b on entry.
    Status solve(T* x);
    // k right-hand sides, column-major with leading dimension ld >= N (b and x may be the same).
    Status solve(const T* b, T* x, unsigned int k, unsigned long ld);

    // An estimate of the condition number κ₁(A) = ‖A‖₁·‖A⁻¹‖₁ of the factored matrix (the active system;
    // with regularisation the regularised one) from a few solves with the factor (Hager's method as refined
    // by Higham; a lower bound, nearly always within a factor 3). Needs a valid factor. Also stored in the
    // report. The first call of a structure allocates its work vectors (3·N values).
    Status estimateCondition(double& kappa);

    // ---- sizes, offsets and statistics ----
    unsigned long size() const;  // N
    unsigned int numBodies() const;
    unsigned int numConstraints() const;
    unsigned long bodyOffset(unsigned int body) const;
    unsigned long constraintOffset(unsigned int constraint) const;
    const SolverReport& report() const;
    const PivotLocation& badPivot() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

extern template class Solver<float>;
extern template class Solver<double>;

}  // namespace kivTamber

#endif  // KIVTAMBER_SOLVER_H
