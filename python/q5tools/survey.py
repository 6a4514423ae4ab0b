"""A survey as read from a field file: electrodes on a line and four-electrode
readings with their transfer resistances."""
from dataclasses import dataclass, field, replace

import numpy as np


@dataclass
class Survey:
    path: str
    ids: np.ndarray           # electrode numbers as the file gives them
    x: np.ndarray             # horizontal position along the line, m
    z: np.ndarray             # elevation, m, positive up
    a: np.ndarray             # C+ electrode number of each reading
    b: np.ndarray             # C-
    m: np.ndarray             # P+
    n: np.ndarray             # P-
    r: np.ndarray             # transfer resistance, ohm
    rel_err: np.ndarray = None  # relative error (fraction) per reading, or None
    err_source: str = ""      # what the error column was: "err" or "Dev."
    lines: np.ndarray = None  # line of the file that each reading came from
    notes: list = field(default_factory=list)

    def __len__(self):
        return len(self.r)

    def select(self, keep):
        """The survey with only the readings where keep is true."""
        keep = np.asarray(keep, bool)
        pick = lambda v: None if v is None else v[keep]
        return replace(self, a=self.a[keep], b=self.b[keep], m=self.m[keep],
                       n=self.n[keep], r=self.r[keep], rel_err=pick(self.rel_err),
                       lines=pick(self.lines), notes=list(self.notes))

    def positions(self, numbers):
        """x, z of the given electrode numbers."""
        index = {int(e): k for k, e in enumerate(self.ids)}
        k = np.array([index[int(e)] for e in numbers], int)
        return self.x[k], self.z[k]


def flat_geometric_factor(xa, za, xb, zb, xm, zm, xn, zn):
    """Geometric factor of a four-electrode reading on the surface of a flat
    homogeneous half-space, from the straight distances between electrodes:
    k = 2 pi / (1/AM - 1/BM - 1/AN + 1/BN)."""
    d = lambda x1, z1, x2, z2: np.hypot(np.asarray(x1) - x2, np.asarray(z1) - z2)
    with np.errstate(divide="ignore"):
        g = (1 / d(xa, za, xm, zm) - 1 / d(xb, zb, xm, zm)
             - 1 / d(xa, za, xn, zn) + 1 / d(xb, zb, xn, zn))
        return 2 * np.pi / g


def quadrupole_key(a, b, m, n):
    """A key that is the same for readings of one quadrupole, whichever way
    round its pairs are written, and the sign that turns the resistance of
    (a, b, m, n) into that of the key's order: swapping A with B or M with N
    changes the sign, exchanging the pairs (reciprocity) does not."""
    variants = []
    for (p, q), s1 in (((a, b), 1), ((b, a), -1)):
        for (u, v), s2 in (((m, n), 1), ((n, m), -1)):
            variants.append(((p, q, u, v), s1 * s2))
            variants.append(((u, v, p, q), s1 * s2))
    return min(variants)
