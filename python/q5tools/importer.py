"""From field files to a run directory: read, screen, mesh, write."""
import json
import os
import shutil
import tempfile
from dataclasses import asdict

import numpy as np

from . import checks, control, geometry, grid as gridmod, reciprocal, trimesh
from .errors import InputError
from .options import ImportOptions
from .readers import read_survey
from .topography import apply_topography, read_topography

META = "q5-import.json"
START = "start_res.dat"
Q5_ERROR_FLOOR = 0.001  # ohm: q5 raises smaller read-in errors to this
FLOOR_RAISE = 1.5       # a floor that raises a file's error by more than half distorts the weights


def load_survey(path, opts):
    """Read a field file and give it heights from --topography."""
    survey = read_survey(path, opts.spacing, opts.instrument_spacing)
    if opts.topography:
        pos, height = read_topography(opts.topography)
        survey = apply_topography(survey, pos, height, path=opts.topography)
    return geometry.infer_depths(survey)


def _same_electrodes(first, other):
    if len(first.ids) != len(other.ids) or np.any(first.ids != other.ids):
        raise InputError(other.path, f"its electrodes differ from those of {first.path}")
    dx = np.hypot(first.x - other.x, first.z - other.z)
    dx = np.where(np.isnan(dx), 0.0, dx)
    if np.any(dx > 1e-3):
        k = int(np.argmax(dx))
        raise InputError(other.path, f"electrode {first.ids[k]} stands {dx[k]:.3g} m away from its place in {first.path}")


def _remote_option(values):
    """--remote X[,Z] values as (x,) or (x, z) tuples."""
    out = []
    for text in values or []:
        try:
            place = tuple(float(v) for v in str(text).split(","))
        except ValueError:
            place = ()
        if not 1 <= len(place) <= 2 or not np.all(np.isfinite(place)):
            raise InputError("--remote", f"'{text}' is not X or X,Z in metres")
        out.append(place)
    return out


def _spacing(survey):
    """Median distance from an electrode to its nearest neighbour, m."""
    line = ~survey.remote
    x, z = survey.x[line], survey.z[line]
    d = np.hypot(x[:, None] - x[None, :], z[:, None] - z[None, :])
    np.fill_diagonal(d, np.inf)
    return float(np.median(d.min(axis=1)))


def build_mesh(first, opts, texts):
    """The mesh records of Q5.in (mesh.dat into texts), the layout, the x
    shift, q5's coordinates of every electrode, the parameter count and a
    line saying what was made. Triangles unless a grid is asked for, and a
    grid only where it can hold the electrodes."""
    lay = geometry.layout(first, opts.depth, opts.boundary)
    cells = opts.cells
    if opts.mesh == "grid":
        if np.any(first.buried):
            raise InputError(first.path, "buried electrodes need --mesh triangles: a grid puts every"
                             " electrode on the surface")
        try:
            g = gridmod.build_grid(lay, first.x, first.z, first.remote, opts)
        except ValueError as e:
            raise InputError(first.path, str(e))
        col = g.electrode_columns - 1
        size = f"grid: {g.num_x} columns x {g.num_y} rows ({g.num_x * g.num_y} nodes)"
        return (control.grid_records(g, first.ids), lay, g.x_shift, g.xs[col], g.ys[0] - g.offsets[col],
                g.num_parameters, size)
    if cells < 1:
        raise InputError(first.path, "cells between electrodes must be at least 1")
    tm = trimesh.build_trimesh(lay, first.x, first.z, first.remote, _spacing(first) / (2 * cells))
    tm, x_shift, _ = trimesh.q5_frame(tm, lay, ~first.remote)
    polyline = [(round(x + x_shift, 4), round(z - lay.datum, 4)) for x, z in lay.roi]
    texts["mesh.dat"] = trimesh.mesh_text(tm)
    en = tm.electrode_nodes - 1
    size = f"triangles: {tm.num_nodes} nodes, {tm.num_elements} elements"
    return (control.triangle_records(tm, polyline, first.ids), lay, x_shift, tm.x[en], tm.z[en],
            tm.num_elements, size)


