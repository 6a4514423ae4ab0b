"""Readers of what a run directory holds after q5: model VTK files (meshio),
_err.dat, _sen.dat, Q5_forward.dat, the misfits in Q5.out, the import's
record of coordinates, and borehole logs."""
import glob
import json
import os
import re
from dataclasses import dataclass

import meshio
import numpy as np

from .errors import InputError
from .importer import META


@dataclass
class Frame:
    """World coordinates of a run: x = q5 x - x_shift, z = q5 height + datum."""
    x_shift: float = 0.0
    datum: float = 0.0
    electrodes_x: np.ndarray = None  # world positions of the electrodes (a buried one: its own place)
    electrodes_z: np.ndarray = None
    electrode_ids: np.ndarray = None
    depth: float = None              # depth of the region of interest below the line
    difference: bool = False
    job: str = None
    remote: np.ndarray = None        # True for an electrode far from the line
    electrodes_depth: np.ndarray = None  # m below the ground surface (0 on it)
    roi: np.ndarray = None           # region of interest, closed polygon of world (x, z)
    mesh: str = "grid"
    reciprocal: dict = None          # the import's reciprocal pairs and error model

    def __post_init__(self):
        if self.electrode_ids is not None:
            count = len(self.electrode_ids)
            if self.remote is None:
                self.remote = np.zeros(count, bool)
            if self.electrodes_depth is None:
                self.electrodes_depth = np.zeros(count)

    def _index(self, ids):
        index = {int(e): k for k, e in enumerate(self.electrode_ids)}
        k = np.array([index.get(int(e), -1) for e in ids])
        if np.any(k < 0):
            raise KeyError(f"electrode {int(np.asarray(ids)[k < 0][0])} is not in the run")
        return k

    def places(self, ids):
        """x, depth below the surface and remote flag of the given electrodes."""
        k = self._index(ids)
        return self.electrodes_x[k], self.electrodes_depth[k], self.remote[k]

    def surface(self):
        """The ground along the line, sorted by x: the electrodes on it and
        the ground above the buried ones; remote electrodes are off the line."""
        if self.electrodes_x is None:
            return None
        on = ~self.remote
        x = self.electrodes_x[on]
        z = self.electrodes_z[on] + self.electrodes_depth[on]
        order = np.argsort(x, kind="stable")
        return x[order], z[order]


def read_frame(run_dir):
    """The run's frame from q5-import's record; without one, the q5 frame
    itself with electrodes from electrodes.dat and ids 1, 2, ..."""
    path = os.path.join(run_dir, META)
    if os.path.exists(path):
        try:
            with open(path) as f:
                return _frame(json.load(f))
        except (ValueError, KeyError, TypeError) as err:
            raise InputError(path, f"unreadable record of the import ({err})")
    frame = Frame()
    path = os.path.join(run_dir, "electrodes.dat")
    if os.path.exists(path):
        xyz = np.atleast_2d(np.loadtxt(path))
        frame = Frame(electrodes_x=xyz[:, 0], electrodes_z=xyz[:, 1],
                      electrode_ids=np.arange(1, len(xyz) + 1))
    return frame


def _frame(meta):
    """A Frame from the record; records older than remote and buried
    electrodes, triangle meshes and reciprocal pairs lack their keys."""
    e = meta["electrodes"]
    ids = np.array(e["id"])
    column = lambda name, kind: None if e.get(name) is None else _per_electrode(e[name], kind, len(ids), name)
    roi = meta.get("roi")
    if roi is not None:
        roi = np.array(roi, float)
        if roi.ndim != 2 or roi.shape[1] != 2 or len(roi) < 4:
            raise ValueError("roi is not a closed polygon of (x, z) points")
    reciprocal = meta.get("reciprocal")
    if reciprocal is not None:
        reciprocal = _reciprocal(reciprocal)
    return Frame(meta["x_shift"], meta["datum"], _per_electrode(e["x"], float, len(ids), "x"),
                 _per_electrode(e["z"], float, len(ids), "z"), ids,
                 meta.get("depth"), meta.get("difference", False), meta.get("job"),
                 remote=column("remote", bool), electrodes_depth=column("depth", float),
                 roi=roi, mesh=meta.get("mesh", "grid"), reciprocal=reciprocal)


def _reciprocal(table):
    """The reciprocal entry with its lists as arrays, each pair of lists
    (pairs, bins, left-out pairs) of one length; a and b are None when the
    import had too few pairs for an error model."""
    if not isinstance(table, dict):
        raise ValueError("reciprocal is neither null nor a table")
    out = dict(table)
    for x, y in (("r", "d"), ("bins_r", "bins_e"), ("left_out_r", "left_out_d")):
        out[x], out[y] = (np.array(table.get(k) or [], float) for k in (x, y))
        if out[x].shape != out[y].shape or out[x].ndim != 1:
            raise ValueError(f"reciprocal {x} and {y} differ in length")
    for k in ("a", "b", "limit"):
        out[k] = None if table.get(k) is None else float(table[k])
    return out


def _per_electrode(values, kind, count, name):
    values = np.array(values, kind)
    if values.shape != (count,):
        raise ValueError(f"{count} electrodes but {values.size} values of {name}")
    return values


@dataclass
class Model:
    polygons: np.ndarray    # cells x corners x 2, world coordinates (a triangle repeats its last corner)
    scalars: dict           # name -> value per cell

    def centres(self):
        """Mean of each cell's corners, a triangle's repeated one counted once."""
        p = self.polygons
        triangle = np.all(p[:, -1] == p[:, -2], axis=1)
        return np.where(triangle[:, None], p[:, :-1].mean(axis=1), p.mean(axis=1))


