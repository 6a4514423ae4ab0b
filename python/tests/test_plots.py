"""Pictures and result readers on a small finished run made by hand in q5's
formats: files, sizes, and the colour of known cells."""
import json
import os

import matplotlib.image as mpimg
import numpy as np
import pytest

from conftest import write
from q5tools import plotting, results

# q5 frame: x shifted by 10 m, heights from a datum of 100 m
FRAME = {"x_shift": 10.0, "datum": 100.0, "depth": 2.0, "difference": False, "job": "inverse",
         "electrodes": {"id": [1, 2, 3, 4], "x": [0.0, 1.0, 2.0, 3.0], "z": [100.0] * 4}}


def vtk(values, sens=None, diff=None, triangles=False):
    """A 3 x 2 grid of cells in the layout q5 writes (x 10..13, heights 0..-2);
    triangles: each cell cut along its diagonal from top left to bottom right,
    the upper right triangle first."""
    pts = [(10 + i, -j) for i in range(4) for j in range(3)]
    cells = [(i * 3 + j, i * 3 + j + 3, i * 3 + j + 4, i * 3 + j + 1) for i in range(3) for j in range(2)]
    if triangles:
        cells = [t for c in cells for t in (c[:3], (c[0], c[2], c[3]))]
    size, kind = len(cells[0]), "  5" if triangles else "  9"
    out = ["# vtk DataFile Version 3.0", "Output from Q5", "ASCII", "DATASET UNSTRUCTURED_GRID",
           f"POINTS {len(pts):10d} double"] + [f"{x:12.5f}{y:12.5f}   0." for x, y in pts]
    out += [f" CELLS {len(cells):10d}{(size + 1) * len(cells):10d}"]
    out += ["%10d" * (size + 1) % ((size,) + c) for c in cells]
    out += [f"CELL_TYPES{len(cells):10d}", kind * len(cells), f"POINT_DATA{len(pts):10d}",
            f"CELL_DATA{len(cells):10d}"]
    scalars = [("Resistivity(Ohm-m)", values), ("Resistivity(log10)", np.log10(values))]
    if diff is not None:
        scalars.append(("difference(percent)", diff))
    if sens is not None:
        scalars.append(("Sensitivity(log10)", sens))
    for name, v in scalars:
        out += [f"SCALARS {name} double 1", "LOOKUP_TABLE default", "".join(f"{x:20.5f}" for x in v)]
    return "\n".join(out) + "\n"


ERR = ("    P+   P-        C+   C-  Normalised_Error  Observed_Rho  Calculated_Rho  Original_Weight  Final_Weight    C\n"
       "    2    3         1    4       -1.40076         29.655         28.434         0.33333E+02    0.33333E+02    0\n"
       "    3    4         2    1        0.50000***************         12.500         0.33333E+02    0.25000E+02    1\n")

OUT = """ Processing dataset   1
   Iteration   1
     Initial RMS Misfit:        14.81     Number of data ignored:     0
     Alpha:     28.624   RMS Misfit:        3.57
     Final RMS Misfit:        3.57
   Iteration   2
     Initial RMS Misfit:         3.57     Number of data ignored:     0
     Final RMS Misfit:        1.07
     Final RMS Misfit:        0.98
 Solution converged - Outputing results to file
 Processing dataset   2
   Iteration   1
     Initial RMS Misfit:         9.50     Number of data ignored:     2
     Final RMS Misfit:        2.25
    WARNING: Solution not converged in   1 iterations
"""

MODEL_1 = [10.0, 100.0, 1000.0, 50.0, 20.0, 200.0]
MODEL_2 = [10.0, 5.0, 3.0, 4.0, 2.0, 6.0]


@pytest.fixture
def run(tmp_path):
    write(tmp_path / "q5-import.json", json.dumps(FRAME))
    write(tmp_path / "f001_res.vtk", vtk(MODEL_1, sens=[1.0, -5.0, 0.5, 0.2, 0.1, 0.0]))
    write(tmp_path / "f002_res.vtk", vtk(MODEL_2))
    write(tmp_path / "f001_err.dat", ERR)
    write(tmp_path / "Q5.out", OUT)
    return tmp_path


def test_readers_of_a_finished_run(run):
    frame = results.read_frame(run)
    model = results.read_model(run / "f001_res.vtk", frame)
    assert model.polygons.shape == (6, 4, 2)
    assert model.polygons[..., 0].min() == 0 and model.polygons[..., 0].max() == 3
    assert model.polygons[..., 1].max() == 100 and model.polygons[..., 1].min() == 98
    assert list(model.scalars["Resistivity(Ohm-m)"]) == MODEL_1
    t = results.read_errors(run / "f001_err.dat")
    assert list(t["p1"]) == [2, 3] and list(t["c2"]) == [4, 1] and list(t["changed"]) == [0, 1]
    assert t["observed"][0] == 29.655 and np.isnan(t["observed"][1]) and t["calculated"][1] == 12.5
    assert list(t["weight"]) == [33.333, 25.0]
    misfits, ends = results.read_misfits(run / "Q5.out")
    assert misfits == {1: [(1, 14.81, 3.57), (2, 3.57, 0.98)], 2: [(1, 9.5, 2.25)]}
    assert ends[1] == "Solution converged - Outputing results to file"
    assert ends[2] == "WARNING: Solution not converged in   1 iterations"
    with pytest.raises(results.InputError, match="line 1: expected the header of an error table"):
        results.read_errors(write(run / "bad_err.dat", "1 2 3\n"))


