"""kivtamber: sparse symmetric saddle-point systems solved by a block L·D·Lᵀ factorization without pivoting.

The systems are those of constraint solvers,

        [ M   Jᵀ ]     M: body blocks (and optional body-body couplings K),
    A = [        ]     J: Jacobian blocks J(c, b) of the constraints,
        [ J  −C  ]     C: optional compliance blocks of soft constraints,

with the unknowns numbered bodies first, then constraints.

For a SciPy user, one call:

    x = kivtamber.solve(A, b)        # A scipy.sparse symmetric (lower, upper or full), b a NumPy array

For a solver kept from step to step:

    s = kivtamber.Structure()
    b0, b1 = s.add_body(6), s.add_body(6)
    joint = s.add_constraint(3)
    s.add_jacobian(joint, b0); s.add_jacobian(joint, b1)
    solver = kivtamber.Solver(numpy.float64)       # options as keywords: refinement_steps=2, ...
    solver.analyze(s)
    # every step:
    solver.set_body(b0, M0); solver.set_body(b1, M1)       # 6×6 arrays
    solver.set_jacobian(joint, b0, J0); solver.set_jacobian(joint, b1, J1)   # 3×6 arrays
    solver.factor()                                        # or, all blocks of a kind back to back in one
                                                           # call: solver.factor(bodies=M, jacobians=J)
    x = solver.solve(rhs)                                  # 15 values (or 15 × k)

Arrays must have the solver's dtype exactly (float32 or float64; a mismatch is a TypeError, never a silent
conversion); any memory order is accepted. The caller's arrays are only read. Failures raise ValueError
(invalid arguments, shapes, structures, non-finite values), RuntimeError (a call in the wrong state, such as
a solve before a factorization) or FactorizationError (a zero or non-finite pivot), each with the library's
message.
"""

import numpy as _np

from . import _kivtamber
from ._kivtamber import FactorizationError, Structure

__all__ = ["Solver", "Structure", "FactorizationError", "solve"]
__version__ = "0.1.0"

_DTYPES = (_np.dtype(_np.float32), _np.dtype(_np.float64))


def _canonical_csc(A, call):
    """A square symmetric matrix (scipy.sparse or a dense 2-D ndarray) as a SciPy CSC matrix with sorted
    indices and no duplicates, holding the same triangle(s) as A or their transpose (a CSR matrix is read as
    the CSC matrix of its transpose, which for a symmetric matrix is the same matrix). Copies only what it
    must; never modifies A."""
    import scipy.sparse as sp

    if isinstance(A, _np.ndarray):
        if A.ndim != 2:
            raise ValueError(f"{call}: A must be a 2-D matrix, got shape {A.shape}")
        A = sp.csc_matrix(A)
    elif not sp.issparse(A):
        raise TypeError(f"{call}: A must be a scipy.sparse matrix or a 2-D numpy.ndarray, "
                        f"got {type(A).__name__}")
    if len(A.shape) != 2 or A.shape[0] != A.shape[1]:
        raise ValueError(f"{call}: A must be square, got shape {A.shape}")
    if A.format == "csc":
        C = A
    elif A.format == "csr":
        C = sp.csc_matrix((A.data, A.indices, A.indptr), shape=A.shape)
    else:
        C = A.tocsc()
    if not C.has_canonical_format:
        C = C.copy()
        C.sum_duplicates()
    return C


def _lower(C, call):
    """The lower triangle of the symmetric matrix held by the canonical CSC matrix C (its lower triangle,
    its upper triangle or both) as CSC arrays (column pointers, row indices, values), and its diagonal.
    A matrix given in full must be symmetric to rounding (|a_ij − a_ji| ≤ c·ε·max |a|): the factorization
    reads one triangle only, so a disagreeing other triangle would otherwise be ignored without a word."""
    tolerance = (64 if C.dtype == _np.float64 else 8) * float(_np.finfo(C.dtype).eps)
    try:
        triangle, indptr, indices, data, diagonal = _kivtamber._lower_triangle(C.indptr, C.indices, C.data,
                                                                               tolerance)
    except ValueError as error:
        raise ValueError(f"{call}: {error}") from None
    if triangle == "lower":
        return C.indptr, C.indices, C.data, diagonal
    return indptr, indices, data, diagonal


def _index_array(values, call, name):
    a = _np.asarray(values)
    if a.ndim != 1 or (a.size and a.dtype.kind not in "iu"):
        raise TypeError(f"{call}: {name} must be a 1-D sequence of integers")
    if a.size and a.min() < 0:
        raise ValueError(f"{call}: {name} holds a negative value ({a.min()})")
    return a.astype(_np.uint32)


