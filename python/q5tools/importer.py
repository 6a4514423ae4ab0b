"""From field files to a run directory: read, screen, grid, write."""
import json
import os
import shutil
import tempfile
from dataclasses import asdict

import numpy as np

from . import checks, control, grid as gridmod
from .errors import InputError
from .survey import flat_geometric_factor
from .syscal import looks_like_syscal, read_syscal
from .unified import read_unified

META = "q5-import.json"
START = "start_res.dat"
Q5_ERROR_FLOOR = 0.001  # ohm: q5 raises smaller read-in errors to this


def read_survey(path, spacing=None, instrument_spacing=None):
    """Read a field file of either kind (the Syscal export by its header)."""
    if looks_like_syscal(path):
        return read_syscal(path, spacing, instrument_spacing)
    if spacing is not None or instrument_spacing is not None:
        raise InputError(path, "--spacing applies to Syscal Pro exports only")
    return read_unified(path)


def _same_electrodes(first, other):
    if len(first.ids) != len(other.ids) or np.any(first.ids != other.ids):
        raise InputError(other.path, f"its electrodes differ from those of {first.path}")
    dx = np.hypot(first.x - other.x, first.z - other.z)
    if np.any(dx > 1e-3):
        k = int(np.argmax(dx))
        raise InputError(other.path, f"electrode {first.ids[k]} stands {dx[k]:.3g} m away from its place in {first.path}")


def _errors(survey, opts):
    """Absolute errors (ohm) per reading from the file's error column, or None."""
    if survey.rel_err is None or opts.get("ignore_file_errors"):
        return None
    floor = opts.get("error_floor", 2.0) / 100.0
    return np.maximum(survey.rel_err, floor) * np.abs(survey.r)


