"""What q5-import keeps and how it weights it: signs and polarity reversals,
reciprocal pairs and their error model, and the rule of q5's error floor.
Data come from q5's own forward job with seeded noise."""
import json

import numpy as np
import pytest

from conftest import forward_resistances, tool, write

N = 32  # electrodes, 1 m apart


def _unified(readings, r, err=None):
    """A unified file of N electrodes and readings (a, b, m, n) with R (and err)."""
    text = f"{N}\n#x z\n" + "".join(f"{k} 0\n" for k in range(N))
    text += f"{len(readings)}\n#a b m n R{' err' if err is not None else ''}\n"
    for k, (a, b, m, n) in enumerate(readings):
        text += f"{a} {b} {m} {n} {r[k]:.10g}" + (f" {err[k]:.6g}" if err is not None else "") + "\n"
    return text


def _dipole_dipole():
    """Ascending A B M N: a negative geometric factor, negative resistances."""
    return [(a, a + s, a + s + n * s, a + 2 * s + n * s) for s in (1, 2, 3) for n in range(1, 9)
            for a in range(1, N + 1) if a + 2 * s + n * s <= N]


@pytest.fixture(scope="module")
def true_r(tmp_path_factory):
    """q5's resistances of the dipole-dipole line over 100 ohm m."""
    tmp = tmp_path_factory.mktemp("forward")
    readings = _dipole_dipole()
    path = write(tmp / "dd.dat", _unified(readings, np.ones(len(readings))))
    assert tool("q5-import", path, "-o", tmp / "run", "--forward", "--rho", 100).returncode == 0
    return readings, forward_resistances(tmp / "run")


def _import(tmp_path, text, *options):
    tmp_path.mkdir(exist_ok=True)
    path = write(tmp_path / "survey.dat", text)
    done = tool("q5-import", path, "-o", tmp_path / "run", *options)
    assert done.returncode == 0, done.stderr
    return json.load(open(tmp_path / "run" / "q5-import.json")), done.stdout, path


def test_signs_kept_and_reversals_left_out(tmp_path, true_r):
    readings, r = true_r
    assert np.all(r < 0)
    flipped = r.copy()
    flipped[[4, 40]] *= -1  # reversed polarity: a swapped cable, a bad contact
    meta, out, path = _import(tmp_path, _unified(readings, flipped))
    assert meta["readings"] == [len(r) - 2]
    assert f"{path}: {len(r) - 2} readings kept, 2 left out (2 reversed polarity)" in out
    assert "  reversed polarity: lines 41, 77" in out
    # the apparent resistivity from the signed factor: the start model is the ground's
    assert meta["settings"]["rho_start"] == pytest.approx(100, rel=0.02)
    protocol = open(tmp_path / "run" / "protocol.dat").read().split("\n")
    assert float(protocol[1].split()[5]) == pytest.approx(r[0], rel=1e-7) and r[0] < 0
    meta, out, _ = _import(tmp_path / "true", _unified(readings, flipped), "--data", "true")
    assert meta["readings"] == [len(r)] and "none left out" in out


def test_reciprocal_error_model_recovered(tmp_path, true_r):
    """Normal and reciprocal readings each with noise of std a + b|R|: the
    pairs' means are the data, the model comes back within 10 %, gross
    disagreements are left out, and q5 gets it through a_wgt and b_wgt."""
    readings, r = true_r
    a_true, b_true = 0.0005, 0.02
    rng = np.random.default_rng(7)
    noisy = lambda: r + rng.normal(0, 1, len(r)) * (a_true + b_true * np.abs(r))
    normal, reverse = noisy(), noisy()
    reverse[[3, 30, 90]] *= 1.5  # three pairs far beyond the limit
    quads = readings + [(m, n, a, b) for a, b, m, n in readings]
    meta, out, path = _import(tmp_path, _unified(quads, np.concatenate([normal, reverse])))
    rec = meta["reciprocal"]
    left = len(r) - rec["pairs"]
    assert meta["errors"] == "reciprocal" and 3 <= left <= 10 and meta["readings"] == [rec["pairs"]]
    assert rec["a"] == pytest.approx(a_true, rel=0.1) and rec["b"] == pytest.approx(b_true, rel=0.1)
    report = next(l for l in out.split("\n") if l.startswith("  reciprocal discrepancy over 10 %: lines"))
    first = 3 + N + 2  # file line of the first reading
    assert all(f" {first + k}," in report + "," for k in (3, 30, 90))
    protocol = open(tmp_path / "run" / "protocol.dat").read().split("\n")
    assert float(protocol[1].split()[5]) == pytest.approx((normal[0] + reverse[0]) / 2, rel=1e-7)
    s = meta["settings"]
    assert s["a_wgt"] >= rec["a"] and s["b_wgt"] / s["a_wgt"] == pytest.approx(rec["b"] / rec["a"], rel=1e-3)
    assert "reciprocal model e = " in out


def test_floor_rule_switches_to_relative_errors(tmp_path, true_r):
    readings, r = true_r
    rel = np.full(len(r), 0.03)
    meta, out, _ = _import(tmp_path / "file", _unified(readings, r, rel))
    # 3 % of the smallest readings (0.011 ohm) is under 0.00067 ohm: the floor would raise it
    assert meta["errors"] == "relative" and meta["settings"]["b_wgt"] == 0.03
    assert "using the relative model instead: 3 % (the file's median)" in out
    meta, out, _ = _import(tmp_path / "forced", _unified(readings, r, rel), "--errors", "file")
    assert meta["errors"] == "file" and "q5 raises them to 0.001 ohm" in out
    big = r * 100
    meta, _, _ = _import(tmp_path / "big", _unified(readings, big, rel))
    assert meta["errors"] == "file"
