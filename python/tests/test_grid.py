"""The grid: electrodes on columns, surface offsets following their
elevations, padding, rows, parameter blocks, polyline, and the q5 frame
checked against what q5 itself reports."""
import json
import math
import os
import shutil
import subprocess

import numpy as np
import pytest

from conftest import REPO, field, q5_binary, tool
from q5tools.grid import build_grid, q5_geometric_factor
from q5tools.importer import read_survey


def test_slagdump_grid_follows_the_electrodes():
    s = read_survey(field("slagdump", "slagdump.ohm"))
    g = build_grid(s.x, s.z)
    cols = g.electrode_columns
    # every electrode on its own column, four cells apart, x back in the world frame
    assert np.array_equal(np.diff(cols), np.full(37, 4))
    assert np.allclose(g.xs[cols - 1] - g.x_shift, s.x, atol=1e-4)
    # the surface offset of an electrode's column is its elevation above the datum
    assert g.datum == 121.2
    assert np.allclose(g.offsets[cols - 1], s.z - 121.2, atol=1e-4)
    # between electrodes the surface runs straight; beyond the ends it stays level
    k = cols[5] + 1  # second column after electrode 6
    t = (g.xs[k] - g.xs[cols[5] - 1]) / (g.xs[cols[6] - 1] - g.xs[cols[5] - 1])
    assert g.offsets[k] == pytest.approx((1 - t) * (s.z[5] - 121.2) + t * (s.z[6] - 121.2), abs=1e-4)
    assert np.all(g.offsets[:cols[0]] == g.offsets[cols[0] - 1])
    assert np.all(g.offsets[cols[-1] - 1:] == g.offsets[cols[-1] - 1])
    # every node depth is >= 0 and the mesh lies at x >= 0
    assert g.xs[0] == 0 and np.all(np.diff(g.xs) > 0) and np.all(g.offsets <= 0)
    # padding grows by 1.3 to five line lengths beyond either end
    left = np.diff(g.xs[:cols[0]])[::-1]
    assert np.allclose(left[1:] / left[:-1], 1.3, rtol=1e-3)
    length = s.x[-1] - s.x[0]
    assert g.xs[cols[0] - 1] - g.xs[0] >= 5 * length and g.xs[-1] - g.xs[cols[-1] - 1] >= 5 * length
    # rows: fine at the surface, growing, down to the region depth and far below
    dz = np.diff(g.ys)
    assert g.ys[0] == 0 and dz[0] == pytest.approx(np.min(np.diff(g.xs[cols[0] - 1:cols[-1]])) / 2, abs=1e-4)
    assert np.all(dz[1:] >= dz[:-1] - 1e-4) and g.ys[-1] >= 5 * length
    assert g.ys[g.fine_rows] == g.depth >= 0.25 * length


def test_parameter_blocks_and_polyline():
    s = read_survey(field("slagdump", "slagdump.ohm"))
    g = build_grid(s.x, s.z)
    cols = g.electrode_columns
    assert sum(g.patch_x) == g.num_x - 1 and sum(g.patch_y) == g.num_y - 1
    # one cell per parameter under the line, padding in blocks of 4 to 7 cells
    edges = np.cumsum([0] + g.patch_x)
    first, last = list(edges).index(cols[0] - 1), list(edges).index(cols[-1] - 1)
    assert g.patch_x[first:last] == [1] * (cols[-1] - cols[0])
    padding = g.patch_x[:first] + g.patch_x[last:] + g.patch_y[g.fine_rows:]
    assert first > 0 and last < len(g.patch_x) and all(4 <= w < 8 for w in padding)
    assert g.patch_y[:g.fine_rows] == [1] * g.fine_rows
    assert g.num_parameters == len(g.patch_x) * len(g.patch_y) < g.num_elements / 1.5
    # polyline: along the surface, down by the region depth, closed
    poly = np.array(g.polyline)
    assert tuple(poly[0]) == tuple(poly[-1]) and len(poly) == 2 * 38 + 1
    assert np.allclose(poly[:38, 1], s.z - 121.2, atol=1e-4)
    assert np.allclose(poly[38:76, 1], (s.z - 121.2)[::-1] - g.depth, atol=1e-4)


def test_q5_factor_is_the_half_space_factor_on_a_flat_line():
    g = build_grid(np.arange(10.0) * 2, np.zeros(10))
    c = g.electrode_columns
    # Wenner a = 2 m: 2 pi a
    assert q5_geometric_factor(g, c[0], c[3], c[1], c[2]) == pytest.approx(2 * math.pi * 2, rel=1e-9)
    # dipole-dipole a = 2 m, n = 2: pi n (n + 1) (n + 2) a
    assert q5_geometric_factor(g, c[1], c[0], c[3], c[4]) == pytest.approx(math.pi * 2 * 3 * 4 * 2, rel=1e-9)
    for bad in ({"cells": 0}, {"growth": 1.0}, {"depth": -1}):
        with pytest.raises(ValueError):
            build_grid([0, 1], [0, 0], **bad)


def test_q5_places_the_electrodes_where_the_field_file_has_them(tmp_path):
    """A forward job on the imported slag dump: electrodes.dat (height up)
    less the shift and datum is the file's positions, and the resistances
    agree with those of the hand-made slag-dump example (another grid of the
    same topography, over 1 ohm m)."""
    q5 = q5_binary()
    run = tmp_path / "run"
    done = tool("q5-import", field("slagdump", "slagdump.ohm"), "-o", run, "--forward", "--rho", 10)
    assert done.returncode == 0, done.stderr
    subprocess.run([q5], cwd=run, capture_output=True, check=True)
    meta = json.load(open(run / "q5-import.json"))
    xyz = np.loadtxt(run / "electrodes.dat")
    assert np.allclose(xyz[:, 0] - meta["x_shift"], meta["electrodes"]["x"], atol=2e-3)
    assert np.allclose(xyz[:, 1] + meta["datum"], meta["electrodes"]["z"], atol=2e-3)
    lines = open(run / "Q5_forward.dat").read().split("\n")
    assert int(lines[0]) == 222
    s = read_survey(field("slagdump", "slagdump.ohm"))
    assert [int(v) for v in lines[1].split()[1:5]] == [s.m[0], s.n[0], s.a[0], s.b[0]]
    r = np.array([float(l[33:53]) for l in lines[1:223]])
    example = tmp_path / "example"
    shutil.copytree(os.path.join(REPO, "examples", "slagdump", "forward"), example)
    subprocess.run([q5], cwd=example, capture_output=True, check=True)
    r1 = np.array([float(l[33:53]) for l in open(example / "Q5_forward.dat").read().split("\n")[1:223]])
    assert np.allclose(r / 10, r1, rtol=0.02)
