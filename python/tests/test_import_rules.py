"""What q5-import keeps and how it weights it: screening, signs and polarity
reversals, reciprocal pairs and their error model, and the rule of q5's
error floor. Data come from q5's own forward job with seeded noise."""
import os

import numpy as np
import pytest

from conftest import forward_resistances, import_dir, tool, unified, write

N = 32  # electrodes, 1 m apart
LINE = [(k, 0) for k in range(N)]


@pytest.fixture(scope="module")
def true_r(tmp_path_factory):
    """q5's resistances over 100 ohm m of a dipole-dipole line in ascending
    A B M N: a negative geometric factor, negative resistances."""
    readings = [(a, a + s, a + s + n * s, a + 2 * s + n * s) for s in (1, 2, 3) for n in range(1, 9)
                for a in range(1, N + 1) if a + 2 * s + n * s <= N]
    run, _, _, _ = import_dir(tmp_path_factory.mktemp("forward"), unified(LINE, readings), "--forward", "--rho", 100)
    return readings, forward_resistances(run)


def test_screening_counts_and_reports(tmp_path):
    text = unified(LINE[:4], [(1, 4, 2, 3), (1, 4, 2, 3), (2, 3, 1, 4), (1, 2, 3, 4), (1, 2, 3, 4), (1, 3, 2, 4)],
                   # kept, the same quadrupole again, its reciprocal (the pair's mean is the datum),
                   # zero, negative as its factor is (kept), not a number
                   [0.5, 0.7, 0.48, 0, -0.2, np.nan])
    _, meta, out, path = import_dir(tmp_path, text)
    assert meta["readings"] == [2]
    assert f"{path}: 2 readings kept, 3 left out (1 not a number, 1 zero, 1 repeated)" in out
    assert "  repeated: line 10" in out and "  zero: line 12" in out
    # --force replaces what the directory held; the protocol lines are
    # number, P+ = m, P- = n, C+ = a, C- = b, resistance
    write(tmp_path / "run" / "mine.txt", "old")
    done = tool("q5-import", path, "-o", tmp_path / "run", "--data", "true", "--force")
    assert done.returncode == 0 and sorted(os.listdir(tmp_path / "run")) == \
        ["Q5.in", "mesh.dat", "protocol.dat", "q5-import.json"]
    assert open(tmp_path / "run" / "protocol.dat").read().split("\n")[:3] == ["2", "1 2 3 1 4 0.49", "2 3 4 1 2 -0.2"]


def test_signs_kept_and_reversals_left_out(tmp_path, true_r):
    readings, r = true_r
    assert np.all(r < 0)
    flipped = r.copy()
    flipped[[4, 40]] *= -1  # reversed polarity: a swapped cable, a bad contact
    run, meta, out, path = import_dir(tmp_path, unified(LINE, readings, flipped))
    assert meta["readings"] == [len(r) - 2]
    assert f"{path}: {len(r) - 2} readings kept, 2 left out (2 reversed polarity)" in out
    assert "  reversed polarity: lines 41, 77" in out
    # the apparent resistivity from the signed factor: the start model is the ground's
    assert meta["settings"]["rho_start"] == pytest.approx(100, rel=0.02)
    protocol = open(os.path.join(run, "protocol.dat")).read().split("\n")
    assert float(protocol[1].split()[5]) == pytest.approx(r[0], rel=1e-7) and r[0] < 0
    _, meta, out, _ = import_dir(tmp_path / "true", unified(LINE, readings, flipped), "--data", "true")
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
    run, meta, out, _ = import_dir(tmp_path, unified(LINE, quads, np.concatenate([normal, reverse])))
    rec = meta["reciprocal"]
    left = len(r) - rec["pairs"]
    assert meta["errors"] == "reciprocal" and 3 <= left <= 10 and meta["readings"] == [rec["pairs"]]
    assert len(rec["left_out_r"]) == left
    assert rec["a"] == pytest.approx(a_true, rel=0.1) and rec["b"] == pytest.approx(b_true, rel=0.1)
    report = next(l for l in out.split("\n") if l.startswith("  reciprocal discrepancy over 10 %: lines"))
    first = 3 + N + 2  # file line of the first reading
    assert all(f" {first + k}," in report + "," for k in (3, 30, 90))
    protocol = open(os.path.join(run, "protocol.dat")).read().split("\n")
    assert float(protocol[1].split()[5]) == pytest.approx((normal[0] + reverse[0]) / 2, rel=1e-7)
    s = meta["settings"]
    assert s["a_wgt"] >= rec["a"] and s["b_wgt"] / s["a_wgt"] == pytest.approx(rec["b"] / rec["a"], rel=1e-3)
    assert "reciprocal model e = " in out


def test_floor_rule_switches_to_relative_errors(tmp_path, true_r):
    readings, r = true_r
    rel = np.full(len(r), 0.03)
    _, meta, out, _ = import_dir(tmp_path / "file", unified(LINE, readings, r, rel))
    # 3 % of the smallest readings (0.011 ohm) is under 0.00067 ohm: the floor would raise it
    assert meta["errors"] == "relative" and meta["settings"]["b_wgt"] == 0.03
    assert "using the relative model instead: 3 % (the file's median)" in out
    _, meta, out, _ = import_dir(tmp_path / "forced", unified(LINE, readings, r, rel), "--errors", "file")
    assert meta["errors"] == "file" and "q5 raises them to 0.001 ohm" in out
    _, meta, _, _ = import_dir(tmp_path / "big", unified(LINE, readings, r * 100, rel))
    assert meta["errors"] == "file"
