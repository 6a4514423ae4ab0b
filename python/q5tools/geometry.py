"""Where a run's electrodes stand and how far its mesh reaches: remote
electrodes placed, the ground surface, the region of interest and the outer
boundary, in the file's own (world) coordinates."""
from dataclasses import dataclass, replace

import numpy as np

from .errors import InputError

REMOTE_LINES = 10.0   # default distance of a remote beyond the line's end, in line lengths


@dataclass
class Layout:
    x0: float                 # ends of the line of electrodes that are not remote, m
    x1: float
    length: float             # its length (or, for a single borehole, its depth), m
    surface_x: np.ndarray     # ground surface points, sorted, level beyond the last ones
    surface_z: np.ndarray
    roi: list                 # region of interest: (x, z) points, first == last
    roi_depth: float          # its depth below the surface, m
    left: float               # outer boundary: x of both sides and depth of the bottom
    right: float
    bottom: float             # below the datum, m
    datum: float              # highest point of the ground, m

    def surface(self, x):
        return np.interp(x, self.surface_x, self.surface_z)


def place_remotes(survey, given=None, lines=REMOTE_LINES):
    """The survey with every remote electrode placed on the ground: at the
    places --remote gave (x or x,z, in order: remote current electrode, then
    remote potential electrode), else `lines` line lengths beyond the line,
    current remote to the left and potential remote to the right, so that the
    two are as far from each other as from the line. Returns the survey and
    console lines saying where they went."""
    remotes = np.flatnonzero(survey.remote)
    if not len(remotes):
        if given:
            raise InputError(survey.path, "--remote given, but the file has no remote electrode")
        return survey, []
    given = list(given or [])
    if given and len(given) != len(remotes):
        raise InputError(survey.path, f"--remote given {len(given)} time(s) for {len(remotes)} remote "
                         "electrode(s) (current remote first, then potential remote)")
    line = ~survey.remote
    x0, x1 = float(np.min(survey.x[line])), float(np.max(survey.x[line]))
    length = max(x1 - x0, 1e-3)
    x, z, out = survey.x.copy(), survey.z.copy(), []
    order = np.argsort(survey.x[line])
    ground = lambda px: np.interp(px, survey.x[line][order], (survey.z + survey.depth)[line][order])
    for k, e in enumerate(remotes):
        role = "current" if np.any(survey.a == survey.ids[e]) or np.any(survey.b == survey.ids[e]) \
            else "potential"
        if given:
            place = given[k]
            x[e] = place[0]
            z[e] = place[1] if len(place) > 1 else float(ground(place[0]))
            out.append(f"remote {role} electrode {survey.ids[e]} at x = {x[e]:g} m, height {z[e]:g} m (--remote)")
        elif np.isfinite(survey.x[e]):
            z[e] = survey.z[e] if np.isfinite(survey.z[e]) else float(ground(survey.x[e]))
            out.append(f"remote {role} electrode {survey.ids[e]} at x = {x[e]:g} m as the file gives it")
        else:
            left = role == "current"
            x[e] = x0 - lines * length if left else x1 + lines * length
            z[e] = float(ground(x[e]))
            out.append(f"remote {role} electrode {survey.ids[e]} placed {lines * length:g} m "
                       f"{'before the first' if left else 'beyond the last'} electrode "
                       f"(x = {x[e]:g} m; {lines:g} line lengths; give its place with --remote)")
    return replace(survey, x=x, z=z, notes=list(survey.notes)), out


def infer_depths(survey):
    """Depths for a file that gives only positions: an electrode with another
    one above it at the same x (within 1 cm) is in a borehole, at its depth
    below the highest one there, which stands on the ground."""
    if np.any(survey.depth > 0):
        return survey
    line = np.flatnonzero(~survey.remote)
    depth = survey.depth.copy()
    for k in line:
        same = line[np.abs(survey.x[line] - survey.x[k]) < 0.01]
        depth[k] = float(np.max(survey.z[same]) - survey.z[k])
    return replace(survey, depth=depth, notes=list(survey.notes)) if np.any(depth > 0) else survey


def layout(survey, depth, boundary):
    """The layout of a survey whose remotes are placed: the region of
    interest `depth` deep (None: from the line), the outer boundary
    `boundary` line lengths beyond it."""
    line = ~survey.remote
    xl, zl, dl = survey.x[line], survey.z[line], survey.depth[line]
    x0, x1 = float(xl.min()), float(xl.max())
    deepest = float(dl.max())
    length = max(x1 - x0, deepest, 1e-3)
    # the ground: electrodes on it, points the file or --topography gave, and
    # over buried electrodes the surface their depth was taken from
    px, pz = list(xl), list(zl + dl)
    if survey.topography is not None:
        tx, tz = survey.topography
        inside = (tx > x0) & (tx < x1)
        px += list(tx[inside])
        pz += list(tz[inside])
    px, pz = np.array(px), np.array(pz)
    order = np.lexsort((dl.tolist() + [0] * (len(px) - len(xl)), px))
    sx, sz = _unique(px[order], pz[order])
    if depth is None:
        depth = max(0.25 * length, 1.1 * deepest) if deepest == 0 else 1.1 * deepest + 0.1 * length
    if depth <= 0:
        raise InputError(survey.path, "the depth of investigation must be above 0")
    # buried electrodes get a margin beside them; a surface line ends at its end electrodes
    margin = 0.0 if deepest == 0 else 0.1 * length + 0.25 * deepest
    rx = np.concatenate([[x0 - margin], sx[(sx > x0 - margin) & (sx < x1 + margin)], [x1 + margin]])
    rz = np.interp(rx, sx, sz)
    top = list(zip(rx, rz))
    roi = top + [(px_, pz_ - depth) for px_, pz_ in top[::-1]] + [top[0]]
    reach = boundary * length
    xs_all = survey.x
    left = min(x0 - margin - reach, float(np.min(xs_all)) - max(reach, x0 - float(np.min(xs_all))))
    right = max(x1 + margin + reach, float(np.max(xs_all)) + max(reach, float(np.max(xs_all)) - x1))
    datum = float(max(np.max(sz), np.max(survey.z)))
    far = max(x0 - left, right - x1)
    bottom = max(reach, 2 * depth, deepest + reach, far) + (datum - float(np.min(sz)))
    return Layout(x0, x1, length, sx, sz, roi, float(depth), float(left), float(right), float(bottom), datum)


def _unique(x, z):
    keep = np.concatenate([[True], np.diff(x) > 1e-9])
    return x[keep], z[keep]
