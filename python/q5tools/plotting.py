"""Figures of a finished run, drawn with matplotlib (Agg). Functions take
data and return figures; plot_run writes the PNG files of a run directory."""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from matplotlib.collections import PolyCollection  # noqa: E402
from matplotlib.colors import LogNorm, Normalize, TwoSlopeNorm  # noqa: E402
from matplotlib.patches import Rectangle  # noqa: E402
from matplotlib.ticker import FuncFormatter, LogLocator, MaxNLocator, NullFormatter  # noqa: E402

from . import results  # noqa: E402
from .errors import InputError  # noqa: E402

MODEL_CMAP = "Spectral_r"
DIVERGING_CMAP = "RdBu_r"
DPI = 120
SHADE_DECADES = 3.0  # cells this far below the 95th percentile of sensitivity start to fade


def log_norm(values, low=2, high=98):
    """A logarithmic norm over the positive values, from percentiles."""
    v = np.asarray(values, float)
    v = v[np.isfinite(v) & (v > 0)]
    if not len(v):
        return LogNorm(1, 10)
    lo, hi = np.percentile(v, [low, high])
    if hi <= lo * 1.01:
        lo, hi = lo / 1.5, hi * 1.5
    return LogNorm(lo, hi)


def symmetric_norm(values, high=98):
    v = np.abs(np.asarray(values, float))
    v = v[np.isfinite(v)]
    top = float(np.percentile(v, high)) if len(v) else 1.0
    top = top if top > 0 else 1.0
    return Normalize(-top, top)


def view(frame, polygons):
    """x and z limits of a section: the line and the region of interest."""
    if frame.electrodes_x is None:
        return polygons[..., 0].min(), polygons[..., 0].max(), polygons[..., 1].min(), polygons[..., 1].max()
    x0, x1 = frame.electrodes_x.min(), frame.electrodes_x.max()
    pad = 0.04 * (x1 - x0)
    depth = frame.depth or 0.25 * (x1 - x0)
    top = frame.electrodes_z.max()
    return x0 - pad, x1 + pad, frame.electrodes_z.min() - depth * 1.05, top + 0.08 * (x1 - x0) / 4 + 0.5


def section_figure(model, values, norm, cmap, frame, title, label, shade=None, borehole=None):
    """A model section: cells coloured by values, surface and electrodes drawn.
    shade: per-cell alpha of a white veil (low sensitivity)."""
    x0, x1, z0, z1 = view(frame, model.polygons)
    width = 11.0
    height = max(2.6, min(8.0, 0.82 * width * (z1 - z0) / (x1 - x0) + 1.0))
    fig, ax = plt.subplots(figsize=(width, height), dpi=DPI, layout="constrained")
    cells = PolyCollection(model.polygons, array=np.asarray(values, float), cmap=cmap, norm=norm,
                           edgecolors="face", linewidths=0.2)
    ax.add_collection(cells)
    if shade is not None and np.any(shade > 0):
        veil = np.zeros((len(shade), 4))
        veil[:, :3] = 1.0
        veil[:, 3] = shade
        ax.add_collection(PolyCollection(model.polygons, facecolors=veil, edgecolors="none"))
    if frame.electrodes_x is not None:
        order = np.argsort(frame.electrodes_x)
        ax.plot(frame.electrodes_x[order], frame.electrodes_z[order], color="black", lw=1.0)
        ax.plot(frame.electrodes_x, frame.electrodes_z, "v", color="black", ms=4, clip_on=False)
    if borehole is not None:
        draw_borehole(ax, frame, *borehole, norm=norm, cmap=cmap, width=0.012 * (x1 - x0))
    ax.set_xlim(x0, x1)
    ax.set_ylim(z0, z1)
    ax.set_aspect("equal")
    ax.set_xlabel("x (m)")
    ax.set_ylabel("elevation (m)")
    ax.set_title(title)
    ohm_ticks(fig.colorbar(cells, ax=ax, label=label, pad=0.01, fraction=0.03), norm)
    return fig, ax


def ohm_ticks(bar, norm):
    """Plain numbers at 1, 2, 5 of each decade on a logarithmic colour bar."""
    if isinstance(norm, LogNorm):
        bar.ax.yaxis.set_major_locator(LogLocator(subs=(1.0, 2.0, 5.0)))
        bar.ax.yaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
        bar.ax.yaxis.set_minor_formatter(NullFormatter())


