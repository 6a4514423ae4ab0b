"""q5-invert FILE... -o DIR: import field files, run q5 in DIR, draw the
pictures and say where they are."""
import os
import shutil
import subprocess
import tempfile
import time
from dataclasses import replace

from .cli import Parser, command
from .cli_import import add_import_arguments
from .errors import InputError
from .importer import import_run
from .locate import find_q5
from .options import ImportOptions, InvertOptions, add_options, from_args
from .threads import environment

PROG = "q5-invert"


def run_q5(q5, run_dir, threads=None):
    """Run q5 in run_dir (with Q5_THREADS=threads when given), its console
    kept in console.txt; returns the lines worth showing. A run that ends in
    'FATAL error' raises InputError."""
    with open(os.path.join(run_dir, "console.txt"), "w") as out:
        status = subprocess.run([q5], cwd=run_dir, stdout=out, stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL, env=environment(threads)).returncode
    lines = open(os.path.join(run_dir, "console.txt"), errors="replace").read().splitlines()
    last = next((l.strip() for l in reversed(lines) if l.strip()), "")
    if status != 0 or last != "All ok":
        why = next((l.strip() for l in lines if "FATAL" in l), last)
        raise InputError(os.path.join(run_dir, "Q5.out"), f"q5 stopped: {why}")
    keys = ("Processing dataset", "Final RMS Misfit", "Outputing results", "not converged",
            "shows solution", "Rejecting")
    shown = [l.strip() for l in lines if any(k in l for k in keys)]
    if shown and shown[-1].startswith("Processing dataset"):
        shown.pop()  # the head of the read that found the end of the data
    return shown


@command(PROG)
def main(argv=None):
    p = Parser(prog=PROG, description="Import field files, run q5 and draw the results.")
    add_import_arguments(p)
    add_options(p, InvertOptions)
    args = p.parse_args(argv)
    opts, tools = from_args(ImportOptions, args), from_args(InvertOptions, args)
    from .plotting import plot_run
    reference_dir = None
    with_threads = "" if tools.threads is None else f" with Q5_THREADS={tools.threads}"
    try:
        q5 = find_q5(tools.q5, PROG)
        out = os.path.abspath(args.output)
        if os.path.exists(out) and os.listdir(out) and not args.force:
            raise InputError(out, "exists and is not empty (use --force to replace it)")
        t0 = time.time()
        t_ref = 0.0
        if opts.reference:
            # the reference survey alone, every element written, gives the start model
            reference_dir = tempfile.mkdtemp(prefix=".q5-reference-", dir=os.path.dirname(out))
            ref_opts = replace(opts, reference=None, no_polyline=True, start=None)
            _, lines = import_run([opts.reference], reference_dir, ref_opts, force=True)
            print("\n".join(lines))
            print(f"running q5 on the reference survey in {out}/reference{with_threads}")
            t = time.time()
            print("\n".join(run_q5(q5, reference_dir, tools.threads)))
            t_ref = time.time() - t
            opts = replace(opts, start=os.path.join(reference_dir, "f001_res.dat"))
        _, lines = import_run(args.files, out, opts, force=args.force)
        if reference_dir:
            os.rename(reference_dir, os.path.join(out, "reference"))
            reference_dir = None
        t1 = time.time()
        print("\n".join(lines))
        print(f"running q5 in {out}{with_threads}")
        print("\n".join(run_q5(q5, out, tools.threads)))
        t2 = time.time()
        written = plot_run(out, borehole=tools.borehole)
        if opts.reference:
            written += plot_run(os.path.join(out, "reference"), borehole=tools.borehole)
        t3 = time.time()
    finally:
        if reference_dir and os.path.exists(reference_dir):
            shutil.rmtree(reference_dir, ignore_errors=True)
    print(f"times: import {t1 - t0 - t_ref:.1f} s, q5 {t2 - t1 + t_ref:.1f} s, pictures {t3 - t2:.1f} s")
    print("pictures:")
    for path in written:
        print(f"  {path}")
    return 0