def read_model(path, frame=None):
    """Cells and cell scalars of a q5 model VTK file, in world coordinates."""
    try:
        mesh = meshio.read(path, file_format="vtk")
    except Exception as e:  # meshio raises several kinds for a bad file
        raise InputError(path, f"not a readable VTK file ({e})")
    frame = frame or Frame()
    pts = mesh.points[:, :2] + np.array([-frame.x_shift, frame.datum])
    polys, scalars = [], {}
    for k, block in enumerate(mesh.cells):
        if block.type not in ("quad", "triangle"):
            continue
        cells = pts[block.data]
        if block.type == "triangle":
            cells = np.concatenate([cells, cells[:, -1:]], axis=1)
        polys.append(cells)
        for name, values in mesh.cell_data.items():
            scalars.setdefault(name, []).append(np.asarray(values[k], float).ravel())
    if not polys:
        raise InputError(path, "holds no cells")
    return Model(np.concatenate(polys), {k: np.concatenate(v) for k, v in scalars.items()})


def read_table_values(path, column=3):
    """A column of a q5 model table (_res.dat, _sen.dat): x, y, value, log10;
    lines of three fields have no log10."""
    values = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            items = line.split()
            if not items:
                continue
            try:
                values.append(float(items[column]) if len(items) > column else np.nan)
            except ValueError:
                raise InputError(path, f"not a number: {items[column]}", number)
    return np.array(values)


ERR_WIDTHS = [5, 5, 5, 5, 5, 15, 15, 15, 5, 15, 15, 5]
ERR_NAMES = ["p1", "p2", "skip1", "c1", "c2", "norm_error", "observed", "calculated",
             "skip2", "weight0", "weight", "changed"]


def read_errors(path):
    """The table of a _err.dat file: electrode numbers and columns by name.
    Fields too wide for their format (asterisks) come back as NaN."""
    with open(path) as f:
        lines = f.read().splitlines()
    if not lines or "Normalised_Error" not in lines[0]:
        raise InputError(path, "expected the header of an error table", 1)
    rows = [l for l in lines[1:] if l.strip()]
    if not rows:
        return {name: np.array([]) for name in ERR_NAMES}
    table = np.genfromtxt(rows, delimiter=ERR_WIDTHS, dtype=float)
    table = np.atleast_2d(table)
    if table.shape[1] != len(ERR_WIDTHS) or np.isnan(table[:, [0, 1, 3, 4]]).any():
        bad = int(np.where(np.isnan(table[:, [0, 1, 3, 4]]).any(axis=1))[0][0]) + 2 \
            if table.shape[1] == len(ERR_WIDTHS) else 2
        raise InputError(path, "expected electrode numbers in the first columns", bad)
    return {name: table[:, k] for k, name in enumerate(ERR_NAMES) if not name.startswith("skip")}


def read_forward(path):
    """Q5_forward.dat: the four electrode numbers (P+ P- C+ C-), transfer
    resistance and apparent resistivity of each reading."""
    with open(path) as f:
        lines = f.read().splitlines()
    if not lines:
        raise InputError(path, "is empty")
    rows = [l for l in lines[1:] if l.strip()]
    table = np.atleast_2d(np.genfromtxt(rows, delimiter=[5, 7, 7, 7, 7, 20, 15], dtype=float))
    if table.shape[1] != 7 or np.isnan(table[:, 1:5]).any():
        raise InputError(path, "expected lines of a number, four electrodes and two values", 2)
    return {"p1": table[:, 1], "p2": table[:, 2], "c1": table[:, 3], "c2": table[:, 4],
            "resistance": table[:, 5], "rhoa": table[:, 6]}


_NUM = r"([-+0-9.EeNnAaIi*]+)"


def read_misfits(path):
    """Misfit per iteration of each dataset from Q5.out: a dict dataset ->
    list of (iteration, initial RMS, final RMS or None), and the closing words
    of each dataset."""
    out, ends, dataset, iteration = {}, {}, None, None
    with open(path, errors="replace") as f:
        for line in f:
            text = line.strip()
            m = re.match(r"Processing dataset\s+(\d+)", text)
            if m:
                dataset, iteration = int(m.group(1)), None
                out[dataset] = []
                continue
            if dataset is None:
                continue
            m = re.match(r"Iteration\s+(\d+)", text)
            if m:
                iteration = int(m.group(1))
                continue
            m = re.match(r"Initial RMS Misfit:\s*" + _NUM, text)
            if m and iteration is not None:
                out[dataset].append([iteration, _float(m.group(1)), None])
                continue
            m = re.match(r"Final RMS Misfit:\s*" + _NUM, text)
            if m and out[dataset]:
                out[dataset][-1][2] = _float(m.group(1))
                continue
            if "Outputing results" in text or "not converged" in text or "shows solution" in text:
                ends[dataset] = text
    return {k: [tuple(r) for r in v] for k, v in out.items() if v}, ends


def _float(text):
    try:
        return float(text)
    except ValueError:
        return np.nan


def read_borehole(path):
    """A borehole log of lines `x z rho` (z: depth below the surface, as a
    negative number or a positive depth)."""
    try:
        with open(path) as f:
            table = np.loadtxt(f, ndmin=2)
    except ValueError as e:
        raise InputError(path, f"expected lines of x z rho ({e})")
    if table.shape[1] < 3:
        raise InputError(path, f"expected 3 columns, found {table.shape[1]}", 1)
    return table[:, 0], -np.abs(table[:, 1]), table[:, 2]


def datasets(run_dir):
    """Stems (f001, ...) of the datasets with a model VTK file."""
    names = sorted(glob.glob(os.path.join(run_dir, "f[0-9][0-9][0-9]_res.vtk")))
    return [os.path.basename(n)[:4] for n in names]
