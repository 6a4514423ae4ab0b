#!/usr/bin/env python3
"""Remakes the two synthetic field examples, examples/field/crosshole and
examples/field/pole-dipole.

For each case the survey is written in the unified data format, q5-import
writes a forward job over 100 ohm m, the mesh elements inside a known block
are given the block's resistivity through a start model file, q5 computes the
transfer resistances, 2 % Gaussian noise from a fixed seed is added, and the
noisy file (data.dat) is inverted with q5-invert. The inverted model is then
compared with the known one (median resistivity inside the block and far from
it); the figures are printed and written to examples/field/synthetic.md.
Only data.dat and the run's input files, Q5.out and pictures are kept."""
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
TOOLS = os.path.join(ROOT, "python", "bin")
sys.path.insert(0, os.path.join(ROOT, "python"))
from q5tools.results import read_forward  # noqa: E402

KEEP = {"Q5.in", "protocol.dat", "mesh.dat", "q5-import.json", "Q5.out"}


# ---------------------------------------------------------------- surveys

def crosshole_survey():
    """Two boreholes at x = 0 and 10 m, 12 electrodes each at 1..12 m depth,
    and a surface line every 1 m from -2 to 12 m (the tops of the holes are
    surface electrodes)."""
    sensors = [(float(x), 0.0) for x in range(-2, 13)]
    surf = {x: i + 1 for i, (x, _) in enumerate(sensors)}
    holes = {}
    for hx in (0.0, 10.0):
        holes[hx] = []
        for d in range(1, 13):
            sensors.append((hx, -float(d)))
            holes[hx].append(len(sensors))
    readings = []
    # current in the hole at x = 0 only: the other way round would repeat
    # the same readings as reciprocals
    for src, rec in ((0.0, 10.0),):
        for skip in (1, 2):                       # adjacent and skip-1 pairs
            for i in range(12 - skip):
                a, b = holes[src][i], holes[src][i + skip]
                for j in range(12 - skip):
                    m, n = holes[rec][j], holes[rec][j + skip]
                    if abs(i - j) <= 4:           # keep the rays not too steep
                        readings.append((a, b, m, n))
    xs = sorted(surf)
    for nn in range(1, 5):                        # surface dipole-dipole, a = 1 m
        for k in range(len(xs) - nn - 2):
            a, b = surf[xs[k]], surf[xs[k + 1]]
            m, n = surf[xs[k + nn + 1]], surf[xs[k + nn + 2]]
            readings.append((a, b, m, n))
    return sensors, readings


def pole_dipole_survey():
    """32 surface electrodes 1 m apart; the remote current electrode is 0.
    Dipole lengths 1 and 2 m, n = 1..8, forward and reverse."""
    sensors = [(float(x), 0.0) for x in range(32)]
    readings = []
    for a in (1, 2):
        for n in range(1, 9):
            for c in range(1, 33):
                m, nn = c + n * a, c + (n + 1) * a      # forward: dipole to the right
                if nn <= 32:
                    readings.append((c, 0, m, nn))
                m, nn = c - n * a, c - (n + 1) * a      # reverse: dipole to the left
                if nn >= 1:
                    readings.append((c, 0, m, nn))
    return sensors, readings


def write_unified(path, sensors, readings, values):
    with open(path, "w") as f:
        f.write(f"{len(sensors)}\n#x z\n")
        for x, z in sensors:
            f.write(f"{x:g} {z:g}\n")
        f.write(f"{len(readings)}\n#a b m n R\n")
        for (a, b, m, n), r in zip(readings, values):
            f.write(f"{a} {b} {m} {n} {r:.8e}\n")


# ---------------------------------------------------------------- mesh and model

def read_mesh(path):
    """Element node triples and node coordinates of a triangle mesh.dat."""
    with open(path) as f:
        ne, nn = (int(v) for v in f.readline().split()[:2])
        elems = np.array([[int(v) for v in f.readline().split()[1:4]] for _ in range(ne)])
        nodes = {}
        for _ in range(nn):
            p = f.readline().split()
            nodes[int(p[0])] = (float(p[1]), float(p[2]))
    xy = np.array([[nodes[n] for n in e] for e in elems])
    return xy.mean(axis=1)                       # element centres, q5's frame


def to_world(run, cx, cy):
    with open(os.path.join(run, "q5-import.json")) as f:
        info = json.load(f)
    return cx - info.get("x_shift", 0.0), cy + info.get("datum", 0.0)


def in_block(x, z, block):
    x0, x1, z0, z1 = block
    return (x >= x0) & (x <= x1) & (z >= z0) & (z <= z1)


