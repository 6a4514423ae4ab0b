#!/usr/bin/env python3
"""Writes examples/forward: a 48-electrode surface line (2 m spacing) over a
100 ohm m ground with a 10 ohm m conductive body and a 1000 ohm m resistive
body, on a grid with depth lists, with one block of dipole-dipole and Wenner
readings. The files are committed; this script shows how they were made."""
import os

from parameter_blocks import blocks, inverse_records

out = os.path.join(os.path.dirname(__file__), "..", "examples", "forward")
os.makedirs(out, exist_ok=True)

spacing, n_el = 2.0, 48
cell = spacing / 4.0                      # four cells per electrode spacing
line_end = spacing * (n_el - 1)

# Columns: fine cells over the line, then cells growing by 1.3 to ~250 m out.
xs = [i * cell for i in range(int(round(line_end / cell)) + 1)]
left, right, w = [], [], cell
while xs[0] - sum(left) - w > -250.0 or not left:
    w *= 1.3
    left.append(w)
pos = 0.0
for w in left:
    pos -= w
    xs.insert(0, pos)
pos, w = line_end, cell
while pos < line_end + 250.0:
    w *= 1.3
    pos += w
    xs.append(pos)

# Rows: 0.25 m at the surface growing gently to 30 m, then by 1.3 to ~250 m.
ys, d, h = [0.0], 0.0, 0.25
while d < 30.0:
    d += h
    ys.append(round(d, 6))
    h *= 1.08
while d < 250.0:
    h *= 1.3
    d += h
    ys.append(round(d, 6))

nx, ny = len(xs), len(ys)
ncell_y = ny - 1


def column_of(x):
    return min(range(nx), key=lambda i: abs(xs[i] - x)) + 1


def row_of(y):
    return min(range(ny), key=lambda j: abs(ys[j] - y)) + 1


def body(x0, x1, y0, y1, rho):
    recs = []
    i0, i1 = column_of(x0), column_of(x1) - 1
    j0, j1 = row_of(y0), row_of(y1) - 1
    for i in range(i0, i1 + 1):
        e0 = (i - 1) * ncell_y + j0
        e1 = (i - 1) * ncell_y + j1
        recs.append(f"{e0} {e1} {rho}")
    return recs


regions = [f"1 {(nx - 1) * ncell_y} 100.0"]
regions += body(24.0, 36.0, 3.0, 9.0, 10.0)      # conductive body
regions += body(58.0, 70.0, 4.0, 12.0, 1000.0)   # resistive body


def wrap(values, per_line=10):
    vals = [f"{v:g}" for v in values]
    return "\n".join(" ".join(vals[i:i + per_line]) for i in range(0, len(vals), per_line))


lines = ["Example: 48 electrodes over a conductive and a resistive body",
         "0 5 3.0 0 0        job_type mesh_type flux_type Singular_type res_calc",
         f"{nx} {ny}        num_x num_y",
         wrap(xs)]
for i in range(nx):
    lines.append(wrap(ys))
lines.append("1.0")  # placeholder, replaced below
lines.pop()
lines.append(f"{len(regions)}        number of region records")
lines += regions
lines.append("0        no polyline")
lines.append(f"{n_el}        number of electrodes")
first_col = column_of(0.0)
for k in range(n_el):
    lines.append(f"{k + 1} {first_col + 4 * k} 1")
with open(os.path.join(out, "Q5.in"), "w") as f:
    f.write("\n".join(lines) + "\n")

readings = []
for n in range(1, 7):                        # dipole-dipole, a = 2 m
    for a in range(1, n_el - n - 1):
        b = a + 1
        m = b + n
        nn = m + 1
        if nn <= n_el:
            readings.append((m, nn, a, b))
for s in range(1, 16):                       # Wenner, a = 2..30 m
    for a in range(1, n_el - 3 * s + 1):
        readings.append((a + s, a + 2 * s, a, a + 3 * s))
with open(os.path.join(out, "protocol.dat"), "w") as f:
    f.write(f"{len(readings)}\n")
    for i, (m, nn, a, b) in enumerate(readings, 1):
        f.write(f"{i} {m} {nn} {a} {b}\n")
print(nx, ny, nx * ny, len(readings))

# The inverse example on the same grid, shifted so that every column lies at
# x >= 0, from a uniform 100 ohm m start. Parameter blocks: 2 cells (1 m)
# along the line, the padding in blocks of 5 cells; rows in pairs to 30 m,
# deeper in threes.
first = column_of(0.0)
line_cells = column_of(line_end) - first
bx = blocks(first - 1, 5) + blocks(line_cells, 2) + blocks(nx - first - line_cells, 5)
shallow = sum(1 for y in ys[1:] if y <= 30.0)
by = blocks(shallow, 2) + blocks(ny - 1 - shallow, 3)
shift = -xs[0]
inv = ["Example inversion: 48 electrodes over a conductive and a resistive body, "
       f"x shifted by {shift:g} m",
       "1 5 3.0 0 0        inverse job, depth lists, 3-D flow, no singularity removal",
       f"{nx} {ny}        num_x num_y",
       wrap([x + shift for x in xs])]
for i in range(nx):
    inv.append(wrap(ys))
inv += inverse_records((nx - 1) * ncell_y, 100.0, bx, by, wrap)
inv += ["0        no polyline",
        f"{n_el}        number of electrodes"]
inv += [f"{k + 1} {first + 4 * k} 1" for k in range(n_el)]
os.makedirs(os.path.join(out, "..", "inverse"), exist_ok=True)
with open(os.path.join(out, "..", "inverse", "Q5.in"), "w") as f:
    f.write("\n".join(inv) + "\n")
print(len(bx) * len(by), "parameters")
