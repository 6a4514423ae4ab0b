"""Reader of Res2DInv data files: the standard arrays (types 1 to 7), whose
lines give one place x, the spacing a and the factor n, and the general array
(type 11), whose lines give the place of every electrode; both may end with a
topography section. Numbers are separated by commas or blanks, and whatever
follows the numbers of a line is commentary."""
import math
import re

import numpy as np

from .errors import InputError
from .survey import Survey, attach_remotes
from .topography import apply_topography, horizontal

NUMBER = re.compile(r"[+-]?(?:(?:\d+\.?\d*|\.\d+)(?:[eEdD][+-]?\d+)?|nan|inf|infinity)", re.I)
FAR = 1e8  # m: no line is longer; beyond it a place is a typing error (and squares overflow)
RHOA_NOTE = ("transfer resistance from the apparent resistivity with the half-space factor"
             " (remote electrodes at infinity)")
MEASURE_LINE = "Type of measurement (0=app. resistivity,1=resistance)"

# name, whether the line carries n, and the offsets (in units of a, from x)
# of C1, C2, P1, P2 as a function of n; None is an electrode at infinity
STANDARD = {
    1: ("Wenner alpha", False, lambda n: (0, 3, 1, 2)),
    2: ("pole-pole", False, lambda n: (0, None, 1, None)),
    3: ("dipole-dipole", True, lambda n: (1, 0, 1 + n, 2 + n)),
    4: ("Wenner beta", False, lambda n: (1, 0, 2, 3)),
    5: ("Wenner gamma", False, lambda n: (0, 2, 1, 3)),
    # a negative n lays the potential dipole on the other side of C1
    6: ("pole-dipole", True, lambda n: (0, None, n, n + 1 if n > 0 else n - 1)),
    7: ("Wenner-Schlumberger", True, lambda n: (0, 2 * n + 1, n, n + 1)),
}
ROLES = ("C1", "C2", "P1", "P2")
GENERAL_ROLES = {4: ("C1", "C2", "P1", "P2"), 3: ("C1", "P1", "P2"), 2: ("C1", "P1")}


class Line:
    """One line of the file: its number, text, and the numbers it begins with."""

    def __init__(self, number, text):
        self.number, self.text = number, text.strip()
        self.tokens = [t for t in re.split(r"[,\s]+", self.text) if t]
        self.numbers = []
        for token in self.tokens:
            if not NUMBER.fullmatch(token):
                break
            # Fortran writes its double-precision exponent with a D
            self.numbers.append(float(token.replace("d", "e").replace("D", "E")))

    @property
    def is_text(self):
        return not self.numbers

    def whole(self, k=0):
        """The k-th number as an int, or None if it is not a whole number."""
        if k >= len(self.numbers):
            return None
        if re.fullmatch(r"[+-]?\d+", self.tokens[k]):
            return int(self.tokens[k])  # exactly, however long
        v = self.numbers[k]
        return int(v) if math.isfinite(v) and v.is_integer() else None

    @property
    def single_integer(self):
        return len(self.numbers) == 1 and self.whole() is not None

    def shown(self):
        return self.text if len(self.text) <= 40 else self.text[:37] + "..."


class Cursor:
    """The non-blank lines after the title, taken one by one."""

    def __init__(self, path, lines):
        self.path, self.pos = path, 0
        self.lines = [Line(k, t) for k, t in lines if t.strip()]
        self.last = self.lines[-1].number if self.lines else 1

    def peek(self, ahead=0):
        k = self.pos + ahead
        return self.lines[k] if k < len(self.lines) else None

    def take(self, what):
        if self.pos >= len(self.lines):
            raise InputError(self.path, f"the file ends before {what}", self.last)
        self.pos += 1
        return self.lines[self.pos - 1]

    def fail(self, line, message):
        return InputError(self.path, message, line.number)

    def integer(self, what, allowed=None, least=None):
        line = self.take(what)
        # a second number means a data line stands where this line is missing
        value = line.whole() if len(line.numbers) == 1 else None
        if value is None:
            raise self.fail(line, f"expected {what}, found '{line.shown()}'")
        if allowed is not None and value not in allowed:
            raise self.fail(line, f"expected {what}, found {value}")
        if least is not None and value < least:
            raise self.fail(line, f"{what} must be at least {least}, found {value}")
        return value

    def numbers(self, line, names):
        """The first len(names) numbers of a line, all finite."""
        if len(line.numbers) < len(names):
            found = len(line.numbers)
            rest = line.tokens[found:]
            after = f" before '{rest[0]}'" if rest else ""
            raise self.fail(line, f"expected {len(names)} numbers ({', '.join(names)}), found {found}{after}")
        for name, token, v in zip(names, line.tokens, line.numbers):
            if not math.isfinite(v):
                raise self.fail(line, f"{name} is not a finite number: '{token}'")
        return line.numbers[:len(names)]