def set_start_model(q5in):
    """Replace the uniform region record (count 1, then '1 E rho') after the
    mesh scale record by a start model file."""
    lines = open(q5in).read().splitlines()
    i = next(k for k, l in enumerate(lines) if "mesh scale" in l) + 1
    if lines[i].split()[:1] != ["1"] or lines[i + 1].split()[:1] != ["1"]:
        raise SystemExit(f"{q5in}: no uniform region record after the mesh scale")
    lines[i:i + 2] = ["0", "model_res.dat"]
    with open(q5in, "w") as f:
        f.write("\n".join(lines) + "\n")


# ---------------------------------------------------------------- one case

def run(cmd, **kw):
    print("+", " ".join(cmd), flush=True)
    subprocess.run(cmd, check=True, **kw)


def make_case(case, q5, seed, noise):
    name, sensors, readings = case["name"], case["sensors"], case["readings"]
    out = os.path.join(ROOT, "examples", "field", name)
    os.makedirs(out, exist_ok=True)
    extra = case["import"]
    with tempfile.TemporaryDirectory() as tmp:
        survey = os.path.join(tmp, "survey.dat")
        write_unified(survey, sensors, readings, np.ones(len(readings)))
        fwd = os.path.join(tmp, "forward")
        run([sys.executable, os.path.join(TOOLS, "q5-import"), survey, "-o", fwd,
             "--forward", "--rho", str(case["background"])] + extra)
        centres = read_mesh(os.path.join(fwd, "mesh.dat"))
        cx, cy = centres[:, 0], centres[:, 1]
        wx, wz = to_world(fwd, cx, cy)
        rho = np.full(len(cx), float(case["background"]))
        rho[in_block(wx, wz, case["block"])] = case["rho"]
        with open(os.path.join(fwd, "model_res.dat"), "w") as f:
            for x, y, r in zip(cx, cy, rho):
                f.write(f"{x:.6f} {y:.6f} {r:g}\n")
        print(f"{name}: {int((rho != case['background']).sum())} of {len(rho)} elements in the block")
        set_start_model(os.path.join(fwd, "Q5.in"))
        run([os.path.abspath(q5)], cwd=fwd, stdout=subprocess.DEVNULL)
        res = read_forward(os.path.join(fwd, "Q5_forward.dat"))["resistance"]
        if len(res) != len(readings):
            raise SystemExit(f"{name}: {len(res)} forward values for {len(readings)} readings")
    rng = np.random.default_rng(seed)
    noisy = res * (1.0 + noise / 100.0 * rng.standard_normal(len(res)))
    data = os.path.join(out, "data.dat")
    write_unified(data, sensors, readings, noisy)

    rundir = os.path.join(out, "run")
    t0 = time.time()
    cmd = [sys.executable, os.path.join(TOOLS, "q5-invert"), data, "-o", rundir, "--force",
           "--q5", q5, "--error", f"{noise:g}"] + extra
    print("+", " ".join(cmd), flush=True)
    log = subprocess.run(cmd, check=True, stdout=subprocess.PIPE, text=True).stdout
    print(log, end="")
    wall = time.time() - t0
    q5_time = re.search(r"q5 ([0-9.]+) s", log)

    # recovery
    m = np.loadtxt(os.path.join(rundir, "f001_res.dat"))
    mx, mz = to_world(rundir, m[:, 0], m[:, 1])
    inside = in_block(mx, mz, case["block"])
    x0, x1, z0, z1 = case["block"]
    gap = case["far"]
    far = ~in_block(mx, mz, (x0 - gap, x1 + gap, z0 - gap, z1 + gap)) & case["roi"](mx, mz)
    text = open(os.path.join(rundir, "Q5.out"), errors="replace").read()
    rms = [float(v) for v in re.findall(r"Final RMS Misfit:\s*([-+0-9.Ee]+)", text)]
    fig = {"name": name, "readings": len(readings), "elements_written": len(m),
           "inside_n": int(inside.sum()), "inside": float(np.median(m[inside, 2])),
           "far_n": int(far.sum()), "far": float(np.median(m[far, 2])),
           "iterations": len(rms), "rms": rms[-1] if rms else float("nan"),
           "seconds": wall, "q5_seconds": float(q5_time.group(1)) if q5_time else float("nan")}

    # keep the inputs, Q5.out and pictures only
    for f in os.listdir(rundir):
        if f not in KEEP and not f.endswith(".png"):
            p = os.path.join(rundir, f)
            shutil.rmtree(p) if os.path.isdir(p) else os.remove(p)
    return fig


