"""q5-plot DIR: PNG pictures of a finished q5 run, beside its results."""
import argparse
import sys

from .errors import InputError

PROG = "q5-plot"


def main(argv=None):
    p = argparse.ArgumentParser(prog=PROG, description="Draw the models, data fits and misfits of a finished q5 run.")
    p.add_argument("run_dir", metavar="DIR", help="run directory after q5")
    p.add_argument("--borehole", metavar="FILE", help="borehole log of lines 'x z rho' to draw on the sections")
    args = p.parse_args(argv)
    from .plotting import plot_run
    try:
        written = plot_run(args.run_dir, borehole=args.borehole)
    except (InputError, OSError) as e:
        # one line, as for every tool: the path and what is wrong with it
        why = f"{e.filename}: {e.strerror}" if isinstance(e, OSError) and e.filename is not None else str(e)
        print(f"{PROG}: {why}", file=sys.stderr)
        return 1
    for path in written:
        print(path)
    return 0
