"""The triangle mesh of a run (mesh_type 3, mesh.dat), made by Shewchuk's
Triangle: the ground surface through every electrode, buried electrodes as
nodes, cells fine at the electrodes and growing with distance, one parameter
per triangle out to the boundary.

Triangle is run on a planar straight-line graph (surface, sides, bottom and
the outline of the region of interest) and then refined with an area bound
per triangle until every triangle is no larger than the size function at its
centre allows."""
import os
import shutil
import subprocess
import tempfile
from dataclasses import dataclass

import numpy as np

from .errors import InputError

MIN_ANGLE = 30       # degrees: Triangle's quality bound
GROWTH = 0.25        # cell size grows by this many metres per metre from the nearest electrode
REFINE_ROUNDS = 8


@dataclass
class TriMesh:
    x: np.ndarray              # node positions, world coordinates, m (node k is number k + 1)
    z: np.ndarray
    triangles: np.ndarray      # E x 3 node numbers (1-based), anticlockwise with z up
    electrode_nodes: np.ndarray  # node number of each electrode, in the survey's order

    @property
    def num_nodes(self):
        return len(self.x)

    @property
    def num_elements(self):
        return len(self.triangles)


def _triangle():
    path = shutil.which("triangle")
    if not path:
        raise InputError("triangle", "Shewchuk's Triangle is not installed (Debian package triangle-bin)")
    return path


def _run(args, cwd):
    done = subprocess.run([_triangle()] + args, cwd=cwd, capture_output=True, text=True)
    if done.returncode != 0:
        raise InputError("triangle", f"failed: {done.stderr.strip() or done.stdout.strip()[-200:]}")


def _read(stem):
    def table(name):
        with open(f"{stem}.{name}") as f:
            rows = [l.split("#")[0].split() for l in f]
        rows = [r for r in rows if r]
        return np.array(rows[1:], float)
    nodes = table("node")
    ele = table("ele").astype(int)
    return nodes[:, 1], nodes[:, 2], ele[:, 1:4]


def _graph(lay, points_x, points_z):
    """Vertices and segments: the ground from side to side through every
    surface point, sides and bottom, the region of interest's outline, and
    free points (buried electrodes)."""
    bottom = lay.datum - lay.bottom
    roi = np.array(lay.roi[:-1])
    ntop = len(roi) // 2
    top_x = roi[:ntop, 0]
    surf = np.unique(np.concatenate([lay.surface_x, top_x, points_x[points_z >= lay.surface(points_x) - 1e-9]]))
    surf = surf[(surf > lay.left) & (surf < lay.right)]
    sx = np.concatenate([[lay.left], surf, [lay.right]])
    sz = lay.surface(sx)
    verts = [(x, z) for x, z in zip(sx, sz)] + [(lay.right, bottom), (lay.left, bottom)]
    n_outer = len(verts)
    segs = [(k, (k + 1) % n_outer) for k in range(n_outer)]
    index = {round(x, 9): k for k, x in enumerate(sx)}
    # the region's bottom and sides: from its last top point down, along, up to its first
    chain = [index[round(roi[ntop - 1, 0], 9)]]
    for x, z in roi[ntop:]:
        verts.append((x, z))
        chain.append(len(verts) - 1)
    chain.append(index[round(roi[0, 0], 9)])
    segs += list(zip(chain[:-1], chain[1:]))
    buried = points_z < lay.surface(points_x) - 1e-9
    for x, z in zip(points_x[buried], points_z[buried]):
        verts.append((x, z))
    return np.array(verts), np.array(segs)


def _write_poly(path, verts, segs, holes_free_point):
    with open(path, "w") as f:
        f.write(f"{len(verts)} 2 0 0\n")
        for k, (x, z) in enumerate(verts, 1):
            f.write(f"{k} {x:.9f} {z:.9f}\n")
        f.write(f"{len(segs)} 0\n")
        for k, (p, q) in enumerate(segs, 1):
            f.write(f"{k} {p + 1} {q + 1}\n")
        f.write("0\n")


def size_at(px, pz, ex, ez, h0):
    """Wanted cell size (m) at points: h0 at an electrode, growing linearly
    with the distance to the nearest one."""
    d = np.full(len(px), np.inf)
    for x, z in zip(ex, ez):
        d = np.minimum(d, np.hypot(px - x, pz - z))
    return h0 + GROWTH * d


