"""Arguments converted while another thread uses the same solver. A conversion may run Python code (the type
named in a TypeError, NumPy's own Python code, an option's __float__) or give the GIL away (NumPy
copies a large strided array without it); the object's mutex is never held meanwhile, since a thread
that blocks on it while holding the GIL would deadlock the interpreter. The threaded cases run in a child
interpreter, so that a deadlock fails its test after a timeout instead of hanging the suite."""

import faulthandler
import subprocess
import sys
import threading

import numpy as np
import pytest

import kivtamber
from conftest import RandomSystem

WATCHDOG = 20  # seconds the child may run before it dumps its threads' stacks and exits
TIMEOUT = 60  # seconds before the child is killed (should its watchdog not fire)
REANALYSED = "another thread analysed the solver again during this call"


def run_child(case):
    """Runs the case `case` of this file in a child interpreter; returns what it printed."""
    try:
        done = subprocess.run([sys.executable, __file__, case], capture_output=True, text=True,
                              timeout=TIMEOUT)
    except subprocess.TimeoutExpired as error:
        out = error.stdout.decode() if isinstance(error.stdout, bytes) else error.stdout
        pytest.fail(f"{case}: still running after {TIMEOUT} s (a deadlock); it printed:\n{out}")
    # A deadlocked child is ended by its watchdog, which prints every thread's stack.
    assert done.returncode == 0, f"{case} failed:\n{done.stdout}{done.stderr}"
    return done.stdout


# ---------------------------------------------------------------------------------------------------------
# The child's cases
# ---------------------------------------------------------------------------------------------------------


class Window:
    """A window a conversion opens in the calling thread: it sets `opened`, then waits without the GIL until
    another thread's call returned (`closed`) or 10 s passed."""

    def __init__(self):
        self.opened, self.closed = threading.Event(), threading.Event()

    def wait(self):
        self.opened.set()
        self.closed.wait(10.0)


def unconvertible(window):
    """Not an array: the TypeError names its type, and the type's repr waits in `window`."""

    class Meta(type):
        def __repr__(cls):
            window.wait()
            return "<class 'Unconvertible'>"

    return Meta("Unconvertible", (), {})()


class SlowFloat:
    """A number whose __float__ waits in a window."""

    def __init__(self, window, value):
        self.window, self.value = window, value

    def __float__(self):
        self.window.wait()
        return self.value


