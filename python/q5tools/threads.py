"""The threads of each q5 a tool starts: the --threads value, told to q5 as
Q5_THREADS, and whether a batch's jobs times threads ask for more than the
cores there are."""
import argparse
import os

MAX_THREADS = 256   # q5 stops at start above this
EVERY_CORE = 0      # q5 then takes every core it may run on


def parse(text):
    """--threads as q5 reads Q5_THREADS: digits only, 0 or 1 to 256."""
    if not (text.isascii() and text.isdigit()) or int(text) > MAX_THREADS:
        raise argparse.ArgumentTypeError(f"must be {EVERY_CORE} (every core) or a whole number "
                                         f"from 1 to {MAX_THREADS}, not '{text}'")
    return int(text)


def environment(threads):
    """The environment of a q5 run: the caller's, with Q5_THREADS set when
    threads is given; None (the caller's as it is) otherwise."""
    if threads is None:
        return None
    return dict(os.environ, Q5_THREADS=str(threads))


def cores():
    """Cores this process may run on: a batch system's or taskset's share,
    not the machine's."""
    return len(os.sched_getaffinity(0))


def words(threads):
    return "every core" if threads == EVERY_CORE else f"{threads} thread{'s' if threads != 1 else ''}"


def local_excess(jobs, threads, cores):
    """What is wrong when jobs q5 runs of threads each (None: 1) ask for
    more threads than cores; None when they fit."""
    per_job = cores if threads == EVERY_CORE else threads or 1
    if jobs * per_job <= cores:
        return None
    each = f"{per_job} threads (--threads 0: every core)" if threads == EVERY_CORE \
        else f"{per_job} thread{'s' if per_job != 1 else ''}"
    return (f"{jobs} jobs x {each} = {jobs * per_job} threads on {cores} cores: the runs slow "
            "each other down; keep -j times --threads within the cores")


def hosts_excess(jobs, threads):
    """The same for jobs on each ssh host, whose cores are not known here:
    only what is too many on any host of more than one core."""
    if threads == 1 or threads is None:
        return None
    if jobs is None:
        return (f"one job per core on each host x {words(threads)} = more threads than cores on "
                "every host: give -j")
    if threads == EVERY_CORE and jobs > 1:
        return (f"{jobs} jobs x every core (--threads 0) = more threads than cores on every host: "
                "give -j 1 or a thread count")
    return None
