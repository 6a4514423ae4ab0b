"""One entry for every field file: the kind is told by the content, since
instruments and programs write any extension (.txt, .dat, .csv)."""
from . import syscal, unified
from .errors import InputError

KINDS = "a unified data file, a Syscal Pro export or a Res2DInv file"


def _res2dinv():
    """The Res2DInv reader's two entries, or None where it is not installed."""
    try:
        from .res2dinv import looks_like_res2dinv, read_res2dinv
    except ImportError:
        return None
    return looks_like_res2dinv, read_res2dinv


def _first_data_line(lines):
    """The first line that is not blank and not a '#' comment, as (number, text)."""
    return next(((k, t) for k, t in lines if not t.startswith("#")), None)


def kind_of(path):
    """'syscal', 'unified', 'res2dinv', or an InputError for none of them."""
    text = syscal.read_lines(path)
    if syscal.find_header(text) is not None:
        return "syscal"
    lines = [(k, t.strip()) for k, t in enumerate(text, 1) if t.strip()]
    first = _first_data_line(lines)
    if first is None:
        raise InputError(path, "is empty" if not lines else f"holds only comments; not {KINDS}")
    counted = unified.leading_count(first[1]) is not None
    following = next((t for k, t in lines if k > first[0]), "")
    # a count of sensors, then the '#' line naming their columns
    if counted and following.startswith("#"):
        return "unified"
    res2dinv = _res2dinv()
    if res2dinv and res2dinv[0](path):
        return "res2dinv"
    if counted:
        return "unified"  # a sensor block without its column names: x z
    raise InputError(path, f"not {KINDS}", first[0])


def read_survey(path, spacing=None, instrument_spacing=None):
    """Read a field file of any of the kinds. spacing and instrument_spacing
    rescale a Syscal Pro export set up with the wrong spacing."""
    kind = kind_of(path)
    if kind == "syscal":
        return syscal.read_syscal(path, spacing, instrument_spacing)
    if spacing is not None or instrument_spacing is not None:
        raise InputError(path, "--spacing applies to Syscal Pro exports only")
    if kind == "res2dinv":
        return _res2dinv()[1](path)
    return unified.read_unified(path)