CASES = [
    {"name": "crosshole", "sensors": None, "readings": None, "survey": crosshole_survey,
     "background": 100.0, "rho": 10.0, "block": (3.0, 7.0, -8.0, -4.0),
     "import": [], "far": 2.0,
     "roi": lambda x, z: (x >= 0) & (x <= 10) & (z >= -12) & (z <= 0),
     "about": "two boreholes 10 m apart (x = 0 and 10 m), 12 electrodes each at "
              "1..12 m depth, and 15 surface electrodes every 1 m from x = -2 to 12 m; "
              "cross-hole bipole-bipole readings (current pair in one hole, potential "
              "pair in the other, adjacent and skip-1 pairs, pair depths differing by "
              "at most 4 m) and surface dipole-dipole readings (a = 1 m, n = 1..4). "
              "Known model: 100 ohm m with a 10 ohm m block 4 m x 4 m centred at "
              "x = 5 m, 6 m depth."},
    {"name": "pole-dipole", "sensors": None, "readings": None, "survey": pole_dipole_survey,
     "background": 100.0, "rho": 1000.0, "block": (13.0, 17.0, -3.5, -1.5),
     "import": ["--remote", "-300"], "far": 3.0,
     "roi": lambda x, z: (x >= 0) & (x <= 31) & (z >= -6) & (z <= 0),
     "about": "32 surface electrodes 1 m apart (x = 0..31 m) and the remote current "
              "electrode at x = -300 m (index 0); pole-dipole readings with dipole "
              "lengths 1 and 2 m, n = 1..8, forward and reverse. Known model: 100 ohm m "
              "with a 1000 ohm m block 4 m wide and 2 m thick, top at 1.5 m depth, "
              "centred at x = 15 m."},
]


def write_report(figs, args):
    path = os.path.join(ROOT, "examples", "field", "synthetic.md")
    with open(path, "w") as f:
        f.write("# Synthetic examples: crosshole and pole-dipole\n\n"
                "Both data sets come from q5's own forward job on a known model, with "
                f"{args.noise:g} % Gaussian noise (numpy `default_rng`, seed {args.seed} for crosshole, "
                f"{args.seed + 1} for pole-dipole) on the "
                "transfer resistances, and are inverted with `q5-invert` like field data. "
                "They show how well a known anomaly comes back.\n\n"
                "Remake both (import, forward job, noise, inversion, figures):\n\n"
                "```\n/usr/bin/python3 scripts/make_synthetic_examples.py --q5 build/q5\n```\n\n"
                "The inversion command of each case is\n\n```\n"
                "python/bin/q5-invert examples/field/crosshole/data.dat -o examples/field/crosshole/run "
                "--q5 build/q5 --error 2\n"
                "python/bin/q5-invert examples/field/pole-dipole/data.dat -o examples/field/pole-dipole/run "
                "--q5 build/q5 --error 2 --remote -300\n```\n\n"
                "The forward model is made by importing the survey with `--forward --rho 100` "
                "(pole-dipole also `--remote -300`), giving every mesh element whose centre lies "
                "in the block the block's resistivity in a start model file `model_res.dat`, and "
                "replacing the uniform region record of Q5.in by that file. Each directory keeps "
                "`data.dat` and, in `run/`, the run's Q5.in, protocol.dat, mesh.dat, "
                "q5-import.json, Q5.out and pictures; the model files are not kept.\n\n")
        for c in CASES:
            f.write(f"## {c['name']}\n\n{c['about']}\n\n")
        f.write("## Recovery\n\n"
                "Medians of the inverted resistivity (f001_res.dat) over the elements whose "
                "centres lie inside the block, and over those in the imaged region more than "
                f"{CASES[0]['far']:g} m (crosshole: between the holes, 0-12 m deep) or "
                f"{CASES[1]['far']:g} m (pole-dipole: under the line, 0-6 m deep) from it. "
                "Times are q5's own run time as q5-invert reports it, and the wall time of the whole "
                "q5-invert call (import, q5 and pictures), measured on the development machine.\n\n"
                "| case | readings | true block / background, ohm m | median inside (elements) "
                "| median far (elements) | iterations | final RMS | q5, s | q5-invert, s |\n"
                "|---|---|---|---|---|---|---|---|---|\n")
        for c, g in zip(CASES, figs):
            f.write(f"| {g['name']} | {g['readings']} | {c['rho']:g} / {c['background']:g} "
                    f"| {g['inside']:.1f} ({g['inside_n']}) | {g['far']:.1f} ({g['far_n']}) "
                    f"| {g['iterations']} | {g['rms']:.2f} | {g['q5_seconds']:.1f} | {g['seconds']:.1f} |\n")
    print("wrote", path)


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--q5", default=os.path.join(ROOT, "build", "q5"),
                   help="the q5 program (default: build/q5)")
    p.add_argument("--seed", type=int, default=20240611, help="noise seed (20240611)")
    p.add_argument("--noise", type=float, default=2.0, help="relative noise, percent (2)")
    p.add_argument("--only", choices=[c["name"] for c in CASES], help="remake one case only")
    args = p.parse_args()
    args.q5 = os.path.abspath(args.q5)
    figs = []
    for k, c in enumerate(CASES):
        c["sensors"], c["readings"] = c["survey"]()
        if args.only and c["name"] != args.only:
            continue
        g = make_case(c, args.q5, args.seed + k, args.noise)
        print(json.dumps(g))
        figs.append(g)
    if not args.only:
        write_report(figs, args)


if __name__ == "__main__":
    main()
