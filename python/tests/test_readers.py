"""Each reader on the real field files: counts, resistances, positions, errors."""
import math

import numpy as np
import pytest

from conftest import MEASURE, field, write
from q5tools.errors import InputError
from q5tools.readers import kind_of, read_survey


def test_unified_slagdump_resistances_and_topography():
    s = read_survey(field("slagdump", "slagdump.ohm"))
    assert len(s.ids) == 38 and len(s) == 222
    assert (s.x[0], s.z[0]) == (0.0, 108.8) and (s.x[-1], s.z[-1]) == (66.1715, 108.45)
    assert s.z.max() == pytest.approx(121.2)
    # neighbouring electrodes are 2 m apart along the ground
    assert np.allclose(np.hypot(np.diff(s.x), np.diff(s.z)), 2.0, atol=2e-3)
    assert (s.a[0], s.b[0], s.m[0], s.n[0], s.r[0]) == (1, 4, 2, 3, 1.18411)
    assert (s.a[-1], s.b[-1], s.m[-1], s.n[-1], s.r[-1]) == (2, 38, 14, 26, 0.0510622)
    assert s.r.min() == pytest.approx(0.045, abs=1e-3) and s.r.max() == pytest.approx(2.67, abs=0.01)
    assert s.rel_err is None and s.lines[0] == 47


def test_unified_bedrock_resistance_from_rhoa_and_halfspace_factor():
    s = read_survey(field("bedrock", "bedrock.dat"))
    assert len(s.ids) == 64 and len(s) == 1223
    assert np.allclose(s.x, np.arange(64) * 5.0) and not s.z.any()
    # first reading: Wenner a = 5 m, k = 2 pi a
    assert s.r[0] == pytest.approx(23.21 / (2 * math.pi * 5), rel=1e-12)
    assert s.r.min() == pytest.approx(0.053, abs=1e-3) and s.r.max() == pytest.approx(2.39, abs=0.01)
    assert s.err_source == "err" and s.rel_err[0] == 0.0313538
    # the file's estimate is 3 % plus 1 milliohm
    assert np.allclose(s.rel_err, 0.03 + 0.001 / s.r, rtol=1e-4, atol=0)
    assert any("with the half-space factor" in n for n in s.notes)


def test_unified_mulda_three_columns_and_error():
    s = read_survey(field("mulda-hillslope", "data", "MuldaA-2008-05-09.data"))
    assert len(s.ids) == 50 and len(s) == 784
    assert s.z[0] == 541.493 and s.z[-1] == 532.61 and s.x[-1] == 48.0719
    assert (s.a[0], s.b[0], s.m[0], s.n[0], s.r[0]) == (1, 2, 4, 3, 70.553)
    assert np.all(s.r > 0) and 0.0200 <= s.rel_err.min() and s.rel_err.max() <= 0.0207


def test_syscal_xochimilco_spacing_and_stacking_error():
    s = read_survey(field("xochimilco", "Xoch2We.txt"), spacing=5.0)
    assert len(s.ids) == 48 and len(s) == 360
    assert np.allclose(s.x, np.arange(48) * 5.0)
    # first line: A 0, B 45, M 15, N 30 (1 m units), Vp 4.103 mV, In 576.367 mA, Dev 20.31 %
    assert (s.a[0], s.b[0], s.m[0], s.n[0]) == (1, 46, 16, 31)
    assert s.r[0] == pytest.approx(4.103 / 576.367) and s.rel_err[0] == pytest.approx(0.2031)
    # the instrument's Rho (1 m spacing) times 5 is the true apparent resistivity
    rhoa = s.factor() * s.r
    assert rhoa[0] == pytest.approx(5 * 0.67, rel=0.01)
    assert 1.5 < rhoa.min() and rhoa.max() < 20
    plain = read_survey(field("xochimilco", "Xoch2We.txt"))
    assert plain.x[-1] == 47.0 and np.array_equal(plain.r, s.r)
    assert any("scaled by 5" in n for n in s.notes) and s.along_ground


SYSCAL_NAMES = ["El-array", "Spa.1", "Spa.2", "Spa.3", "Spa.4", "Rho", "Dev.", "M", "Sp", "Vp", "In"]


def syscal(rows, sep="\t", lead=None, before=""):
    """A Prosys export of rows (label, A, B, M, N, Rho, Dev, Vp, In); lead is
    the header's index column, whose rows then carry their number."""
    head = ([lead] if lead is not None else []) + SYSCAL_NAMES
    lines = [sep.join(head)]
    for k, (label, *v) in enumerate(rows, 1):
        fields = [f"{x:.12g}" for x in v[:6]] + ["0", "0"] + [f"{x:.12g}" for x in v[6:]]
        lines.append(sep.join(([str(k) if lead else ""] if lead is not None else []) + [label] + fields))
    return before + "\r\n".join(lines) + "\r\n"


