"""Reader of the unified data format (.ohm, .dat, .data): a sensor block of
`x z` or `x y z` and a data block whose columns a `#` line names."""
import numpy as np

from .errors import InputError
from .survey import Survey, flat_geometric_factor

KNOWN = {"a", "b", "m", "n", "r", "rhoa", "k", "u", "i", "err", "ip"}


def _lines(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            for number, text in enumerate(f, 1):
                yield number, text.strip()
    except OSError as e:
        raise InputError(path, f"cannot be read ({e.strerror})")


def _count(path, number, text, what):
    head = text.split("#")[0].split()
    if not head:
        raise InputError(path, f"expected the number of {what}", number)
    try:
        value = int(head[0])
    except ValueError:
        raise InputError(path, f"expected the number of {what}, found '{head[0]}'", number)
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


def read_unified(path):
    """Read a unified-format file; returns a Survey with resistances in ohm."""
    lines = [(k, t) for k, t in _lines(path) if t]
    pos = 0

    def take(what):
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
        raise InputError(path, f"the sensor columns {' '.join(names)} name no x", lines[pos - 1][0])
    zcol = names.index("z") if "z" in names else None
    xs, zs = [], []
    for _ in range(n_sensors):
        number, text = take(f"{n_sensors} sensor lines")
        values = _numbers(path, number, text, len(names))
        xs.append(values[names.index("x")])
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
            raise InputError(path, f"the data columns {' '.join(columns)} lack '{need}'", number)
    rows, where = [], []
    for _ in range(n_data):
        number, text = take(f"{n_data} data lines")
        rows.append(_numbers(path, number, text, len(columns)))
        where.append(number)
    data = {c: np.array([row[k] for row in rows]) for k, c in enumerate(lower)}

    ids = np.arange(1, n_sensors + 1)
    quad = {}
    for c in "abmn":
        v = data[c]
        for k in range(len(v)):
            if v[k] != int(v[k]) or not 1 <= v[k] <= n_sensors:
                what = "a remote electrode (0)" if v[k] == 0 else f"{v[k]:g}"
                raise InputError(path, f"electrode {c} is {what}; sensors are numbered 1 to {n_sensors}", where[k])
        quad[c] = v.astype(int)
    x, z = np.array(xs), np.array(zs)
    survey = Survey(path=str(path), ids=ids, x=x, z=z, a=quad["a"], b=quad["b"],
                    m=quad["m"], n=quad["n"], r=None, lines=np.array(where))
    for k in range(n_data):
        electrodes = {quad[c][k] for c in "abmn"}
        if len(electrodes) < 4:
            raise InputError(path, "a reading uses one electrode twice", where[k])

    if "r" in data:
        survey.r = data["r"]
    elif "u" in data and "i" in data:
        survey.r = data["u"] / data["i"]
        survey.notes.append("transfer resistance from u / i")
    elif "rhoa" in data and "k" in data:
        survey.r = data["rhoa"] / data["k"]
        survey.notes.append("transfer resistance from rhoa / k")
    elif "rhoa" in data:
        g = [survey.positions(quad[c]) for c in "abmn"]
        k = flat_geometric_factor(*g[0], *g[1], *g[2], *g[3])
        survey.r = data["rhoa"] / k
        survey.notes.append("transfer resistance from rhoa with the flat half-space factor")
    else:
        raise InputError(path, "the data give none of R, u and i, or rhoa", where[0] - 1)
    if "err" in data:
        survey.rel_err = np.abs(data["err"])
        survey.err_source = "err"
    return survey
