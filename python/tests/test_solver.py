"""The solver object from Python: values from NumPy in both precisions and memory orders, solves against a
dense reference, switching against a fresh factorization, the report, threads."""

import concurrent.futures

import numpy as np
import pytest
import scipy.sparse as sp

import kivtamber
from conftest import RandomSystem, scaled_residual

TOLERANCE = {np.float64: 1e-13, np.float32: 2e-5}


def analyzed(system, dtype, **options):
    solver = kivtamber.Solver(dtype, **options)
    solver.analyze(system.structure)
    return solver


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
@pytest.mark.parametrize("seed", range(4))
def test_structure_solves_match_dense_reference(seed, dtype):
    system = RandomSystem(seed, bodies=6 + 3 * seed, couplings=seed, compliant=seed % 2)
    solver = analyzed(system, dtype)
    assert solver.size == system.n and solver.num_bodies == len(system.body_sizes)
    assert [solver.constraint_offset(c) for c in range(len(system.constraint_sizes))] == \
        list(system.constraint_offsets[:-1])
    system.load(solver, dtype, order="F" if seed % 2 else "C")
    solver.factor()
    b = system.rng.standard_normal((system.n, 3)).astype(dtype)
    b_before = b.copy()
    X = solver.solve(b)
    x = solver.solve(b[:, 1])
    np.testing.assert_array_equal(b, b_before)
    assert X.dtype == dtype and X.shape == (system.n, 3) and x.shape == (system.n,)
    assert scaled_residual(system.A, X, b) < TOLERANCE[dtype]
    reference = np.linalg.solve(system.A, b.astype(np.float64))
    np.testing.assert_allclose(X, reference, rtol=0, atol=1e3 * TOLERANCE[dtype] * np.abs(reference).max())
    np.testing.assert_array_equal(solver.solve(np.ascontiguousarray(b[:, 1])), x)  # strided = contiguous
    out, inplace = np.empty((system.n, 3), dtype, order="F"), np.asfortranarray(b)
    assert solver.solve(b, out=out) is out and solver.solve(inplace, out=inplace) is inplace
    np.testing.assert_array_equal(out, X)
    np.testing.assert_array_equal(inplace, X)


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_set_values_equals_one_block_setters(dtype):
    system = RandomSystem(11, bodies=10, couplings=4, compliant=2)
    one, bulk = analyzed(system, dtype), analyzed(system, dtype)
    system.load(one, dtype)
    arrays = system.concatenated(dtype)
    assert bulk.body_value_count == arrays["bodies"].size
    bulk.set_values(**arrays)
    one.factor()
    bulk.factor()
    b = np.arange(system.n, dtype=dtype)
    np.testing.assert_array_equal(one.solve(b), bulk.solve(b))


@pytest.mark.parametrize("triangle", ["lower", "upper", "full"])
@pytest.mark.parametrize("fmt", ["csc", "csr", "coo"])
def test_analyze_matrix_in_every_triangle_and_format(triangle, fmt):
    system = RandomSystem(5, bodies=9, couplings=3)
    take = {"lower": sp.tril, "upper": sp.triu, "full": sp.csc_matrix}[triangle]
    A = take(sp.csc_matrix(system.A)).asformat(fmt)
    sizes = system.body_sizes + system.constraint_sizes
    for block_sizes in (None, sizes):
        solver = kivtamber.Solver(np.float64)
        solver.analyze_matrix(A, system.first_constraint_row, block_sizes)
        solver.set_matrix_values(A)
        solver.factor()
        b = np.linspace(-1.0, 1.0, system.n)
        assert scaled_residual(system.A, solver.solve(b), b) < 1e-13
    # With the blocks known, block values can be set one by one (bodies first, then constraints).
    solver.set_block(0, 0, np.ascontiguousarray(system.A[:sizes[0], :sizes[0]]))


def test_report_names_the_analysis_and_the_factorization():
    system = RandomSystem(3, bodies=12)
    solver = analyzed(system, np.float64)
    system.load(solver)
    solver.factor()
    solver.solve(np.ones(system.n))
    r = solver.report()
    assert r["bodies"] == 12 and r["constraints"] == 12 and r["rows"] == system.n
    assert r["ordering"] and r["factor_entries"] > 0 and r["flops"] > 0
    assert r["path"] in ("serial", "multifrontal")
    assert r["inertia"] == (system.first_constraint_row, system.n - system.first_constraint_row, 0)
    assert r["bad_pivot"] is None and solver.bad_pivot() is None and r["factorizations"] == 1
    assert r["residual"] >= 0 and r["smallest_pivot"]["kind"] in ("body", "constraint")
    assert solver.options["refinement_steps"] == 1
    solver.set_options(refinement_steps=3, ordering="natural")
    assert solver.options["refinement_steps"] == 3 and solver.options["ordering"] == "natural"