def model_colour(rho, veil=0.0):
    """The colour of rho on a model scale of 10 to 1000 ohm m, under a white veil of that alpha."""
    rgb = np.array(plotting.plt.get_cmap(plotting.MODEL_CMAP)(plotting.LogNorm(10, 1000)(rho))[:3])
    return (1 - veil) * rgb + veil


def colours(fig, ax, expected, atol=0.02):
    """The drawn colour at each world (x, z) of expected is the RGB given."""
    fig.canvas.draw()
    image = np.asarray(fig.canvas.buffer_rgba())[..., :3] / 255.0
    for (x, z), want in expected.items():
        px, py = ax.transData.transform((x, z))
        assert np.allclose(image[image.shape[0] - int(round(py)), int(round(px))], want, atol=atol), (x, z)
    plotting.plt.close("all")


def section(model, frame, **kw):
    return plotting.section_figure(model, model.scalars["Resistivity(Ohm-m)"], plotting.LogNorm(10, 1000),
                                   plotting.MODEL_CMAP, frame, "t", "ohm m", **kw)


def test_known_cells_have_their_colours(run):
    frame = results.read_frame(run)
    model = results.read_model(run / "f001_res.vtk", frame)
    # cell 3 (x 1..2 in the world, top row) is 1000 ohm m; cell 1 is 10 ohm m
    c = model_colour
    colours(*section(model, frame), {(1.5, 99.5): c(1000), (0.5, 99.5): c(10), (2.5, 98.5): c(200)})
    # a low-sensitivity cell is veiled: lighter than its own colour
    colours(*section(model, frame, shade=np.array([0.6, 0, 0, 0, 0, 0])), {(0.5, 99.5): c(10, 0.6),
                                                                            (1.5, 99.5): c(1000)})
    # a borehole log at x = 1.5 shows 10 ohm m near the surface, 1000 below
    hole = (np.array([1.5, 1.5]), np.array([-0.5, -1.5]), np.array([10.0, 1000.0]))
    colours(*section(model, frame, borehole=hole), {(1.5, 99.5): c(10), (1.5, 98.5): c(1000)})


def test_plot_run_writes_every_picture_on_one_scale(run):
    written = plotting.plot_run(str(run))
    names = sorted(os.path.basename(p) for p in written)
    assert names == ["f001_data.png", "f001_model.png", "f002_model.png", "misfit.png"]
    for name in names:
        image = mpimg.imread(run / name)
        assert os.path.getsize(run / name) > 10000 and image.shape[1] >= 800
    assert mpimg.imread(run / "f001_model.png").shape[1] == 11 * plotting.DPI
    # the two datasets (2 to 1000 ohm m together) share one colour bar
    a, b = mpimg.imread(run / "f001_model.png"), mpimg.imread(run / "f002_model.png")
    assert a.shape == b.shape and not np.array_equal(a, b)
    bar = slice(int(0.9 * a.shape[1]), None)
    assert np.array_equal(a[:, bar], b[:, bar])


# electrodes 5 and 7 remote (far off the line), 6 buried 0.5 m under x = 1.5;
# the region of interest is the top 0.7 m under the line
PLACED = dict(FRAME, mesh="triangles", roi=[[0, 100], [3, 100], [3, 99.3], [0, 99.3], [0, 100]],
              electrodes={"id": [1, 2, 3, 4, 5, 6, 7], "x": [0.0, 1.0, 2.0, 3.0, 500.0, 1.5, -400.0],
                          "z": [100.0] * 5 + [99.5, 100.0], "remote": [False] * 4 + [True, False, True],
                          "depth": [0, 0, 0, 0, 0, 0.5, 0]})
RECIPROCAL = {"a": 0.002, "b": 0.03, "limit": 0.05, "method": "a + b|R| fitted to 3 pairs",
              "r": [0.01, 0.1, 1.0], "d": [0.003, 0.0, 0.05], "bins_r": [0.1], "bins_e": [0.004],
              "left_out_r": [0.5], "left_out_d": [0.2]}