def _median_relative(screened, floor):
    return float(np.median(np.concatenate([np.maximum(s.rel_err, floor) for s in screened])))


def choose_errors(screened, pairs, opts, lines):
    """The error model: ('file', None), ('relative', b) or ('reciprocal',
    model). Default: the file's errors, unless q5's floor of 0.001 ohm would
    raise some by more than half (then the file's median relative error);
    without them the reciprocal model, else --error."""
    mode = opts.errors
    has_file = all(s.rel_err is not None for s in screened) and not opts.ignore_file_errors
    floor = opts.error_floor / 100.0
    model = reciprocal.fit_error_model(np.abs(pairs[0]), pairs[1]) if len(pairs[0]) else None
    if mode == "reciprocal" and model is None:
        raise InputError(screened[0].path, f"--errors reciprocal needs at least {reciprocal.MIN_PAIRS} "
                         f"reciprocal pairs; the files hold {len(pairs[0])}")
    if mode == "file" and not has_file:
        raise InputError(screened[0].path, "--errors file: the file has no error column")
    if mode is None and has_file:
        err = np.concatenate([np.maximum(s.rel_err, floor) * np.abs(s.r) for s in screened])
        low = int(np.sum(err * FLOOR_RAISE < Q5_ERROR_FLOOR))
        if not low:
            return "file", None
        rel = _median_relative(screened, floor)
        lines.append(f"errors: q5's floor of 0.001 ohm would raise {low} of the file's errors by more"
                     f" than half; using the relative model instead: {rel * 100:.3g} % (the file's median)")
        return "relative", rel
    if mode is None:
        mode = "reciprocal" if model is not None else "relative"
    if mode == "relative":
        rel = _median_relative(screened, floor) if has_file else opts.error / 100.0
        if rel <= 0:
            raise InputError(screened[0].path, "--error must be above 0")
        return "relative", rel
    return mode, model


def _screen_all(surveys, reference, log_data, limit, lines):
    """Screened surveys (reciprocal pairs merged, reference values matched)
    and the pairs' mean resistances and discrepancies."""
    pairs = (np.zeros(0), np.zeros(0))
    if reference:
        reference, report, pairing = checks.screen(reference, log_data=False)
        reference, _ = checks.merge_pairs(reference, pairing, limit, report)
        lines += checks.describe(reference.path + " (reference)", report, len(reference))
    screened = []
    for s in surveys:
        kept, report, pairing = checks.screen(s, log_data=log_data)
        # the model is fitted to every pair: its robust spread is not fooled by
        # a few gross ones, while the limit would cut the tails of the noisy ones
        pairs = (np.concatenate([pairs[0], pairing.mean]), np.concatenate([pairs[1], pairing.discrepancy]))
        kept, _ = checks.merge_pairs(kept, pairing, limit, report)
        kept.ref = None
        if reference is not None:
            ref = checks.match_reference(reference, kept)
            missing = np.isnan(ref)
            if missing.any():
                report["not in the reference"] = [int(v) for v in kept.lines[missing]]
                kept = kept.select(~missing)
                ref = ref[~missing]
            kept.ref = ref
        lines += checks.describe(s.path, report, len(kept))
        if not len(kept):
            raise InputError(s.path, "no reading is left to use")
        screened.append(kept)
    return screened, pairs


def _reciprocal_record(pairs, limit, kind, model):
    if not len(pairs[0]):
        return None
    r, d = np.abs(pairs[0]), np.abs(pairs[1])
    out_ = ~reciprocal.apply_limit(*pairs, limit)
    out = {"pairs": int(np.sum(~out_)), "limit": limit, "r": [float(v) for v in r[~out_]],
           "d": [float(v) for v in d[~out_]], "left_out_r": [float(v) for v in r[out_]],
           "left_out_d": [float(v) for v in d[out_]]}
    if kind == "reciprocal":
        out.update({"a": model.a, "b": model.b, "method": model.method,
                    "bins_r": [float(v) for v in model.bins_r], "bins_e": [float(v) for v in model.bins_e]})
    return out


def _median_rho(survey):
    """Median of the positive half-space apparent resistivities: the start model."""
    rho = survey.factor() * survey.r
    good = rho[np.isfinite(rho) & (rho > 0)]
    return float(np.median(good)) if len(good) else ImportOptions.UNIFORM_RHO