class Solver(_kivtamber.Solver):
    """The solver object of one linear system, kept from step to step.

    Solver(dtype=numpy.float64, **options); options (also for set_options): ordering ('automatic',
    'minimum_degree', 'natural', 'centroid'), merge_blocks, threads (0 = by predicted work, at most
    max_threads; 0 = the machine's processors), refinement_steps, check_values (scan every value for NaN and
    infinities), regularization (δ > 0 factors A + diag(+δ on body rows, −δ on constraint rows) and refines
    against A), switching ('automatic', 'update', 'refactor').

    Structure: analyze(Structure) for bodies and constraints, or analyze_matrix(A, first_constraint_row) for
    a scipy.sparse matrix with its body rows first. Values: set_body, set_jacobian, set_body_coupling,
    set_compliance, set_block (one block each), set_values (all blocks of a kind at once, concatenated in
    the structure's order), set_scalar_values / set_matrix_values (a matrix given to analyze_matrix). Then
    factor() and solve(b) for b of shape (N,) or (N, k) (solve(b, out=x) writes x and allocates nothing).
    factor(bodies=..., jacobians=..., couplings=..., compliances=...) is set_values(...) and factor() in one
    call, with the same checks and results; it writes each block column's values just before the serial
    factorization reads them, which saves a pass over the matrix.
    set_active / set_constraint_active switch constraint equations off and on (a switched-off equation's
    unknown solves to 0). report() is a dict of what the object chose and measured: ordering, fill, flops,
    inertia, timings, the first bad pivot.
    """

    def analyze_matrix(self, A, first_constraint_row, block_sizes=None):
        """Analyses a symmetric scipy.sparse matrix (lower, upper or full; or a dense 2-D array) whose rows
        below first_constraint_row are body rows and the rest constraint rows. block_sizes groups the rows
        into blocks (no block mixing body and constraint rows); without it the analysis detects blocks of
        consecutive rows with identical patterns. Values then come from set_matrix_values(A)."""
        C = _canonical_csc(A, "analyze_matrix")
        sizes = None if block_sizes is None else _index_array(block_sizes, "analyze_matrix", "block_sizes")
        self._analyze_csc(C.shape[0], first_constraint_row, C.indptr, C.indices, sizes)
        self._pattern = (C.indptr.copy(), C.indices.copy())

    def set_matrix_values(self, A):
        """The values of a matrix with the pattern given to analyze_matrix (same triangle(s), same format
        family); A's dtype must be the solver's. With check_values set, a matrix given in full is also
        checked for symmetry (the factorization reads its lower triangle only)."""
        pattern = getattr(self, "_pattern", None)
        if pattern is None:
            raise RuntimeError("set_matrix_values: no matrix was given to analyze_matrix")
        C = _canonical_csc(A, "set_matrix_values")
        if self.options["check_values"] and C.dtype in _DTYPES:
            _lower(C, "set_matrix_values")
        if not (_np.array_equal(C.indptr, pattern[0]) and _np.array_equal(C.indices, pattern[1])):
            raise ValueError("set_matrix_values: the pattern of A differs from the one given to "
                             "analyze_matrix")
        self.set_scalar_values(C.data)

    def __repr__(self):
        state = f"rows={self.size}" if self.is_analyzed else "not analyzed"
        return f"kivtamber.Solver(dtype={self.dtype}, {state})"


def _permuted(indptr, indices, data, perm):
    """P·L·Pᵀ folded back into its lower triangle, for the lower triangle L of a symmetric matrix in CSC
    arrays (new row i is old row perm[i]); CSC arrays with sorted rows."""
    import scipy.sparse as sp

    n = len(indptr) - 1
    inverse = _np.empty(n, dtype=_np.int64)
    inverse[perm] = _np.arange(n)
    r = inverse[indices]
    c = inverse[_np.repeat(_np.arange(n), _np.diff(indptr))]
    P = sp.csc_matrix((data, (_np.maximum(r, c), _np.minimum(r, c))), shape=(n, n))
    P.sum_duplicates()
    return P.indptr, P.indices, P.data


def _lonely_rows(indptr, indices, is_body):
    """The rows that are not body rows and share no entry with a body row."""
    cols = _np.repeat(_np.arange(len(is_body)), _np.diff(indptr))
    touched = _np.zeros(len(is_body), dtype=bool)
    touched[indices[is_body[cols]]] = True
    touched[cols[is_body[indices]]] = True
    return ~is_body & ~touched


