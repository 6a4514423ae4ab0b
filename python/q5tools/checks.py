"""Screening of readings before a run: what q5 cannot use, or should not get
twice, is left out and counted."""
import numpy as np

from . import reciprocal
from .survey import quadrupole_key


def polarity(survey):
    """+1 or -1 where the reading's sign agrees or disagrees with its
    geometric factor for the real geometry (the file's own factor where it
    gives one), 0 where that cannot be told: the half-space factor's four
    terms cancel to within 2 % of their size, closer than topography or a
    buried electrode lets the half-space formula promise its sign."""
    if survey.k is not None:
        return np.where(np.isfinite(survey.k), np.sign(survey.k) * np.sign(survey.r), 0)
    g, size = survey.halfspace()
    return np.where(np.abs(g) >= 0.02 * size, np.sign(g) * np.sign(survey.r), 0)


def screen(survey, log_data=True):
    """Returns (kept survey, report, pairing). The report maps a reason to the
    file lines of the readings left out for it: not a number, zero
    resistance, reversed polarity (log data only: the sign disagrees with the
    geometric factor's), repeated quadrupole (the first reading is kept).
    Reciprocal pairs are left in, both readings: pair them afterwards."""
    reasons = {"not a number": [], "zero": [], "reversed polarity": [], "repeated": []}
    lines = survey.lines if survey.lines is not None else np.arange(1, len(survey) + 1)
    keep = np.ones(len(survey), bool)
    sign = polarity(survey)
    for k in range(len(survey)):
        r = survey.r[k]
        reason = None
        if not np.isfinite(r):
            reason = "not a number"
        elif r == 0:
            reason = "zero"
        elif log_data and sign[k] < 0:
            reason = "reversed polarity"
        if reason:
            keep[k] = False
            reasons[reason].append(int(lines[k]))
    kept = survey.select(keep)
    pairing = reciprocal.pair_readings(kept)
    if len(pairing.repeats):
        reasons["repeated"] = [int(v) for v in kept.lines[pairing.repeats]]
        rest = np.ones(len(kept), bool)
        rest[pairing.repeats] = False
        kept = kept.select(rest)
        pairing = reciprocal.pair_readings(kept)
    return kept, {k: v for k, v in reasons.items() if v}, pairing


def merge_pairs(survey, pairing, limit, report):
    """Each reciprocal pair becomes one reading, the first, with the mean of
    the two as its value; pairs that disagree by more than `limit` (a
    fraction of their mean) are left out, both readings, under their own
    reason in the report. Returns the survey and the pairs kept."""
    if not len(pairing):
        return survey, pairing
    ok = reciprocal.apply_limit(pairing.mean, pairing.discrepancy, limit)
    out = np.ones(len(survey), bool)
    out[pairing.second] = False
    out[pairing.first[~ok]] = False
    if (~ok).any():
        bad = np.concatenate([pairing.first[~ok], pairing.second[~ok]])
        report[f"reciprocal discrepancy over {limit * 100:g} %"] = sorted(int(v) for v in survey.lines[bad])
    r = survey.r.copy()
    r[pairing.first[ok]] = pairing.mean[ok]
    rel = survey.rel_err
    if rel is not None:
        rel = rel.copy()
        rel[pairing.first] = 0.5 * (rel[pairing.first] + rel[pairing.second])
    merged = survey.select(out)   # keeps the geometric factors worked out for the screening
    merged.r = r[out]
    merged.rel_err = None if rel is None else rel[out]
    kept = reciprocal.Pairing(pairing.first[ok], pairing.second[ok], pairing.mean[ok],
                              pairing.discrepancy[ok], pairing.repeats)
    return merged, kept


def describe(path, report, kept):
    """Console lines telling what screening left out."""
    left = sum(len(v) for v in report.values())
    if not left:
        return [f"{path}: {kept} readings, none left out"]
    parts = ", ".join(f"{len(v)} {k}" for k, v in report.items())
    out = [f"{path}: {kept} readings kept, {left} left out ({parts})"]
    for reason, lines in report.items():
        shown = ", ".join(str(n) for n in lines[:10])
        more = f" and {len(lines) - 10} more" if len(lines) > 10 else ""
        out.append(f"  {reason}: line{'s' if len(lines) > 1 else ''} {shown}{more}")
    return out


def match_reference(reference, survey):
    """For each reading of survey, the transfer resistance of the same
    quadrupole in reference, turned to the reading's electrode order; NaN
    where the reference lacks the quadrupole."""
    table = {}
    for k in range(len(reference)):
        key, sign = quadrupole_key(reference.a[k], reference.b[k], reference.m[k], reference.n[k])
        table.setdefault(key, sign * reference.r[k])
    out = np.full(len(survey), np.nan)
    for k in range(len(survey)):
        key, sign = quadrupole_key(survey.a[k], survey.b[k], survey.m[k], survey.n[k])
        if key in table:
            out[k] = sign * table[key]
    return out
