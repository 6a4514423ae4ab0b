"""Res2DInv data files: electrode places of every array, remotes, buried
electrodes, errors, topography, and the refusals with file and line."""
import math

import numpy as np
import pytest

from conftest import write
from q5tools.errors import InputError
from q5tools.res2dinv import looks_like_res2dinv, read_res2dinv

PI = math.pi
RHOA_NOTE = ("transfer resistance from the apparent resistivity with the half-space factor"
             " (remote electrodes at infinity)")
MEASURE = "Type of measurement (0=app. resistivity,1=resistance)"


def standard(kind, line, layout, ip=False, tail="0\n0\n0\n"):
    """A one-reading file of a standard array; layout 'first' or 'mid' with
    the x-location line, 'old' without it."""
    xloc = {"first": "0\n", "mid": "1\n", "old": ""}[layout]
    ip_lines = "1\nChargeability\nmV/V\n0.12, 0.26\n" if ip else "0\n"
    return f"Line 1 survey\n1.0\n{kind}\n1\n{xloc}{ip_lines}{line}\n{tail}"


def general(rows, measure=0, xloc=0, ip=False, err=None, err_text=True, tail="0\n0\n"):
    text = f"general array\n1.0\n11\n0\n{MEASURE}\n{measure}\n{len(rows)}\n{xloc}\n{int(ip)}\n"
    if ip:
        text += "Chargeability\nmsec\n0.1 0.5\n"
    if err is not None:
        text += "ERROR ESTIMATE for data present\n"
        text += "Type of error estimate (0=same unit as data)\n" if err_text else ""
        text += f"{err}\n"
    return text + "".join(r + "\n" for r in rows) + tail


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


SLOPE = "2\n3\n0 0\n5 3\n15 3\n1\n0\n0\n0\n"
ROWS = ["4 0 0 15 0 5 0 10 1 0.5"]
WENNER = "0 5 100"


# file, x, z (electrodes in the order of distance), topography points kept,
# whether x are still distances along the ground
@pytest.mark.parametrize("text, x, z, points, along", [
    (general(ROWS, 1, 2, tail=SLOPE), [0, 4, 9, 14], [0, 3, 2, 3], [0, 4, 14], False),
    (general(ROWS, 1, 2, tail="1\n3\n0 0\n4 3\n14 3\n1\n"), [0, 4, 9, 14], [0, 3, 2, 3], [0, 4, 14], False),
    (general(ROWS, 1, 0, tail=SLOPE), [0, 5, 10, 15], [0, 3, 2, 3], [0, 4, 14], False),
    (general(ROWS, 1, 1, tail="1\n2\n0 10\n30 13\n1\n"), [0, 5, 10, 15], [10, 10.5, 10, 11.5], [0, 30], False),
    (general(ROWS, 1, 2, tail=""), [0, 5, 10, 15], [0, 0, -1, 0], None, True),
    (general(ROWS, 1, 0, tail="0\n"), [0, 5, 10, 15], [0, 0, -1, 0], None, False),
    (standard(1, WENNER, "first", tail=SLOPE), [0, 4, 9, 14], [0, 3, 3, 3], [0, 4, 14], False),
    (standard(1, WENNER, "first", tail="1\n2\n0 0\n15 3\n"), [0, 5, 10, 15], [0, 1, 2, 3], [0, 15], False),
])
def test_topography(tmp_path, text, x, z, points, along):
    s = read_res2dinv(write(tmp_path / "t.dat", text))
    assert s.x == pytest.approx(x, abs=1e-12) and s.z == pytest.approx(z, abs=1e-12)
    assert s.along_ground == along
    if points is None:
        assert s.topography is None
    else:
        assert list(s.topography[0]) == points
        assert any(n.startswith(f"topography: {len(points)} points") for n in s.notes)


def test_rhoa_uses_the_file_positions_before_topography(tmp_path):
    s = read_res2dinv(write(tmp_path / "w.dat", standard(1, WENNER, "first", tail=SLOPE)))
    assert s.r[0] == pytest.approx(100 / (2 * PI * 5))


DD = "dd\n1\n3\n2\n0\n0\n0 1 1 100\n"
GEN = f"g\n1\n11\n0\n{MEASURE}\n0\n1\n0\n0\n"