def _read_lines(path):
    with open(path, encoding="latin-1", newline=None) as f:
        # only the newline ends a line: a stray form feed or NEL in a title
        # must not shift the line numbers the messages give
        return list(enumerate(f.read().split("\n"), 1))


def _header(cur):
    """Unit electrode spacing and array type (lines 2 and 3)."""
    line = cur.take("the unit electrode spacing")
    if len(line.numbers) != 1:
        raise cur.fail(line, f"expected the unit electrode spacing, found '{line.shown()}'")
    spacing = line.numbers[0]
    if not (0 < spacing <= FAR):
        raise cur.fail(line, f"the unit electrode spacing must be a number above 0, found '{line.tokens[0]}'")
    line = cur.take("the array type")
    kind = line.whole() if len(line.numbers) == 1 else None
    if kind is None:
        raise cur.fail(line, f"expected the array type, found '{line.shown()}'")
    if kind not in STANDARD and kind != 11:
        raise cur.fail(line, f"unknown array type {kind}; known are 1 to 7 and 11")
    return spacing, kind


def _ip_and_errors(cur, notes):
    """The IP flag with its three lines, then the optional error lines;
    returns (ip, error type or None)."""
    ip = cur.integer("the IP flag (0 or 1)", (0, 1))
    if ip:
        line = cur.take("the name of the IP quantity")
        if not line.is_text:
            raise cur.fail(line, "expected the name of the IP quantity (such as Chargeability), "
                                 f"found '{line.shown()}'")
        cur.take("the unit of the IP values")
        cur.take("the IP delay and integration times")
        notes.append("IP values ignored")
    line = cur.peek()
    if line is None or not line.is_text or "error estimate" not in line.text.lower():
        return ip, None
    cur.take("")
    if cur.peek() is not None and cur.peek().is_text:
        cur.take("")  # "Type of error estimate (0=same unit as data)"
    kind = cur.integer("the type of error estimate (0 or 1)", (0, 1))
    notes.append("errors read " + ("in the unit of the data" if kind == 0 else "in percent"))
    return ip, kind


def _where(x, d, general):
    return f"x {x:g}" + (f", depth {d:g}" if general else "")


def _check_places(cur, line, roles, places, general):
    """Refuses places out of range and electrodes of one reading on one spot;
    returns the places rounded to 1e-6 m (so that a place written twice is one
    electrode) and the shortest distance between them."""
    keys = []
    for role, place in zip(roles, places):
        if place is None:
            keys.append(None)
            continue
        x, d = place
        if not (abs(x) <= FAR and abs(d) <= FAR):
            raise cur.fail(line, f"{role} would stand at {_where(x, d, general)}, beyond {FAR:g} m")
        # + 0.0 turns -0.0 into 0.0 so that both name one place
        keys.append((round(x, 6) + 0.0, round(d, 6) + 0.0))
    shortest = math.inf
    for i in range(4):
        for j in range(i + 1, 4):
            if keys[i] is None or keys[j] is None:
                continue
            if keys[i] == keys[j]:
                raise cur.fail(line, f"{roles[i]} and {roles[j]} stand at one place ({_where(*keys[i], general)})")
            shortest = min(shortest, math.hypot(keys[i][0] - keys[j][0], keys[i][1] - keys[j][1]))
    return keys, shortest


