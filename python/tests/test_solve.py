"""kivtamber.solve(A, b) against numpy.linalg.solve and scipy.sparse.linalg.spsolve: random saddle-point
systems in any row order, triangle and precision, and the real matrices."""

import numpy as np
import pytest
import scipy.sparse as sp
import scipy.sparse.linalg as spla

import kivtamber
from conftest import RandomSystem, read_matrix, real_matrices, scaled_residual


def shuffled(system, seed):
    """The system's matrix with its rows in a random order (constraint rows among the body rows)."""
    perm = np.random.default_rng(seed).permutation(system.n)
    return system.A[np.ix_(perm, perm)]


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
@pytest.mark.parametrize("triangle", ["lower", "upper", "full"])
@pytest.mark.parametrize("seed", range(3))
def test_solve_any_order_triangle_and_precision(seed, triangle, dtype):
    system = RandomSystem(seed, bodies=7 + seed, couplings=2, compliant=0)
    dense = shuffled(system, seed)
    A = {"lower": sp.tril, "upper": sp.triu, "full": sp.csr_matrix}[triangle](dense).astype(dtype)
    b = np.random.default_rng(seed).standard_normal((system.n, 2)).astype(dtype)
    b_before, A_before = b.copy(), A.copy()
    x = kivtamber.solve(A, b)
    assert x.dtype == dtype and x.shape == b.shape
    np.testing.assert_array_equal(b, b_before)
    assert (A != A_before).nnz == 0
    reference = np.linalg.solve(dense, b.astype(np.float64))
    tolerance = 1e-12 if dtype == np.float64 else 1e-4
    np.testing.assert_allclose(x, reference, rtol=0, atol=tolerance * np.abs(reference).max())
    x1 = kivtamber.solve(A, np.ascontiguousarray(b[:, 0]))
    np.testing.assert_allclose(x1, x[:, 0], rtol=0, atol=tolerance * np.abs(reference).max())


def test_solve_with_blocks_rows_given_and_dense_input():
    system = RandomSystem(4, bodies=9, couplings=3, compliant=1)
    b = np.linspace(1.0, 2.0, system.n)
    reference = np.linalg.solve(system.A, b)
    sizes = system.body_sizes + system.constraint_sizes
    for kwargs in ({}, {"block_sizes": sizes}, {"first_constraint_row": system.first_constraint_row},
                   {"regularization": 1e-9, "refinement_steps": 4}):
        x, report = kivtamber.solve(sp.tril(sp.csc_matrix(system.A)), b, return_report=True, **kwargs)
        np.testing.assert_allclose(x, reference, rtol=0, atol=1e-11 * np.abs(reference).max())
        assert report["rows"] == system.n
    # Blocks given in A's own row order survive the reordering into bodies first.
    perm = np.concatenate([np.arange(system.first_constraint_row, system.n), np.arange(system.first_constraint_row)])
    x = kivtamber.solve(system.A[np.ix_(perm, perm)], b[perm],
                        block_sizes=system.constraint_sizes + system.body_sizes)
    np.testing.assert_allclose(x, reference[perm], rtol=0, atol=1e-11 * np.abs(reference).max())


@pytest.mark.parametrize("name,path,n1", real_matrices())
def test_real_matrices_against_spsolve(name, path, n1):
    lower, full = read_matrix(path)
    b = np.random.default_rng(1).standard_normal(full.shape[0])
    ours = scaled_residual(full, kivtamber.solve(lower, b), b)
    theirs = scaled_residual(full, spla.spsolve(full, b), b)
    assert ours <= max(10 * theirs, 1e-15), (ours, theirs)
    if n1 is not None:  # the body/constraint split of the .blocks file instead of the one read off the diagonal
        ours = scaled_residual(full, kivtamber.solve(full, b, first_constraint_row=n1), b)
        assert ours <= max(10 * theirs, 1e-15), (ours, theirs)