@pytest.mark.parametrize("text, line, message", [
    ("", None, "is empty"),
    ("title only\n", 1, "the file ends before the unit electrode spacing"),
    ("t\none\n3\n", 2, "expected the unit electrode spacing, found 'one'"),
    ("t\n-1\n3\n", 2, "the unit electrode spacing must be a number above 0, found '-1'"),
    ("t\nnan\n3\n", 2, "the unit electrode spacing must be a number above 0, found 'nan'"),
    ("t\n1e999\n3\n", 2, "the unit electrode spacing must be a number above 0, found '1e999'"),
    ("t\n1\n8\n", 3, "unknown array type 8; known are 1 to 7 and 11"),
    ("t\n1\n3.5\n", 3, "expected the array type, found '3.5'"),
    ("t\n1\n3\n0\n0\n0\n", 4, "the number of data points must be at least 1, found 0"),
    ("t\n1\n3\n1e999\n0\n0\n", 4, "expected the number of data points, found '1e999'"),
    ("t\n1\n3\n123456789012345678901234567890\n0\n0\n0 1 1 10\n", 7,
     "the file ends before data point 2 of 123456789012345678901234567890"),
    ("t\n1\n3\n1\n3\n0\n0 1 1 10\n", 5, "expected the type of x-location (0 first electrode, 1 mid-point), found 3"),
    ("t\n1\n3\n1\n2\n0 1 1 10\n", 5, "expected the IP flag (0 or 1), found 2"),
    ("t\n1\n3\n1\n0\n1\n0 1 1 10 5\n", 7,
     "expected the name of the IP quantity (such as Chargeability), found '0 1 1 10 5'"),
    ("t\n1\n3\n1\n0\n1\nChargeability\nmV/V\n", 8, "the file ends before the IP delay and integration times"),
    (DD + "1 1 100\n", 8, "expected 4 numbers (x, a, n, rhoa), found 3"),
    (DD + "1 1 x 100\n", 8, "expected 4 numbers (x, a, n, rhoa), found 2 before 'x'"),
    (DD + "1 1 1 nan\n", 8, "rhoa is not a finite number: 'nan'"),
    (DD + "1e999 1 1 10\n", 8, "x is not a finite number: '1e999'"),
    (DD + "1 -1 1 10\n", 8, "the electrode spacing a must be above 0, found -1"),
    (DD + "1 1 0 10\n", 8, "n must be above 0, found 0"),
    (DD.replace("\n3\n", "\n6\n") + "1 1 0 10\n", 8, "n must not be 0"),
    (DD + "1e300 1 1 10\n", 8, "C1 would stand at x 1e+300, beyond 1e+08 m"),
    (DD + "0 1e-9 1 10\n", 8, "C1 and C2 stand at one place (x 0)"),
    (DD, 7, "the file ends before data point 2 of 2"),
    (DD + "1 1 1 10\n2 1 1 10\n", 9,
     "expected the topography type (0, 1 or 2) after 2 data points, found '2 1 1 10'"),
    (DD + "1 1 1 10\n0\n5\n", 10, "unexpected line after the data: '5'"),
    (DD + "1 1 1 10\n2\n0\n", 10, "the number of topography points must be at least 1, found 0"),
    (DD + "1 1 1 10\n2\n3\n0 0\n", 11, "the file ends before topography point 2 of 3"),
    (DD + "1 1 1 10\n2\n2\n2 0\n1 0\n", 12, "the topography positions must increase; 1 follows 2"),
    (DD + "1 1 1 10\n2\n2\n0 0\n3 4\n", 12, "the ground rises 4 m over 3 m of distance along it"),
    (DD + "1 1 1 10\n1\n2\n0 0\n3 nan\n", 12, "height is not a finite number: 'nan'"),
    (DD + "1 1 1 10\n1\n2\n0 0\n3 1\n1\nend\n", 14, "unexpected line after the topography: 'end'"),
    ("g\n1\n11\n0\n0\n", 5, f"expected the line '{MEASURE}', found '0'"),
    (GEN.replace(f"{MEASURE}\n0", f"{MEASURE}\n2"), 6,
     "expected the type of measurement (0 apparent resistivity, 1 resistance), found 2"),
    (GEN.replace("\n1\n0\n0\n", "\n1\n3\n0\n"), 8,
     "expected the type of x-location (0 or 1 horizontal, 2 along the ground), found 3"),
    (GEN + "5 0 0 1 0 2 0 3 0 4 0 10\n", 10, "expected the number of electrodes (2, 3 or 4) first, found '5'"),
    (GEN + "99999999999999999999 0 0 1 0 10\n", 10,
     "expected the number of electrodes (2, 3 or 4) first, found '99999999999999999999'"),
    (GEN + "4 0 0 1 0 2 0 3 0\n", 10,
     "expected 10 numbers (electrodes, C1 x, C1 z, C2 x, C2 z, P1 x, P1 z, P2 x, P2 z, rhoa), found 9"),
    (GEN + "3 0 0 1 -1 2 0 10\n", 10,
     "the depth z of P1 is negative (-1); z is measured down from the ground surface"),
    (GEN + "4 0 0 1 0 2 0 0 0 10\n", 10, "C1 and P2 stand at one place (x 0, depth 0)"),
    (GEN + "2 0 inf 1 0 10\n", 10, "C1 z is not a finite number: 'inf'"),
    # P1 and P2 are equally far from C1 and from C2: no voltage to turn into a resistance
    (GEN + "4 0 0 2 0 1 0 1 2 10\n", 10, "the electrodes give no voltage over a uniform ground (no geometric "
                                         "factor), so the apparent resistivity gives no resistance"),
    (GEN + "Error estimate\n2\n", 11, "expected the type of error estimate (0 or 1), found 2"),
    (GEN + "error estimate\n2 0 0 1 0 5 1\n", 11,
     "expected the type of error estimate (0 or 1), found '2 0 0 1 0 5 1'"),
    (GEN + "Error estimate\n0\n2 0 0 1 0 5\n", 12,
     "expected 7 numbers (electrodes, C1 x, C1 z, P1 x, P1 z, rhoa, error), found 6"),
])
def test_refusals(tmp_path, text, line, message):
    path = write(tmp_path / "bad.dat", text)
    with pytest.raises(InputError) as err:
        read_res2dinv(path)
    assert str(err.value) == (f"{path} line {line}: {message}" if line else f"{path}: {message}")


