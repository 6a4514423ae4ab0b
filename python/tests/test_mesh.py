"""The meshes q5-import makes, checked through q5's own forward job: the grid
following the electrodes, triangles with remote and buried electrodes, the
half-space formula, and the Mulda hillslope's computed geometric factors."""
from dataclasses import replace

import numpy as np
import pytest

from conftest import field, forward_resistances, import_dir, relative_errors, tool, unified
from q5tools import control, geometry, trimesh
from q5tools.grid import build_grid
from q5tools.options import ImportOptions
from q5tools.readers import read_survey
from q5tools.survey import Survey


def test_slagdump_grid_follows_the_electrodes():
    s = read_survey(field("slagdump", "slagdump.ohm"))
    lay = geometry.layout(s, None, ImportOptions.boundary)
    g = build_grid(lay, s.x, s.z, s.remote, ImportOptions())
    cols = g.electrode_columns
    # every electrode on its own column, four cells apart, x back in the world frame
    assert np.array_equal(np.diff(cols), np.full(37, 4))
    assert np.allclose(g.xs[cols - 1] - g.x_shift, s.x, atol=1e-4)
    assert g.datum == 121.2 and np.allclose(g.offsets[cols - 1], s.z - 121.2, atol=1e-4)
    # between electrodes the surface runs straight; beyond the ends it stays level
    k = cols[5] + 1
    t = (g.xs[k] - g.xs[cols[5] - 1]) / (g.xs[cols[6] - 1] - g.xs[cols[5] - 1])
    assert g.offsets[k] == pytest.approx((1 - t) * (s.z[5] - 121.2) + t * (s.z[6] - 121.2), abs=1e-4)
    assert np.all(g.offsets[:cols[0]] == g.offsets[cols[0] - 1])
    assert g.xs[0] == 0 and np.all(np.diff(g.xs) > 0) and np.all(g.offsets <= 0)
    left = np.diff(g.xs[:cols[0]])[::-1]
    assert np.allclose(left[1:] / left[:-1], 1.3, rtol=1e-3)
    length = s.x[-1] - s.x[0]
    assert g.xs[cols[0] - 1] - g.xs[0] >= 5 * length and g.ys[-1] >= 5 * length
    assert g.ys[g.fine_rows] == g.depth >= 0.25 * length
    # one cell per parameter under the line, padding in blocks of 4 to 7 cells
    edges = list(np.cumsum([0] + g.patch_x))
    first, last = edges.index(cols[0] - 1), edges.index(cols[-1] - 1)
    assert g.patch_x[first:last] == [1] * (cols[-1] - cols[0])
    assert all(4 <= w < 8 for w in g.patch_x[:first] + g.patch_x[last:] + g.patch_y[g.fine_rows:])
    poly = np.array(g.polyline)
    assert tuple(poly[0]) == tuple(poly[-1]) and np.allclose(poly[:38, 1], s.z - 121.2, atol=1e-4)


def test_q5_factor_is_the_half_space_factor_on_a_flat_line():
    x, y = np.arange(10.0) * 2, np.zeros(10)
    # Wenner a = 2 m: 2 pi a; dipole-dipole a = 2 m, n = 2: pi n (n + 1) (n + 2) a
    assert control.q5_factor(x, y, 0, 3, 1, 2) == pytest.approx(2 * np.pi * 2, rel=1e-9)
    assert control.q5_factor(x, y, 1, 0, 3, 4) == pytest.approx(np.pi * 2 * 3 * 4 * 2, rel=1e-9)
    # the survey's factor with images: Wenner a = 1 m, 2 pi a; a buried pole-pole pair 3 m
    # deep, 2 m apart: 4 pi / (1/r + 1/r') with r' the image distance
    xs, depth = np.array([0, 1, 2, 3, 0, 2, np.nan, np.nan]), np.array([0, 0, 0, 0, 3, 3, 0, 0])
    quads = [np.array(v) for v in zip((1, 4, 2, 3), (5, 7, 6, 8))]
    k = Survey("s", np.arange(1, 9), xs, -depth, *quads, np.ones(2), depth=depth, remote=np.isnan(xs)).factor()
    assert k == pytest.approx([2 * np.pi, 4 * np.pi / (1 / 2 + 1 / np.hypot(2.0, 6.0))], rel=1e-12)


@pytest.mark.parametrize("mesh", ["triangles", "grid"])
def test_pole_dipole_and_pole_pole_reproduce_the_half_space(tmp_path, mesh):
    """Remote electrodes at known places (--remote): q5's forward job over
    100 ohm m against the four-electrode half-space formula."""
    n = 25
    readings = [(a, 0, a + s, a + s + 1) for a in range(1, n) for s in (1, 2, 3, 5, 8) if a + s + 1 <= n]
    readings += [(a, 0, a - s, a - s - 1) for a in range(1, n + 1) for s in (1, 3, 6) if a - s - 1 >= 1]
    readings += [(a, 0, a + s, 0) for a in range(1, n) for s in (1, 2, 4) if a + s <= n]
    sensors = [(float(k), 0.0) for k in range(n)]
    run, meta, out, path = import_dir(tmp_path, unified(sensors, readings), "--forward", "--rho", 100,
                                      "--mesh", mesh, "--remote", "-120", "--remote", "150,0")
    assert "remote current electrode 26 at x = -120 m" in out and "remote potential electrode 27" in out
    assert meta["electrodes"]["remote"] == [False] * n + [True, True]
    r = forward_resistances(run)
    s = read_survey(path)
    s = replace(s, x=np.concatenate([s.x[:-2], [-120, 150]]), z=np.concatenate([s.z[:-2], [0, 0]]))
    median, p90 = relative_errors(r, 100 / s.factor())
    assert median < 1.0 and p90 < 3.0, (median, p90)


