"""q5-plot DIR: PNG pictures of a finished q5 run, beside its results."""
from .cli import Parser, command
from .options import PlotOptions, add_options, from_args

PROG = "q5-plot"


@command(PROG)
def main(argv=None):
    p = Parser(prog=PROG, description="Draw the models, data fits and misfits of a finished q5 run.")
    p.add_argument("run_dir", metavar="DIR", help="run directory after q5")
    add_options(p, PlotOptions)
    args = p.parse_args(argv)
    opts = from_args(PlotOptions, args)
    from .plotting import plot_run
    for path in plot_run(args.run_dir, borehole=opts.borehole):
        print(path)
    return 0