def prepare(files, opts):
    """Everything a run directory holds, as texts and a summary; raises
    InputError for what it cannot use. opts is a dict of the import options."""
    forward = bool(opts.get("forward"))
    reference_path = opts.get("reference")
    difference = reference_path is not None
    if difference and opts.get("res_calc") == 0:
        raise InputError(reference_path, "--no-sensitivity cannot go with --reference: q5 writes the"
                         " difference map into the model file only beside the sensitivity map")
    if forward and (difference or len(files) != 1):
        raise InputError(files[0] if files else "-", "--forward takes one field file and no --reference")
    if not files:
        raise InputError("-", "no field file given")
    log_data = opts.get("data", "log") == "log" and not difference
    read = lambda p: read_survey(p, opts.get("spacing"), opts.get("instrument_spacing"))
    surveys = [read(p) for p in files]
    reference = read(reference_path) if difference else None
    first = reference or surveys[0]
    for s in surveys:
        _same_electrodes(first, s)

    lines = []
    for s in ([reference] if reference else []) + surveys:
        lines += [f"{s.path}: {note}" for note in s.notes]
    if reference:
        reference, report = checks.screen(reference, log_data=False)
        lines += checks.describe(reference.path + " (reference)", report, len(reference))
    screened = []
    for s in surveys:
        kept, report = checks.screen(s, log_data=log_data)
        if reference is not None:
            ref = checks.match_reference(reference, kept)
            missing = np.isnan(ref)
            if missing.any():
                report["not in the reference"] = [int(v) for v in kept.lines[missing]]
                kept = kept.select(~missing)
                ref = ref[~missing]
            kept.ref = ref
        else:
            kept.ref = None
        lines += checks.describe(s.path, report, len(kept))
        if not len(kept):
            raise InputError(s.path, "no reading is left to use")
        screened.append(kept)

    try:
        g = gridmod.build_grid(first.x, first.z, cells=opts.get("cells", 4),
                               growth=opts.get("growth", 1.3), depth=opts.get("depth"),
                               boundary=opts.get("boundary", 5.0),
                               row_growth=opts.get("row_growth", 1.1),
                               first_row=opts.get("first_row"))
    except ValueError as e:
        raise InputError(first.path, str(e))
    column = {int(e): c for e, c in zip(first.ids, g.electrode_columns)}
    cols = lambda v: np.array([column[int(e)] for e in v])

    settings = control.Settings(forward=forward, singular=opts.get("singular", 0),
                                difference=difference, polyline=not opts.get("no_polyline"))
    blocks, rhos, medians = [], [], []
    errors_from_file = all(s.rel_err is not None for s in screened) and not opts.get("ignore_file_errors")
    for s in screened:
        k = gridmod.q5_geometric_factor(g, cols(s.a), cols(s.b), cols(s.m), cols(s.n))
        rhos.append(k * s.r)
        pos = [s.positions(v) for v in (s.a, s.b, s.m, s.n)]
        rho_flat = flat_geometric_factor(*pos[0], *pos[1], *pos[2], *pos[3]) * s.r
        good = rho_flat[np.isfinite(rho_flat) & (rho_flat > 0)]
        medians.append(float(np.median(good)) if len(good) else 100.0)
        block = {"a": s.a, "b": s.b, "m": s.m, "n": s.n, "r": s.r, "ref": s.ref}
        if errors_from_file:
            block["err"] = _errors(s, opts)
            low = int(np.sum(block["err"] < Q5_ERROR_FLOOR))
            if low:
                worst = float(np.max(Q5_ERROR_FLOOR / np.abs(s.r[block["err"] < Q5_ERROR_FLOOR]))) * 100
                lines.append(f"{s.path}: warning: {low} readings have errors under 0.001 ohm; q5 raises them"
                             f" to 0.001 ohm (up to {worst:.0f} % of the reading)")
        blocks.append(block)

    if forward:
        settings.rho_start = opts.get("rho") or 100.0
    else:
        settings.rho_start = opts.get("rho") or round(medians[0], 3)
        settings.errors_from_file = errors_from_file
        if not errors_from_file:
            settings.b_wgt = opts.get("error", 3.0) / 100.0
            if settings.b_wgt <= 0:
                raise InputError(files[0], "--error must be above 0")
        settings.rho_min, settings.rho_max = control.accepted_range(np.concatenate(rhos))
        settings.data_type = 1 if log_data else 0
        for name in ("max_iterations", "tolerance", "inverse_type", "target_decrease",
                     "alpha_aniso", "weight_update", "res_calc"):
            if opts.get(name) is not None:
                setattr(settings, name, opts[name])
    start_source = opts.get("start")
    if start_source:
        settings.start_file = START

    names = ", ".join(os.path.basename(p) for p in files)
    title = opts.get("title") or (f"{'Difference of ' if difference else ''}{names}")
    texts = {
        "Q5.in": control.control_text(title, g, first.ids, settings),
        "protocol.dat": control.protocol_text(blocks, forward=forward),
    }
    meta = {
        "files": list(files),
        "reference": reference_path,
        "job": "forward" if forward else "inverse",
        "difference": difference,
        "x_shift": g.x_shift, "datum": g.datum, "depth": g.depth,
        "electrodes": {"id": [int(v) for v in first.ids], "x": [float(v) for v in first.x],
                       "z": [float(v) for v in first.z]},
        "readings": [int(len(b["r"])) for b in blocks],
        "grid": {"columns": g.num_x, "rows": g.num_y, "parameters": g.num_parameters},
        "polyline": settings.polyline,
        "settings": {k: v for k, v in asdict(settings).items()},
        "options": {k: (START if k == "start" and v else v) for k, v in sorted(opts.items())},
    }
    texts[META] = json.dumps(meta, indent=1) + "\n"
    lines.append(f"grid: {g.num_x} columns x {g.num_y} rows ({g.num_x * g.num_y} nodes), "
                 f"{g.num_parameters} parameters, region of interest {g.depth:.1f} m deep")
    if not forward:
        model = f"errors from the file (floor {opts.get('error_floor', 2.0):g} %)" if errors_from_file \
            else f"relative error {settings.b_wgt * 100:g} %"
        lines.append(f"{sum(meta['readings'])} readings in {len(blocks)} block(s); {model}; "
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
    texts, meta, lines = prepare(files, opts)
    start = opts.get("start")
    if start and not os.path.isfile(start):
        raise InputError(start, "cannot be read")
    write_run(out_dir, texts, start=start, force=force)
    return meta, lines