def _alternating_roles(indptr, indices, is_body):
    """Body rows for a matrix whose zero-diagonal rows are not all constraints: a breadth-first search from
    the rows with a nonzero diagonal (bodies) through the others gives alternate layers alternate roles
    (their neighbours are constraints, the further neighbours of those bodies with a zero diagonal, and so
    on); rows no body reaches are taken as bodies. This is the split of a KKT matrix [P Aᵀ; A 0] whose P has
    zero rows: those rows couple to constraints only."""
    import scipy.sparse as sp

    n = len(indptr) - 1
    cols = _np.repeat(_np.arange(n), _np.diff(indptr))
    off = indices != cols
    rows, cols = indices[off], cols[off]
    both = (_np.concatenate([rows, cols]), _np.concatenate([cols, rows]))
    S = sp.csr_matrix((_np.ones(2 * len(rows), dtype=_np.int32), both), shape=(n, n))
    role = _np.where(is_body, 0, -1)
    frontier, layer = is_body.astype(_np.int32), 0  # int32: a row's count of neighbours in the frontier
    while frontier.any():
        new = ((S @ frontier) > 0) & (role < 0)
        layer += 1
        role[new] = layer % 2
        frontier = new.astype(_np.int32)
    return role != 1


def _bodies_first(L, is_body, sizes):
    """The permutation that moves the body rows first (None when they already are), the lower triangle L
    (CSC arrays) and block sizes permuted alike, and the number of body rows. ValueError for a block that
    mixes body and constraint rows."""
    n = len(is_body)
    first = int(_np.count_nonzero(is_body))
    if is_body[:first].all():
        return None, L, sizes, first
    perm = _np.concatenate([_np.flatnonzero(is_body), _np.flatnonzero(~is_body)])
    if sizes is not None:
        total = int(sizes.sum(dtype=_np.uint64))
        if total != n:
            raise ValueError(f"solve: block_sizes sum to {total}, A has {n} rows")
        starts = _np.concatenate([[0], _np.cumsum(sizes[:-1], dtype=_np.int64)])
        mixed = _np.add.reduceat(is_body.astype(_np.int64), starts) % sizes != 0
        if mixed.any():
            k = int(_np.flatnonzero(mixed)[0])
            raise ValueError(f"solve: block {k} (rows {starts[k]}..{starts[k] + sizes[k] - 1}) mixes rows "
                             f"with and without a diagonal entry")
        block_is_body = is_body[starts]
        sizes = _np.concatenate([sizes[block_is_body], sizes[~block_is_body]])
    return perm, _permuted(*L, perm), sizes, first


def _solve_regularized(solver, b, scale):
    """The solve of a matrix whose factorization met a zero pivot (its values are finite, so a body part that
    is only semidefinite): factor A + diag(±δ) and refine against A, for a few δ from small to large, keeping
    the solution with the smallest residual. A small δ leaves the factor inaccurate (refinement diverges and
    the plain solve is kept), a large one makes refinement converge slowly; which δ is best depends on the
    conditioning, hence the search. Stops at the first residual near the precision."""
    eps = float(_np.finfo(solver.dtype).eps)
    relative = (1e-12, 1e-10, 1e-8, 1e-6) if solver.dtype == _np.float64 else (1e-6, 1e-5, 1e-4, 1e-3)
    steps = max(solver.options["refinement_steps"], 10)
    best, best_residual, error = None, _np.inf, None
    for delta in relative:
        solver.set_options(regularization=delta * scale, refinement_steps=steps)
        try:
            solver.factor()
        except FactorizationError as failure:
            error = failure
            continue
        x = solver.solve(b)
        residual = solver.report()["residual"]
        if residual < best_residual:
            best, best_residual = x, residual
        if residual <= 64 * eps:
            break
    if best is None:
        raise error
    return best


def _polish(solver, L, b, x, max_steps=3):
    """Further refinement steps of a double-precision solution against the matrix whose lower triangle is L,
    while each at least halves the scaled residual ‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) (the worst column).
    The solver's own refinement stops once that residual is at the rounding level; a one-off solve can
    afford a step or two more, which on badly scaled matrices reaches far below it (as an LU with partial
    pivoting does). Returns the solution, its scaled residual and the steps kept."""
    b = _np.asfortranarray(b)
    r, current = _kivtamber._symmetric_residual(*L, b, x)
    steps = 0
    while steps < max_steps and current > 0:
        candidate = x + solver.solve(r)
        r_next, scaled = _kivtamber._symmetric_residual(*L, b, candidate)
        if not scaled < 0.5 * current:
            break
        x, r, current, steps = candidate, r_next, scaled, steps + 1
    return x, current, steps


