"""Res2DInv data files: electrode places of every array, remotes, buried
electrodes, errors and topography (the refusals are in test_refusals)."""
import math

import numpy as np
import pytest

from conftest import SLOPE, general, standard, write
from q5tools.res2dinv import read_res2dinv

PI = math.pi
RHOA_NOTE = ("transfer resistance from the apparent resistivity with the half-space factor"
             " (remote electrodes at infinity)")


def places(s):
    """(x, depth) of C1, C2, P1, P2 of the first reading; None for a remote."""
    out = []
    for e in (s.a[0], s.b[0], s.m[0], s.n[0]):
        k = s.index([e])[0]
        out.append(None if s.remote[k] else (s.x[k], s.depth[k]))
    return out


# type, the numbers after x, x in the first-electrode and mid-point conventions,
# places of C1 C2 P1 P2 (None at infinity), and K worked out by hand
STANDARD = [
    (1, "2 100", 10, 13, (10, 16, 12, 14), 2 * PI * 2),
    (2, "2 100", 10, 11, (10, None, 12, None), 2 * PI * 2),
    (3, "1 2 100", 10, 12, (11, 10, 13, 14), 24 * PI),
    (4, "1 100", 10, 11.5, (11, 10, 12, 13), 6 * PI),
    (5, "1 -100", 10, 11.5, (10, 12, 11, 13), 3 * PI),
    (6, "1 2 100", 10, 11.5, (10, None, 12, 13), 12 * PI),
    (6, "1 -2 100", 15, 13.5, (15, None, 13, 12), 12 * PI),
    (7, "1 2 100", 10, 12.5, (10, 15, 12, 13), 6 * PI),
]


@pytest.mark.parametrize("layout", ["first", "mid", "old"])
@pytest.mark.parametrize("kind, rest, x_first, x_mid, expected, k", STANDARD)
def test_standard_arrays(tmp_path, layout, kind, rest, x_first, x_mid, expected, k):
    x = x_mid if layout == "mid" else x_first
    s = read_res2dinv(write(tmp_path / "a.dat", standard(kind, f"{x} {rest}", layout)))
    assert places(s) == [None if e is None else (e, 0.0) for e in expected]
    rhoa = float(rest.split()[-1])
    assert s.r[0] == pytest.approx(rhoa / k, rel=1e-12)
    assert s.r[0] * s.factor()[0] == pytest.approx(rhoa, rel=1e-12)
    finite = sorted(e for e in expected if e is not None)
    assert list(s.x[~s.remote]) == finite and list(s.ids) == list(range(1, len(s.ids) + 1))
    # remotes come after the placed electrodes, current before potential
    remotes = 2 if kind == 2 else 1 if kind == 6 else 0
    assert list(s.remote) == [False] * len(finite) + [True] * remotes
    assert np.all(np.isnan(s.x[s.remote])) and np.all(np.isnan(s.z[s.remote]))
    assert list(s.lines) == [7 if layout != "old" else 6] and not s.along_ground and s.rel_err is None
    assert RHOA_NOTE in s.notes and s.topography is None


def test_standard_shares_electrodes_ip_errors_and_old_layout(tmp_path):
    text = ("dipole-dipole with IP\n1\n3\n3\n1\nChargeability\nmV/V\n0.12 0.26\nError estimate\n1\n"
            "0, 1, 1, 100, 5.5, 2\n1 1 1 50 4 -3 ignored words\n\n0 1 2 -20 3 10\n0\n")
    s = read_res2dinv(write(tmp_path / "ip.dat", text))
    assert list(s.x) == [0, 1, 2, 3, 4] and len(s.ids) == 5
    assert [list(v) for v in (s.a, s.b, s.m, s.n)] == [[2, 3, 2], [1, 2, 1], [3, 4, 4], [4, 5, 5]]
    assert s.r * s.factor() == pytest.approx([100, 50, -20]) and list(s.lines) == [11, 12, 14]
    assert list(s.rel_err) == pytest.approx([0.02, 0.03, 0.1]) and s.err_source == "error"
    for note in ("IP values ignored", "x is the first electrode (no x-location line)", "errors read in percent"):
        assert note in s.notes


# rows, options, places of the first reading, values, expected r (None: rhoa / K), rel_err
GENERAL = [
    (["4 0 0 3 0 1 0 2 0 0.25"], dict(measure=1),
     [(0, 0), (3, 0), (1, 0), (2, 0)], [0.25], [0.25], None),
    (["3 0 0 1 0 2 0 100 7.5", "3 1 0 2 0 3 0 -80 2"], dict(ip=True),
     [(0, 0), None, (1, 0), (2, 0)], [100, -80], None, None),
    (["2 0 0 2 0 0.5 0.05", "2 2 0 4 0 0 0.01"], dict(measure=1, err=0),
     [(0, 0), None, (2, 0), None], [0.5, 0], [0.5, 0], [0.1, math.inf]),
    (["4 0 0 3 0 1 0 2 0 60 3 -6"], dict(ip=True, err=1),
     [(0, 0), (3, 0), (1, 0), (2, 0)], [60], None, [0.06]),
    (["4 0 0 3 0 1 0 2 0 0.2 0.01"], dict(measure=1, err=0, err_text=False),
     [(0, 0), (3, 0), (1, 0), (2, 0)], [0.2], [0.2], [0.05]),
]


