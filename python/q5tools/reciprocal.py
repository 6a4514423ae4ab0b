"""Reciprocal readings and the error model they give. By reciprocity a
quadrupole measures the same transfer resistance with its current and
potential pairs exchanged, so the disagreement of a reading and its
reciprocal shows the noise of the survey: its spread against |R| gives the
two error terms (ohm and fraction) that q5 weights the data with."""
from dataclasses import dataclass

import numpy as np

from .survey import quadrupole_key

MAD_TO_STD = 1.4826   # a Gaussian's std over its median absolute deviation
PAIRS_PER_BIN = 20
MIN_PAIRS = 10
# the MAD of a few Gaussian values falls short of their std (Croux and
# Rousseeuw 1992): these factors undo it for 2..9 values, n / (n - 0.8) above
SMALL_SAMPLE = {2: 1.196, 3: 1.495, 4: 1.363, 5: 1.206, 6: 1.200, 7: 1.140, 8: 1.129, 9: 1.107}


@dataclass
class Pairing:
    first: np.ndarray        # index of the reading kept (the earlier one in the file)
    second: np.ndarray       # index of its reciprocal
    mean: np.ndarray         # mean resistance of the two, ohm, in the first reading's order and sign
    discrepancy: np.ndarray  # first minus second, both in the first reading's order, ohm
    repeats: np.ndarray      # indices of readings that repeat a quadrupole in the same direction

    def __len__(self):
        return len(self.first)


@dataclass
class ErrorModel:
    a: float                 # ohm
    b: float                 # fraction of |R|
    bins_r: np.ndarray       # median |R| of each bin, ohm
    bins_e: np.ndarray       # std of one reading in each bin, ohm
    pairs: int
    method: str


def pair_readings(survey):
    """Reciprocal pairs of a survey in file order: for each quadrupole the
    first reading of one direction with the first of the other; further
    readings of a quadrupole in a direction it already has are repeats."""
    seen = {}        # key -> {normal: (index, sign)}
    pairs, repeats = [], []
    for i, quad in enumerate(zip(survey.a, survey.b, survey.m, survey.n)):
        quad = tuple(int(e) for e in quad)
        key, sign = quadrupole_key(*quad)
        # which way the current flows: through the key's current pair or its potential pair
        normal = {quad[0], quad[1]} == {key[0], key[1]}
        directions = seen.setdefault(key, {})
        if normal in directions:
            repeats.append(i)
            continue
        directions[normal] = (i, sign)
        other = directions.get(not normal)
        if other is not None:
            pairs.append((other, (i, sign)))
    pairs.sort()
    first = np.array([p[0][0] for p in pairs], int)
    second = np.array([p[1][0] for p in pairs], int)
    # the sign that carries the second reading into the first one's order
    turn = np.array([p[0][1] * p[1][1] for p in pairs], float)
    r = np.asarray(survey.r, float)
    r1, r2 = r[first], r[second] * turn
    return Pairing(first, second, (r1 + r2) / 2, r1 - r2, np.array(sorted(repeats), int))


def _bin_count(pairs):
    count = int(round(pairs / PAIRS_PER_BIN))
    return max(count, 3) if pairs >= 30 else max(count, 2)


def _robust_std(values):
    n = len(values)
    small = SMALL_SAMPLE.get(n, n / (n - 0.8) if n > 9 else 1.0)
    return small * MAD_TO_STD * np.median(np.abs(values - np.median(values)))


