"""The tools' options, each written once: its type, default, flags and help.
A frozen dataclass holds the options of a run; the command lines are made
from its fields, so that a default lives in one place and the modules take
the object, not a dictionary of what argparse happened to give."""
from dataclasses import dataclass, field, fields
from typing import ClassVar, Optional

from . import geometry, threads

SYSCAL, GEOMETRY, MESH, ERRORS, RUN = "Syscal Pro exports", "geometry", "mesh", "data and errors", "run"


def option(default, *flags, help, group=None, **argparse_kw):
    """A field with the command-line spelling of its option; the help may
    show the default as %(default)g."""
    return field(default=default, metadata={"flags": flags, "help": help, "group": group,
                                            "argparse": argparse_kw})


def add_options(parser, cls):
    """The options of the dataclass cls on an argparse parser, in the order
    of its fields, each group under its heading."""
    groups = {}
    for f in fields(cls):
        m = f.metadata
        where = parser
        if m["group"]:
            if m["group"] not in groups:
                groups[m["group"]] = parser.add_argument_group(m["group"])
            where = groups[m["group"]]
        where.add_argument(*m["flags"], dest=f.name, default=f.default, help=m["help"], **m["argparse"])


def from_args(cls, args):
    """The dataclass cls filled from parsed arguments."""
    return cls(**{f.name: getattr(args, f.name) for f in fields(cls)})


def borehole_option():
    return option(None, "--borehole", metavar="FILE",
                  help="borehole log 'x z rho' to draw on the model sections")


def q5_option():
    return option(None, "--q5", metavar="PATH",
                  help="the q5 program (default: beside %(prog)s, the source tree's build/q5, else on PATH)")


def threads_option(help):
    return option(None, "--threads", type=threads.parse, metavar="N", help=help)


@dataclass(frozen=True)
class ImportOptions:
    """How field files become a run directory (q5-import and q5-invert).
    Recorded whole in q5-import.json, so that a run can be made again."""

    # ohm m: the uniform model where neither --rho nor the data give one (a forward job)
    UNIFORM_RHO: ClassVar[float] = 100.0

    spacing: Optional[float] = option(None, "--spacing", group=SYSCAL, type=float, metavar="M",
                                      help="true electrode spacing, m")
    instrument_spacing: Optional[float] = option(
        None, "--instrument-spacing", group=SYSCAL, type=float, metavar="M",
        help="spacing set on the instrument (default: the smallest step in the file)")
    topography: Optional[str] = option(
        None, "--topography", group=GEOMETRY, metavar="FILE",
        help="lines 'position height' giving the electrodes their heights (position as the file"
             " gives it: x, or the distance along the ground for a Syscal cable)")
    remote: Optional[tuple] = option(
        None, "--remote", group=GEOMETRY, action="append", metavar="X[,Z]",
        help="place of a remote electrode in the file's coordinates; twice when the remote"
             " current and potential electrodes differ (current first)")
    remote_distance: Optional[float] = option(
        None, "--remote-distance", group=GEOMETRY, type=float, metavar="LINES",
        help=f"without --remote: remotes this many line lengths beyond the line ({geometry.REMOTE_LINES:g})")
    mesh: str = option("triangles", "--mesh", group=MESH, choices=["triangles", "grid"],
                       help="triangles (default; any geometry) or a grid with surface offsets (surface lines only)")
    cells: int = option(4, "--cells", group=MESH, type=int,
                        help="grid: cells between neighbouring electrodes; triangles: twice this many cells per"
                             " electrode spacing at the electrodes (%(default)g)")
    growth: float = option(1.3, "--growth", group=MESH, type=float, help="growth of padding cells (%(default)g)")
    boundary: float = option(5.0, "--boundary", group=MESH, type=float,
                             help="distance of the boundaries, in line lengths (%(default)g)")
    depth: Optional[float] = option(None, "--depth", group=MESH, type=float, metavar="M",
                                    help="depth of the region of interest (a quarter of the line length)")
    row_growth: float = option(1.1, "--row-growth", group=MESH, type=float,
                               help="growth of rows with depth (%(default)g)")
    first_row: Optional[float] = option(None, "--first-row", group=MESH, type=float, metavar="M",
                                        help="thickness of the top row (half a cell width)")
    no_polyline: bool = option(False, "--no-polyline", group=MESH, action="store_true",
                               help="write every element to the model files, not only the region of interest")
    data: str = option("log", "--data", group=ERRORS, choices=["log", "true"],
                       help="fit log data (default) or true data")
    error: float = option(3.0, "--error", group=ERRORS, type=float, metavar="PERCENT",
                          help="relative error where the file has no error column (%(default)g)")
    error_floor: float = option(2.0, "--error-floor", group=ERRORS, type=float, metavar="PERCENT",
                                help="least relative error taken from a file's error column (%(default)g)")
    ignore_file_errors: bool = option(False, "--ignore-file-errors", group=ERRORS, action="store_true",
                                      help="use --error even where the file has an error column")
    errors: Optional[str] = option(
        None, "--errors", group=ERRORS, choices=["file", "relative", "reciprocal"],
        help="error model: the file's errors, one relative error, or a + b|R| fitted to reciprocal"
             " pairs (default: the file's unless q5's 0.001 ohm floor would raise some by more than"
             " half, else reciprocal when there are pairs, else relative)")
    reciprocal_limit: float = option(10.0, "--reciprocal-limit", group=ERRORS, type=float, metavar="PERCENT",
                                     help="leave out reciprocal pairs disagreeing by more than this (%(default)g)")
    forward: bool = option(False, "--forward", group=RUN, action="store_true",
                           help="write a forward job over a uniform model")
    rho: Optional[float] = option(
        None, "--rho", group=RUN, type=float, metavar="OHMM",
        help=f"uniform model (forward: {UNIFORM_RHO:g}; inverse start: median apparent resistivity)")
    start: Optional[str] = option(None, "--start", group=RUN, metavar="FILE",
                                  help="start model file holding every element (a _res.dat)")
    reference: Optional[str] = option(None, "--reference", group=RUN, metavar="FIRST",
                                      help="difference run: FIRST's resistances are the reference of every FILE")
    max_iterations: int = option(6, "--iterations", group=RUN, type=int, help="iteration limit (%(default)g)")
    tolerance: float = option(1.0, "--tolerance", group=RUN, type=float,
                              help="RMS misfit counted as converged (%(default)g)")
    inverse_type: int = option(1, "--inverse-type", group=RUN, type=int, choices=[0, 1, 2],
                               help="0 Marquardt, 1 linear filter (default), 2 quadratic filter")
    target_decrease: float = option(0.0, "--target-decrease", group=RUN, type=float,
                                    help="per-iteration target decrease (%(default)g)")
    alpha_aniso: float = option(1.0, "--anisotropy", group=RUN, type=float,
                                help="regularisation anisotropy, weight along x (%(default)g)")
    weight_update: int = option(0, "--weight-update", group=RUN, type=int,
                                help="0 fixed data weights, 1 or 2 re-weighted")
    singular: int = option(0, "--singular", group=RUN, type=int, choices=[0, 1],
                           help="1 removes the source singularity (%(default)g)")
    res_calc: int = option(1, "--no-sensitivity", group=RUN, action="store_const", const=0,
                           help="no sensitivity map")
    title: Optional[str] = option(None, "--title", group=RUN, help="title line of Q5.in")

    def __post_init__(self):
        if self.remote is not None:
            object.__setattr__(self, "remote", tuple(self.remote))


