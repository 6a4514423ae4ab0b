"""q5-import FILE... -o DIR: a field file (or several of one survey) to a run
directory for q5."""
import argparse
import sys

from . import geometry
from .errors import InputError, one_line
from .importer import import_run

PROG = "q5-import"


def add_import_options(p):
    p.add_argument("files", nargs="+", metavar="FILE",
                   help="field files: unified data format, Syscal Pro text export or Res2DInv data file"
                        " (recognised by their content)")
    p.add_argument("-o", "--output", required=True, metavar="DIR", help="run directory to write")
    p.add_argument("--force", action="store_true", help="replace DIR if it exists")
    g = p.add_argument_group("Syscal Pro exports")
    g.add_argument("--spacing", type=float, metavar="M", help="true electrode spacing, m")
    g.add_argument("--instrument-spacing", type=float, metavar="M",
                   help="spacing set on the instrument (default: the smallest step in the file)")
    g = p.add_argument_group("geometry")
    g.add_argument("--topography", metavar="FILE",
                   help="lines 'position height' giving the electrodes their heights (position as the file"
                        " gives it: x, or the distance along the ground for a Syscal cable)")
    g.add_argument("--remote", action="append", metavar="X[,Z]",
                   help="place of a remote electrode in the file's coordinates; twice when the remote"
                        " current and potential electrodes differ (current first)")
    g.add_argument("--remote-distance", type=float, metavar="LINES",
                   help=f"without --remote: remotes this many line lengths beyond the line ({geometry.REMOTE_LINES:g})")
    g = p.add_argument_group("mesh")
    g.add_argument("--mesh", choices=["triangles", "grid"], default="triangles",
                   help="triangles (default; any geometry) or a grid with surface offsets (surface lines only)")
    g.add_argument("--cells", type=int, default=4,
                   help="grid: cells between neighbouring electrodes; triangles: twice this many cells per"
                        " electrode spacing at the electrodes (4)")
    g.add_argument("--growth", type=float, default=1.3, help="growth of padding cells (1.3)")
    g.add_argument("--boundary", type=float, default=5.0,
                   help="distance of the boundaries, in line lengths (5)")
    g.add_argument("--depth", type=float, metavar="M",
                   help="depth of the region of interest (a quarter of the line length)")
    g.add_argument("--row-growth", type=float, default=1.1, help="growth of rows with depth (1.1)")
    g.add_argument("--first-row", type=float, metavar="M",
                   help="thickness of the top row (half a cell width)")
    g.add_argument("--no-polyline", action="store_true",
                   help="write every element to the model files, not only the region of interest")
    g = p.add_argument_group("data and errors")
    g.add_argument("--data", choices=["log", "true"], default="log", help="fit log data (default) or true data")
    g.add_argument("--error", type=float, default=3.0, metavar="PERCENT",
                   help="relative error where the file has no error column (3)")
    g.add_argument("--error-floor", type=float, default=2.0, metavar="PERCENT",
                   help="least relative error taken from a file's error column (2)")
    g.add_argument("--ignore-file-errors", action="store_true",
                   help="use --error even where the file has an error column")
    g.add_argument("--errors", choices=["file", "relative", "reciprocal"],
                   help="error model: the file's errors, one relative error, or a + b|R| fitted to reciprocal"
                        " pairs (default: the file's unless q5's 0.001 ohm floor would raise some by more than"
                        " half, else reciprocal when there are pairs, else relative)")
    g.add_argument("--reciprocal-limit", type=float, default=10.0, metavar="PERCENT",
                   help="leave out reciprocal pairs disagreeing by more than this (10)")
    g = p.add_argument_group("run")
    g.add_argument("--forward", action="store_true", help="write a forward job over a uniform model")
    g.add_argument("--rho", type=float, metavar="OHMM",
                   help="uniform model (forward: 100; inverse start: median apparent resistivity)")
    g.add_argument("--start", metavar="FILE", help="start model file holding every element (a _res.dat)")
    g.add_argument("--reference", metavar="FIRST",
                   help="difference run: FIRST's resistances are the reference of every FILE")
    g.add_argument("--iterations", dest="max_iterations", type=int, default=6, help="iteration limit (6)")
    g.add_argument("--tolerance", type=float, default=1.0, help="RMS misfit counted as converged (1)")
    g.add_argument("--inverse-type", type=int, choices=[0, 1, 2], default=1,
                   help="0 Marquardt, 1 linear filter (default), 2 quadratic filter")
    g.add_argument("--target-decrease", type=float, default=0.0, help="per-iteration target decrease (0)")
    g.add_argument("--anisotropy", dest="alpha_aniso", type=float, default=1.0,
                   help="regularisation anisotropy, weight along x (1)")
    g.add_argument("--weight-update", type=int, default=0, help="0 fixed data weights, 1 or 2 re-weighted")
    g.add_argument("--singular", type=int, choices=[0, 1], default=0,
                   help="1 removes the source singularity (0)")
    g.add_argument("--no-sensitivity", dest="res_calc", action="store_const", const=0, default=1,
                   help="no sensitivity map")
    g.add_argument("--title", help="title line of Q5.in")


def options(args):
    return {k: v for k, v in vars(args).items() if k not in ("files", "output", "force")}


def main(argv=None):
    p = argparse.ArgumentParser(prog=PROG, description="Write Q5.in and protocol.dat for q5 from field files.")
    add_import_options(p)
    args = p.parse_args(argv)
    try:
        meta, lines = import_run(args.files, args.output, options(args), force=args.force)
    except (InputError, OSError) as e:
        print(f"{PROG}: {one_line(e)}", file=sys.stderr)
        return 1
    for line in lines:
        print(line)
    print(f"run directory: {args.output}")
    return 0