def _standard(cur, kind, notes):
    name, with_n, offsets = STANDARD[kind]
    notes.append(f"{name} array (type {kind})")
    count = cur.integer("the number of data points", least=1)
    # the newer layout has a line for the type of x-location before the IP
    # flag; the older one has only the flag, and x is then the first electrode
    if all(cur.peek(k) is not None and cur.peek(k).single_integer for k in (0, 1)):
        middle = cur.integer("the type of x-location (0 first electrode, 1 mid-point)", (0, 1)) == 1
        notes.append("x is the mid-point of the electrodes not at infinity" if middle
                     else "x is the first electrode")
    else:
        middle = False
        notes.append("x is the first electrode (no x-location line)")
    ip, err_kind = _ip_and_errors(cur, notes)
    names = ["x", "a"] + (["n"] if with_n else []) + ["rhoa"]
    names += (["ip"] if ip else []) + (["error"] if err_kind is not None else [])
    records = []
    for i in range(count):
        line = cur.take(f"data point {i + 1} of {count}")
        values = cur.numbers(line, names)
        x, a = values[0], values[1]
        n = values[2] if with_n else 1.0
        if a <= 0:
            raise cur.fail(line, f"the electrode spacing a must be above 0, found {a:g}")
        if with_n and kind == 6 and n == 0:
            raise cur.fail(line, "n must not be 0")
        if with_n and kind != 6 and n <= 0:
            raise cur.fail(line, f"n must be above 0, found {n:g}")
        off = offsets(n)
        finite = [o for o in off if o is not None]
        shift = (min(finite) + max(finite)) / 2 if middle else 0.0
        places = [None if o is None else (x + a * (o - shift), 0.0) for o in off]
        keys, shortest = _check_places(cur, line, ROLES, places, False)
        value = values[3 if with_n else 2]
        error = values[-1] if err_kind is not None else None
        records.append((keys, shortest, value, error, line.number))
    return records, False, err_kind, None


def _general(cur, notes):
    sub = cur.integer("the sub-array type")
    notes.append(f"general array (type 11, sub-array type {sub})")
    line = cur.take(f"the line '{MEASURE_LINE}'")
    if not line.is_text:
        raise cur.fail(line, f"expected the line '{MEASURE_LINE}', found '{line.shown()}'")
    resistance = cur.integer("the type of measurement (0 apparent resistivity, 1 resistance)", (0, 1)) == 1
    count = cur.integer("the number of data points", least=1)
    xloc = cur.integer("the type of x-location (0 or 1 horizontal, 2 along the ground)", (0, 1, 2))
    along = xloc == 2
    notes.append("positions are distances along the ground" if along else "positions are horizontal distances")
    ip, err_kind = _ip_and_errors(cur, notes)
    value_name = "resistance" if resistance else "rhoa"
    records = []
    for i in range(count):
        line = cur.take(f"data point {i + 1} of {count}")
        k = line.whole()
        if k not in GENERAL_ROLES:
            first = line.tokens[0] if line.tokens else ""
            raise cur.fail(line, f"expected the number of electrodes (2, 3 or 4) first, found '{first}'")
        roles = GENERAL_ROLES[k]
        names = ["electrodes"] + [f"{r} {c}" for r in roles for c in "xz"] + [value_name]
        names += (["ip"] if ip else []) + (["error"] if err_kind is not None else [])
        values = cur.numbers(line, names)
        given = {r: (values[1 + 2 * j], values[2 + 2 * j]) for j, r in enumerate(roles)}
        for r in roles:
            if given[r][1] < 0:
                raise cur.fail(line, f"the depth z of {r} is negative ({given[r][1]:g}); "
                                     "z is measured down from the ground surface")
        places = [given.get(r) for r in ROLES]
        keys, shortest = _check_places(cur, line, ROLES, places, True)
        error = values[-1] if err_kind is not None else None
        records.append((keys, shortest, values[1 + 2 * k], error, line.number))
    return records, along, err_kind, resistance


def _topography(cur, count):
    """The optional topography section and the zero lines that end the file;
    returns (type, positions, heights) or None."""
    line = cur.peek()
    if line is None:
        return None
    cur.take("")
    if line.numbers and not any(line.numbers):
        kind = 0
    elif line.single_integer and line.whole() in (1, 2):
        kind = line.whole()
    else:
        points = f"{count} data point" + ("s" if count != 1 else "")
        raise cur.fail(line, f"expected the topography type (0, 1 or 2) after {points}, found '{line.shown()}'")
    section = None
    if kind:
        points = cur.integer("the number of topography points", least=1)
        pos, height = [], []
        for i in range(points):
            line = cur.take(f"topography point {i + 1} of {points}")
            p, h = cur.numbers(line, ["position", "height"])
            if not (abs(p) <= FAR and abs(h) <= FAR):
                raise cur.fail(line, f"the topography point ({p:g}, {h:g}) lies beyond {FAR:g} m")
            if pos and p <= pos[-1]:
                raise cur.fail(line, f"the topography positions must increase; {p:g} follows {pos[-1]:g}")
            # along the ground a step cannot climb more than its own length
            if kind == 2 and pos and abs(h - height[-1]) > p - pos[-1] + 1e-9:
                raise cur.fail(line, f"the ground rises {abs(h - height[-1]):g} m over "
                                     f"{p - pos[-1]:g} m of distance along it")
            pos.append(p)
            height.append(h)
        section = (kind, np.array(pos), np.array(height))
        # the number of the point where the first electrode stands: the
        # positions already say it
        if cur.peek() is not None and cur.peek().single_integer:
            cur.take("")
    while cur.peek() is not None:
        line = cur.take("")
        if line.is_text or any(line.numbers):
            after = "the topography" if section else "the data"
            raise cur.fail(line, f"unexpected line after {after}: '{line.shown()}'")
    return section