@dataclass(frozen=True)
class InvertOptions:
    """What q5-invert adds to the import: where q5 is, its threads, and a
    borehole log."""
    q5: Optional[str] = q5_option()
    threads: Optional[int] = threads_option(
        "threads of q5 (Q5_THREADS): 0 every core, or 1 to 256; the results are the same bytes"
        " on any count (default: Q5_THREADS as the environment has it, else one)")
    borehole: Optional[str] = borehole_option()


@dataclass(frozen=True)
class PlotOptions:
    borehole: Optional[str] = borehole_option()


@dataclass(frozen=True)
class BatchOptions:
    """How q5-batch runs the datasets of a run."""
    jobs: Optional[int] = option(None, "-j", "--jobs", type=int, metavar="N",
                                 help="datasets running at a time (parallel: default all cores, per host with "
                                      "--hosts; slurm: the array's %%N limit, default none)")
    engine: str = option("parallel", "--engine", choices=["parallel", "slurm"],
                         help="GNU parallel (default) or a Slurm job array")
    hosts: Optional[str] = option(None, "--hosts", metavar="FILE",
                                  help="parallel: run on the ssh hosts of FILE (GNU parallel's --sshloginfile; "
                                       "':' is this machine); DIR and q5 must have the same paths there")
    sbatch_args: str = option("", "--sbatch-args", metavar="ARGS",
                              help='slurm: further sbatch options, e.g. "--partition=long --time=2:00:00 '
                                   '--account=geo"')
    threads: Optional[int] = threads_option(
        "threads of each dataset's q5 (Q5_THREADS): 0 every core, or 1 to 256 (default 1, whatever"
        " the environment says); parallel: a warning when jobs x threads exceed the cores; slurm:"
        " each array task asks for N CPUs, and with 0 q5 takes the CPUs its task is given")
    q5: Optional[str] = q5_option()
