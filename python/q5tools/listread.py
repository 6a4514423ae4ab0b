"""q5's free-format reading, line for line: which lines one read statement of
q5 consumes and what it makes of their items.

A read statement starts at the next unread line and takes its items in turn
(blanks, tabs, commas and line ends separate; r*v repeats a value; r* and
two commas in a row leave items unchanged; a slash ends the list). When the
list is full, or at a bad item, the rest of that line is skipped. q5-batch
needs this to find where one block of protocol.dat ends and the next begins,
and to read Q5.in as far as the measurement lines' layout."""
import re

OK, EOF, BAD = 0, -1, 1

_BLANKS = b" \t\r"
_SEPARATORS = b" \t\r,/"
_SPECIAL = re.compile(rb"[+-]?(inf|infinity|nan(\([0-9a-z_]*\))?)", re.IGNORECASE)
# mantissa, then an exponent after E or D, or a bare signed one
_REAL = re.compile(rb"([+-]?(?:[0-9]+\.?[0-9]*|\.[0-9]+))(?:[eEdD]([+-]?[0-9]+)|([+-][0-9]+))?")


def parse_int(token):
    """A 32-bit integer item (optional sign, digits), or None."""
    m = re.fullmatch(rb"([+-]?)([0-9]+)", token)
    if not m:
        return None
    value = int(m.group(2))
    if m.group(1) == b"-":
        value = -value
    if not -2147483648 <= value <= 2147483647:
        return None
    return value


def parse_real(token):
    """A real item: [sign] digits [. digits] or [sign] . digits, then
    optionally an exponent with E or D (either case) or a bare signed
    exponent ("1.5-3" is 1.5e-3); also the words for infinity and
    not-a-number. None if it is not one."""
    if _SPECIAL.fullmatch(token):
        return float(token.split(b"(")[0])
    m = _REAL.fullmatch(token)
    if not m:
        return None
    exponent = m.group(2) or m.group(3)
    return float(m.group(1) + (b"e" + exponent if exponent else b""))


class LineFile:
    """The lines of one file as q5 reads them, with their byte offsets, so
    that a range of lines can be copied as it stands."""

    def __init__(self, data, name):
        self.name = name
        self.data = data
        self.starts = []   # byte offset of each line
        self.ends = []     # offset after its line end
        pos = 0
        while pos < len(data):
            nl = data.find(b"\n", pos)
            end = len(data) if nl < 0 else nl + 1
            self.starts.append(pos)
            self.ends.append(end)
            pos = end
        self.next = 0      # index of the next unread line

    def text(self, index):
        """Line `index` without its line end and a carriage return before it."""
        line = self.data[self.starts[index]:self.ends[index]]
        if line.endswith(b"\n"):
            line = line[:-1]
        if line.endswith(b"\r"):
            line = line[:-1]
        return line

    def fetch(self):
        """The next line and its index, or (None, None) at end of file."""
        if self.next >= len(self.starts):
            return None, None
        index = self.next
        self.next += 1
        return self.text(index), index

    def span(self, first, last):
        """Bytes of lines first..last (inclusive) as they stand in the file."""
        if first > last:
            return b""
        return self.data[self.starts[first]:self.ends[last]]


class ReadResult:
    """What one read statement gave: status, values (None where an item was
    left unchanged), the failing token, and the lines it consumed."""

    def __init__(self):
        self.status = OK
        self.values = []
        self.bad_token = None
        self.bad_index = None     # which item of the list was bad
        self.first_line = None
        self.last_line = None


_PLAIN_INT = re.compile(rb"[+-]?[0-9]{1,10}")


def _read_plain_line(f, kinds, result, want_values):
    """The common case, quickly: every item of the statement written plainly
    on the next line (no commas, slashes, repeats or special words). False
    when the line is not such a line; then nothing has been consumed."""
    if f.next >= len(f.starts):
        return False
    line = f.text(f.next)
    if any(c in line for c in (b",", b"/", b"*", b"\x0b", b"\x0c")):
        return False
    tokens = line.split()
    if len(tokens) < len(kinds):
        return False
    for kind, token in zip(kinds, tokens):
        if kind == "i":
            if not _PLAIN_INT.fullmatch(token) or parse_int(token) is None:
                return False
        elif not _REAL.fullmatch(token):
            return False
    if want_values:
        result.values = [parse_int(t) if k == "i" else parse_real(t) for k, t in zip(kinds, tokens)]
    else:
        result.values = [None] * len(kinds)
    result.first_line = result.last_line = f.next
    f.next += 1
    return True


def read_items(f, kinds, want_values=True):
    """One free-format read statement of the items `kinds` ('i' integer,
    'r' real) from LineFile f, as q5 makes it. With want_values False the
    values may be left out (only the lines consumed and the status count)."""
    result = ReadResult()
    if kinds and _read_plain_line(f, kinds, result, want_values):
        return result
    line, index = b"", None
    p = 0
    need_separator = False
    repeat_left, repeat_token = 0, None

    def consume_line():
        nonlocal line, index, p
        line, index = f.fetch()
        if line is None:
            return False
        if result.first_line is None:
            result.first_line = index
        result.last_line = index
        p = 0
        return True

    def next_token():
        """('value', bytes) | ('null',) | ('slash',) | ('eof',) | ('bad', bytes)"""
        nonlocal p, need_separator, repeat_left, repeat_token
        if repeat_left > 0:
            repeat_left -= 1
            return ("null",) if repeat_token == b"" else ("value", repeat_token)
        while True:
            while index is not None and p < len(line) and line[p] in _BLANKS:
                p += 1
            if index is None or p == len(line):
                if not consume_line():
                    return ("eof",)
                continue
            c = line[p:p + 1]
            if c == b",":
                p += 1
                if need_separator:
                    need_separator = False
                    continue
                return ("null",)
            if c == b"/":
                return ("slash",)
            begin = p
            while p < len(line) and line[p] not in _SEPARATORS:
                p += 1
            need_separator = True
            token = line[begin:p]
            star = token.find(b"*")
            if star < 0:
                return ("value", token)
            count = token[:star]
            if not count or not count.isdigit() or int(count) > 2147483647 or int(count) < 1:
                return ("bad", token)
            repeat_token = token[star + 1:]
            repeat_left = int(count) - 1
            return ("null",) if repeat_token == b"" else ("value", repeat_token)

    if not kinds:
        if not consume_line():
            result.status = EOF
        return result
    for kind in kinds:
        tok = next_token()
        if tok[0] == "eof":
            result.status = EOF
            break
        if tok[0] == "bad":
            result.status, result.bad_token = BAD, tok[1]
            result.bad_index = len(result.values)
            break
        if tok[0] == "slash":
            break
        if tok[0] == "null":
            result.values.append(None)
            continue
        value = parse_int(tok[1]) if kind == "i" else parse_real(tok[1])
        if value is None:
            result.status, result.bad_token = BAD, tok[1]
            result.bad_index = len(result.values)
            break
        result.values.append(value)
    result.values += [None] * (len(kinds) - len(result.values))
    return result


def read_line(f, length):
    """q5's text-line read: the next whole line, cut to `length` characters
    (bytes), and its index; (None, None) at end of file."""
    text, index = f.fetch()
    if text is None:
        return None, None
    return text[:length], index
