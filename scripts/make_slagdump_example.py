#!/usr/bin/env python3
"""Writes the two runs of examples/slagdump on the electrode positions and
levelled topography of the BGR slag-dump Wenner profile (38 electrodes, 2 m
along the ground, 12.4 m relief; shared/fielddata/slagdump/slagdump.ohm):

- examples/slagdump: the inverse job on the measured resistances (log data,
  3 % relative error, linear filter, no singularity removal), with the grid
  shifted so that every column lies at x >= 0;
- examples/slagdump/forward: a forward job over a uniform 1 ohm m ground,
  whose transfer resistances are 1/K for the real geometry, so that a
  measured R times rho / R_computed gives the apparent resistivity
  corrected for topography.

The files are committed; this script shows how they were made."""
import os

from parameter_blocks import blocks, inverse_records
import sys

here = os.path.dirname(os.path.abspath(__file__))
src = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
    here, "..", "..", "shared", "fielddata", "slagdump", "slagdump.ohm")
out = os.path.join(here, "..", "examples", "slagdump")
os.makedirs(os.path.join(out, "forward"), exist_ok=True)

lines = [l.split("#")[0].split() for l in open(src)]
lines = [l for l in lines if l]
n_el = int(lines[0][0])
sensors = [(float(a), float(b)) for a, b in lines[1:1 + n_el]]
n_data = int(lines[1 + n_el][0])
data = [tuple(int(v) for v in l[:4]) for l in lines[2 + n_el:2 + n_el + n_data]]
measured = [float(l[4]) for l in lines[2 + n_el:2 + n_el + n_data]]

# Columns: every electrode and three between neighbours (four cells per
# spacing), then cells growing by 1.3 to about 300 m beyond either end.
xs = []
for (x0, _), (x1, _) in zip(sensors, sensors[1:]):
    xs += [x0 + (x1 - x0) * t / 4.0 for t in range(4)]
xs.append(sensors[-1][0])
h, x = xs[1] - xs[0], xs[0]
left = []
while x > xs[0] - 300.0:
    h *= 1.3
    x -= h
    left.append(x)
h, x = xs[-1] - xs[-2], xs[-1]
right = []
while x < xs[-1] + 300.0:
    h *= 1.3
    x += h
    right.append(x)
xs = left[::-1] + xs + right


def elevation(x):
    if x <= sensors[0][0]:
        return sensors[0][1]
    if x >= sensors[-1][0]:
        return sensors[-1][1]
    for (x0, z0), (x1, z1) in zip(sensors, sensors[1:]):
        if x0 <= x <= x1:
            return z0 + (z1 - z0) * (x - x0) / (x1 - x0)


datum = 115.0  # heights are given relative to 115 m, near the profile's middle
offsets = [elevation(x) - datum for x in xs]
ys, d, h = [0.0], 0.0, 0.125
while d < 20.0:
    d += h
    ys.append(round(d, 6))
    h *= 1.1
while d < 300.0:
    h *= 1.3
    d += h
    ys.append(round(d, 6))
nx, ny = len(xs), len(ys)


def wrap(values):
    vals = [f"{v:.6g}" for v in values]
    return "\n".join(" ".join(vals[i:i + 8]) for i in range(0, len(vals), 8))


first = len(left) + 1
electrodes = [f"{k + 1} {first + 4 * k} 1" for k in range(n_el)]
cells = (nx - 1) * (ny - 1)


def control(title, job, xs_out, records):
    return "\n".join([title, job, f"{nx} {ny}        columns and rows",
                      wrap(xs_out), wrap(offsets), wrap(ys)] + records +
                     ["0        no polyline", f"{n_el}        electrodes: id, column, row"] +
                     electrodes) + "\n"


# Forward job over 1 ohm m.
open(os.path.join(out, "forward", "Q5.in"), "w").write(control(
    "Slag dump profile 11: topography of the BGR Wenner line, 1 ohm m ground",
    "0 4 3.0 0 0        forward job, grid with surface offsets, 3-D flow, no singularity removal",
    xs, [f"1\n1 {cells} 1.0        uniform 1 ohm m"]))
with open(os.path.join(out, "forward", "protocol.dat"), "w") as f:
    f.write(f"{len(data)}\n")
    for i, (a, b, m, n) in enumerate(data, 1):
        f.write(f"{i} {m} {n} {a} {b}\n")


# Inverse job. Parameter blocks: 2 cells (1 m) along the line, the padding
# in blocks of 4 cells; rows in pairs to 20 m, deeper in threes.
line_cells = 4 * (n_el - 1)
bx = blocks(len(left), 4) + blocks(line_cells, 2) + blocks(len(right), 4)
shallow = sum(1 for y in ys[1:] if y <= 20.0)
by = blocks(shallow, 2) + blocks(ny - 1 - shallow, 3)
assert sum(bx) == nx - 1 and sum(by) == ny - 1
shift = -xs[0]  # the mesh starts at x = 0
open(os.path.join(out, "Q5.in"), "w").write(control(
    f"Slag dump profile 11: inversion of the measured resistances, x shifted by {shift:.3f} m",
    "1 4 3.0 0 1        inverse job, grid with surface offsets, 3-D flow, no singularity removal, sensitivity",
    [x + shift for x in xs],
    inverse_records(cells, 10.0, bx, by, wrap)))
with open(os.path.join(out, "protocol.dat"), "w") as f:
    f.write(f"{len(data)}\n")
    for i, ((a, b, m, n), r) in enumerate(zip(data, measured), 1):
        f.write(f"{i} {m} {n} {a} {b} {r:.6g}\n")
print(nx, ny, nx * ny, len(data), len(bx) * len(by))
