"""Every bad input raises its exception with a message, never crashes, and leaves the caller's arrays and the
solver's factor as they were."""

import numpy as np
import pytest
import scipy.sparse as sp

import kivtamber
from conftest import RandomSystem


@pytest.fixture
def factored():
    system = RandomSystem(2, bodies=5, couplings=0, compliant=0)
    solver = kivtamber.Solver(np.float64)
    solver.analyze(system.structure)
    system.load(solver)
    solver.factor()
    b = np.ones(system.n)
    return system, solver, b, solver.solve(b)


def raises(exception, match, call, *arrays):
    """call() raises `exception` matching `match` and leaves `arrays` unchanged."""
    before = [a.copy() for a in arrays]
    with pytest.raises(exception, match=match):
        call()
    for a, b in zip(arrays, before):
        np.testing.assert_array_equal(a, b)


def test_bad_values_raise_and_change_nothing(factored):
    system, solver, b, x = factored
    M = system.M[0].copy()
    M32 = M.astype(np.float32)
    raises(ValueError, r"shape \(6, 6\)|shape \(3, 3\)", lambda: solver.set_body(0, M[:2]), M)
    raises(TypeError, "dtype float32.*holds float64", lambda: solver.set_body(0, M32), M32)
    raises(TypeError, "dtype int64", lambda: solver.set_body(0, np.ones_like(M, dtype=np.int64)))
    raises(TypeError, "numpy.ndarray", lambda: solver.set_body(0, M.tolist()))
    raises(ValueError, "unknown body 5", lambda: solver.set_body(5, M), M)
    raises(ValueError, "unknown body -1", lambda: solver.set_body(-1, M), M)
    raises(ValueError, "unknown constraint 9", lambda: solver.set_jacobian(9, 0, M), M)
    J = np.ones((system.constraint_sizes[0], system.body_sizes[3]))
    raises(ValueError, r"\S", lambda: solver.set_jacobian(0, 3, J), J)  # constraint 0 does not act on body 3
    raises(ValueError, "expected", lambda: solver.set_values(bodies=np.ones(3)))
    raises(ValueError, r"\S", lambda: solver.set_constraint_active(99, False))
    raises(ValueError, "out of range", lambda: solver.set_active(-2, 0, False))
    raises(ValueError, "row 7", lambda: solver.is_active(0, 7))
    np.testing.assert_array_equal(solver.solve(b), x)  # the factor survived every failed call


def test_bad_right_hand_sides_and_states(factored):
    system, solver, b, x = factored
    raises(ValueError, "shape", lambda: solver.solve(np.ones(system.n + 1)))
    raises(ValueError, "shape", lambda: solver.solve(np.ones((system.n, 2, 2))))
    raises(TypeError, "float64", lambda: solver.solve(b.astype(np.float32)))
    fresh = kivtamber.Solver(np.float32)
    raises(RuntimeError, "no structure", lambda: fresh.solve(np.ones(3, np.float32)))
    fresh.analyze(system.structure)
    raises(RuntimeError, r"\S", lambda: fresh.solve(np.ones(system.n, np.float32)))  # not factored
    raises(RuntimeError, r"\S", fresh.factor)  # every value zero: a zero pivot
    bad = kivtamber.Structure()
    bad.add_body(6)
    bad.add_constraint(3)
    bad.add_jacobian(0, 4)
    raises(ValueError, r"\S", lambda: fresh.analyze(bad))
    np.testing.assert_array_equal(solver.solve(b), x)


def test_zero_and_non_finite_pivots_name_the_pivot(factored):
    system, solver, b, x = factored
    M = system.M[1].copy()
    solver.set_values(bodies=np.zeros(solver.body_value_count))  # [0 Jᵀ; J 0] with more body rows: singular
    with pytest.raises(kivtamber.FactorizationError) as error:
        solver.factor()
    assert isinstance(error.value, RuntimeError) and error.value.pivot is not None and str(error.value)
    assert error.value.pivot["kind"] in ("body", "constraint") and solver.report()["bad_pivot"] is not None
    raises(RuntimeError, r"\S", lambda: solver.solve(b))  # the failed factor is not used
    system.load(solver)
    M[0, 0] = np.nan
    raises(kivtamber.FactorizationError, r"\S", lambda: (solver.set_body(1, M), solver.factor()), M)
    solver.set_options(check_values=True)
    raises(ValueError, r"\S", lambda: solver.set_body(1, M), M)
    system.load(solver)
    solver.factor()
    raises(ValueError, "NaN", lambda: solver.solve(np.full(system.n, np.nan)))


def test_bad_options():
    raises(TypeError, "unknown option", lambda: kivtamber.Solver(np.float64, refinement=2))
    raises(ValueError, "one of", lambda: kivtamber.Solver(np.float64, ordering="random"))
    raises(TypeError, "float32 or numpy.float64", lambda: kivtamber.Solver(np.int32))
    raises(ValueError, r"\S", lambda: kivtamber.Solver(np.float64, regularization=-1.0))


def test_bad_matrices_for_solve():
    system = RandomSystem(8, bodies=4, compliant=0)
    A = sp.csc_matrix(system.A)
    b = np.ones(system.n)
    raises(ValueError, "square", lambda: kivtamber.solve(A[:, :-1], b), b)
    raises(TypeError, "scipy.sparse", lambda: kivtamber.solve(system.A.tolist(), b), b)
    raises(ValueError, r"shape", lambda: kivtamber.solve(A, b[:-1]), b)
    raises(TypeError, "dtype", lambda: kivtamber.solve(A, b.astype(np.float32)))
    raises(TypeError, "dtype", lambda: kivtamber.solve(A.astype(np.int64), b.astype(np.int64)))
    unsymmetric = system.A.copy()
    unsymmetric[0, 1] += 1.0
    raises(ValueError, r"\S", lambda: kivtamber.solve(sp.csc_matrix(unsymmetric), b), unsymmetric, b)
    with_nan = A.copy()
    with_nan.data[3] = np.nan
    raises(ValueError, r"\S", lambda: kivtamber.solve(with_nan, b), with_nan.data, b)
    raises(ValueError, "NaN", lambda: kivtamber.solve(A, np.full(system.n, np.inf)))
    raises(ValueError, "block_sizes", lambda: kivtamber.solve(A, b, block_sizes=[-1, 2]))


def test_solve_into_out_checks_it_and_writes_it_only_on_success(factored):
    system, solver, b, x = factored
    out = np.full(system.n, 7.0)
    raises(ValueError, "out must be", lambda: solver.solve(b, out=np.zeros(system.n + 1)), out)
    raises(TypeError, "float64", lambda: solver.solve(b, out=np.zeros(system.n, np.float32)))
    readonly = np.zeros(system.n)
    readonly.flags.writeable = False
    raises(ValueError, "writeable", lambda: solver.solve(b, out=readonly), readonly)
    B = np.ones((system.n, 2))
    raises(ValueError, "Fortran", lambda: solver.solve(B, out=np.zeros((system.n, 2))), B)  # C order
    solver.set_body(0, system.M[0])  # values changed: no valid factor until factor()
    raises(RuntimeError, r"\S", lambda: solver.solve(b, out=out), out, b)
    np.testing.assert_array_equal(out, 7.0)