@pytest.mark.parametrize("rows, options, first, values, r, rel_err", GENERAL)
def test_general_array(tmp_path, rows, options, first, values, r, rel_err):
    text = general(rows, **options)
    s = read_res2dinv(write(tmp_path / "g.dat", text))
    assert places(s) == [None if p is None else tuple(map(float, p)) for p in first]
    if r is None:
        assert s.r * s.factor() == pytest.approx(values, rel=1e-12) and RHOA_NOTE in s.notes
    else:
        assert list(s.r) == r and RHOA_NOTE not in s.notes
    if rel_err is None:
        assert s.rel_err is None and s.err_source == ""
    else:
        assert list(s.rel_err) == pytest.approx(rel_err) and s.err_source == "error"
    assert ("IP values ignored" in s.notes) == bool(options.get("ip"))
    first_line = text.split("\n").index(rows[0]) + 1
    assert list(s.lines) == list(range(first_line, first_line + len(rows)))
    assert "general array (type 11, sub-array type 0)" in s.notes


def test_buried_electrodes_ordered_by_x_then_depth(tmp_path):
    rows = ["4 2 3 0 0 2 0.5 4 0 12.5", "4 2 0 0 0 4 0 2 0.5 9"]
    s = read_res2dinv(write(tmp_path / "b.dat", general(rows)))
    assert list(zip(s.x, s.depth)) == [(0, 0), (2, 0), (2, 0.5), (2, 3), (4, 0)]
    assert list(s.z) == [0, 0, -0.5, -3, 0] and list(s.buried) == [False, False, True, True, False]
    assert (s.a[0], s.b[0], s.m[0], s.n[0]) == (4, 1, 3, 5)
    # each pair adds 1/r and 1/r' to the image of P in the surface, r'^2 = r^2 + 4 dC dP
    g = 1 / 2.5 + 1 / 3.5 - 2 / math.sqrt(4.25) - 2 / math.sqrt(13) + 2 / 4
    assert s.r[0] == pytest.approx(12.5 * g / (4 * PI), rel=1e-12)


ROWS = ["4 0 0 15 0 5 0 10 1 0.5"]
WENNER = "0 5 100"


WENNER_R = 100 / (2 * PI * 5)   # rho_a over the factor of the file's own (flat) positions


# file, x, z (electrodes in the order of distance), topography points kept,
# whether x are still distances along the ground, R of the reading
@pytest.mark.parametrize("text, x, z, points, along, r", [
    (general(ROWS, 1, 2, tail=SLOPE), [0, 4, 9, 14], [0, 3, 2, 3], [0, 4, 14], False, 0.5),
    (general(ROWS, 1, 2, tail="1\n3\n0 0\n4 3\n14 3\n1\n"), [0, 4, 9, 14], [0, 3, 2, 3], [0, 4, 14], False, 0.5),
    (general(ROWS, 1, 0, tail=SLOPE), [0, 5, 10, 15], [0, 3, 2, 3], [0, 4, 14], False, 0.5),
    (general(ROWS, 1, 1, tail="1\n2\n0 10\n30 13\n1\n"), [0, 5, 10, 15], [10, 10.5, 10, 11.5], [0, 30], False, 0.5),
    (general(ROWS, 1, 2, tail=""), [0, 5, 10, 15], [0, 0, -1, 0], None, True, 0.5),
    (general(ROWS, 1, 0, tail="0\n"), [0, 5, 10, 15], [0, 0, -1, 0], None, False, 0.5),
    (standard(1, WENNER, "first", tail=SLOPE), [0, 4, 9, 14], [0, 3, 3, 3], [0, 4, 14], False, WENNER_R),
    (standard(1, WENNER, "first", tail="1\n2\n0 0\n15 3\n"), [0, 5, 10, 15], [0, 1, 2, 3], [0, 15], False, WENNER_R),
])
def test_topography(tmp_path, text, x, z, points, along, r):
    s = read_res2dinv(write(tmp_path / "t.dat", text))
    assert s.x == pytest.approx(x, abs=1e-12) and s.z == pytest.approx(z, abs=1e-12)
    assert s.along_ground == along and s.r[0] == pytest.approx(r)
    if points is None:
        assert s.topography is None
    else:
        assert list(s.topography[0]) == points
        assert any(n.startswith(f"topography: {len(points)} points") for n in s.notes)