def fit_error_model(r_abs, discrepancy, bins=None):
    """The error e = a + b |R| of one reading from reciprocal pairs (|mean R|
    and discrepancy of each), or None with fewer than MIN_PAIRS pairs or no
    spread at all. Two readings each of std e disagree with std sqrt(2) e.
    bins: number of bins of equal count (default about 20 pairs each)."""
    r_abs = np.abs(np.asarray(r_abs, float))
    d = np.asarray(discrepancy, float)
    ok = np.isfinite(r_abs) & np.isfinite(d)
    r_abs, d = r_abs[ok], d[ok]
    if len(r_abs) < MIN_PAIRS:
        return None
    count = min(bins or _bin_count(len(r_abs)), len(r_abs))
    order = np.argsort(r_abs, kind="stable")
    groups = np.array_split(order, count)
    r_bin = np.array([np.median(r_abs[g]) for g in groups])
    e_bin = np.array([_robust_std(d[g]) for g in groups]) / np.sqrt(2)
    n_bin = np.array([len(g) for g in groups], float)
    # a bin of identical discrepancies (instrument resolution) claims no
    # error at all and would pin the line; the others decide it
    use = e_bin > 0
    if not use.any():
        return None
    a, b, held = _fit(r_bin[use], e_bin[use], n_bin[use])
    method = (f"a + b|R| fitted to {len(r_abs)} reciprocal pairs: {count} bins of equal count, robust std "
              f"1.4826 MAD / sqrt 2 in each, least squares relative to the line")
    if held:
        method += f" ({held} held at 0)"
    return ErrorModel(float(a), float(b), r_bin, e_bin, int(len(r_abs)), method)


def _fit(r, e, n):
    """The line through the bins, each weighted by its count over the square
    of its error: a misfit relative to the error. The bins' own errors
    favour bins that came out low and pull the line down (some 15 % with 20
    pairs a bin), so after a first fit the weights come from the line."""
    a, b, held = _line(r, e, n / e ** 2)
    for _ in range(50):
        line = a + b * r
        if not np.all(line > 0):
            break
        before = (a, b)
        a, b, held = _line(r, e, n / line ** 2)
        if np.allclose((a, b), before, rtol=1e-10, atol=0):
            break
    return a, b, held


def _line(r, e, w):
    """a, b >= 0 of the weighted least-squares line e = a + b r, and which
    term the clamp held at zero (None, "a" or "b")."""
    def misfit(a, b):
        return float(np.sum(w * (e - a - b * r) ** 2))

    only_a = (np.sum(w * e) / np.sum(w), 0.0)
    if not np.any(r > 0):
        return *only_a, "b"
    only_b = (0.0, np.sum(w * e * r) / np.sum(w * r * r))
    if len(r) >= 2 and np.ptp(r) > 0:
        design = np.column_stack([np.ones_like(r), r]) * np.sqrt(w)[:, None]
        a, b = np.linalg.lstsq(design, e * np.sqrt(w), rcond=None)[0]
        if a >= 0 and b >= 0:
            return a, b, None
        if a < 0 <= b:
            return *only_b, "a"
        if b < 0 <= a:
            return *only_a, "b"
    # one bin (or no spread of |R|) fits either term exactly; a relative
    # error is q5's usual assumption
    if misfit(*only_b) <= misfit(*only_a):
        return *only_b, "a"
    return *only_a, "b"


def quadrature_weights(model, r_abs):
    """q5's a_wgt and b_wgt for the linear model a + b|R|: q5 adds the two in
    quadrature, sqrt(a_wgt^2 + (b_wgt R)^2), which is smaller by a factor
    between 1 and sqrt 2. Both terms are raised by the median of that factor
    over the readings, so that the typical reading keeps its error and none
    is off by more than sqrt 2. Returns a_wgt, b_wgt and the factor."""
    r_abs = np.abs(np.asarray(r_abs, float))
    r_abs = r_abs[np.isfinite(r_abs)]
    linear = model.a + model.b * r_abs
    quadrature = np.hypot(model.a, model.b * r_abs)
    ratio = linear[quadrature > 0] / quadrature[quadrature > 0]
    c = float(np.median(ratio)) if len(ratio) else 1.0
    return c * model.a, c * model.b, c


def apply_limit(mean, discrepancy, limit):
    """Which pairs to keep, from their mean resistances and discrepancies:
    those whose discrepancy is at most limit (a fraction) of their mean.
    Two readings of 0 agree."""
    d = np.abs(discrepancy)
    mean = np.abs(mean)
    with np.errstate(divide="ignore", invalid="ignore"):
        relative = np.where(d == 0, 0.0, d / mean)
    return relative <= limit