def test_default_remote_is_placed_far_and_inside_the_mesh(tmp_path):
    readings = [(a, 0, a + 1, a + 2) for a in range(1, 9)]
    run, meta, out, _ = import_dir(tmp_path, unified([(k * 2.0, 0) for k in range(10)], readings), "--forward")
    assert "remote current electrode 11 placed 180 m before the first electrode (x = -180 m;" in out
    assert meta["electrodes"]["x"][-1] == -180
    nodes = open(f"{run}/mesh.dat").read().split("\n")
    count = int(nodes[0].split()[0])
    xy = np.array([[float(v) for v in l.split()[1:]] for l in nodes[count + 1:] if l.strip()])
    # the boundary lies well beyond the remote
    assert xy[:, 0].min() - meta["x_shift"] <= -180 - 5 * 18 and (xy[:, 1].min() <= -180)


def test_borehole_panel_stands_on_nodes_at_its_depths(tmp_path):
    """Two boreholes 6 m apart with electrodes every metre from 1 to 8 m
    deep, under a surface line: every electrode on a node at its place
    (within 1 cm) and q5's resistances over a half-space as the formula with
    images gives them."""
    sensors = [(float(x), 0.0) for x in range(-2, 9)] + [(0.0, -d) for d in range(1, 9)] + \
              [(6.0, -d) for d in range(1, 9)]
    hole = lambda x0: [k for k, (x, z) in enumerate(sensors, 1) if x == x0 and z < 0]
    h1, h2 = hole(0.0), hole(6.0)
    readings = [(h1[i], h1[i + 1], h2[j], h2[j + 1]) for i in range(7) for j in range(7)]
    readings += [(1, 2, h1[i], h1[i + 1]) for i in range(7)] + [(3, 4, 6, 7), (1, 11, h2[0], h2[7])]
    run, meta, _, path = import_dir(tmp_path, unified(sensors, readings), "--forward", "--rho", 50)
    r = forward_resistances(run)
    xyz = np.loadtxt(f"{run}/electrodes.dat")
    placed = np.column_stack([xyz[:, 0] - meta["x_shift"], xyz[:, 1] + meta["datum"]])
    assert np.max(np.hypot(*(placed - np.array(sensors)).T)) < 0.01
    assert meta["electrodes"]["depth"][h2[7] - 1] == 8 and meta["mesh"] == "triangles"
    median, p90 = relative_errors(r, 50 / geometry.infer_depths(read_survey(path)).factor())
    assert median < 1.0 and p90 < 3.0, (median, p90)


def test_pinned_node_lies_on_the_far_boundary():
    s = read_survey(field("mulda-hillslope", "data", "MuldaA-2008-05-09.data"))
    lay = geometry.layout(s, None, ImportOptions.boundary)
    tm = trimesh.build_trimesh(lay, s.x, s.z, s.remote, 0.125)
    q5m, x_shift, pin = trimesh.q5_frame(tm, lay, ~s.remote)
    x, z = q5m.x[pin - 1] - x_shift, q5m.z[pin - 1] + lay.datum
    assert np.min(np.hypot(x - s.x, z - s.z)) > 4 * lay.length
    # electrodes are nodes, triangles anticlockwise with z up
    assert np.allclose(q5m.x[q5m.electrode_nodes - 1] - x_shift, s.x, atol=1e-6)
    t = q5m.triangles - 1
    area = (q5m.x[t[:, 1]] - q5m.x[t[:, 0]]) * (q5m.z[t[:, 2]] - q5m.z[t[:, 0]]) \
        - (q5m.x[t[:, 2]] - q5m.x[t[:, 0]]) * (q5m.z[t[:, 1]] - q5m.z[t[:, 0]])
    assert np.all(area > 0)


@pytest.mark.parametrize("mesh, median_limit, p90_limit", [("triangles", 0.5, 1.5), ("grid", 0.55, 1.8)])
def test_mulda_geometric_factors(tmp_path, mesh, median_limit, p90_limit):
    """A uniform 1 ohm m forward job on the hillslope's topography: 1/R
    against the survey's numerically computed geometric factors."""
    path = field("mulda-hillslope", "data", "MuldaA-2008-05-09.data")
    run = tmp_path / mesh
    done = tool("q5-import", path, "-o", run, "--forward", "--rho", 1, "--mesh", mesh)
    assert done.returncode == 0, done.stderr
    median, p90 = relative_errors(1 / forward_resistances(run), read_survey(path).k)
    assert median < median_limit and p90 < p90_limit, (median, p90)
