"""Reader of the Syscal Pro text export (Prosys): a header line naming the
columns, then one reading per line. Prosys writes the header with blanks
or with tabs, sometimes after a few lines of its own, sometimes behind an
empty or '#' index column; a reading starts with the array label, which
may be several words."""
import numpy as np

from .errors import InputError
from .survey import Survey, attach_remotes

NEEDED = ["Spa.1", "Spa.2", "Spa.3", "Spa.4", "Rho", "Dev.", "Vp", "In"]
POSITIONS = NEEDED[:4]
LABEL = "El-array"
HEADER_SEARCH = 30  # lines of a file in which the header may stand


def _number(token):
    try:
        return float(token)
    except ValueError:
        return None


def _fields(text):
    """Header names however the export separates them; a '#' glued to the
    first name belongs to the index column, not to the name."""
    return [t.lstrip("#") for t in text.replace("\t", " ").split()]


def find_header(lines):
    """Index among lines of the Syscal header (naming Spa.1 .. Spa.4), or None."""
    for k, text in enumerate(lines[:HEADER_SEARCH]):
        if all(name in _fields(text) for name in POSITIONS):
            return k
    return None


def read_lines(path):
    """The file's lines; Prosys writes Latin-1, and a UTF-8 mark from an
    editor that saved it again is dropped."""
    with open(path, encoding="latin-1", newline=None) as f:
        text = f.read()
    return text[3:].splitlines() if text.startswith("\xef\xbb\xbf") else text.splitlines()


class _Columns:
    """Where the needed values stand in a reading line. A tab-separated
    header fixes them by position in tab-separated rows (a label with blanks
    is one field); a blank-separated one counts them after the label, whose
    words vary from line to line, so the label's words are skipped."""

    def __init__(self, path, text, number):
        self.path = path
        self.tabbed = "\t" in text
        names = [t.strip().lstrip("#").strip() for t in text.split("\t")] if self.tabbed else _fields(text)
        missing = [c for c in NEEDED if c not in names]
        if missing:
            raise InputError(path, f"the header lacks {', '.join(missing)}", number)
        if self.tabbed:
            self.at = {c: names.index(c) for c in NEEDED}
            return
        # columns ahead of the label (an index, '#' in the header) are one word each
        label = next((k for k, w in enumerate(names) if w == LABEL), None)
        if label is not None:
            self.skip, first = label, label + 1
        else:
            self.skip = first = 1 if text.split()[0] == "#" else 0
        self.at = {c: names.index(c) - first for c in NEEDED}
        early = [c for c in NEEDED if self.at[c] < 0]
        if early:
            raise InputError(path, f"the header names {', '.join(early)} before the array label", number)
        self.width = max(self.at.values()) + 1

    def values(self, text, number):
        if self.tabbed:
            fields = text.split("\t")
            out = []
            for c in NEEDED:
                k = self.at[c]
                v = _number(fields[k]) if k < len(fields) else None
                if v is None:
                    found = f"'{fields[k].strip()}'" if k < len(fields) else "no such column (fields are tab-separated)"
                    raise InputError(self.path, f"expected a number in column {c}, found {found}", number)
                out.append(v)
            return out
        tokens = text.split()
        start = self.skip
        while start < len(tokens) and _number(tokens[start]) is None:
            start += 1
        numbers = []
        for t in tokens[start:start + self.width]:
            v = _number(t)
            if v is None:
                break
            numbers.append(v)
        if len(numbers) < self.width:
            raise InputError(self.path, f"expected {self.width} numbers after the array label, found {len(numbers)}",
                             number)
        return [numbers[self.at[c]] for c in NEEDED]


def is_remote_flag(p):
    """Prosys gives an electrode at infinity a position off the cable: below
    its first position 0 (often -1 spacing), or a run of nines (999, 99999)."""
    if p < 0:
        return True
    if p < 999 or p != int(p):
        return False
    # a long run of nines reads as a round power of ten once it is a float
    digits = len(str(int(p)))
    return any(p == float("9" * k) for k in (digits - 1, digits))


