"""Reader of the Syscal Pro text export (Prosys): one header line naming the
columns, then one reading per line after a multi-word array label."""
import numpy as np

from .errors import InputError
from .survey import Survey, flat_geometric_factor

NEEDED = ["Spa.1", "Spa.2", "Spa.3", "Spa.4", "Rho", "Dev.", "Vp", "In"]


def _number(token):
    try:
        return float(token)
    except ValueError:
        return None


def read_syscal(path, spacing=None, instrument_spacing=None):
    """Read a Prosys text export. Positions Spa.1..4 are those of A, B, M, N.
    If the instrument was set to a spacing other than the true one, give both:
    positions (and the instrument's Rho) are scaled by spacing / instrument
    spacing. The instrument spacing defaults to the smallest step between
    electrode positions in the file."""
    try:
        with open(path, encoding="latin-1", newline=None) as f:
            lines = f.read().splitlines()
    except OSError as e:
        raise InputError(path, f"cannot be read ({e.strerror})")
    if not lines:
        raise InputError(path, "is empty")
    header = lines[0].split()
    if not header or header[0] != "El-array":
        raise InputError(path, "expected a header line beginning with 'El-array'", 1)
    missing = [c for c in NEEDED if c not in header]
    if missing:
        raise InputError(path, f"the header lacks {', '.join(missing)}", 1)
    col = {c: header.index(c) - 1 for c in NEEDED}
    width = max(col.values()) + 1

    rows, where = [], []
    for number, text in enumerate(lines[1:], 2):
        tokens = text.split()
        if not tokens:
            continue
        start = 0
        while start < len(tokens) and _number(tokens[start]) is None:
            start += 1
        values = []
        for t in tokens[start:start + width]:
            v = _number(t)
            if v is None:
                break
            values.append(v)
        if len(values) < width:
            raise InputError(path, f"expected {width} numbers after the array label, found {len(values)}", number)
        rows.append([values[col[c]] for c in NEEDED])
        where.append(number)
    if not rows:
        raise InputError(path, "holds no readings")
    data = np.array(rows)
    spa = data[:, :4]
    places = np.unique(spa)
    if len(places) < 2:
        raise InputError(path, "all readings use one electrode position")
    if instrument_spacing is None:
        instrument_spacing = float(np.min(np.diff(places)))
    if instrument_spacing <= 0 or (spacing is not None and spacing <= 0):
        raise InputError(path, "electrode spacings must be above 0")
    scale = 1.0 if spacing is None else spacing / instrument_spacing
    ids = np.arange(1, len(places) + 1)
    number_of = {p: k + 1 for k, p in enumerate(places)}
    quad = [np.array([number_of[p] for p in spa[:, c]]) for c in range(4)]
    for k in range(len(rows)):
        if len({q[k] for q in quad}) < 4:
            raise InputError(path, "a reading uses one electrode twice", where[k])
    vp, current = data[:, 6], data[:, 7]
    survey = Survey(path=str(path), ids=ids, x=places * scale, z=np.zeros(len(places)),
                    a=quad[0], b=quad[1], m=quad[2], n=quad[3], r=None,
                    rel_err=np.abs(data[:, 5]) / 100.0, err_source="Dev.",
                    lines=np.array(where))
    if np.all(current != 0):
        survey.r = vp / current
    else:
        g = [survey.positions(q) for q in quad]
        survey.r = data[:, 4] * scale / flat_geometric_factor(*g[0], *g[1], *g[2], *g[3])
        survey.notes.append("transfer resistance from Rho with the flat half-space factor (a current In of 0)")
    if scale != 1.0:
        survey.notes.append(f"positions scaled by {scale:g} (spacing {spacing:g} m, {instrument_spacing:g} m set on the instrument)")
    return survey


def looks_like_syscal(path):
    try:
        with open(path, encoding="latin-1") as f:
            first = f.readline().split()
    except OSError:
        return False
    return bool(first) and first[0] == "El-array"
