"""Texts of Q5.in and protocol.dat for a grid and screened readings."""
from dataclasses import dataclass

import numpy as np


@dataclass
class Settings:
    """The settings Q5.in carries, in the order q5-import.json records them."""
    forward: bool
    rho_start: float                 # uniform start (or forward) model, ohm m
    start_file: str                  # or a start model file of every element (None)
    inverse_type: int
    target_decrease: float
    data_type: int                   # 1 log data
    tolerance: float
    max_iterations: int
    weight_update: int
    alpha_aniso: float
    a_wgt: float
    b_wgt: float
    errors_from_file: bool
    rho_min: float
    rho_max: float
    singular: int
    res_calc: int
    polyline: bool
    difference: bool


def _wrap(values, fmt, per_line=8):
    items = [fmt % v for v in values]
    return "\n".join(" ".join(items[k:k + per_line]) for k in range(0, len(items), per_line))


def _real(v):
    return f"{v:.6g}"


@dataclass
class MeshRecords:
    """What Q5.in says of a mesh: its type, records and electrode places."""
    mesh_type: int             # 4 grid, 3 triangles of mesh.dat
    lines: list                # the mesh records (grid sizes and lists, or the mesh scale)
    num_elements: int
    patch_lines: list          # parameter blocks of a grid inverse job (none for triangles)
    polyline: list             # (x, height) points of the region of interest, q5 frame
    electrode_lines: list      # one record per electrode
    what: str                  # words for the job line's comment


def grid_records(grid, electrode_ids):
    return MeshRecords(
        4, [f"{grid.num_x} {grid.num_y}        columns and rows", _wrap(grid.xs, "%.4f"),
            _wrap(grid.offsets, "%.4f"), _wrap(grid.ys, "%.4f")],
        grid.num_elements,
        ["0 0        parameter blocks listed",
         f"{len(grid.patch_x)} {len(grid.patch_y)}        blocks along x and y",
         _wrap([1] + list(grid.patch_x), "%d", 20), _wrap([1] + list(grid.patch_y), "%d", 20)],
        grid.polyline,
        [f"{len(electrode_ids)}        electrodes: id, column, row"]
        + [f"{e} {c} 1" for e, c in zip(electrode_ids, grid.electrode_columns)],
        "grid with surface offsets")


def triangle_records(tm, polyline, electrode_ids):
    return MeshRecords(
        3, ["1.0        mesh scale (mesh.dat in metres)"], tm.num_elements, [], polyline,
        [f"{len(electrode_ids)}        electrodes: id, node"]
        + [f"{e} {n}" for e, n in zip(electrode_ids, tm.electrode_nodes)],
        "triangles of mesh.dat")


def control_text(title, mesh, s):
    """Q5.in for a mesh (MeshRecords) with the given settings."""
    job = 0 if s.forward else 1
    out = [title[:80],
           f"{job} {mesh.mesh_type} 3.0 {s.singular} {0 if s.forward else s.res_calc}"
           f"        {'forward' if s.forward else 'inverse'} job, {mesh.what},"
           f" point sources, singularity removal {'on' if s.singular else 'off'}"]
    out += mesh.lines
    if s.start_file:
        out += ["0        start model from file", s.start_file]
    else:
        out += ["1", f"1 {mesh.num_elements} {_real(s.rho_start)}        uniform model, ohm m"]
    if not s.forward:
        out += mesh.patch_lines
        out += [f"{s.inverse_type} {_real(s.target_decrease)}        inverse type, target decrease",
                f"{s.data_type} {2 if s.difference else 0}        data type, regularisation mode",
                f"{_real(s.tolerance)} {s.max_iterations} {s.weight_update} {_real(s.alpha_aniso)}"
                "        tolerance, iterations, weight update, anisotropy",
                f"{'0 0' if s.errors_from_file else _real(s.a_wgt) + ' ' + _real(s.b_wgt)}"
                f" {_real(s.rho_min)} {_real(s.rho_max)}"
                f"        {'errors from protocol.dat' if s.errors_from_file else 'error model'},"
                " accepted apparent resistivity"]
    if s.polyline:
        out.append(f"{len(mesh.polyline)}        polyline of the region of interest")
        out += [f"{px:.4f} {ph:.4f}" for px, ph in mesh.polyline]
    else:
        out.append("0        no polyline: every element is written")
    out += mesh.electrode_lines
    return "\n".join(out) + "\n"


def protocol_text(blocks, forward=False):
    """protocol.dat from blocks of readings. Each block is a dict with arrays
    a, b, m, n (electrode numbers), r, and optionally ref and err. A line is:
    number, P+ (m), P- (n), C+ (a), C- (b), then value, reference, error."""
    out = []
    for block in blocks:
        out.append(str(len(block["r"])))
        for k in range(len(block["r"])):
            items = [str(k + 1), str(block["m"][k]), str(block["n"][k]),
                     str(block["a"][k]), str(block["b"][k])]
            if not forward:
                items.append(f"{block['r'][k]:.8g}")
                if block.get("ref") is not None:
                    items.append(f"{block['ref'][k]:.8g}")
                if block.get("err") is not None:
                    items.append(f"{block['err'][k]:.6g}")
            out.append(" ".join(items))
    return "\n".join(out) + "\n"


def accepted_range(rho):
    """rho_min and rho_max that keep every reading whose q5 apparent
    resistivity is rho, with room on both sides."""
    rho = np.asarray(rho, float)
    rho = rho[np.isfinite(rho)]
    if not len(rho):
        return 0.0, 1.0
    lo, hi = float(rho.min()), float(rho.max())
    span = max(abs(lo), abs(hi), 1e-6)
    return lo - span, hi + span


def q5_factor(ex, ey, ia, ib, im, in_):
    """The flat half-space factor q5 gives readings between electrodes at
    node coordinates ex, ey (q5's frame: the grid's depth or the mesh's
    height; index arrays ia.. into them): straight distances and image
    distances mirrored in the line y = 0, with q5's constant. Under
    topography it is only a scale for judging readings."""
    r = lambda p, q: np.hypot(ex[p] - ex[q], ey[p] - ey[q])
    ri = lambda p, q: np.hypot(ex[p] - ex[q], ey[p] + ey[q])
    with np.errstate(divide="ignore", invalid="ignore"):
        g = (1 / r(im, ia) + 1 / ri(im, ia) - 1 / r(in_, ia) - 1 / ri(in_, ia)
             - 1 / r(im, ib) - 1 / ri(im, ib) + 1 / r(in_, ib) + 1 / ri(in_, ib))
        return 1 / (g / 12.566370616)
