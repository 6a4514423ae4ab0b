"""Reader of the unified data format (.ohm, .dat, .data): a sensor block of
`x z` or `x y z` and a data block whose columns a `#` line names. Sensor 0
in a reading is an electrode at infinity."""
import numpy as np

from .errors import InputError
from .survey import Survey, attach_remotes


def read_lines(path):
    """The file's non-blank lines as (line number, stripped text)."""
    with open(path, encoding="utf-8-sig", errors="replace") as f:
        return [(number, text.strip()) for number, text in enumerate(f, 1) if text.strip()]


def leading_count(text):
    """The integer that starts a count line ('38# Number of sensors'), or None."""
    head = text.split("#")[0].split()
    if not head:
        return None
    try:
        return int(head[0])
    except ValueError:
        return None


def _count(path, number, text, what):
    value = leading_count(text)
    if value is None:
        head = text.split("#")[0].split()
        raise InputError(path, f"expected the number of {what}" + (f", found '{head[0]}'" if head else ""), number)
    if value < 1:
        raise InputError(path, f"the number of {what} must be at least 1, found {value}", number)
    return value


def _names(text):
    return text.lstrip("#").replace(",", " ").split()


def _numbers(path, number, text, width):
    tokens = text.split("#")[0].split()
    if len(tokens) < width:
        raise InputError(path, f"expected {width} columns, found {len(tokens)}", number)
    try:
        return [float(t) for t in tokens[:width]]
    except ValueError as e:
        raise InputError(path, f"not a number: {str(e).split(': ')[-1]}", number)


def _others_range(v):
    """For each entry, the least and greatest of the other entries."""
    order = np.argsort(v, kind="stable")
    low, high = np.full(len(v), v[order[0]]), np.full(len(v), v[order[-1]])
    low[order[0]], high[order[-1]] = v[order[1]], v[order[-2]]
    return low, high


def far_sensors(x, z):
    """Sensors standing far from the line: each farther from every other
    sensor than the line of the others is long (the diagonal of the box
    around them), with at least three others. Found one at a time, so that
    a far sensor does not stretch the line that judges the next."""
    far = np.zeros(len(x), bool)
    while np.count_nonzero(~far) >= 4:
        keep = np.flatnonzero(~far)
        px, pz = x[keep], z[keep]
        (xlo, xhi), (zlo, zhi) = _others_range(px), _others_range(pz)
        length = np.hypot(xhi - xlo, zhi - zlo)
        # the farthest corner of the others' box is no nearer than the nearest of them
        corner = np.hypot(np.maximum(abs(px - xlo), abs(px - xhi)), np.maximum(abs(pz - zlo), abs(pz - zhi)))
        found = None
        for i in np.flatnonzero(corner > length):
            gap = np.hypot(px - px[i], pz - pz[i])
            gap[i] = np.inf
            if gap.min() > length[i]:
                found = keep[i]
                break
        if found is None:
            break
        far[found] = True
    return far


def read_unified(path):
    """Read a unified-format file; returns a Survey with resistances in ohm."""
    lines = read_lines(path)
    pos = 0

    def take(what):
        # counts are only believed as far as the lines go: nothing is sized by them
        nonlocal pos
        if pos >= len(lines):
            raise InputError(path, f"ends before the {what}")
        pos += 1
        return lines[pos - 1]

    while pos < len(lines) and lines[pos][1].startswith("#"):
        pos += 1
    number, text = take("number of sensors")
    n_sensors = _count(path, number, text, "sensors")
    names = ["x", "z"]
    if pos < len(lines) and lines[pos][1].startswith("#"):
        names = [s.lower() for s in _names(take("sensor columns")[1])]
    if "x" not in names:
        raise InputError(path, f"the sensor columns {' '.join(names) or '(none)'} name no x", lines[pos - 1][0])
    xcol = names.index("x")
    zcol = names.index("z") if "z" in names else None
    xs, zs = [], []
    for _ in range(n_sensors):
        number, text = take(f"{n_sensors} sensor lines")
        values = _numbers(path, number, text, len(names))
        if not np.all(np.isfinite(values)):
            raise InputError(path, "a sensor position is not a finite number", number)
        xs.append(values[xcol])
        zs.append(values[zcol] if zcol is not None else 0.0)

    number, text = take("number of data")
    n_data = _count(path, number, text, "data")
    number, text = take("data column names")
    if not text.startswith("#"):
        raise InputError(path, "expected a '#' line naming the data columns", number)
    columns = _names(text)
    lower = [c.lower() for c in columns]
    for need in "abmn":
        if need not in lower:
            raise InputError(path, f"the data columns {' '.join(columns) or '(none)'} lack '{need}'", number)
    rows, where = [], []
    for _ in range(n_data):
        number, text = take(f"{n_data} data lines")
        rows.append(_numbers(path, number, text, len(columns)))
        where.append(number)
    table = np.array(rows)
    data = {c: table[:, k] for k, c in enumerate(lower)}

    quad = {}
    for c in "abmn":
        v = data[c]
        bad = ~np.isfinite(v) | (v != np.round(v)) | (v < 0) | (v > n_sensors)
        if bad.any():
            k = int(np.argmax(bad))
            raise InputError(path, f"electrode {c} is {v[k]:g}; sensors are numbered 1 to {n_sensors}"
                             " (0 for a remote electrode)", where[k])
        quad[c] = v.astype(int)
    ids, x, z, remote, a, b, m, n = attach_remotes(np.arange(1, n_sensors + 1), xs, zs,
                                                  *(quad[c] for c in "abmn"))
    for k in range(n_data):
        if len({a[k], b[k], m[k], n[k]}) < 4:
            raise InputError(path, "a reading uses one electrode twice", where[k])
    survey = Survey(path=str(path), ids=ids, x=x, z=z, a=a, b=b, m=m, n=n, r=None, remote=remote,
                    lines=np.array(where))
    for role, pair in (("current", "ab"), ("potential", "mn")):
        if any(np.any(quad[c] == 0) for c in pair):
            survey.notes.append(f"remote {role} electrode: electrode 0 in {' or '.join(pair)}")
    placed = ~remote
    far = far_sensors(x[placed], z[placed])
    for k in np.flatnonzero(far):
        survey.notes.append(f"sensor {ids[placed][k]} at x = {x[placed][k]:g} m, z = {z[placed][k]:g} m"
                            " stands far from the line: taken as a remote electrode")
    survey.remote[np.flatnonzero(placed)[far]] = True

    if "k" in data:
        survey.k = np.where(np.isfinite(data["k"]), data["k"], np.nan)
    with np.errstate(divide="ignore", invalid="ignore"):
        if "r" in data:
            r = data["r"]
        elif "u" in data and "i" in data:
            r = data["u"] / data["i"]
            survey.notes.append("transfer resistance from u / i")
        elif "rhoa" in data and "k" in data:
            r = data["rhoa"] / data["k"]
            survey.notes.append("transfer resistance from rhoa / k")
        elif "rhoa" in data:
            r = data["rhoa"] / survey.factor()
            survey.notes.append("transfer resistance from rhoa with the half-space factor")
        else:
            raise InputError(path, "the data give none of R, u and i, or rhoa", where[0] - 1)
    survey.r = np.where(np.isfinite(r), r, np.nan)
    if "err" in data:
        bad = ~np.isfinite(data["err"])
        if bad.any():
            raise InputError(path, "the error err is not a finite number", where[int(np.argmax(bad))])
        survey.rel_err = np.abs(data["err"])
        survey.err_source = "err"
    return survey