def solve(A, b, *, first_constraint_row=None, block_sizes=None, regularization=None, return_report=False,
          **options):
    """x = A⁻¹·b for a symmetric saddle-point (or positive definite) matrix A.

    A: scipy.sparse matrix (any format) or dense 2-D numpy.ndarray, float32 or float64, symmetric, stored as
    its lower triangle, its upper triangle or in full (a full matrix must be symmetric to rounding). b: numpy
    array of A's dtype, shape (n,) or (n, k). Returns x of b's shape and dtype; A and b are not modified.

    Rows whose diagonal entry is zero (or not stored) are taken as constraint rows and the others as body
    rows (except zero-diagonal rows that share no entry with a body row: those are bodies with a zero
    diagonal, and the roles then alternate outwards from the bodies); the system is solved with the bodies
    first and the solution returned in A's numbering. Give first_constraint_row to say instead that the rows
    below it are the body rows (as they stand). block_sizes groups consecutive rows of A into blocks (each
    all body or all constraint rows); otherwise blocks are detected. regularization: δ for the regularised
    mode; None (default) factors without it and, if a zero pivot stops the factorization, factors again with
    δ from a few multiples of max |a| and keeps the solution with the smallest residual. Further keywords
    are Solver options. return_report=True returns (x, solver.report()).
    """
    C = _canonical_csc(A, "solve")
    n = C.shape[0]
    if C.dtype not in _DTYPES:
        raise TypeError(f"solve: A has dtype {C.dtype}; kivtamber solves float32 and float64 systems "
                        f"(convert A explicitly with .astype)")
    if not isinstance(b, _np.ndarray):
        raise TypeError(f"solve: b must be a numpy.ndarray of {C.dtype}, got {type(b).__name__}")
    if b.dtype != C.dtype:
        raise TypeError(f"solve: b has dtype {b.dtype} and A {C.dtype}; convert one of them explicitly")
    if b.ndim not in (1, 2) or b.shape[0] != n:
        raise ValueError(f"solve: b must have shape ({n},) or ({n}, k), got {b.shape}")
    if not _np.isfinite(C.data).all():
        k = int(_np.flatnonzero(~_np.isfinite(C.data))[0])
        raise ValueError(f"solve: A holds a non-finite value ({C.data[k]}) in column "
                         f"{int(_np.searchsorted(C.indptr, k, side='right')) - 1}, row {int(C.indices[k])}")
    if not _np.isfinite(b).all():
        raise ValueError("solve: b holds a NaN or infinite value")
    *L, diagonal = _lower(C, "solve")

    sizes = None if block_sizes is None else _index_array(block_sizes, "solve", "block_sizes")
    settings = dict(options)
    if regularization is not None:
        settings["regularization"] = regularization
    solver = Solver(C.dtype, **settings)
    perm = None
    if first_constraint_row is not None:
        solver._analyze_csc(n, first_constraint_row, L[0], L[1], sizes)
    else:
        is_body = diagonal != 0
        # Rows with a zero diagonal that couple to no row with a nonzero one cannot be constraints (their
        # pivots would be zero in every order): bodies whose diagonal happens to be zero (a semidefinite body
        # part), which the regularised mode below handles.
        if not is_body.all() and _lonely_rows(L[0], L[1], is_body).any():
            is_body = _alternating_roles(L[0], L[1], is_body)
        perm, P, psizes, first = _bodies_first(L, is_body, sizes)
        solver._analyze_csc(n, first, P[0], P[1], psizes)
        L = P
        if perm is not None:
            b = b[perm]
    solver.set_scalar_values(L[2])
    try:
        solver.factor()
        x = solver.solve(b)
    except FactorizationError:
        if regularization is not None:
            raise
        x = _solve_regularized(solver, b, float(_np.abs(L[2]).max()) if len(L[2]) else 1.0)
    report = solver.report()
    if x.dtype == _np.float64:
        x, residual, steps = _polish(solver, L, b, x)
        report["residual"] = residual
        report["refinement_steps"] += steps
    if perm is not None:
        y = _np.empty_like(x)
        y[perm] = x
        x = y
    return (x, report) if return_report else x