def _error_weights(kind, model, screened, lines):
    """q5's a_wgt and b_wgt for the error model chosen."""
    if kind == "relative":
        return 0.0, model
    if kind == "reciprocal":
        all_r = np.abs(np.concatenate([s.r for s in screened]))
        a_wgt, b_wgt, c = reciprocal.quadrature_weights(model, all_r)
        a_wgt, b_wgt = float(f"{a_wgt:.4g}"), float(f"{b_wgt:.4g}")
        lines.append(f"errors: reciprocal model e = {model.a:.4g} ohm + {model.b * 100:.3g} %"
                     f" of |R| ({model.method}); in q5's quadrature sum a_wgt {a_wgt:g},"
                     f" b_wgt {b_wgt:g} (both x {c:.3f})")
        return a_wgt, b_wgt
    # errors from the file (or a forward job): the relative error is not written
    return 0.0, ImportOptions.error / 100.0


def prepare(files, opts):
    """Everything a run directory holds, as texts and a summary; raises
    InputError for what it cannot use. opts: the ImportOptions."""
    forward = opts.forward
    reference_path = opts.reference
    difference = reference_path is not None
    if difference and opts.res_calc == 0:
        raise InputError(reference_path, "--no-sensitivity cannot go with --reference: q5 writes the"
                         " difference map into the model file only beside the sensitivity map")
    if forward and (difference or len(files) != 1):
        raise InputError(files[0] if files else "-", "--forward takes one field file and no --reference")
    if not files:
        raise InputError("-", "no field file given")
    log_data = opts.data == "log" and not difference and not forward
    remote_given = _remote_option(opts.remote)
    lines = []

    def read(path):
        return geometry.place_remotes(load_survey(path, opts), remote_given,
                                      opts.remote_distance or geometry.REMOTE_LINES)

    read_all = [read(p) for p in files]
    reference = read(reference_path) if difference else None
    first, placed = reference or read_all[0]
    surveys = [s for s, _ in read_all]
    reference = reference[0] if reference else None
    for s in surveys:
        _same_electrodes(first, s)
    for s in ([reference] if reference else []) + surveys:
        lines += [f"{s.path}: {note}" for note in s.notes]
    lines += placed
    limit = opts.reciprocal_limit / 100.0
    screened, pairs = _screen_all(surveys, reference, log_data, limit, lines)

    texts = {}
    records, lay, x_shift, ex, ey, num_parameters, size = build_mesh(first, opts, texts)
    error_kind, error_model = ("none", None) if forward else choose_errors(screened, pairs, opts, lines)
    blocks, rhos = [], []
    for s in screened:
        rhos.append(control.q5_factor(ex, ey, *(first.index(v) for v in (s.a, s.b, s.m, s.n))) * s.r)
        block = {"a": s.a, "b": s.b, "m": s.m, "n": s.n, "r": s.r, "ref": s.ref}
        if error_kind == "file":
            block["err"] = np.maximum(s.rel_err, opts.error_floor / 100.0) * np.abs(s.r)
            low = block["err"] < Q5_ERROR_FLOOR
            if low.any():
                worst = float(np.max(Q5_ERROR_FLOOR / np.abs(s.r[low]))) * 100
                lines.append(f"{s.path}: warning: {int(low.sum())} readings have errors under 0.001 ohm; q5"
                             f" raises them to 0.001 ohm (up to {worst:.0f} % of the reading)")
        blocks.append(block)

    a_wgt, b_wgt = _error_weights(error_kind, error_model, screened, lines)
    # a forward job writes no inverse settings: its record keeps the defaults
    inverse = ImportOptions() if forward else opts
    rho_min, rho_max = (None, None) if forward else control.accepted_range(np.concatenate(rhos))
    settings = control.Settings(
        forward=forward,
        rho_start=opts.rho or (ImportOptions.UNIFORM_RHO if forward else round(_median_rho(screened[0]), 3)),
        start_file=START if opts.start else None, inverse_type=inverse.inverse_type,
        target_decrease=inverse.target_decrease, data_type=1 if log_data or forward else 0,
        tolerance=inverse.tolerance, max_iterations=inverse.max_iterations,
        weight_update=inverse.weight_update, alpha_aniso=inverse.alpha_aniso, a_wgt=a_wgt, b_wgt=b_wgt,
        errors_from_file=error_kind == "file", rho_min=rho_min, rho_max=rho_max, singular=opts.singular,
        res_calc=inverse.res_calc, polyline=not opts.no_polyline, difference=difference)

    names = ", ".join(os.path.basename(p) for p in files)
    title = opts.title or (f"{'Difference of ' if difference else ''}{names}")
    texts["Q5.in"] = control.control_text(title, records, settings)
    texts["protocol.dat"] = control.protocol_text(blocks, forward=forward)
    meta = {
        "files": list(files),
        "reference": reference_path,
        "job": "forward" if forward else "inverse",
        "difference": difference,
        "mesh": "grid" if records.mesh_type == 4 else "triangles",
        "x_shift": x_shift, "datum": lay.datum, "depth": lay.roi_depth,
        "electrodes": {"id": [int(v) for v in first.ids], "x": [float(v) for v in first.x],
                       "z": [float(v) for v in first.z], "depth": [float(v) for v in first.depth],
                       "remote": [bool(v) for v in first.remote]},
        "roi": [[float(px), float(pz)] for px, pz in lay.roi],
        "readings": [int(len(b["r"])) for b in blocks],
        "parameters": int(num_parameters),
        "errors": error_kind,
        "reciprocal": _reciprocal_record(pairs, limit, error_kind, error_model),
        "polyline": settings.polyline,
        "settings": asdict(settings),
        "options": {k: (START if k == "start" and v else v) for k, v in sorted(asdict(opts).items())},
    }
    texts[META] = json.dumps(meta, indent=1) + "\n"
    lines.append(f"{size}, {num_parameters} parameters, region of interest {lay.roi_depth:.1f} m deep")
    if not forward:
        model = {"file": f"errors from the file (floor {opts.error_floor:g} %)",
                 "relative": f"relative error {settings.b_wgt * 100:.3g} %",
                 "reciprocal": f"reciprocal error model a_wgt {settings.a_wgt:g} ohm, b_wgt {settings.b_wgt:g}"}
        lines.append(f"{sum(meta['readings'])} readings in {len(blocks)} block(s); {model[error_kind]}; "
                     f"{'difference run, ' if difference else ''}{'log' if log_data else 'true'} data, "
                     f"start {settings.start_file or f'{settings.rho_start:g} ohm m'}")
    return texts, meta, lines