def build_trimesh(lay, ex, ez, remote, h0):
    """Mesh for electrodes at world (ex, ez), remote flags, finest size h0."""
    ex, ez = np.asarray(ex, float), np.asarray(ez, float)
    verts, segs = _graph(lay, ex, ez)
    line = ~np.asarray(remote, bool)
    # a remote electrode needs no fine cells: only its far field reaches the line
    h_remote = max(h0, 0.05 * lay.length)
    work = tempfile.mkdtemp(prefix="q5-triangle-")
    try:
        _write_poly(os.path.join(work, "m.poly"), verts, segs, None)
        biggest = (0.5 * (lay.right - lay.left) / 4) ** 2
        _run([f"-pq{MIN_ANGLE}a{biggest:.6f}Q", "m.poly"], work)
        stem = "m.1"
        for round_ in range(REFINE_ROUNDS):
            x, z, tri = _read(os.path.join(work, stem))
            cx, cz = x[tri - 1].mean(axis=1), z[tri - 1].mean(axis=1)
            h = size_at(cx, cz, ex[line], ez[line], h0)
            if (~line).any():
                h = np.minimum(h, size_at(cx, cz, ex[~line], ez[~line], h_remote))
            target = np.sqrt(3) / 4 * h * h
            area = 0.5 * np.abs((x[tri[:, 1] - 1] - x[tri[:, 0] - 1]) * (z[tri[:, 2] - 1] - z[tri[:, 0] - 1])
                                - (x[tri[:, 2] - 1] - x[tri[:, 0] - 1]) * (z[tri[:, 1] - 1] - z[tri[:, 0] - 1]))
            if np.all(area <= 1.5 * target):
                break
            with open(os.path.join(work, f"{stem}.area"), "w") as f:
                f.write(f"{len(tri)}\n")
                for k, t in enumerate(target, 1):
                    f.write(f"{k} {t:.9g}\n")
            _run([f"-rpq{MIN_ANGLE}aQ", stem], work)
            stem = f"m.{round_ + 2}"
        x, z, tri = _read(os.path.join(work, stem))
    finally:
        shutil.rmtree(work, ignore_errors=True)
    nodes = np.empty(len(ex), int)
    for k in range(len(ex)):
        d = np.hypot(x - ex[k], z - ez[k])
        j = int(np.argmin(d))
        if d[j] > 1e-6:
            raise InputError("triangle", f"electrode at x = {ex[k]:g} m is no node of the mesh")
        nodes[k] = j + 1
    return TriMesh(x, z, tri, nodes)


def pinned_node(x, y, electrode_nodes):
    """The node q5 holds at zero potential on a mesh.dat run, by its rule:
    for each node i the sum over electrodes of sqrt(x(p)^2 + y(q)^2), with
    p and q the integer parts of the electrode's node number less x(i) and
    y(i), and a coordinate of 0 where p or q is no node; the first node with
    the largest sum above 0, or None."""
    count = len(x)
    e = np.asarray(electrode_nodes, float)[None, :]
    p, q = np.trunc(e - np.asarray(x)[:, None]), np.trunc(e - np.asarray(y)[:, None])
    xp = np.where((p >= 1) & (p <= count), np.asarray(x)[np.clip(p, 1, count).astype(int) - 1], 0.0)
    yq = np.where((q >= 1) & (q <= count), np.asarray(y)[np.clip(q, 1, count).astype(int) - 1], 0.0)
    sums = np.sqrt(xp * xp + yq * yq).sum(axis=1)
    return int(np.argmax(sums)) + 1 if sums.max() > 0 else None


def q5_frame(tm, lay, line):
    """Node coordinates as q5 takes them (x from 0 at the left boundary,
    heights below the datum) and the node numbering. q5 holds one node at
    zero potential, chosen by a rule of node numbers and coordinates; that
    node must lie far from the electrodes, or its sink would show in the
    data. Triangle's own numbering puts it near the boundary on every mesh
    tried; should it not, the nodes are numbered from the farthest inward."""
    x_shift = round(-lay.left, 4)
    far = 0.5 * min(lay.x0 - lay.left, lay.right - lay.x1, lay.bottom)
    ex, ez = tm.x[tm.electrode_nodes - 1][line], tm.z[tm.electrode_nodes - 1][line]
    distance = lambda k: float(np.min(np.hypot(tm.x[k] - ex, tm.z[k] - ez)))
    order = np.arange(tm.num_nodes)
    for attempt in range(2):
        number = np.empty(tm.num_nodes, int)
        number[order] = np.arange(1, tm.num_nodes + 1)
        x, y = tm.x[order] + x_shift, tm.z[order] - lay.datum
        pin = pinned_node(x, y, number[tm.electrode_nodes - 1])
        if pin is None or distance(order[pin - 1]) >= far:
            break
        d = np.array([distance(k) for k in range(tm.num_nodes)])
        order = np.argsort(-d, kind="stable")
    return TriMesh(x, y, number[tm.triangles - 1], number[tm.electrode_nodes - 1]), x_shift, pin


def mesh_text(tm):
    """mesh.dat: counts, then element records (number, three nodes
    anticlockwise, parameter, zone) with one parameter per triangle in one
    zone, then node records."""
    out = [f"{tm.num_elements} {tm.num_nodes}"]
    out += [f"{e} {t[0]} {t[1]} {t[2]} {e} 1" for e, t in enumerate(tm.triangles, 1)]
    out += [f"{k} {x:.6f} {y:.6f}" for k, (x, y) in enumerate(zip(tm.x, tm.z), 1)]
    return "\n".join(out) + "\n"
