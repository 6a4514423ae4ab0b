"""Heights for electrodes: a topography file of (position, height) pairs, and
the conversion of distances along the ground into horizontal positions."""
import numpy as np
from dataclasses import replace

from .errors import InputError


def read_topography(path):
    """A file of lines `position height` (blanks, tabs or commas; `#`
    comments); returns the two columns sorted by position."""
    rows = []
    with open(path, encoding="utf-8", errors="replace") as f:
        for number, text in enumerate(f, 1):
            items = text.split("#")[0].replace(",", " ").split()
            if not items:
                continue
            if len(items) < 2:
                raise InputError(path, f"expected 2 columns (position, height), found {len(items)}", number)
            try:
                pair = [float(items[0]), float(items[1])]
            except ValueError:
                raise InputError(path, "not a number in the first two columns", number)
            if not np.all(np.isfinite(pair)):
                raise InputError(path, "a position or height is not finite", number)
            rows.append(pair)
    if len(rows) < 2:
        raise InputError(path, "needs at least two points")
    table = np.array(rows)
    order = np.argsort(table[:, 0], kind="stable")
    pos, height = table[order, 0], table[order, 1]
    if np.any(np.diff(pos) <= 0):
        raise InputError(path, "two points share one position")
    return pos, height


def horizontal(s, z, path):
    """Horizontal positions of points given by distance s along the ground
    and height z (sorted by s): each step keeps its length along the ground."""
    ds, dz = np.diff(s), np.diff(z)
    if np.any(np.abs(dz) > ds + 1e-9):
        k = int(np.argmax(np.abs(dz) - ds))
        raise InputError(path, f"the ground rises {abs(dz[k]):g} m over {ds[k]:g} m of distance along it"
                         f" at {s[k]:g} m")
    return s[0] + np.concatenate([[0.0], np.cumsum(np.sqrt(np.maximum(ds * ds - dz * dz, 0.0)))])


def apply_topography(survey, pos, height, along_ground=None, path=None):
    """The survey with heights from the points (pos, height), linear between
    points and level beyond them. pos is in the survey's own coordinate: with
    along_ground (default: the survey's), distances along the ground, which
    are turned into horizontal positions for the electrodes and the points
    alike. Buried electrodes keep their depth below the new surface."""
    along = survey.along_ground if along_ground is None else along_ground
    pos, height = np.asarray(pos, float), np.asarray(height, float)
    x_points = horizontal(pos, height, path or survey.path) if along else pos
    placed = ~survey.remote
    x, z = survey.x.copy(), survey.z.copy()
    if along:
        x[placed] = np.interp(survey.x[placed], pos, x_points)
        # beyond the points the ground is level: distance along it is horizontal
        x[placed] += np.maximum(survey.x[placed] - pos[-1], 0) + np.minimum(survey.x[placed] - pos[0], 0)
    z[placed] = np.interp(x[placed], x_points, height) - survey.depth[placed]
    return replace(survey, x=x, z=z, topography=(x_points, height), along_ground=False,
                   notes=list(survey.notes))