ODD = ["nan", "1e999", "-1", "0", "99999999999999999999999", "x", "1e300", "2.5", ""]


def test_damaged_files_give_input_errors_only(tmp_path):
    """Every cut and every odd number in place of any item: a survey or an
    InputError, never another exception."""
    goods = [standard(6, "10 1 -2 100 3", "mid", ip=True, tail=SLOPE),
             general(["4 0 0 3 0 1 0 2 0.5 60 3 6", "2 0 0 2 0 1 0.1 1"], ip=True, err=1, tail=SLOPE)]
    texts = []
    for good in goods:
        texts += [good[:k] for k in range(len(good))]
        tokens = good.replace("\n", " \n ").split(" ")
        for i, t in enumerate(tokens):
            if t.strip():
                texts += [" ".join(tokens[:i] + [odd] + tokens[i + 1:]).replace(" \n ", "\n") for odd in ODD]
    path = tmp_path / "d.dat"
    for text in texts:
        write(path, text)
        try:
            read_res2dinv(str(path))
        except InputError as e:
            assert "\n" not in str(e)


@pytest.mark.parametrize("text, expected", [
    (DD + "1 1 1 10\n", True),
    (GEN, True),
    ("3\n\n  2.5  m\n\n11 general\n", True),
    ("3\n#x z\n0 0\n1 0\n2 0\n2\n#a b m n r\n1 2 3 0 1\n", False),
    ("3\n0 0\n1 0\n2 0\n", False),
    (" El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp Vp In\n", False),
    ("t\n1\n8\n", False),
    ("t\n0\n3\n", False),
    ("t\n1 2\n3\n", False),
    ("t\n1\n3.5\n", False),
    ("t\nnan\n3\n", False),
    ("t\n1\n", False),
    ("", False),
])
def test_looks_like_res2dinv(tmp_path, text, expected):
    assert looks_like_res2dinv(write(tmp_path / "f.txt", text)) is expected


def test_looks_like_res2dinv_unreadable(tmp_path):
    (tmp_path / "bin.dat").write_bytes(bytes(range(256)) * 4)
    assert not looks_like_res2dinv(tmp_path / "missing.dat")
    assert not looks_like_res2dinv(tmp_path)
    assert not looks_like_res2dinv(tmp_path / "bin.dat")
    with pytest.raises(FileNotFoundError):
        read_res2dinv(tmp_path / "missing.dat")