@pytest.mark.parametrize("switching", ["automatic", "update", "refactor"])
def test_switching_equals_a_fresh_factorization_of_the_active_system(switching):
    system = RandomSystem(7, bodies=10, couplings=2, compliant=0)
    solver = analyzed(system, np.float64, switching=switching)
    system.load(solver)
    solver.factor()
    b = system.rng.standard_normal(system.n)
    for off in ([(2, None), (5, 0)], [(2, None)], []):  # (constraint, row); None = every row
        for c in range(len(system.constraint_sizes)):
            solver.set_constraint_active(c, True)
        inactive = []
        for c, row in off:
            o = system.constraint_offsets[c]
            if row is None:
                solver.set_constraint_active(c, False)
                inactive += range(o, o + system.constraint_sizes[c])
            else:
                solver.set_active(c, row, False)
                inactive.append(o + row)
        assert all(not solver.is_active(c, row or 0) for c, row in off)
        x = solver.solve(b)
        active = np.setdiff1d(np.arange(system.n), inactive)
        fresh = np.linalg.solve(system.A[np.ix_(active, active)], b[active])
        np.testing.assert_allclose(x[active], fresh, rtol=0, atol=1e-10 * np.abs(fresh).max())
        assert not x[inactive].any()


def test_threads_share_nothing_and_one_object_serialises():
    systems = [RandomSystem(seed, bodies=40) for seed in range(4)]
    solvers = [analyzed(s, np.float64) for s in systems]
    for system, solver in zip(systems, solvers):
        system.load(solver)

    def run(k):
        solvers[k].factor()
        return solvers[k].solve(np.ones(systems[k].n))

    serial = [run(k) for k in range(4)]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        threaded = list(pool.map(run, range(4)))
        shared = list(pool.map(lambda _: run(0), range(8)))
    for a, b in zip(serial, threaded):
        np.testing.assert_array_equal(a, b)
    for x in shared:
        np.testing.assert_array_equal(serial[0], x)


def test_analysis_factorization_and_solves_release_the_gil():
    """With a switch interval of minutes, another thread runs only while the calling thread releases the GIL:
    its counter moves during a call exactly when the call released it."""
    import sys
    import threading
    import time

    system = RandomSystem(9, bodies=1500)
    solver, other = kivtamber.Solver(np.float64, threads=1), kivtamber.Solver(np.float64)
    count, stop = [0], [False]

    def counter():
        while not stop[0]:
            count[0] += 1
            time.sleep(0.0001)  # gives the GIL back at once when the main thread wants it

    calls = {"analyze": lambda: other.analyze(system.structure), "factor": solver.factor,
             "solve": lambda: solver.solve(np.ones((system.n, 20)))}
    moved = dict.fromkeys(calls, False)
    interval = sys.getswitchinterval()
    thread = threading.Thread(target=counter)
    thread.start()
    try:
        sys.setswitchinterval(300.0)
        solver.analyze(system.structure)
        system.load(solver)
        for _ in range(10):
            for name, call in calls.items():
                before = count[0]
                call()
                moved[name] |= count[0] > before
            if all(moved.values()):
                break
    finally:
        sys.setswitchinterval(interval)
        stop[0] = True
        thread.join()
    assert all(moved.values()), moved


def test_reanalysis_from_another_thread_never_crashes():
    """One thread analyses the object again and again with two structures while another sets values and
    solves: every call succeeds or raises ValueError / RuntimeError with a message."""
    import threading

    systems = RandomSystem(1, bodies=30), RandomSystem(2, bodies=60)
    solver = kivtamber.Solver(np.float64)
    solver.analyze(systems[0].structure)
    stop, seen = [False], set()

    def reanalyze():
        k = 0
        while not stop[0]:
            system = systems[k % 2]
            k += 1
            solver.analyze(system.structure)
            try:
                system.load(solver)
                solver.factor()
            except (ValueError, RuntimeError) as error:
                seen.add(type(error))

    thread = threading.Thread(target=reanalyze)
    thread.start()
    try:
        for _ in range(500):
            try:
                solver.set_body(0, np.eye(systems[0].body_sizes[0]))
                solver.solve(np.ones(solver.size))
            except (ValueError, RuntimeError) as error:
                assert str(error)
                seen.add(type(error))
    finally:
        stop[0] = True
        thread.join()
