"""A survey as read from a field file: electrodes (on the ground, buried, or
remote) and four-electrode readings with their transfer resistances, and the
half-space geometric factor that judges them."""
from dataclasses import dataclass, field, replace

import numpy as np


@dataclass
class Survey:
    path: str
    ids: np.ndarray           # electrode numbers as the file gives them (remotes after the others)
    x: np.ndarray             # horizontal position along the line, m (NaN: a remote without a place)
    z: np.ndarray             # elevation, m, positive up (NaN: a remote without a place)
    a: np.ndarray             # C+ electrode number of each reading
    b: np.ndarray             # C-
    m: np.ndarray             # P+
    n: np.ndarray             # P-
    r: np.ndarray             # transfer resistance, ohm, with its sign
    rel_err: np.ndarray = None  # relative error (fraction) per reading, or None
    err_source: str = ""      # what the error column was: "err" or "Dev."
    lines: np.ndarray = None  # line of the file that each reading came from
    notes: list = field(default_factory=list)
    depth: np.ndarray = None  # depth of each electrode below the ground surface, m (0 on the surface)
    remote: np.ndarray = None  # True for a remote electrode (far from the line)
    k: np.ndarray = None      # the file's own geometric factor per reading (m), or None
    topography: tuple = None  # (x, z) arrays of surface points the file gives besides its electrodes
    along_ground: bool = False  # x are distances along the ground (a cable), not horizontal positions
    # G and the size of its terms per reading (see halfspace_sum), worked out once; electrodes
    # move only through replace(), which starts without it
    _halfspace: tuple = field(default=None, init=False, repr=False, compare=False)

    def __post_init__(self):
        count = len(self.ids)
        if self.depth is None:
            self.depth = np.zeros(count)
        if self.remote is None:
            self.remote = np.zeros(count, bool)

    def __len__(self):
        return len(self.r)

    def select(self, keep):
        """The survey with only the readings where keep is true."""
        keep = np.asarray(keep, bool)
        pick = lambda v: None if v is None else v[keep]
        out = replace(self, a=self.a[keep], b=self.b[keep], m=self.m[keep],
                      n=self.n[keep], r=self.r[keep], rel_err=pick(self.rel_err),
                      lines=pick(self.lines), k=pick(self.k), notes=list(self.notes))
        if self._halfspace is not None:
            out._halfspace = tuple(v[keep] for v in self._halfspace)
        return out

    def index(self, numbers):
        """Positions in the electrode arrays of the given electrode numbers."""
        where = {int(e): k for k, e in enumerate(self.ids)}
        return np.array([where[int(e)] for e in numbers], int)

    def places(self, numbers):
        """x, z and depth below the surface of the given electrode numbers."""
        k = self.index(numbers)
        return self.x[k], self.z[k], self.depth[k]

    def halfspace(self):
        """G of the half-space factor of every reading and the size of its
        terms (see halfspace_sum)."""
        if self._halfspace is None:
            self._halfspace = halfspace_sum(*(self.places(v) for v in (self.a, self.b, self.m, self.n)))
        return self._halfspace

    def factor(self):
        """Geometric factor K (m, signed) of every reading over a homogeneous
        half-space, rho_a = K R: K = 4 pi / G with G = sum over the pairs
        (C, P) of +-(1/r + 1/r'), r the straight distance and r' that to the
        image of P in the ground surface above both electrodes, r'^2 = r^2 +
        4 d_C d_P (on flat ground the usual image distance; on the surface
        r' = r and K is the familiar 2 pi / (1/AM - 1/BM - 1/AN + 1/BN)). A
        remote without a place (x NaN) stands at infinity: its terms are 0."""
        with np.errstate(divide="ignore"):
            return 4 * np.pi / self.halfspace()[0]

    @property
    def buried(self):
        return (self.depth > 0) & ~self.remote


def halfspace_sum(pa, pb, pm, pn):
    """G of Survey.factor from electrode places (x, z, depth) and the sum of
    the sizes of its four terms, which says how near to cancelling they come."""
    def term(c, p):
        (xc, zc, dc), (xp, zp, dp) = c, p
        r2 = (np.asarray(xc) - xp) ** 2 + (np.asarray(zc) - zp) ** 2
        with np.errstate(divide="ignore", invalid="ignore"):
            t = 1 / np.sqrt(r2) + 1 / np.sqrt(r2 + 4 * np.asarray(dc) * dp)
        return np.where(np.isnan(xc) | np.isnan(xp), 0.0, t)

    terms = [term(pa, pm), term(pb, pm), term(pa, pn), term(pb, pn)]
    return terms[0] - terms[1] - terms[2] + terms[3], sum(np.abs(t) for t in terms)


def attach_remotes(ids, x, z, a, b, m, n):
    """Electrode arrays with a remote electrode wherever a reading names
    electrode 0: one remote current electrode (for 0 in a or b) numbered
    after the others, then one remote potential electrode (0 in m or n).
    Returns ids, x, z, remote and the readings renumbered; remotes have no
    place (NaN) until the import gives them one."""
    ids, x, z = list(ids), list(x), list(z)
    remote = [False] * len(ids)
    quad = [np.array(v, int) for v in (a, b, m, n)]
    top = max(ids, default=0)
    for pair in ((0, 1), (2, 3)):
        if any(np.any(quad[c] == 0) for c in pair):
            top += 1
            ids.append(top)
            x.append(np.nan)
            z.append(np.nan)
            remote.append(True)
            for c in pair:
                quad[c] = np.where(quad[c] == 0, top, quad[c])
    return (np.array(ids), np.array(x, float), np.array(z, float), np.array(remote, bool), *quad)


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
