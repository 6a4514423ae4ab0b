"""The grid of a run (mesh_type 4): columns through every electrode, surface
offsets that follow the electrodes' elevations, rows fine at the surface, the
parameter blocks and the polyline of the region of interest.

q5 frame: x is shifted so that the whole grid lies at x >= 0, and heights are
taken from a datum at the highest electrode, so that every node depth
(depth below the surface plus the drop of the surface below the datum) is
>= 0. World x = q5 x - x_shift; world height = q5 height + datum."""
from dataclasses import dataclass

import numpy as np

DECIMALS = 4  # the grid is written with this many decimals and used as written


@dataclass
class Grid:
    xs: np.ndarray            # column positions, q5 frame
    offsets: np.ndarray       # surface offset of each column (height above the datum, <= 0)
    ys: np.ndarray            # row depths, 0 first
    x_shift: float
    datum: float
    electrode_columns: np.ndarray  # 1-based column of each electrode, in the order given
    patch_x: list             # block widths along x, cells
    patch_y: list             # block heights along y, cells
    fine_rows: int            # rows of one-cell parameters below the surface
    depth: float              # depth of the region of interest, m
    polyline: list            # (x, height) points, q5 frame, first == last

    @property
    def num_x(self):
        return len(self.xs)

    @property
    def num_y(self):
        return len(self.ys)

    @property
    def num_elements(self):
        return (self.num_x - 1) * (self.num_y - 1)

    @property
    def num_parameters(self):
        return len(self.patch_x) * len(self.patch_y)

    def node_depth(self, column, row=1):
        """Depth coordinate that q5 gives node (column, row), 1-based."""
        return self.ys[row - 1] - self.offsets[column - 1]


def _groups(count, size):
    """count cells in blocks of size, the remainder added to the last block."""
    out = [size] * (count // size)
    if count % size:
        if out:
            out[-1] += count % size
        else:
            out.append(count % size)
    return out


def _padding(start, h, growth, end, direction, fixed=()):
    """Columns from start outward, each cell `growth` times the last, to
    `end`; the positions in `fixed` (remote electrodes) become columns
    themselves, the padding column nearest each giving way to it."""
    out, pos = [], start
    while direction * (end - pos) > 0:
        h *= growth
        pos += direction * h
        out.append(pos)
    for f in fixed:
        if out:
            out[int(np.argmin(np.abs(np.array(out) - f)))] = f
    return sorted(set(out), reverse=direction < 0)


def build_grid(lay, x, z, remote, opts, pad_group=4):
    """Build the grid of a layout for electrodes at world x, z (any order; the
    remote ones placed) with the mesh options of opts (ImportOptions: cells,
    growth, row_growth, first_row). Raises ValueError with the reason for
    settings or positions it cannot use."""
    cells, growth, row_growth, first_row = opts.cells, opts.growth, opts.row_growth, opts.first_row
    x, z, remote = np.asarray(x, float), np.asarray(z, float), np.asarray(remote, bool)
    if np.sum(~remote) < 2:
        raise ValueError("at least two electrodes are needed")
    if cells < 1:
        raise ValueError("cells between electrodes must be at least 1")
    if growth <= 1 or row_growth < 1:
        raise ValueError("growth factors must be above 1")
    order = np.argsort(np.where(remote, np.inf, x), kind="stable")[:np.sum(~remote)]
    xe, ze = x[order], z[order]
    gaps = np.diff(xe)
    if np.any(gaps < 1e-3):
        k = int(np.argmin(gaps))
        raise ValueError(f"two electrodes stand at x = {xe[k]:g} m; the grid needs one electrode per column")
    fine = [xe[0] + (xe[k + 1] - xe[k]) * t / cells + (xe[k] - xe[0])
            for k in range(len(xe) - 1) for t in range(cells)] + [xe[-1]]
    left = _padding(xe[0], fine[1] - fine[0], growth, lay.left, -1, x[remote & (x < xe[0])])
    right = _padding(xe[-1], fine[-1] - fine[-2], growth, lay.right, 1, x[remote & (x > xe[-1])])
    world = np.array(left[::-1] + fine + right)
    # electrodes sit exactly on their columns
    columns = len(left) + np.arange(len(xe)) * cells
    world[columns] = xe
    x_shift = round(-world[0], DECIMALS)
    xs = np.round(world + x_shift, DECIMALS)

    datum = lay.datum
    offsets = np.round(lay.surface(world) - datum, DECIMALS)
    offsets[columns] = np.round(ze - datum, DECIMALS)

    depth = lay.roi_depth
    h = first_row if first_row else np.min(np.diff(fine)) / 2
    if h <= 0:
        raise ValueError("the first row must be thicker than 0")
    ys, d = [0.0], 0.0
    while d < depth - 1e-9:
        d += h
        ys.append(d)
        h *= row_growth
    fine_rows = len(ys) - 1
    while d < lay.bottom - (datum - np.min(lay.surface_z)):
        h *= growth
        d += h
        ys.append(d)
    ys = np.round(np.array(ys), DECIMALS)
    depth = float(ys[fine_rows])

    patch_x = _groups(len(left), pad_group)[::-1] + [1] * (len(fine) - 1) + _groups(len(right), pad_group)
    patch_y = [1] * fine_rows + _groups(len(ys) - 1 - fine_rows, pad_group)

    top = [(xs[c], offsets[c]) for c in columns]
    bottom = [(px, ph - depth) for px, ph in top[::-1]]
    polyline = top + bottom + [top[0]]

    electrode_columns = np.empty(len(x), int)
    electrode_columns[order] = columns + 1
    for k in np.flatnonzero(remote):
        electrode_columns[k] = int(np.argmin(np.abs(world - x[k]))) + 1
    return Grid(xs=xs, offsets=offsets, ys=ys, x_shift=x_shift, datum=datum,
                electrode_columns=electrode_columns, patch_x=patch_x, patch_y=patch_y,
                fine_rows=fine_rows, depth=depth, polyline=polyline)
