"""Screening of readings before a run: what q5 cannot use, or should not get
twice, is left out and counted."""
import numpy as np

from .survey import quadrupole_key


def screen(survey, log_data=True):
    """Returns (kept survey, report). The report maps a reason to the file
    lines of the readings left out for it: zero resistance, negative
    resistance (log data only), not a number, repeated quadrupole (the first
    reading of a quadrupole is kept)."""
    reasons = {"zero": [], "negative": [], "not a number": [], "repeated": []}
    keep = np.ones(len(survey), bool)
    seen = set()
    lines = survey.lines if survey.lines is not None else np.arange(1, len(survey) + 1)
    for k in range(len(survey)):
        r = survey.r[k]
        reason = None
        if not np.isfinite(r):
            reason = "not a number"
        elif r == 0:
            reason = "zero"
        elif r < 0 and log_data:
            reason = "negative"
        else:
            key = quadrupole_key(survey.a[k], survey.b[k], survey.m[k], survey.n[k])[0]
            if key in seen:
                reason = "repeated"
            seen.add(key)
        if reason:
            keep[k] = False
            reasons[reason].append(int(lines[k]))
    return survey.select(keep), {k: v for k, v in reasons.items() if v}


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
