"""Solver.factor(bodies=..., jacobians=..., couplings=..., compliances=...): the one-call step against
set_values followed by factor(), bit for bit, and its checks of dtypes and shapes."""

import re

import numpy as np
import pytest

import kivtamber
from conftest import RandomSystem, scaled_residual

REPORTED = ("path", "threads", "factorizations", "inertia", "regularized",
            "smallest_pivot", "bad_pivot")


def pair(system, dtype, **options):
    solvers = []
    for _ in range(2):
        solver = kivtamber.Solver(dtype, **options)
        solver.analyze(system.structure)
        solvers.append(solver)
    return solvers


def assert_same(step, reference, b):
    for key in REPORTED:
        assert step.report()[key] == reference.report()[key], key
    np.testing.assert_array_equal(step.solve(b), reference.solve(b))


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
@pytest.mark.parametrize("threads", [1, 2])
def test_one_call_equals_set_values_then_factor(dtype, threads):
    system = RandomSystem(5, bodies=300, couplings=20, compliant=40)
    step, reference = pair(system, dtype, threads=threads)
    arrays = system.concatenated(dtype)
    b = system.rng.standard_normal((system.n, 2)).astype(dtype)
    for scale in (1.0, 1.5):  # the second step rewrites every value
        values = {k: (scale * v).astype(dtype) for k, v in arrays.items()}
        step.factor(**values)
        reference.set_values(**values)
        reference.factor()
        assert_same(step, reference, b)
    assert step.report()["path"] == ("serial" if threads == 1 else "multifrontal")
    assert scaled_residual(system.A * 1.5, step.solve(b), b) < (1e-13 if dtype == np.float64 else 1e-4)
    # An array left out keeps the values held.
    step.factor(jacobians=arrays["jacobians"])
    reference.set_values(jacobians=arrays["jacobians"])
    reference.factor()
    assert_same(step, reference, b)


def test_bad_arrays_are_refused_as_set_values_refuses_them():
    system = RandomSystem(2, bodies=10, couplings=2, compliant=2)
    step, reference = pair(system, np.float64, check_values=True)
    arrays = system.concatenated()
    step.factor(**arrays)
    b = np.ones(system.n)
    x = step.solve(b)
    bad = [dict(bodies=arrays["bodies"].astype(np.float32)), dict(jacobians=arrays["jacobians"][:-1]),
           dict(compliances=np.full_like(arrays["compliances"], np.nan))]
    for kwargs in bad:
        with pytest.raises((TypeError, ValueError)) as expected:
            reference.set_values(**kwargs)
        with pytest.raises(expected.type, match="^" + re.escape(str(expected.value)) + "$"):
            step.factor(**kwargs)
        np.testing.assert_array_equal(step.solve(b), x)  # nothing written, the factor still valid
    with pytest.raises(RuntimeError):
        kivtamber.Solver().factor(bodies=np.zeros(0))
