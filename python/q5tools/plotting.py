"""Figures of a finished run, drawn with matplotlib (Agg). Functions take
data and return figures; plot_run writes the PNG files of a run directory."""
import os

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from matplotlib.collections import PolyCollection  # noqa: E402
from matplotlib.colors import LogNorm, Normalize  # noqa: E402
from matplotlib.patches import Rectangle  # noqa: E402
from matplotlib.path import Path  # noqa: E402
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
    """x and z limits of a section: the region of interest's polygon when the
    run has one, else the line (remote electrodes are far off it) and the
    region depth below it."""
    if frame.roi is not None:
        (x0, z0), (x1, z1) = frame.roi.min(axis=0), frame.roi.max(axis=0)
        pad = 0.03 * max(x1 - x0, z1 - z0)
        return x0 - pad, x1 + pad, z0 - pad, z1 + pad
    surface = frame.surface()
    if surface is None or len(surface[0]) == 0 or np.ptp(surface[0]) == 0:
        return polygons[..., 0].min(), polygons[..., 0].max(), polygons[..., 1].min(), polygons[..., 1].max()
    (sx, sz), on = surface, ~frame.remote
    x0, x1 = sx.min(), sx.max()
    pad = 0.04 * (x1 - x0)
    depth = frame.depth or 0.25 * (x1 - x0)
    bottom = min(sz.min() - depth * 1.05, frame.electrodes_z[on].min() - pad)
    return x0 - pad, x1 + pad, bottom, sz.max() + 0.08 * (x1 - x0) / 4 + 0.5


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
        draw_electrodes(ax, frame)
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


def draw_electrodes(ax, frame):
    """The ground line with the electrodes on it, and buried electrodes as dots
    at their places; remote electrodes lie far outside the view."""
    sx, sz = frame.surface()
    ax.plot(sx, sz, color="black", lw=1.0)
    on = ~frame.remote & (frame.electrodes_depth == 0)
    ax.plot(frame.electrodes_x[on], frame.electrodes_z[on], "v", color="black", ms=4, clip_on=False)
    buried = ~frame.remote & (frame.electrodes_depth > 0)
    if buried.any():
        ax.plot(frame.electrodes_x[buried], frame.electrodes_z[buried], "o", color="black", ms=2.5)


def ohm_ticks(bar, norm):
    """Plain numbers at 1, 2, 5 of each decade on a logarithmic colour bar."""
    if isinstance(norm, LogNorm):
        bar.ax.yaxis.set_major_locator(LogLocator(subs=(1.0, 2.0, 5.0)))
        bar.ax.yaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
        bar.ax.yaxis.set_minor_formatter(NullFormatter())


def draw_borehole(ax, frame, x, z, rho, norm, cmap, width):
    """A borehole log at its place: z is depth below the surface (negative)."""
    ground = frame.surface()
    surface = np.interp(x, *ground) if ground is not None and len(ground[0]) else 0 * x
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
    """Place of readings on a pseudosection from their electrodes near the
    line (a remote one is too far to say where the reading looks): the mean
    x, and a pseudo-depth of 0.17 of their spread (negative). A reading
    with buried electrodes looks around them: their mean depth."""
    places = [frame.places(e) for e in (a, b, m, n)]
    x, depth, remote = (np.array([p[k] for p in places]) for k in range(3))
    near = ~remote
    count = near.sum(axis=0)
    with np.errstate(invalid="ignore", divide="ignore"):
        mid = np.where(near, x, 0).sum(axis=0) / count
        sunk = np.where(near, depth, 0).sum(axis=0) / count
    spread = np.where(near, x, -np.inf).max(axis=0) - np.where(near, x, np.inf).min(axis=0)
    buried = np.where(near, depth, 0).max(axis=0) > 0
    return mid, np.where(count > 0, np.where(buried, -sunk, -0.17 * spread), np.nan)


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


def reciprocal_figure(rec):
    """Disagreement of reciprocal pairs against their resistance, the bins'
    spread and the fitted error of one reading, a + b|R|; a discrepancy of
    two such readings has sqrt(2) times that std."""
    fig, ax = plt.subplots(figsize=(7, 5), dpi=DPI, layout="constrained")
    # pairs that agree exactly have no place on logarithmic axes
    shown = lambda r, d: (np.abs(r)[np.abs(d) > 0], np.abs(d)[np.abs(d) > 0])
    ax.loglog(*shown(rec["r"], rec["d"]), ".", color="tab:blue", ms=3, alpha=0.6,
              label=f"{len(rec['r'])} pairs used: |discrepancy|")
    if len(rec["left_out_r"]):
        over = f" (over {rec['limit'] * 100:g} %)" if rec.get("limit") is not None else ""
        ax.loglog(*shown(rec["left_out_r"], rec["left_out_d"]), ".", color="tab:red", ms=4,
                  label=f"{len(rec['left_out_r'])} pairs left out{over}")
    if len(rec["bins_r"]):
        ax.loglog(rec["bins_r"], rec["bins_e"], "s", color="black", ms=5, mfc="none",
                  label="robust std of one reading per bin")
    rs = np.concatenate([rec["r"], rec["left_out_r"], rec["bins_r"]])
    rs = rs[np.isfinite(rs) & (rs > 0)]
    a, b = rec.get("a"), rec.get("b")
    if a is not None and b is not None and len(rs):
        line = np.geomspace(rs.min(), rs.max(), 200)
        e = a + b * line
        ax.loglog(line, e, "-", color="black", lw=1.5, label="a + b|R| (one reading)")
        ax.loglog(line, np.sqrt(2) * e, "--", color="black", lw=1,
                  label="sqrt(2) (a + b|R|) (a discrepancy)")
        ax.set_title(f"Reciprocal error: a = {a:.3g} ohm, b = {b * 100:.3g} %")
    else:
        ax.set_title("Reciprocal pairs (too few for an error model)")
    ax.set_xlabel("|R| (ohm)")
    ax.set_ylabel("|discrepancy| (ohm)")
    ax.legend(fontsize="small", loc="upper left")
    return fig


def _reciprocal(run_dir, frame, written):
    if frame.reciprocal is not None:
        _save(reciprocal_figure(frame.reciprocal), os.path.join(run_dir, "reciprocal.png"), written)


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
        _reciprocal(run_dir, frame, written)
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
    _reciprocal(run_dir, frame, written)
    return written


def _roi(model, frame):
    """Cells whose centres lie within the region of interest: the record's
    polygon, else under the line down to the region depth."""
    c = model.centres()
    if frame.roi is not None:
        return Path(frame.roi).contains_points(c)
    ground = frame.surface()
    if ground is None or len(ground[0]) == 0:
        return np.ones(len(c), bool)
    x0, x1 = ground[0].min(), ground[0].max()
    surface = np.interp(c[:, 0], *ground)
    depth = frame.depth or 0.25 * (x1 - x0)
    return (c[:, 0] >= x0) & (c[:, 0] <= x1) & (c[:, 1] >= surface - depth * 1.001)