def draw_borehole(ax, frame, x, z, rho, norm, cmap, width):
    """A borehole log at its place: z is depth below the surface (negative)."""
    surface = np.interp(x, frame.electrodes_x, frame.electrodes_z) if frame.electrodes_x is not None else 0 * x
    order = np.argsort(-z)
    x, z, rho, surface = x[order], z[order], rho[order], surface[order]
    edges = np.concatenate([[z[0] + (z[0] - z[1]) / 2 if len(z) > 1 else z[0] + 0.5],
                            (z[1:] + z[:-1]) / 2,
                            [z[-1] - (z[-2] - z[-1]) / 2 if len(z) > 1 else z[-1] - 0.5]])
    colours = plt.get_cmap(cmap)(norm(rho))
    for k in range(len(z)):
        ax.add_patch(Rectangle((x[k] - width / 2, surface[k] + edges[k + 1]), width,
                               edges[k] - edges[k + 1], facecolor=colours[k], edgecolor="none"))
    ax.add_patch(Rectangle((x[0] - width / 2, surface[0] + edges[-1]), width, edges[0] - edges[-1],
                           fill=False, edgecolor="black", lw=0.8))


def pseudo_positions(frame, a, b, m, n):
    """Midpoint and pseudo-depth (0.17 of the spread, negative) of readings."""
    xs = np.array([frame.position(e)[0] for e in (a, b, m, n)])
    spread = xs.max(axis=0) - xs.min(axis=0)
    return xs.mean(axis=0), -0.17 * spread


def data_figure(frame, table, title, difference=False):
    """Observed and calculated apparent resistivity and the normalised error
    of an _err.dat table, as pseudosections."""
    px, pz = pseudo_positions(frame, table["c1"], table["c2"], table["p1"], table["p2"])
    obs, calc = table["observed"], table["calculated"]
    both = np.concatenate([obs, calc])
    positive = not difference and np.all(both[np.isfinite(both)] > 0)
    norm = log_norm(both) if positive else symmetric_norm(both)
    cmap = MODEL_CMAP if positive else DIVERGING_CMAP
    fig, axes = plt.subplots(3, 1, figsize=(10, 9), dpi=DPI, layout="constrained", sharex=True)
    size = max(6, 6000 / max(len(px), 1))
    panels = [(obs, norm, cmap, "observed apparent resistivity (ohm m)"),
              (calc, norm, cmap, "calculated apparent resistivity (ohm m)"),
              (table["norm_error"], symmetric_norm(table["norm_error"]), DIVERGING_CMAP,
               "normalised error")]
    if difference:
        panels[0] = (obs, norm, cmap, "observed change (ohm m)")
        panels[1] = (calc, norm, cmap, "calculated change (ohm m)")
    for ax, (values, nm, cm, label) in zip(axes, panels):
        dots = ax.scatter(px, pz, c=values, s=size, marker="s", cmap=cm, norm=nm)
        ohm_ticks(fig.colorbar(dots, ax=ax, label=label, pad=0.01), nm)
        ax.set_ylabel("pseudo-depth (m)")
    axes[0].set_title(title)
    axes[-1].set_xlabel("x (m)")
    return fig


def misfit_figure(misfits, tolerance=1.0):
    fig, ax = plt.subplots(figsize=(7, 4), dpi=DPI, layout="constrained")
    for dataset, rows in sorted(misfits.items()):
        its = [0] + [r[0] for r in rows if r[2] is not None]
        rms = [rows[0][1]] + [r[2] for r in rows if r[2] is not None]
        ax.plot(its, rms, "o-", label=f"dataset {dataset}")
    ax.axhline(tolerance, color="grey", ls="--", lw=1)
    ax.set_yscale("log")
    ax.yaxis.set_major_locator(LogLocator(subs=(1.0, 2.0, 5.0)))
    ax.yaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
    ax.yaxis.set_minor_formatter(NullFormatter())
    ax.xaxis.set_major_locator(MaxNLocator(integer=True))
    ax.set_xlabel("iteration")
    ax.set_ylabel("RMS misfit")
    ax.set_title("Misfit per iteration (0: start model)")
    if len(misfits) <= 12:
        ax.legend(fontsize="small")
    return fig


def _save(fig, path, written):
    fig.savefig(path)
    plt.close(fig)
    written.append(path)


def _shade(model, run_dir, stem):
    """White veil over cells whose sensitivity is far below the largest."""
    sens = model.scalars.get("Sensitivity(log10)")
    path = os.path.join(run_dir, f"{stem}_sen.dat")
    if sens is None and os.path.exists(path) and os.path.getsize(path):
        sens = results.read_table_values(path, 3)
    if sens is None or len(sens) != len(model.polygons):
        return None
    s = np.where(np.isfinite(sens), sens, -np.inf)
    top = np.percentile(s[np.isfinite(s)], 95) if np.isfinite(s).any() else 0
    return np.clip((top - SHADE_DECADES - s) / 1.5, 0, 0.6)