def _survey(path, records, along, err_kind, resistance, notes):
    keys = sorted({k for rec in records for k in rec[0] if k is not None})
    number = {k: i + 1 for i, k in enumerate(keys)}
    quad = [[0 if k is None else number[k] for k in rec[0]] for rec in records]
    depth = np.array([k[1] for k in keys])
    ids, x, z, remote, a, b, m, n = attach_remotes(
        np.arange(1, len(keys) + 1), [k[0] for k in keys], 0.0 - depth, *np.array(quad).T)
    depth = np.concatenate([depth, np.zeros(int(remote.sum()))])
    value = np.array([rec[2] for rec in records])
    lines = np.array([rec[4] for rec in records])
    survey = Survey(path=str(path), ids=ids, x=x, z=z, a=a, b=b, m=m, n=n, r=value.copy(),
                    lines=lines, notes=notes, depth=depth, remote=remote, along_ground=along)
    if not resistance:
        k = survey.factor()
        shortest = np.array([rec[1] for rec in records])
        with np.errstate(divide="ignore", invalid="ignore"):
            null = ~(np.abs(4 * np.pi / k) * shortest >= 1e-9)
        if np.any(null):
            raise InputError(path, "the electrodes give no voltage over a uniform ground (no geometric "
                                   "factor), so the apparent resistivity gives no resistance",
                             int(lines[np.argmax(null)]))
        survey.r = value / k
        notes.append(RHOA_NOTE)
    if err_kind is not None:
        error = np.abs(np.array([rec[3] for rec in records]))
        with np.errstate(divide="ignore", invalid="ignore"):
            # a value of 0 has no relative error to speak of
            relative = np.where(value == 0, np.inf, error / np.abs(value))
        survey.rel_err = relative if err_kind == 0 else error / 100
        survey.err_source = "error"
    return survey


def read_res2dinv(path):
    """Read a Res2DInv data file (standard arrays 1 to 7, general array 11)
    into a Survey: electrodes are the distinct places in the order of x, then
    depth; electrodes at infinity become remotes without a place."""
    lines = _read_lines(path)
    if not any(t.strip() for _, t in lines):
        raise InputError(path, "is empty")
    cur = Cursor(path, lines[1:])
    spacing, kind = _header(cur)
    notes = [f"unit electrode spacing {spacing:g} m"]
    if kind == 11:
        records, along, err_kind, resistance = _general(cur, notes)
    else:
        records, along, err_kind, resistance = _standard(cur, kind, notes)
    section = _topography(cur, len(records))
    if kind != 11 and section is not None:
        # the standard arrays give x in the coordinate of the topography
        along = section[0] == 2
    survey = _survey(path, records, along, err_kind, resistance, notes)
    if section is None:
        return survey
    topo, pos, height = section
    notes.append(f"topography: {len(pos)} points, heights at "
                 + ("distances along the ground" if topo == 2 else "horizontal distances"))
    if along and topo == 1:
        # electrodes along the ground, points horizontal: measure the points
        # along the ground too, starting where the first one stands
        pos = pos[0] + np.concatenate([[0.0], np.cumsum(np.hypot(np.diff(pos), np.diff(height)))])
    elif not along and topo == 2:
        pos = horizontal(pos, height, path)
    return apply_topography(survey, pos, height, along_ground=along, path=path)


def looks_like_res2dinv(path):
    """True for a file whose line 1 is a title, line 2 one positive number
    (the unit electrode spacing) and line 3 one known array type."""
    try:
        with open(path, encoding="latin-1") as f:
            f.readline()
            head = []
            for _ in range(50):
                text = f.readline()
                if not text:
                    break
                if text.strip():
                    head.append(Line(0, text))
                    if len(head) == 2:
                        break
    except (OSError, ValueError, TypeError):
        return False
    if len(head) < 2 or len(head[0].numbers) != 1 or not head[1].single_integer:
        return False
    return 0 < head[0].numbers[0] <= FAR and head[1].whole() in (*STANDARD, 11)