def _flags_note(role, flags):
    where = ", ".join(f"{v:g}" for v in sorted(flags))
    return f"remote {role} electrode written at position{'s' if len(flags) > 1 else ''} {where}"


def read_syscal(path, spacing=None, instrument_spacing=None):
    """Read a Prosys text export. Positions Spa.1..4 are those of A, B, M, N,
    distances along the cable. If the instrument was set to a spacing other
    than the true one, give both: cable positions (and the instrument's Rho)
    are scaled by spacing / instrument spacing. The instrument spacing
    defaults to the smallest step between cable positions in the file."""
    lines = read_lines(path)
    if not lines:
        raise InputError(path, "is empty")
    head = find_header(lines)
    if head is None:
        raise InputError(path, "no Syscal header naming Spa.1 to Spa.4 in its first lines")
    columns = _Columns(path, lines[head], head + 1)

    rows, where = [], []
    for number, text in enumerate(lines[head + 1:], head + 2):
        if not text.strip():
            continue
        row = columns.values(text, number)
        if not np.all(np.isfinite(row[:4])):
            bad = POSITIONS[int(np.argmin(np.isfinite(row[:4])))]
            raise InputError(path, f"the position {bad} is not a finite number", number)
        if not np.isfinite(row[5]):
            raise InputError(path, "the deviation Dev. is not a finite number", number)
        rows.append(row)
        where.append(number)
    if not rows:
        raise InputError(path, "holds no readings")
    data = np.array(rows)
    spa = data[:, :4]
    remote = np.vectorize(is_remote_flag, otypes=[bool])(spa)
    places = np.unique(spa[~remote])
    if len(places) < 2:
        raise InputError(path, "the readings use fewer than two cable positions")
    if instrument_spacing is None:
        instrument_spacing = float(np.min(np.diff(places)))
    if not (np.isfinite(instrument_spacing) and instrument_spacing > 0) or \
            (spacing is not None and not (np.isfinite(spacing) and spacing > 0)):
        raise InputError(path, "electrode spacings must be above 0")
    scale = 1.0 if spacing is None else spacing / instrument_spacing
    number_of = {p: k + 1 for k, p in enumerate(places)}
    quad = [np.array([0 if r else number_of[p] for p, r in zip(spa[:, c], remote[:, c])]) for c in range(4)]
    ids, x, z, is_remote, a, b, m, n = attach_remotes(np.arange(1, len(places) + 1), places * scale,
                                                      np.zeros(len(places)), *quad)
    for k in range(len(rows)):
        if len({a[k], b[k], m[k], n[k]}) < 4:
            raise InputError(path, "a reading uses one electrode twice", where[k])
    survey = Survey(path=str(path), ids=ids, x=x, z=z, a=a, b=b, m=m, n=n, r=None, remote=is_remote,
                    rel_err=np.abs(data[:, 5]) / 100.0, err_source="Dev.", lines=np.array(where),
                    along_ground=True)
    for role, cols in (("current", [0, 1]), ("potential", [2, 3])):
        flags = set(spa[:, cols][remote[:, cols]].tolist())
        if flags:
            survey.notes.append(_flags_note(role, flags))

    rho, vp, current = data[:, 4], data[:, 6], data[:, 7]
    from_rho = current == 0
    with np.errstate(divide="ignore", invalid="ignore"):
        # Vp / In in mV / mA is ohm, with the sign of the potential difference
        r = vp / np.where(from_rho, np.nan, current)
        if from_rho.any():
            # the instrument's Rho holds for its own spacing: Rho * scale is the true rho_a
            r = np.where(from_rho, rho * scale / survey.factor(), r)
            survey.notes.append("transfer resistance from Rho with the half-space factor where the current In"
                                f" is 0 ({int(from_rho.sum())} of {len(r)} readings)")
    survey.r = np.where(np.isfinite(r), r, np.nan)
    if scale != 1.0:
        survey.notes.append(f"cable positions scaled by {scale:g} (spacing {spacing:g} m, "
                            f"{instrument_spacing:g} m set on the instrument)")
    return survey