def write_run(out_dir, texts, start=None, force=False):
    """Write the texts into out_dir all at once: into a temporary directory
    beside it, renamed when complete. An existing out_dir is replaced only
    with force."""
    out_dir = os.path.abspath(out_dir)
    if os.path.exists(out_dir) and os.listdir(out_dir) and not force:
        raise InputError(out_dir, "exists and is not empty (use --force to replace it)")
    parent = os.path.dirname(out_dir)
    os.makedirs(parent, exist_ok=True)
    tmp = tempfile.mkdtemp(prefix=".q5-import-", dir=parent)
    try:
        for name, text in texts.items():
            with open(os.path.join(tmp, name), "w") as f:
                f.write(text)
        if start:
            shutil.copyfile(start, os.path.join(tmp, START))
        if os.path.exists(out_dir):
            old = tempfile.mkdtemp(prefix=".q5-old-", dir=parent)
            os.rename(out_dir, os.path.join(old, "run"))
            os.rename(tmp, out_dir)
            shutil.rmtree(old)
        else:
            os.rename(tmp, out_dir)
    except BaseException:
        shutil.rmtree(tmp, ignore_errors=True)
        raise


def import_run(files, out_dir, opts, force=False):
    """Prepare the run directory of the field files (opts: ImportOptions) and write it."""
    texts, meta, lines = prepare(files, opts)
    if opts.start:
        open(opts.start, "rb").close()  # an unreadable start model stops the import before DIR is touched
    write_run(out_dir, texts, start=opts.start, force=force)
    return meta, lines