def overlap(first, second, window):
    """first() in one thread and, once `window` opened, second() in another. Returns first's exception (None
    if it returned), second's result and whether second() returned while first() ran."""
    out = {"error": None}

    def run_first():
        try:
            first()
        except Exception as error:
            out["error"] = error
        out["overlapped"] = window.closed.is_set()

    def run_second():
        try:
            window.opened.wait()
            out["second"] = second()
        finally:
            window.closed.set()

    threads = [threading.Thread(target=f, daemon=True) for f in (run_first, run_second)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert "second" in out, "the second thread's call failed"
    return out["error"], out["second"], out["overlapped"]


def body_constraint_solver():
    system = RandomSystem(4, bodies=6, couplings=3)
    solver = kivtamber.Solver(np.float64)
    solver.analyze(system.structure)
    system.load(solver)
    solver.factor()
    return system, solver


def case_python_code():
    """Every call that converts an argument, given one whose conversion runs Python code that gives the GIL
    away, while another thread calls short methods of the same object."""
    system, solver = body_constraint_solver()
    M0 = np.ascontiguousarray(system.M[0])
    arrays = system.concatenated()
    A = system.A.copy()
    matrix = kivtamber.Solver(np.float64)
    matrix.analyze_matrix(A, system.first_constraint_row)
    b = np.ones(system.n)
    seconds = [lambda: solver.size, lambda: solver.is_active(0, 0), lambda: solver.set_body(0, M0),
               lambda: solver.options["threads"], lambda: solver.body_offset(1)]
    calls = {
        "set_body": lambda x: solver.set_body(0, x),
        "set_jacobian": lambda x: solver.set_jacobian(0, 0, x),
        "set_body_coupling": lambda x: solver.set_body_coupling(0, 1, x),
        "set_compliance": lambda x: solver.set_compliance(0, x),
        "set_block": lambda x: solver.set_block(0, 0, x),
        "set_values: bodies": lambda x: solver.set_values(bodies=x),
        "set_values: compliances": lambda x: solver.set_values(arrays["bodies"], None, None, x),
        "factor": lambda x: solver.factor(jacobians=x),
        "solve": lambda x: solver.solve(x),
        "solve: out": lambda x: solver.solve(b, out=x),
        "set_scalar_values": lambda x: matrix.set_scalar_values(x),
    }
    for k, (name, call) in enumerate(calls.items()):
        window = Window()
        error, _, overlapped = overlap(lambda: call(unconvertible(window)), seconds[k % len(seconds)], window)
        assert isinstance(error, TypeError), (name, error)
        assert "expected a numpy.ndarray of float64, got <class 'Unconvertible'>" in str(error), (name, error)
        assert overlapped, name
        print("ok", name, flush=True)
    # Nothing was changed by the refused calls: the factor and the values are the ones loaded.
    solver.factor()
    x = solver.solve(b)
    np.testing.assert_allclose(x, np.linalg.solve(system.A, b), rtol=0, atol=1e-10 * np.abs(x).max())
    print("ok unchanged", flush=True)
    # The same for option values.
    window = Window()
    slow = SlowFloat(window, 0.5)
    error, threads, overlapped = overlap(lambda: solver.set_options(threads=1, regularization=slow),
                                         lambda: solver.options["threads"], window)
    assert error is None and overlapped and threads == 0, (error, threads)
    assert solver.options["regularization"] == 0.5 and solver.options["threads"] == 1
    print("ok set_options", flush=True)


def big_solver(bodies=50_000):
    """A solver of `bodies` free bodies of size 6 (36 values each), analysed."""
    structure = kivtamber.Structure()
    for _ in range(bodies):
        structure.add_body(6)
    solver = kivtamber.Solver(np.float64)
    solver.analyze(structure)
    return structure, solver


def case_strided_copy():
    """set_values given a large strided array, which NumPy copies without the GIL, while another thread calls
    short methods of the same object. With a switch interval of minutes the other thread runs only when the
    first one gives the GIL away."""
    structure, solver = big_solver()
    count = solver.body_value_count
    values = np.ones((count, 2))[:, 0]  # strided: copied into C order
    sys.setswitchinterval(300.0)
    overlaps = 0
    for attempt in range(20):
        window = Window()
        error, size, overlapped = overlap(lambda: (window.opened.set(), solver.set_values(bodies=values)),
                                          lambda: solver.size, window)
        assert error is None and size == 6 * 50_000, error
        overlaps += overlapped
        if overlaps == 3:
            break
    assert overlaps > 0, "the second call never ran during a copy"
    print("ok overlaps", overlaps, flush=True)


def case_reanalysis():
    """Another thread analyses the object again while set_values copies its array without the GIL: the call
    fails with a RuntimeError naming it, writes nothing, and the object holds the new structure, usable."""
    structure, solver = big_solver()
    values = np.ones((solver.body_value_count, 2))[:, 0]
    small = RandomSystem(6, bodies=7, couplings=2)
    sys.setswitchinterval(300.0)
    refused = 0
    for attempt in range(20):
        solver.analyze(structure)
        window = Window()
        error, _, overlapped = overlap(lambda: (window.opened.set(), solver.set_values(bodies=values)),
                                       lambda: solver.analyze(small.structure), window)
        if error is not None:
            assert isinstance(error, RuntimeError) and str(error) == "set_values: " + REANALYSED, error
            refused += 1
            break
    sys.setswitchinterval(0.005)
    assert refused, "the second thread never analysed during the copy"
    assert solver.size == small.n and solver.num_bodies == len(small.body_sizes)
    solver.set_values(**small.concatenated())
    solver.factor()
    b = np.linspace(-1.0, 1.0, small.n)
    x = solver.solve(b)
    np.testing.assert_allclose(x, np.linalg.solve(small.A, b), rtol=0, atol=1e-10 * np.abs(x).max())
    print("ok reanalysis", flush=True)


# ---------------------------------------------------------------------------------------------------------
# The tests
# ---------------------------------------------------------------------------------------------------------


def test_conversions_running_python_code_let_other_threads_call_the_object():
    out = run_child("python_code")
    for name in ("set_body", "set_values: compliances", "set_scalar_values", "unchanged", "set_options"):
        assert f"ok {name}\n" in out


def test_a_strided_copy_without_the_gil_lets_other_threads_call_the_object():
    assert "ok overlaps" in run_child("strided_copy")


def test_reanalysis_during_a_conversion_is_refused_by_name_and_leaves_the_solver_usable():
    assert "ok reanalysis" in run_child("reanalysis")


def test_set_options_changes_the_options_named_and_a_refused_call_changes_nothing():
    solver = kivtamber.Solver(np.float64, regularization=0.25, ordering="natural")
    solver.set_options(threads=2)
    before = solver.options
    assert before["regularization"] == 0.25 and before["ordering"] == "natural" and before["threads"] == 2
    for bad in (dict(threads=3, regularization=-1.0), dict(threads=3, ordering="random"), dict(threads=-3)):
        with pytest.raises(ValueError):
            solver.set_options(**bad)
        assert solver.options == before


def test_errors_found_under_the_lock_keep_their_messages():
    system, solver = body_constraint_solver()
    nb, nc = len(system.body_sizes), len(system.constraint_sizes)
    cases = [
        (lambda: solver.body_offset(nb), f"body_offset: unknown body {nb} ({nb} bodies)"),
        (lambda: solver.constraint_offset(-1),
         f"constraint_offset: unknown constraint -1 ({nc} constraints)"),
        (lambda: solver.is_active(0, 9),
         f"is_active: constraint 0 has {system.constraint_sizes[0]} rows, not row 9"),
        (lambda: solver.set_block(nb + nc, 0, np.eye(3)),
         f"set_block: unknown block {nb + nc} ({nb + nc} blocks)"),
        (lambda: solver.set_scalar_values(np.ones(3)),
         "set_scalar_values: the solver holds a body/constraint structure, not a matrix given to "
         "analyze_matrix"),
        (lambda: kivtamber.Solver(np.float64).set_scalar_values(np.ones(3)),
         "set_scalar_values: the solver holds no structure yet (call analyze or analyze_matrix first)"),
    ]
    for call, message in cases:
        with pytest.raises((ValueError, RuntimeError)) as error:
            call()
        assert str(error.value) == message


if __name__ == "__main__":
    faulthandler.dump_traceback_later(WATCHDOG, exit=True)
    globals()["case_" + sys.argv[1]]()
