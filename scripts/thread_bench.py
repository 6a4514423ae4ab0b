#!/usr/bin/env python3
"""Threads of q5 against one thread: speed-up, peak memory and identity.

Speed: each case runs as A B A B ... pairs (Q5_THREADS=1, then 2), one pair
after another in one go, so that both counts meet the same load; the
speed-up of a pair is its one-thread time over its two-thread time, and the
median over the pairs is reported with the peak resident memory of each
count. Identity: every run of a case, on 1, 2, 3 and 0 (every core)
threads, must leave the same files as the first one-thread run, byte for
byte, but the console and Q5.out, which may differ in the thread line and
the timing figures alone. Part of `make bench`; not a test.
"""
import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import time

TIMING = re.compile(r"time taken")
THREAD_LINE = " >> T h r e a d s : "
DATE_LINE = " >> D a t e : "
OUTPUT = re.compile(r"^(f\d{3}.*|fort\.\d+|electrodes\.(dat|vtk)|Q5\.out|Q5_forward\.dat|forward_model\..*|console\.txt)$")


def inputs_of(case_dir):
    """q5's input files in a run directory: Q5.in, protocol.dat, mesh.dat and
    any file the control file names (a start model)."""
    names = {"Q5.in", "protocol.dat", "mesh.dat"}
    with open(os.path.join(case_dir, "Q5.in"), errors="replace") as f:
        names.update(tok for tok in f.read().split() if not OUTPUT.match(tok))
    return sorted(n for n in names if os.path.isfile(os.path.join(case_dir, n)) and not OUTPUT.match(n))


def run(case_dir, work, threads):
    """Runs q5 on a fresh copy of the case's inputs; returns (seconds, peak
    resident kB, run directory)."""
    run_dir = os.path.join(work, f"t{threads}-{time.monotonic_ns()}")
    os.makedirs(run_dir)
    for name in inputs_of(case_dir):
        shutil.copy(os.path.join(case_dir, name), run_dir)
    env = dict(os.environ, Q5_THREADS=str(threads))
    with open(os.path.join(run_dir, "console.txt"), "w") as out:
        start = time.monotonic()
        proc = subprocess.Popen([Q5], cwd=run_dir, stdout=out, stderr=subprocess.STDOUT,
                                stdin=subprocess.DEVNULL, env=env)
        _, status, usage = os.wait4(proc.pid, 0)
        seconds = time.monotonic() - start
    if status != 0:
        sys.exit(f"thread_bench: q5 failed in {run_dir}")
    return seconds, usage.ru_maxrss, run_dir


def as_on_one_thread(path):
    with open(path, errors="replace") as f:
        return [line for line in f.read().splitlines()
                if not line.startswith(THREAD_LINE) and not line.startswith(DATE_LINE)
                and not TIMING.search(line)]


def differences(one, other):
    """Names of the files in which run directory `other` differs from `one`."""
    names = sorted(set(os.listdir(one)) | set(os.listdir(other)))
    bad = []
    for name in names:
        a, b = os.path.join(one, name), os.path.join(other, name)
        if not (os.path.isfile(a) and os.path.isfile(b)):
            bad.append(name)
        elif name in ("console.txt", "Q5.out"):
            if as_on_one_thread(a) != as_on_one_thread(b):
                bad.append(name)
        else:
            with open(a, "rb") as fa, open(b, "rb") as fb:
                if fa.read() != fb.read():
                    bad.append(name)
    return bad


def identity(name, case_dir, work, reference=None):
    """Runs on 1 (unless a one-thread run is given), 2, 3 and 0 threads;
    returns the number of files compared and prints any difference."""
    if reference is None:
        reference = run(case_dir, work, 1)[2]
    ok = True
    peaks = []
    for threads in (2, 3, 0):
        _, peak, run_dir = run(case_dir, work, threads)
        peaks.append(f"{threads}: {peak / 1024:.0f} MB")
        bad = differences(reference, run_dir)
        if bad:
            ok = False
            print(f"  {name}: Q5_THREADS={threads} differs in {', '.join(bad)}")
    files = len(os.listdir(reference))
    print(f"  {name}: {files} files, 2, 3 and 0 threads {'identical' if ok else 'DIFFER'} to one thread "
          f"(peak memory {', '.join(peaks)})")
    return ok


def speed(name, case_dir, work, pairs):
    times = {1: [], 2: []}
    memory = {1: 0, 2: 0}
    runs = {}
    for _ in range(pairs):
        for threads in (1, 2):
            seconds, peak, run_dir = run(case_dir, work, threads)
            times[threads].append(seconds)
            memory[threads] = max(memory[threads], peak)
            runs.setdefault(threads, run_dir)
    ratios = [a / b for a, b in zip(times[1], times[2])]
    print(f"  {name}: 1 thread {statistics.median(times[1]):.2f} s, 2 threads "
          f"{statistics.median(times[2]):.2f} s; speed-up per pair "
          f"{', '.join(f'{r:.2f}' for r in ratios)}, median {statistics.median(ratios):.2f}; "
          f"peak memory {memory[1] / 1024:.0f} MB and {memory[2] / 1024:.0f} MB")
    return runs[1]


def main():
    global Q5
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("q5", help="the q5 program")
    parser.add_argument("--work", required=True, help="directory for the runs (emptied first)")
    parser.add_argument("--pairs", type=int, default=3, help="A B pairs per speed case (3)")
    parser.add_argument("--speed", nargs="*", default=[], metavar="NAME=DIR",
                        help="cases timed on 1 and 2 threads (then checked on 3 and 0)")
    parser.add_argument("--identity", nargs="*", default=[], metavar="NAME=DIR",
                        help="cases only checked for identity")
    args = parser.parse_args()
    Q5 = os.path.abspath(args.q5)
    shutil.rmtree(args.work, ignore_errors=True)
    os.makedirs(args.work)
    ok = True
    print(f"== threads: speed-up of 2 threads over 1 ({args.pairs} A B pairs each), "
          f"{len(os.sched_getaffinity(0))} cores")
    checks = []
    for item in args.speed:
        name, case_dir = item.split("=", 1)
        checks.append((name, case_dir, speed(name, case_dir, os.path.join(args.work, name), args.pairs)))
    print("== threads: identity of every file on 2, 3 and 0 threads")
    for name, case_dir, reference in checks:
        ok = identity(name, case_dir, os.path.join(args.work, name), reference) and ok
    for item in args.identity:
        name, case_dir = item.split("=", 1)
        ok = identity(name, case_dir, os.path.join(args.work, name)) and ok
    return 0 if ok else 1


Q5 = None
if __name__ == "__main__":
    sys.exit(main())
