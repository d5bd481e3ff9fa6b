"""Nothing of one time step leaks into the next at the Python edge: after steps with non-finite values, failed
factorizations, switching, option changes and re-analyses, good values factor and solve to the bits of a fresh
solver brought straight to the same state; and failed calls leave the solves as they were."""

import numpy as np
import pytest

import kivtamber
from conftest import RandomSystem


def fresh(system, dtype, active, **options):
    solver = kivtamber.Solver(dtype, **options)
    solver.analyze(system.structure)
    solver.set_values(**system.concatenated(dtype))
    for c, rows in enumerate(system.constraint_sizes):
        for r in range(rows):
            solver.set_active(c, r, active[c][r])
    solver.factor()
    return solver


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
@pytest.mark.parametrize("seed", range(6))
def test_random_steps_end_like_a_fresh_solver(seed, dtype):
    system = RandomSystem(seed, bodies=5 + seed, couplings=seed, compliant=seed % 3)
    other = RandomSystem(seed + 50, bodies=4, couplings=1, compliant=1)
    rng = np.random.default_rng(seed)
    options = dict(threads=1, refinement_steps=1)
    used = kivtamber.Solver(dtype, **options)
    used.analyze(system.structure)
    active = [[True] * rows for rows in system.constraint_sizes]
    b = rng.standard_normal(system.n).astype(dtype)
    for _ in range(8):
        step = int(rng.integers(0, 5))
        if step == 0:  # good values
            used.set_values(**system.concatenated(dtype))
            used.factor()
            used.solve(b)
        elif step == 1:  # non-finite values: the factorization fails, the solve refuses
            arrays = system.concatenated(dtype)
            body = int(rng.integers(0, len(system.body_sizes)))
            first = sum(size * size for size in system.body_sizes[:body])  # M(0, 0) of that body
            arrays["bodies"][first] = [np.nan, np.inf][int(rng.integers(0, 2))]
            used.set_values(**arrays)
            with pytest.raises(kivtamber.FactorizationError):
                used.factor()
            with pytest.raises(RuntimeError):
                used.solve(b)
        elif step == 2:  # switching rows, solved in place or by factoring again
            c = int(rng.integers(0, len(system.constraint_sizes)))
            r = int(rng.integers(0, system.constraint_sizes[c]))
            active[c][r] = bool(rng.integers(0, 2))
            used.set_active(c, r, active[c][r])
            try:
                used.solve(b)
            except RuntimeError:
                pass  # no valid factor yet
        elif step == 3:  # options between steps
            options = dict(threads=int(rng.integers(1, 3)), refinement_steps=int(rng.integers(0, 3)),
                           regularization=float(rng.choice([0.0, 1e-8])))
            used.set_options(**options)
        else:  # another structure and back: every value zero, every row active
            used.analyze(other.structure)
            used.set_values(**other.concatenated(dtype))
            used.factor()
            used.solve(rng.standard_normal(other.n).astype(dtype))
            used.analyze(system.structure)
            active = [[True] * rows for rows in system.constraint_sizes]
    used.set_values(**system.concatenated(dtype))
    used.factor()
    reference = fresh(system, dtype, active, **options)
    np.testing.assert_array_equal(used.solve(b), reference.solve(b))
    B = rng.standard_normal((system.n, 3)).astype(dtype)
    np.testing.assert_array_equal(used.solve(B), reference.solve(B))
    assert used.report()["inertia"] == reference.report()["inertia"]


def test_failed_calls_leave_the_solves_as_they_were():
    system = RandomSystem(7, bodies=6, couplings=2, compliant=1)
    solver = fresh(system, np.float64, [[True] * rows for rows in system.constraint_sizes], check_values=True)
    b = np.linspace(-1.0, 1.0, system.n)
    x = solver.solve(b)
    arrays = system.concatenated()
    bad = dict(arrays, jacobians=np.full_like(arrays["jacobians"], np.nan), bodies=arrays["bodies"] * 2.0)
    calls = [
        lambda: solver.set_values(**bad),                         # the bodies before the NaN are not stored
        lambda: solver.set_body(0, np.full_like(system.M[0], np.inf)),
        lambda: solver.set_body(99, system.M[0]),
        lambda: solver.set_active(99, 0, False),
        lambda: solver.solve(np.full(system.n, np.nan)),
        lambda: solver.set_options(regularization=-1.0),
    ]
    for call in calls:
        with pytest.raises((ValueError, TypeError, RuntimeError)):
            call()
        np.testing.assert_array_equal(solver.solve(b), x)
    solver.factor()  # the values are the ones before the failed calls
    np.testing.assert_array_equal(solver.solve(b), x)
