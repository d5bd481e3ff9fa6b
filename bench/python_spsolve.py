#!/usr/bin/env python3
"""kivtamber.solve(A, b) against scipy.sparse.linalg.spsolve on the real matrices.

Both get the same full symmetric CSC matrix (spsolve's own format) and the same right-hand side; the times
are medians over interleaved runs of the whole call (for kivtamber: reading the matrix, the analysis, the
factorization, the solve and its refinement; a fresh solver every call), by the wall clock and by the
processor time of the process (all threads; less disturbed by other processes on a busy machine). The
residual is ‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞). A second kivtamber column (processor time) gives the body rows
of the .blocks file (first_constraint_row=n1) instead of reading them off the diagonal.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_spsolve.py [--data DIR] [--runs 7]
"""

import argparse
import os
import pathlib
import statistics
import sys
import time

import numpy as np
import scipy.io
import scipy.sparse as sp
import scipy.sparse.linalg as spla

import kivtamber


def residual(A, x, b):
    return float(np.abs(b - A @ x).max() / (abs(A).sum(axis=1).max() * np.abs(x).max() + np.abs(b).max()))


def median_time(call, runs):
    seconds, result = [], None
    for _ in range(runs):
        t0 = time.perf_counter()
        result = call()
        seconds.append(time.perf_counter() - t0)
    return result, statistics.median(seconds)


def main():
    root = pathlib.Path(__file__).resolve().parents[1]
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    data = os.environ.get("KIVTAMBER_DATA_DIR", root / ".." / "shared" / "data" / "real")
    parser.add_argument("--data", default=data)
    parser.add_argument("--runs", type=int, default=7)
    args = parser.parse_args()
    paths = sorted(pathlib.Path(args.data).glob("*.mtx*"))
    if not paths:
        print(f"no matrices in {args.data}", file=sys.stderr)
        return 1
    print(f"{'matrix':42s} {'n':>6s} {'spsolve ms':>10s} {'ours ms':>8s} {'speedup':>7s} "
          f"{'cpu: spsolve':>12s} {'ours':>8s} {'speedup':>7s} {'res spsolve':>11s} {'res ours':>9s} "
          f"{'n1: ms':>8s} {'res':>8s}  ordering / regularized")
    slower = worse = 0
    for path in paths:
        name = path.name.split(".mtx")[0]
        A = sp.csc_matrix(scipy.io.mmread(str(path)))  # a symmetric file is read in full
        b = np.random.default_rng(1).standard_normal(A.shape[0])
        n1 = None
        blocks = path.parent / (name + ".blocks")
        if blocks.exists():
            n1 = int(next(l.split()[1] for l in blocks.read_text().splitlines() if l.startswith("n1")))
        times = {"spsolve": [], "ours": [], "n1": []}
        cpu = {"spsolve": [], "ours": [], "n1": []}
        for _ in range(args.runs):  # interleaved, so that a slow spell of the machine hits every column
            for key in times:
                if key == "n1" and n1 is None:
                    continue
                c0 = time.process_time()
                t0 = time.perf_counter()
                if key == "spsolve":
                    y = spla.spsolve(A, b)
                elif key == "ours":
                    x, report = kivtamber.solve(A, b, return_report=True)
                else:
                    z = kivtamber.solve(A, b, first_constraint_row=n1)
                times[key].append(time.perf_counter() - t0)
                cpu[key].append(time.process_time() - c0)
        t = {k: statistics.median(v) if v else float("nan") for k, v in times.items()}
        c = {k: statistics.median(v) if v else float("nan") for k, v in cpu.items()}
        rs, ro = residual(A, y, b), residual(A, x, b)
        rn = residual(A, z, b) if n1 is not None else float("nan")
        slower += c["ours"] >= c["spsolve"]
        worse += ro > 10 * rs
        print(f"{name:42s} {A.shape[0]:6d} {t['spsolve'] * 1e3:10.2f} {t['ours'] * 1e3:8.2f} "
              f"{t['spsolve'] / t['ours']:6.2f}x {c['spsolve'] * 1e3:12.2f} {c['ours'] * 1e3:8.2f} "
              f"{c['spsolve'] / c['ours']:6.2f}x {rs:11.1e} {ro:9.1e} {c['n1'] * 1e3:8.2f} {rn:8.1e}  "
              f"{report['ordering']} / {report['regularized']}")
    print(f"slower than spsolve (processor time) on {slower}, residual above 10x spsolve's on {worse} of "
          f"{len(paths)} matrices")
    return 0


if __name__ == "__main__":
    sys.exit(main())