WENNER = [("Wenner VES", 0, 3, 1, 2, 12.6, 1.5, 20.0, 10.0),
          ("Wenner VES", 1, 4, 2, 3, 6.3, 0.0, -10.0, 10.0)]


@pytest.mark.parametrize("text", [
    " " + syscal(WENNER, sep=" "),
    syscal(WENNER, lead=""),                      # a first empty column: "\tEl-array\t..."
    syscal(WENNER, lead="#"),                     # a '#' index column, tab-separated
    syscal(WENNER, sep=" ", lead="#"),            # the same with blanks
    syscal(WENNER, before="Prosys II\r\nexported 4/21/2016\r\n\r\n"),
], ids=["blanks", "tab-led", "hash-tab", "hash-blank", "preamble"])
def test_syscal_layouts_give_one_survey(tmp_path, text):
    s = read_survey(write(tmp_path / "line.csv", text))
    assert np.array_equal(s.x, np.arange(5.0)) and s.along_ground and not s.remote.any()
    assert [list(v) for v in (s.a, s.b, s.m, s.n)] == [[1, 2], [4, 5], [2, 3], [3, 4]]
    # Vp / In keeps its sign
    assert list(s.r) == [2.0, -1.0] and list(s.rel_err) == [0.015, 0.0]
    assert np.array_equal(np.diff(s.lines), [1])


@pytest.mark.parametrize("rows, cable, remotes, notes", [
    # pole-dipole, B at -1 spacing; the second reading's R from Rho: K = 2 pi / (1/AM - 1/AN) = 4 pi
    ([("Pole-Dipole", 0, -1, 1, 2, 1, 2, 6, 3), ("Pole-Dipole", 1, -1, 2, 3, 8 * math.pi, 2, 0, 0)],
     4, [(1, 5, 2, 3), (2, 5, 3, 4)], ["remote current electrode written at position -1"]),
    ([("Pole-Dipole", 0, -99999, 1, 2, 1, 2, 6, 3), ("Pole-Dipole", 1, 999, 2, 3, 8 * math.pi, 2, 0, 0)],
     4, [(1, 5, 2, 3), (2, 5, 3, 4)], ["remote current electrode written at positions -99999, 999"]),
    # pole-pole, both remotes; R from Rho: K = 2 pi AM
    ([("Pole-Pole", 0, -1, 1, 99999, 1, 2, 6, 3), ("Pole-Pole", 0, -1, 2, 99999, 8 * math.pi, 2, 0, 0)],
     3, [(1, 4, 2, 5), (1, 4, 3, 5)], ["remote current electrode written at position -1",
                                       "remote potential electrode written at position 99999"]),
])
def test_syscal_remote_electrodes(tmp_path, rows, cable, remotes, notes):
    s = read_survey(write(tmp_path / "pd.txt", syscal(rows)))
    assert np.array_equal(s.x[:cable], np.arange(cable)) and np.isnan(s.x[cable:]).all()
    assert list(s.remote) == [False] * cable + [True] * (len(s.ids) - cable)
    assert list(zip(s.a, s.b, s.m, s.n)) == remotes
    assert s.r == pytest.approx([2.0, 2.0]) and s.notes[:len(notes)] == notes


def test_syscal_spacing_scales_cable_not_remote_flags(tmp_path):
    rows = [("Pole-Dipole", 0, -1, 2, 4, 1, 2, 0, 0), ("Pole-Dipole", 2, -1, 4, 6, 1, 2, 0, 0)]
    s = read_survey(write(tmp_path / "pd.txt", syscal(rows)), spacing=5.0)
    # the flag -1 is no step of the cable: the instrument's spacing is 2
    assert list(s.x[:4]) == [0, 5, 10, 15] and np.isnan(s.x[4])
    # rho_a = 2.5 Rho over K = 2 pi / (1/5 - 1/10)
    assert s.r == pytest.approx([2.5 / (20 * math.pi)] * 2)
    assert "cable positions scaled by 2.5 (spacing 5 m, 2 m set on the instrument)" in s.notes


LINE4 = "4\n#x z\n0 0\n1 0\n2 0\n3 0\n"


def pole_dipole_k(am, an):
    return 2 * math.pi / (1 / am - 1 / an)


