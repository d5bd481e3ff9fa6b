#!/usr/bin/env python3
"""A saddle-point system built with SciPy, solved by kivtamber.solve and by scipy.sparse.linalg.spsolve.

The system is that of a small constrained mechanics problem: a mass-spring network on a side × side grid
(every node a 2-D point, so M is the stiffness plus mass of the springs, symmetric positive definite) whose
nodes on the left edge are pinned and whose pairs of right-edge neighbours are kept level, by constraints J:

        [ M  Jᵀ ] [ u ]   [ f ]
        [ J  0  ] [ λ ] = [ 0 ]

It prints the size, each solver's time (median of a few runs) and scaled residual
‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞), and how far the two solutions are apart.

    PYTHONPATH=build/python /usr/bin/python3 examples/saddle_point.py [side]
"""

import statistics
import sys
import time

import numpy as np
import scipy.sparse as sp
import scipy.sparse.linalg as spla

import kivtamber


def spring_network(side):
    """M: 2·side² rows, a spring along every grid edge (stiffness k·d·dᵀ for its direction d) plus a mass
    term on the diagonal."""
    rng = np.random.default_rng(0)
    node = np.arange(side * side).reshape(side, side)
    edges = np.concatenate([np.stack([node[:, :-1].ravel(), node[:, 1:].ravel()], 1),
                            np.stack([node[:-1, :].ravel(), node[1:, :].ravel()], 1),
                            np.stack([node[:-1, :-1].ravel(), node[1:, 1:].ravel()], 1)])
    d = rng.standard_normal((len(edges), 2))
    d /= np.linalg.norm(d, axis=1, keepdims=True)
    k = rng.uniform(1.0, 10.0, len(edges))
    rows, cols, vals = [], [], []
    for a in range(2):
        for b in range(2):
            kdd = k * d[:, a] * d[:, b]
            for p, q, sign in ((0, 0, 1), (1, 1, 1), (0, 1, -1), (1, 0, -1)):
                rows.append(2 * edges[:, p] + a)
                cols.append(2 * edges[:, q] + b)
                vals.append(sign * kdd)
    n = 2 * side * side
    M = sp.coo_matrix((np.concatenate(vals), (np.concatenate(rows), np.concatenate(cols))), shape=(n, n))
    return (M + 0.01 * sp.identity(n)).tocsc(), node


def constraints(side, node):
    """Pin both coordinates of the left-edge nodes; keep right-edge neighbours level (equal y)."""
    rows, cols, vals = [], [], []
    c = 0
    for i in range(side):
        for a in range(2):
            rows.append(c), cols.append(2 * node[i, 0] + a), vals.append(1.0)
            c += 1
    for i in range(side - 1):
        rows += [c, c]
        cols += [2 * node[i, -1] + 1, 2 * node[i + 1, -1] + 1]
        vals += [1.0, -1.0]
        c += 1
    return sp.csr_matrix((vals, (rows, cols)), shape=(c, 2 * side * side))


def timed(call, runs=5):
    seconds, result = [], None
    for _ in range(runs):
        t0 = time.perf_counter()
        result = call()
        seconds.append(time.perf_counter() - t0)
    return result, statistics.median(seconds)


def scaled_residual(A, x, b):
    return np.abs(b - A @ x).max() / (abs(A).sum(axis=1).max() * np.abs(x).max() + np.abs(b).max())


def main():
    side = int(sys.argv[1]) if len(sys.argv) > 1 else 60
    M, node = spring_network(side)
    J = constraints(side, node)
    A = sp.bmat([[M, J.T], [J, None]], format="csc")  # full symmetric, zero (2,2) block
    b = np.concatenate([np.random.default_rng(1).standard_normal(M.shape[0]), np.zeros(J.shape[0])])
    print(f"saddle-point system: {M.shape[0]} body rows, {J.shape[0]} constraint rows, {A.nnz} entries")

    x, t_ours = timed(lambda: kivtamber.solve(A, b))
    y, t_scipy = timed(lambda: spla.spsolve(A, b))
    print(f"kivtamber.solve            {t_ours * 1e3:8.2f} ms   residual {scaled_residual(A, x, b):.2e}")
    print(f"scipy.sparse.linalg.spsolve {t_scipy * 1e3:7.2f} ms   residual {scaled_residual(A, y, b):.2e}")
    print(f"max |x − y| / max |y| = {np.abs(x - y).max() / np.abs(y).max():.2e}")

    # The same system kept from step to step: analyse once, then only new values, factor, solve.
    solver = kivtamber.Solver(np.float64)
    solver.analyze_matrix(A, M.shape[0])
    solver.set_matrix_values(A)
    solver.factor()
    z, t_step = timed(lambda: (solver.set_matrix_values(A), solver.factor(), solver.solve(b))[2])
    r = solver.report()
    print(f"kivtamber.Solver per step  {t_step * 1e3:8.2f} ms   residual {scaled_residual(A, z, b):.2e}   "
          f"(ordering: {r['ordering']}; factor entries {r['factor_entries']}; inertia {r['inertia']})")


if __name__ == "__main__":
    main()
