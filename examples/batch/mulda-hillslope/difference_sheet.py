#!/usr/bin/python3
"""The change sections of every dataset of a difference run on one sheet, on
one colour scale: difference_sheet.py RUN_DIR OUT.png [--dates FILE].

A dataset whose first misfit was already below the tolerance has no model
(q5 writes none); its panel says so."""
import argparse
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "python"))
from q5tools import plotting, results  # noqa: E402
from q5tools.plotting import DIVERGING_CMAP, plt  # noqa: E402

import numpy as np  # noqa: E402
from matplotlib.collections import PolyCollection  # noqa: E402


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("run")
    p.add_argument("out")
    p.add_argument("--dates", help="one date a line, in dataset order")
    p.add_argument("--columns", type=int, default=4)
    args = p.parse_args()
    frame = results.read_frame(args.run)
    dates = open(args.dates).read().split() if args.dates else []
    stems = sorted(n[:-len("_res.vtk")] for n in os.listdir(args.run)
                   if n.endswith("_res.vtk") and len(n) == len("f001_res.vtk"))
    models = {}
    for stem in stems:
        path = os.path.join(args.run, f"{stem}_res.vtk")
        if os.path.getsize(path):
            models[stem] = results.read_model(path, frame)
    x0, x1, z0, z1 = plotting.view(frame, next(iter(models.values())).polygons)
    inside = {}
    for stem, m in models.items():
        c = m.polygons.mean(axis=1)
        inside[stem] = (c[:, 0] > x0) & (c[:, 0] < x1) & (c[:, 1] > z0)
    norm = plotting.symmetric_norm(np.concatenate(
        [m.scalars["difference(percent)"][inside[s]] for s, m in models.items()]))
    rows = -(-len(stems) // args.columns)
    fig, axes = plt.subplots(rows, args.columns, figsize=(4.2 * args.columns, 1.75 * rows + 0.9),
                             dpi=plotting.DPI, layout="constrained", sharex=True, sharey=True)
    cells = None
    for k, ax in enumerate(np.ravel(axes)):
        if k >= len(stems):
            ax.set_visible(False)
            continue
        stem = stems[k]
        label = f"dataset {int(stem[1:])}" + (f", {dates[k][:10]}" if k < len(dates) else "")
        if stem in models:
            m = models[stem]
            cells = PolyCollection(m.polygons, array=m.scalars["difference(percent)"], cmap=DIVERGING_CMAP,
                                   norm=norm, edgecolors="face", linewidths=0.2)
            ax.add_collection(cells)
        else:
            ax.text(0.5, 0.5, "no model: first misfit\nbelow the tolerance", ha="center", va="center",
                    transform=ax.transAxes, fontsize=8)
        order = np.argsort(frame.electrodes_x)
        ax.plot(frame.electrodes_x[order], frame.electrodes_z[order], color="black", lw=0.8)
        ax.set_xlim(x0, x1)
        ax.set_ylim(z0, z1)
        ax.set_aspect("equal")
        ax.set_title(label, fontsize=9)
        ax.tick_params(labelsize=7)
        if k % args.columns == 0:
            ax.set_ylabel("elevation (m)", fontsize=8)
        if k >= len(stems) - args.columns:
            ax.set_xlabel("x (m)", fontsize=8)
    fig.colorbar(cells, ax=axes, label="change from the reference model (%)",
                 fraction=0.02, pad=0.01)
    fig.suptitle("Mulda hillslope, 2008: each weekly survey against 9 May (one difference run, "
                 "gathered by q5-batch)" if dates else "Change from the reference model")
    fig.savefig(args.out)
    print(args.out)


if __name__ == "__main__":
    main()