@pytest.mark.parametrize("text, x, remote, quads, r, k, note", [
    # pole-dipole: sensor 0 is B, at infinity
    (LINE4 + "2\n#a b m n rhoa\n1 0 2 3 2\n4 0 3 2 -1\n", [0, 1, 2, 3, np.nan], [0, 0, 0, 0, 1],
     [(1, 5, 2, 3), (4, 5, 3, 2)], [2 / pole_dipole_k(1, 2), -1 / pole_dipole_k(1, 2)], None,
     "remote current electrode: electrode 0 in a or b"),
    # pole-pole: a remote current and a remote potential electrode
    (LINE4 + "1\n#a b m n R\n1 0 2 0 -0.25\n", [0, 1, 2, 3, np.nan, np.nan], [0, 0, 0, 0, 1, 1],
     [(1, 5, 2, 6)], [-0.25], None, "remote potential electrode: electrode 0 in m or n"),
    # a sensor 997 m beyond the line keeps its place and gives its finite term to K
    ("5\n#x z\n0 0\n1 0\n2 0\n3 0\n1000 0\n1\n#a b m n rhoa\n1 5 2 3 6\n", [0, 1, 2, 3, 1000], [0, 0, 0, 0, 1],
     [(1, 5, 2, 3)], [6 * (1 / 1 - 1 / 999 - 1 / 2 + 1 / 998) / (2 * math.pi)], None,
     "sensor 5 at x = 1000 m, z = 0 m stands far from the line: taken as a remote electrode"),
    # 4 m from a line 3 m long is far, 3 m is not
    ("5\n#x z\n0 0\n1 0\n2 0\n3 0\n7 0\n1\n#a b m n R\n1 5 2 3 1\n", [0, 1, 2, 3, 7], [0, 0, 0, 0, 1],
     [(1, 5, 2, 3)], [1], None, "sensor 5 at x = 7 m, z = 0 m stands far from the line: taken as a remote electrode"),
    ("5\n#x z\n0 0\n1 0\n2 0\n3 0\n6 0\n1\n#a b m n R\n1 5 2 3 1\n", [0, 1, 2, 3, 6], [0, 0, 0, 0, 0],
     [(1, 5, 2, 3)], [1], None, None),
    # the file's own signed k
    (LINE4 + "2\n#a b m n rhoa k\n1 4 2 3 6.0 -3.0\n1 2 3 4 -4 -2\n", [0, 1, 2, 3], [0, 0, 0, 0],
     [(1, 4, 2, 3), (1, 2, 3, 4)], [-2, 2], [-3, -2], "transfer resistance from rhoa / k"),
    # an infinite reading stays for the screening, as not a number
    (LINE4 + "1\n#a b m n u i\n1 4 2 3 1e999 2\n", [0, 1, 2, 3], [0, 0, 0, 0], [(1, 4, 2, 3)], [np.nan], None,
     "transfer resistance from u / i"),
])
def test_unified_remotes_factor_and_signs(tmp_path, text, x, remote, quads, r, k, note):
    s = read_survey(write(tmp_path / "u.dat", text))
    assert np.array_equal(s.x, x, equal_nan=True) and list(s.remote) == list(map(bool, remote))
    assert list(zip(s.a, s.b, s.m, s.n)) == quads and s.r == pytest.approx(r, rel=1e-12, nan_ok=True)
    assert (s.k is None) if k is None else list(s.k) == k
    assert (note in s.notes) if note else not any("far" in n for n in s.notes)


@pytest.mark.parametrize("text, kind", [
    ("dd\n1\n3\n2\n0\n0\n0 1 1 100\n1 1 1 10\n", "res2dinv"),
    (f"g\n1\n11\n0\n{MEASURE}\n0\n1\n0\n0\n", "res2dinv"),
    ("3\n\n  2.5  m\n\n11 general\n", "res2dinv"),       # a title that is a number
    ("3\n#x z\n0 0\n1 0\n2 0\n2\n#a b m n r\n1 2 3 0 1\n", "unified"),
    ("3\n0 0\n1 0\n2 0\n", "unified"),                   # sensors without their column names
    (" El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp Vp In\n", "syscal"),
    ("t\n1\n8\n", None), ("t\n0\n3\n", None), ("t\n1 2\n3\n", None), ("t\n1\n3.5\n", None),
    ("t\nnan\n3\n", None), ("t\n1\n", None), ("", None), (bytes(range(256)).decode("latin-1") * 4, None),
])
def test_kind_told_by_content(tmp_path, text, kind):
    with open(tmp_path / "f.txt", "w", encoding="latin-1") as f:
        f.write(text)
    if kind:
        assert kind_of(tmp_path / "f.txt") == kind
    else:
        with pytest.raises(InputError):
            kind_of(tmp_path / "f.txt")
