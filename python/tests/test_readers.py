"""Each reader on the real field files: counts, resistances, positions, errors."""
import math

import numpy as np
import pytest

from conftest import field
from q5tools.importer import read_survey
from q5tools.survey import flat_geometric_factor


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


def test_unified_bedrock_resistance_from_rhoa_and_flat_factor():
    s = read_survey(field("bedrock", "bedrock.dat"))
    assert len(s.ids) == 64 and len(s) == 1223
    assert np.allclose(s.x, np.arange(64) * 5.0) and not s.z.any()
    # first reading: Wenner a = 5 m, k = 2 pi a
    assert s.r[0] == pytest.approx(23.21 / (2 * math.pi * 5), rel=1e-12)
    assert s.r.min() == pytest.approx(0.053, abs=1e-3) and s.r.max() == pytest.approx(2.39, abs=0.01)
    assert s.err_source == "err" and s.rel_err[0] == 0.0313538
    # the file's estimate is 3 % plus 1 milliohm
    assert np.allclose(s.rel_err, 0.03 + 0.001 / s.r, rtol=1e-4, atol=0)
    assert any("flat half-space factor" in n for n in s.notes)


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
    pos = [s.positions(v) for v in (s.a, s.b, s.m, s.n)]
    rhoa = flat_geometric_factor(*pos[0], *pos[1], *pos[2], *pos[3]) * s.r
    assert rhoa[0] == pytest.approx(5 * 0.67, rel=0.01)
    assert 1.5 < rhoa.min() and rhoa.max() < 20
    plain = read_survey(field("xochimilco", "Xoch2We.txt"))
    assert plain.x[-1] == 47.0 and np.array_equal(plain.r, s.r)
    assert any("scaled by 5" in n for n in s.notes)