@pytest.mark.parametrize("quad, x, depth", [
    ((1, 4, 2, 3), 1.5, -0.51),       # all on the surface: as before
    ((1, 5, 2, 7), 0.5, -0.17),       # pole-pole: C1 to P1
    ((1, 5, 3, 4), 5 / 3, -0.51),     # pole-dipole: its three electrodes near the line
    ((2, 5, 2, 7), 1.0, 0.0),         # what is near the line is one point
    ((6, 1, 2, 3), 1.125, -0.125),    # a buried electrode: mean depth of the four
])
def test_pseudosection_places_of_remote_and_buried_readings(tmp_path, quad, x, depth):
    write(tmp_path / "q5-import.json", json.dumps(PLACED))
    frame = results.read_frame(tmp_path)
    px, pz = plotting.pseudo_positions(frame, *([e] for e in quad))
    assert (px[0], pz[0]) == pytest.approx((x, depth))


def test_remote_buried_electrodes_and_triangles_in_the_region(tmp_path):
    write(tmp_path / "q5-import.json", json.dumps(PLACED))
    # the upper right triangle of the first cell is 1000 ohm m, the rest 10
    write(tmp_path / "f001_res.vtk", vtk([1000.0] + [10.0] * 11, triangles=True))
    frame = results.read_frame(tmp_path)
    model = results.read_model(tmp_path / "f001_res.vtk", frame)
    # both triangles of the top row have their centres (99.67, 99.33) inside
    keep = plotting._roi(model, frame)
    assert keep.sum() == 6 and np.all(model.polygons[keep][..., 1].min(axis=1) >= 99)
    fig, ax = section(model, frame)
    (x0, x1), (z0, z1) = ax.get_xlim(), ax.get_ylim()
    assert -0.3 < x0 < 0 and 3 < x1 < 3.3 and 99 < z0 < 99.3 and 100 < z1 < 100.3
    for line in ax.lines:  # nothing drawn toward the remote electrodes
        assert np.all((line.get_xdata() >= 0) & (line.get_xdata() <= 3))
    # the upper right triangle of the first cell, a lower left one, the buried electrode (black)
    colours(fig, ax, {(0.85, 99.85): model_colour(1000), (0.3, 99.4): model_colour(10)})
    colours(fig, ax, {(1.5, 99.5): 0}, atol=0.1)
    written = plotting.plot_run(str(tmp_path))
    assert sorted(os.path.basename(p) for p in written) == ["f001_model.png"]


@pytest.mark.parametrize("observed, log", [([29.7, 0.5], True), ([29.7, -0.5], False)])
def test_signed_apparent_resistivities_choose_the_scale(run, observed, log):
    # q5 writes rho_a with its signed factor: a negative reading under a
    # negative factor is a positive apparent resistivity
    table = results.read_errors(run / "f001_err.dat")
    table["observed"] = np.array(observed)
    fig = plotting.data_figure(results.read_frame(run), table, "t")
    assert isinstance(fig.axes[0].collections[0].norm, plotting.LogNorm) == log
    plotting.plt.close("all")


def test_difference_forward_and_reciprocal_pictures(run):
    frame = results.read_frame(run)  # a record from before remote electrodes, meshes and reciprocal pairs
    assert not frame.remote.any() and not frame.electrodes_depth.any()
    assert (frame.roi, frame.reciprocal, frame.mesh) == (None, None, "grid")
    write(run / "f001_res.vtk", vtk(MODEL_1, diff=[-50.0, 0.0, 50.0, 10.0, -10.0, 0.0]))
    os.remove(run / "f002_res.vtk")
    os.mkdir(run / "fwd")
    write(run / "fwd" / "forward_model.vtk", vtk([100.0] * 6))
    write(run / "fwd" / "Q5_forward.dat", "           2\n"
          "    1      2      3      1      4    0.7125214484E+01      178.44299\n"
          "    2      3      4      2      1    0.7677986801E+01      191.97748\n")
    t = results.read_forward(run / "fwd" / "Q5_forward.dat")
    assert list(t["p1"]) == [2, 3] and list(t["rhoa"]) == [178.44299, 191.97748]
    for where, names in [(run, ["f001_data", "f001_difference", "f001_model", "misfit", "reciprocal"]),
                         (run / "fwd", ["forward_data", "forward_model", "reciprocal"])]:
        write(where / "q5-import.json", json.dumps(dict(FRAME, reciprocal=RECIPROCAL)))
        assert sorted(os.path.basename(p) for p in plotting.plot_run(str(where))) == [n + ".png" for n in names]
        assert mpimg.imread(where / "reciprocal.png").shape[1] == 7 * plotting.DPI
    fig = plotting.reciprocal_figure(results.read_frame(run).reciprocal)
    assert fig.axes[0].get_title() == "Reciprocal error: a = 0.002 ohm, b = 3 %"
    line = next(l for l in fig.axes[0].lines if l.get_label().startswith("a + b|R|"))
    assert np.allclose(line.get_ydata(), 0.002 + 0.03 * line.get_xdata())
    plotting.plt.close("all")
    bad = dict(FRAME, reciprocal=dict(RECIPROCAL, d=[0.1]))
    with pytest.raises(results.InputError, match="q5-import.json: unreadable record.*r and d differ"):
        results.read_frame(os.path.dirname(write(run / "q5-import.json", json.dumps(bad))))
