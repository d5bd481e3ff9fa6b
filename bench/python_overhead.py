#!/usr/bin/env python3
"""The cost of the Python call path over the C++ solver object, per time step.

One step is what a constraint solver does every frame: set every value from NumPy arrays (set_values),
factor, solve for one right-hand side (into a new array, or with --out into a preallocated one). The same
step is run on the same kivtamber.Solver object from Python and from C++ (Solver._native_steps drives the
C++ object directly with the arrays' storage, timing each step in C++), interleaved in rounds; the figure is
the median Python step over the median C++ step, minus one.

Scenes (built here in NumPy, about 10,000 blocks each by default):
  chain   rigid bodies (6×6 mass blocks) in a chain, ball joints (3 rows) between neighbours;
  weld    the same chain with welded joints (6 rows: 3 linear, 3 angular);
  cloth   a grid of particles (3×3 mass blocks) with distance constraints (1 row) to the right and below.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_overhead.py [--blocks 10000] [--rounds 7]
        [--steps 20] [--dtype float64|float32] [--threads 1] [--wall] [--out]
"""

import argparse
import statistics
import sys
import time

import numpy as np

import kivtamber


def skew(r):
    """[r]×, the cross-product matrix of each row of r: (k, 3) → (k, 3, 3)."""
    S = np.zeros((len(r), 3, 3))
    S[:, 0, 1], S[:, 0, 2], S[:, 1, 2] = -r[:, 2], r[:, 1], -r[:, 0]
    return S - S.transpose(0, 2, 1)


def random_rotations(rng, k):
    Q, R = np.linalg.qr(rng.standard_normal((k, 3, 3)))
    return Q * np.sign(np.diagonal(R, axis1=1, axis2=2))[:, None, :]


def rigid_masses(rng, k):
    """k 6×6 rigid-body mass blocks: m·I3 and the world inertia R·I_body·Rᵀ."""
    R = random_rotations(rng, k)
    inertia = rng.uniform(0.1, 1.0, size=(k, 3))
    M = np.zeros((k, 6, 6))
    M[:, :3, :3] = rng.uniform(1.0, 2.0, size=(k, 1, 1)) * np.eye(3)
    M[:, 3:, 3:] = R @ (inertia[:, :, None] * R.transpose(0, 2, 1))
    return M


def chain(blocks, rows, rng):
    """A chain of rigid bodies; joint 0 holds body 0 to the world, joint k joins bodies k−1 and k."""
    bodies = blocks // 2
    s = kivtamber.Structure()
    for _ in range(bodies):
        s.add_body(6)
    for k in range(bodies):
        s.add_constraint(rows)
        if k > 0:
            s.add_jacobian(k, k - 1)
        s.add_jacobian(k, k)
    M = rigid_masses(rng, bodies)
    r = rng.uniform(-0.5, 0.5, size=(2 * bodies, 3))
    J = np.zeros((2 * bodies, rows, 6))
    J[:, :3, :3] = np.eye(3)
    J[:, :3, 3:] = -skew(r)
    if rows == 6:
        J[:, 3:, 3:] = np.eye(3)
    J[0::2] *= -1.0  # the upper body of each joint (its first Jacobian) enters with the opposite sign
    order = [j for k in range(bodies) for j in ((2 * k, 2 * k + 1) if k > 0 else (2 * k + 1,))]
    return s, M, J[order]


def cloth(blocks, rng):
    """A side × side grid of particles with a distance constraint to the right and one below."""
    side = int((1 + np.sqrt(1 + 3 * blocks)) / 3)
    while 3 * side * side - 2 * side < blocks:
        side += 1
    s = kivtamber.Structure()
    index = np.arange(side * side).reshape(side, side)
    for _ in range(side * side):
        s.add_body(3)
    pairs = [(index[i, j], index[i, j + 1]) for i in range(side) for j in range(side - 1)]
    pairs += [(index[i, j], index[i + 1, j]) for i in range(side - 1) for j in range(side)]
    for c, (p, q) in enumerate(pairs):
        s.add_constraint(1)
        s.add_jacobian(c, int(p))
        s.add_jacobian(c, int(q))
    M = rng.uniform(1.0, 2.0, size=(side * side, 1, 1)) * np.eye(3)
    d = rng.standard_normal((len(pairs), 3))
    d /= np.linalg.norm(d, axis=1, keepdims=True)
    J = np.empty((2 * len(pairs), 1, 3))
    J[0::2, 0], J[1::2, 0] = d, -d
    return s, M, J


def measure(name, structure, M, J, args):
    dtype = np.dtype(args.dtype)
    solver = kivtamber.Solver(dtype, threads=args.threads)
    clock = time.perf_counter if args.wall else time.thread_time
    solver.analyze(structure)
    bodies = np.ascontiguousarray(M, dtype=dtype).reshape(-1)
    jacobians = np.ascontiguousarray(J, dtype=dtype).reshape(-1)
    rhs = np.random.default_rng(1).standard_normal(solver.size).astype(dtype)
    assert bodies.size == solver.body_value_count and jacobians.size == solver.jacobian_value_count

    x = np.empty_like(rhs)

    def python_steps(steps):
        seconds = []
        for _ in range(steps):
            t0 = clock()
            solver.set_values(bodies=bodies, jacobians=jacobians)
            solver.factor()
            solver.solve(rhs, out=x) if args.out else solver.solve(rhs)
            seconds.append(clock() - t0)
        return seconds

    python_steps(3)  # first factor and solve allocate
    py, native = [], []
    for _ in range(args.rounds):
        py += python_steps(args.steps)
        native += solver._native_steps(bodies, jacobians, rhs, args.steps, thread_clock=not args.wall)
    r = solver.report()
    tp, tn = statistics.median(py), statistics.median(native)
    print(f"{name:6s} {r['blocks']:6d} {r['rows']:7d} {r['path']:>12s} {tn * 1e3:9.3f} {tp * 1e3:9.3f} "
          f"{(tp - tn) * 1e6:9.1f} {100 * (tp / tn - 1):+8.2f}%")
    return tp / tn - 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--blocks", type=int, default=10000)
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--steps", type=int, default=20)
    parser.add_argument("--dtype", choices=["float64", "float32"], default="float64")
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--out", action="store_true",
                        help="solve into a preallocated array (solve(b, out=x))")
    parser.add_argument("--wall", action="store_true",
                        help="time by the wall clock (default: the calling thread's processor time, which "
                        "other processes on a busy machine disturb less; meaningful for --threads 1 only)")
    args = parser.parse_args()
    rng = np.random.default_rng(7)
    print(f"per step: set_values + factor + solve{'(out=x)' if args.out else ''}, {args.dtype}, "
          f"threads={args.threads}, "
          f"{'wall clock' if args.wall else 'thread time'}; medians over {args.rounds} × {args.steps} steps")
    print(f"{'scene':6s} {'blocks':>6s} {'rows':>7s} {'path':>12s} {'C++ ms':>9s} {'Python ms':>9s} "
          f"{'extra us':>9s} {'overhead':>9s}")
    worst = max(measure("chain", *chain(args.blocks, 3, rng), args),
                measure("weld", *chain(args.blocks, 6, rng), args),
                measure("cloth", *cloth(args.blocks, rng), args))
    print(f"worst overhead {100 * worst:+.2f}% (bound +10%)")
    return 0 if worst <= 0.10 else 1


if __name__ == "__main__":
    sys.exit(main())
