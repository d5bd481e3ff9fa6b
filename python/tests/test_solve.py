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
    nb = system.first_constraint_row
    perm = np.concatenate([np.arange(nb, system.n), np.arange(nb)])
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
    if n1 is not None:  # the split of the .blocks file instead of the one read off the diagonal
        ours = scaled_residual(full, kivtamber.solve(full, b, first_constraint_row=n1), b)
        assert ours <= max(10 * theirs, 1e-15), (ours, theirs)


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_lower_triangle_equals_scipys_and_rounding_asymmetry_is_accepted(dtype):
    rng = np.random.default_rng(3)
    R = sp.random(60, 60, density=0.1, random_state=4, format="csc")
    S = (R + R.T + sp.identity(60)).astype(dtype).tocsc()
    reference = sp.tril(S).tocsc()
    for given in (S, sp.tril(S).tocsc(), sp.triu(S).tocsc()):
        indptr, indices, data, diagonal = kivtamber._lower(given, "test")
        np.testing.assert_array_equal(indptr, reference.indptr)
        np.testing.assert_array_equal(indices, reference.indices)
        np.testing.assert_array_equal(data, reference.data)
        np.testing.assert_array_equal(diagonal, S.diagonal())
    rounded = S.copy()
    rounded.data *= 1 + np.finfo(dtype).eps * rng.choice([-1, 0, 1], size=S.nnz)  # both triangles, rounding
    kivtamber._lower(rounded, "test")
    # Full, with an explicit zero (0, 1) whose partner is not stored: accepted.
    lonely = sp.csc_matrix((np.array([1, 1, 1, 5, 5, 0], dtype), ([0, 1, 2, 2, 0, 0], [0, 1, 2, 0, 2, 1])),
                           shape=(3, 3))
    assert lonely.nnz == 6
    indptr, indices, data, _ = kivtamber._lower(lonely, "test")
    assert list(indices) == [0, 2, 1, 2] and list(data) == [1, 5, 1, 1]
    broken = S.tolil()
    broken[5, 40] = 1.0  # (40, 5) is zero or something else
    with pytest.raises(ValueError, match="not symmetric"):
        kivtamber._lower(sp.csc_matrix(broken), "test")


def test_semidefinite_body_part_without_the_split_given():
    """[P Aᵀ; A 0] with zero rows in P (those rows couple to constraints only): they are found to be bodies,
    the regularised mode takes over, and the residual is that of a direct solve."""
    rng = np.random.default_rng(6)
    n1, n2 = 40, 15
    p = rng.standard_normal((n1, n1))
    P = p @ p.T
    P[:8, :] = P[:, :8] = 0.0  # eight unknowns with no quadratic term
    A = np.zeros((n2, n1))
    A[np.arange(n2), 8 + rng.permutation(n1 - 8)[:n2]] = 1.0
    A[:, :8] = rng.standard_normal((n2, 8))  # full column rank there: K is nonsingular
    K = np.block([[P, A.T], [A, np.zeros((n2, n2))]])
    perm = rng.permutation(n1 + n2)
    K = K[np.ix_(perm, perm)]
    b = rng.standard_normal(n1 + n2)
    x, report = kivtamber.solve(sp.tril(sp.csc_matrix(K)), b, return_report=True)
    assert report["regularized"] and report["inertia"] == (n1, n2, 0)
    assert scaled_residual(K, x, b) <= max(10 * scaled_residual(K, np.linalg.solve(K, b), b), 1e-15)


def test_symmetric_residual_equals_a_dense_one():
    system = RandomSystem(12, bodies=6)
    L = sp.tril(sp.csc_matrix(system.A)).tocsc()
    rng = np.random.default_rng(12)
    for shape in ((system.n,), (system.n, 3)):
        b, x = np.asfortranarray(rng.standard_normal(shape)), np.asfortranarray(rng.standard_normal(shape))
        r, scaled = kivtamber._kivtamber._symmetric_residual(L.indptr, L.indices, L.data, b, x)
        np.testing.assert_allclose(r, b - system.A @ x, rtol=0, atol=1e-12)
        assert scaled == pytest.approx(scaled_residual(system.A, x, b), rel=1e-12)
