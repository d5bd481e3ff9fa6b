"""Shared machinery of the module's tests: seeded random body/constraint systems with their dense matrices,
the real matrices, and a scaled residual."""

import os
import pathlib

import numpy as np
import pytest

import kivtamber

ROOT = pathlib.Path(__file__).resolve().parents[2]
DATA_DIR = pathlib.Path(os.environ.get("KIVTAMBER_DATA_DIR", ROOT / ".." / "shared" / "data" / "real"))


def scaled_residual(A, x, b):
    """‖b − A·x‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞), the worst over the columns."""
    x = x.reshape(len(x), -1).astype(np.float64)
    b = b.reshape(len(b), -1).astype(np.float64)
    norm_a = np.asarray(abs(A).sum(axis=1)).max()
    r = np.abs(b - np.asarray(A @ x)).max(axis=0)
    return float((r / (norm_a * np.abs(x).max(axis=0) + np.abs(b).max(axis=0))).max())


class RandomSystem:
    """A seeded saddle-point system [M Jᵀ; J −C]: a chain of bodies (sizes 3 or 6) joined by constraints of 1
    to 3 rows (constraint c acts on bodies c and c+1; the last one anchors body 0 alone), some body-body
    couplings and some compliant constraints. M is diagonally dominant (SPD), J has full row rank."""

    def __init__(self, seed, bodies=8, couplings=2, compliant=1):
        rng = np.random.default_rng(seed)
        self.structure = s = kivtamber.Structure()
        self.body_sizes = [int(rng.choice([3, 6])) for _ in range(bodies)]
        for size in self.body_sizes:
            s.add_body(size)
        self.constraint_sizes, self.bodies_of = [], []
        for c in range(bodies):
            acted = [c, c + 1] if c + 1 < bodies else [0]
            soft = c < compliant
            self.constraint_sizes.append(int(rng.integers(1, 4)))
            self.bodies_of.append(acted)
            s.add_constraint(self.constraint_sizes[-1], soft)
            for body in acted:
                s.add_jacobian(c, body)
        pairs = [(int(i), int(j)) for i, j in rng.integers(0, bodies, size=(couplings, 2)) if abs(i - j) > 1]
        self.couplings = sorted(set((min(p), max(p)) for p in pairs))
        for i, j in self.couplings:
            s.add_body_coupling(i, j)
        self.body_offsets = np.concatenate([[0], np.cumsum(self.body_sizes)])
        nb = int(self.body_offsets[-1])
        self.constraint_offsets = nb + np.concatenate([[0], np.cumsum(self.constraint_sizes)])
        self.n = n = int(self.constraint_offsets[-1])
        self.first_constraint_row = nb

        A = np.zeros((n, n))
        self.M, self.J, self.K, self.C = [], [], [], []
        for b, size in enumerate(self.body_sizes):
            R = rng.standard_normal((size, size))
            self.M.append(R @ R.T + 4.0 * size * np.eye(size))
        for i, j in self.couplings:
            self.K.append(0.3 * rng.standard_normal((self.body_sizes[i], self.body_sizes[j])))
        for c, rows in enumerate(self.constraint_sizes):
            for body in self.bodies_of[c]:
                self.J.append(rng.standard_normal((rows, self.body_sizes[body])))
            if c < compliant:
                R = rng.standard_normal((rows, rows))
                self.C.append(0.01 * (R @ R.T) + 0.01 * np.eye(rows))
        for b in range(bodies):
            o = self.body_offsets[b]
            A[o:o + self.body_sizes[b], o:o + self.body_sizes[b]] = self.M[b]
        for (i, j), K in zip(self.couplings, self.K):
            oi, oj = self.body_offsets[i], self.body_offsets[j]
            A[oi:oi + K.shape[0], oj:oj + K.shape[1]] = K
            A[oj:oj + K.shape[1], oi:oi + K.shape[0]] = K.T
        k = 0
        for c, rows in enumerate(self.constraint_sizes):
            oc = self.constraint_offsets[c]
            for body in self.bodies_of[c]:
                ob, J = self.body_offsets[body], self.J[k]
                A[oc:oc + rows, ob:ob + J.shape[1]] = J
                A[ob:ob + J.shape[1], oc:oc + rows] = J.T
                k += 1
            if c < compliant:
                A[oc:oc + rows, oc:oc + rows] = -self.C[c]
        self.A = A
        self.rng = rng

    def load(self, solver, dtype=np.float64, order="C"):
        """Sets every block through the one-block setters, as arrays of `dtype` in memory order `order`."""
        cast = lambda a: np.array(a, dtype=dtype, order=order)
        for b, M in enumerate(self.M):
            solver.set_body(b, cast(M))
        for (i, j), K in zip(self.couplings, self.K):
            solver.set_body_coupling(i, j, cast(K))
        k = 0
        for c in range(len(self.constraint_sizes)):
            for body in self.bodies_of[c]:
                solver.set_jacobian(c, body, cast(self.J[k]))
                k += 1
        for c, C in enumerate(self.C):
            solver.set_compliance(c, cast(C))

    def concatenated(self, dtype=np.float64):
        """The arrays of set_values: each kind's blocks row-major, back to back, in the structure's order."""
        flat = lambda blocks: np.concatenate([np.ravel(a) for a in blocks]).astype(dtype) if blocks else None
        return dict(bodies=flat(self.M), jacobians=flat(self.J), couplings=flat(self.K),
                    compliances=flat(self.C))


def real_matrices():
    """(name, path, n1) of the real matrices present, n1 = body rows (None for the SPD ones)."""
    found = []
    for path in sorted(DATA_DIR.glob("*.mtx*")):
        name = path.name.split(".mtx")[0]
        blocks = DATA_DIR / (name + ".blocks")
        n1 = None
        if blocks.exists():
            for line in blocks.read_text().splitlines():
                if line.startswith("n1"):
                    n1 = int(line.split()[1])
        found.append(pytest.param(name, path, n1, id=name))
    return found


def read_matrix(path):
    """The lower triangle of a symmetric Matrix Market file as CSC, and the full matrix as CSC (mmread
    returns a symmetric file in full)."""
    import scipy.io
    import scipy.sparse as sp

    full = sp.csc_matrix(scipy.io.mmread(str(path)))
    return sp.tril(full).tocsc(), full
