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


def vtk(values, sens=None, diff=None):
    """A 3 x 2 grid of cells in the layout q5 writes (x 10..13, heights 0..-2)."""
    pts = [(10 + i, -j) for i in range(4) for j in range(3)]
    cells = [(i * 3 + j, i * 3 + j + 3, i * 3 + j + 4, i * 3 + j + 1) for i in range(3) for j in range(2)]
    out = ["# vtk DataFile Version 3.0", "Output from Q5", "ASCII", "DATASET UNSTRUCTURED_GRID",
           f"POINTS {len(pts):10d} double"] + [f"{x:12.5f}{y:12.5f}   0." for x, y in pts]
    out += [f" CELLS {len(cells):10d}{5 * len(cells):10d}"] + ["%10d" * 5 % ((4,) + c) for c in cells]
    out += [f"CELL_TYPES{len(cells):10d}", "  9" * len(cells), f"POINT_DATA{len(pts):10d}",
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


def pixel(fig, ax, x, z):
    fig.canvas.draw()
    image = np.asarray(fig.canvas.buffer_rgba())[..., :3] / 255.0
    px, py = ax.transData.transform((x, z))
    return image[image.shape[0] - int(round(py)), int(round(px))]


def test_known_cells_have_their_colours(run):
    frame = results.read_frame(run)
    model = results.read_model(run / "f001_res.vtk", frame)
    norm = plotting.LogNorm(10, 1000)
    cmap = plotting.plt.get_cmap(plotting.MODEL_CMAP)
    values = model.scalars["Resistivity(Ohm-m)"]
    fig, ax = plotting.section_figure(model, values, norm, plotting.MODEL_CMAP, frame, "t", "ohm m")
    # cell 3 (x 1..2 in the world, top row) is 1000 ohm m; cell 1 is 10 ohm m
    assert np.allclose(pixel(fig, ax, 1.5, 99.5), cmap(norm(1000.0))[:3], atol=0.02)
    assert np.allclose(pixel(fig, ax, 0.5, 99.5), cmap(norm(10.0))[:3], atol=0.02)
    assert np.allclose(pixel(fig, ax, 2.5, 98.5), cmap(norm(200.0))[:3], atol=0.02)
    # a low-sensitivity cell is veiled: lighter than its own colour
    shade = np.array([0.6, 0, 0, 0, 0, 0])
    fig, ax = plotting.section_figure(model, values, norm, plotting.MODEL_CMAP, frame, "t", "ohm m", shade=shade)
    veiled = 0.4 * np.array(cmap(norm(10.0))[:3]) + 0.6
    assert np.allclose(pixel(fig, ax, 0.5, 99.5), veiled, atol=0.02)
    assert np.allclose(pixel(fig, ax, 1.5, 99.5), cmap(norm(1000.0))[:3], atol=0.02)
    # a borehole log at x = 1.5 shows 10 ohm m near the surface, 1000 below
    hole = (np.array([1.5, 1.5]), np.array([-0.5, -1.5]), np.array([10.0, 1000.0]))
    fig, ax = plotting.section_figure(model, values, norm, plotting.MODEL_CMAP, frame, "t", "ohm m", borehole=hole)
    assert np.allclose(pixel(fig, ax, 1.5, 99.5), cmap(norm(10.0))[:3], atol=0.02)
    assert np.allclose(pixel(fig, ax, 1.5, 98.5), cmap(norm(1000.0))[:3], atol=0.02)
    plotting.plt.close("all")


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


def test_difference_section_and_forward_job(run):
    write(run / "f001_res.vtk", vtk(MODEL_1, diff=[-50.0, 0.0, 50.0, 10.0, -10.0, 0.0]))
    os.remove(run / "f002_res.vtk")
    written = plotting.plot_run(str(run))
    assert os.path.join(str(run), "f001_difference.png") in written
    fwd = run / "fwd"
    os.mkdir(fwd)
    write(fwd / "q5-import.json", json.dumps(FRAME))
    write(fwd / "forward_model.vtk", vtk([100.0] * 6))
    write(fwd / "Q5_forward.dat", "           2\n"
          "    1      2      3      1      4    0.7125214484E+01      178.44299\n"
          "    2      3      4      2      1    0.7677986801E+01      191.97748\n")
    written = plotting.plot_run(str(fwd))
    assert sorted(os.path.basename(p) for p in written) == ["forward_data.png", "forward_model.png"]
    t = results.read_forward(fwd / "Q5_forward.dat")
    assert list(t["p1"]) == [2, 3] and list(t["rhoa"]) == [178.44299, 191.97748]