def plot_run(run_dir, borehole=None):
    """Write the PNG files of a finished run; returns their paths."""
    frame = results.read_frame(run_dir)
    hole = results.read_borehole(borehole) if borehole else None
    written = []
    misfit_path = os.path.join(run_dir, "Q5.out")
    stems = results.datasets(run_dir)
    if os.path.exists(os.path.join(run_dir, "forward_model.vtk")) and not stems:
        model = results.read_model(os.path.join(run_dir, "forward_model.vtk"), frame)
        rho = model.scalars["Resistivity(Ohm-m)"]
        norm = log_norm(np.concatenate([rho, hole[2]]) if hole else rho, 0, 100)
        fig, _ = section_figure(model, rho, norm, MODEL_CMAP, frame, "Forward model",
                                "resistivity (ohm m)", borehole=hole)
        _save(fig, os.path.join(run_dir, "forward_model.png"), written)
        path = os.path.join(run_dir, "Q5_forward.dat")
        if os.path.exists(path):
            t = results.read_forward(path)
            px, pz = pseudo_positions(frame, t["c1"], t["c2"], t["p1"], t["p2"])
            fig, ax = plt.subplots(figsize=(10, 3.5), dpi=DPI, layout="constrained")
            positive = np.all(t["rhoa"][np.isfinite(t["rhoa"])] > 0)
            dots = ax.scatter(px, pz, c=t["rhoa"], marker="s", s=max(6, 4000 / len(px)),
                              cmap=MODEL_CMAP, norm=log_norm(t["rhoa"]) if positive else None)
            ohm_ticks(fig.colorbar(dots, ax=ax, label="apparent resistivity (ohm m)", pad=0.01), dots.norm)
            ax.set_xlabel("x (m)")
            ax.set_ylabel("pseudo-depth (m)")
            ax.set_title("Forward job: calculated apparent resistivity (flat half-space factor)")
            _save(fig, os.path.join(run_dir, "forward_data.png"), written)
        return written
    if not stems:
        raise InputError(run_dir, "holds no model file (fNNN_res.vtk or forward_model.vtk)")

    models, shades = {}, {}
    for stem in stems:
        model = results.read_model(os.path.join(run_dir, f"{stem}_res.vtk"), frame)
        shade = _shade(model, run_dir, stem)
        keep = _roi(model, frame)  # a run that wrote every element is cut to the region
        models[stem] = results.Model(model.polygons[keep], {k: v[keep] for k, v in model.scalars.items()})
        shades[stem] = None if shade is None else shade[keep]
    rho_all = np.concatenate([m.scalars["Resistivity(Ohm-m)"] for m in models.values()])
    norm = log_norm(rho_all)
    diffs = [m.scalars["difference(percent)"] for m in models.values() if "difference(percent)" in m.scalars]
    diff_norm = symmetric_norm(np.concatenate(diffs)) if diffs else None
    for stem, model in models.items():
        number = int(stem[1:])
        fig, _ = section_figure(model, model.scalars["Resistivity(Ohm-m)"], norm, MODEL_CMAP, frame,
                                f"Dataset {number}: resistivity model", "resistivity (ohm m)",
                                shade=shades[stem], borehole=hole)
        _save(fig, os.path.join(run_dir, f"{stem}_model.png"), written)
        if "difference(percent)" in model.scalars:
            fig, _ = section_figure(model, model.scalars["difference(percent)"], diff_norm, DIVERGING_CMAP,
                                    frame, f"Dataset {number}: change from the reference model",
                                    "change of resistivity (%)")
            _save(fig, os.path.join(run_dir, f"{stem}_difference.png"), written)
        err = os.path.join(run_dir, f"{stem}_err.dat")
        if os.path.exists(err) and os.path.getsize(err):
            table = results.read_errors(err)
            if len(table["p1"]):
                fig = data_figure(frame, table, f"Dataset {number}: data and fit", frame.difference)
                _save(fig, os.path.join(run_dir, f"{stem}_data.png"), written)
    if os.path.exists(misfit_path):
        misfits, _ = results.read_misfits(misfit_path)
        if misfits:
            _save(misfit_figure(misfits), os.path.join(run_dir, "misfit.png"), written)
    return written


def _roi(model, frame):
    """Cells whose centres lie under the line within the region of interest."""
    c = model.polygons.mean(axis=1)
    if frame.electrodes_x is None:
        return np.ones(len(c), bool)
    x0, x1 = frame.electrodes_x.min(), frame.electrodes_x.max()
    surface = np.interp(c[:, 0], np.sort(frame.electrodes_x),
                        frame.electrodes_z[np.argsort(frame.electrodes_x)])
    depth = frame.depth or 0.25 * (x1 - x0)
    return (c[:, 0] >= x0) & (c[:, 0] <= x1) & (c[:, 1] >= surface - depth * 1.001)
