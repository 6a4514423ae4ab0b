"""q5-batch against one sequential q5 run: blocks found as q5 reads them
(free-format lines, a count of 0, the end of the file), every gathered fKKK
file byte for byte, names past f009 and f099, a difference run with its
reference column, the rerun after an interruption and failing datasets; the
threads of each task's q5 and the warning when jobs x threads exceed the
cores."""
import os
import signal
import subprocess
import sys
import time

import pytest

from conftest import (BIN, ELEMENTS, QUADS, THREAD_LINE, assert_identical, block_rows, caller_env, control,
                      make_run, protocol, q5_binary, results_of, sequential, thread_line, tool, write)
from q5tools import results
from q5tools.threads import cores
from q5tools.batch_dirs import gathered_name, stem
from q5tools.listread import BAD, EOF, OK, LineFile, read_items
from q5tools.runlayout import cut_blocks, read_layout


def batch(run, *args, q5=None, env=None):
    return tool("q5-batch", run, "--q5", q5 or q5_binary(), *args, env=env)


def test_file_stems_and_gathered_names():
    # q5 writes each digit as the character 48 + d: from dataset 1000 the hundreds run on past '9'
    assert [stem(k) for k in (1, 9, 10, 99, 100, 999, 1000, 1009, 1100)] == \
        ["f001", "f009", "f010", "f099", "f100", "f999", "f:00", "f:09", "f;00"]
    assert gathered_name("f001_res.dat", 7) == "f007_res.dat"
    assert gathered_name("f001.002_res.vtk", 1000) == "f:00.002_res.vtk"
    assert gathered_name("f0011_res.dat", 7) is None and gathered_name("fort.19", 7) is None


@pytest.mark.parametrize("text, kinds, expected", [
    ("1 2\n3 ! 7 8\n4\n", ["iii", "i"], [(OK, [1, 2, 3], 1), (OK, [4], 2)]),
    ("1,,3 9\n", ["iii"], [(OK, [1, None, 3], 0)]),
    ("1,\n,2\n", ["iii"], [(OK, [1, None, 2], 1)]),
    ("2*7, 3*\n5\n", ["iiii", "i"], [(OK, [7, 7, None, None], 0), (OK, [5], 1)]),
    ("1 / 2 3\n4\n", ["iii", "i"], [(OK, [1, None, None], 0), (OK, [4], 1)]),
    ("1 x 3\n4 5 6\n", ["iii", "iii"], [(BAD, [1, None, None], 0), (OK, [4, 5, 6], 1)]),
    ("1.5-3 2d2\t.5 -INF\n", ["rrrr"], [(OK, [0.0015, 200.0, 0.5, -float("inf")], 0)]),
    ("3.0\n", ["i"], [(BAD, [None], 0)]),
    ("0*4\n", ["i"], [(BAD, [None], 0)]),
    ("\n\n1\n", ["ii"], [(EOF, [1, None], 2)]),
])
def test_read_statements_as_q5_makes_them(text, kinds, expected):
    f = LineFile(text.encode(), "text")
    assert [(r.status, r.values, r.last_line) for r in (read_items(f, k) for k in kinds)] == expected


def test_blocks_found_as_q5_reads_them(tmp_path, resistances):
    """Free-format measurement lines: items over two lines, commas, a repeat
    count, comments with numbers after the last item, empty lines; a count
    of 0 ends the data before lines that are never read."""
    r = resistances
    lines, expect = [], []
    for b in range(3):
        first = len(lines) + 1
        lines += ["", f"{len(QUADS)}   readings of survey {b}"] if b == 1 else [f"{len(QUADS)}"]
        for k, ((m, n, a, c), v) in enumerate(zip(QUADS, block_rows(r, b)), 1):
            ref = v if b == 0 else r[k - 1]   # the first survey is its own reference
            if k % 4 == 1:
                lines += [f"{k} {m} {n}", f"   {a} {c} {v:.6e}", f"{ref:.6e}  8 9 10 11"]
            elif k % 4 == 2:
                lines += [f"{k},{m}, {n} ,{a},{c},{v:.6e},{ref:.6e} 1 2 3"]
            elif k % 4 == 3 and b == 0:
                lines += [f"{k} {m} {n} {a} {c} 2*{v:.6e}"]
            else:
                lines += [f"{k}\t{m} {n} {a} {c} {v:.6e} {ref:.6e} 1.0 2.0 ! comment"]
        expect.append((first, len(lines)))
    lines += ["0", f"{len(QUADS)}", "1 1 2 3 4 1.0 1.0"]
    start = "".join(f"0 0 {90 + e % 7}\n" for e in range(ELEMENTS))
    run = make_run(tmp_path / "run", control(model="0\nstart_res.dat", reg_mode=2, iterations=1),
                   "\n".join(lines) + "\n", {"start_res.dat": start})
    layout = read_layout(run)
    assert (layout.items, layout.start_file, layout.start_line) == (7, "start_res.dat", 8)
    found = cut_blocks(run / "protocol.dat", layout.items)
    assert [(b.first_line, b.last_line) for b in found.blocks] == expect
    assert "count of 0 on line" in found.end and "2 line(s) after it are never read" in found.end
    assert sequential(run, tmp_path / "seq").stdout.rstrip().endswith("All ok")
    done = batch(run, "-j", "2")
    assert done.returncode == 0, done.stdout + done.stderr
    assert_identical(tmp_path / "seq", run, [1, 2, 3])
    # the per-dataset logs, gathered in order, and a summary told from them
    log = open(run / "Q5.out").read()
    assert log.index("dataset 1, stem f001") < log.index("dataset 2, stem f002") < log.index("dataset 3, stem f003")
    misfits, ends = results.read_misfits(tmp_path / "seq" / "Q5.out")
    csv = open(run / "batch" / "summary.csv").read().splitlines()
    assert csv[0] == "dataset,exit words,iterations,final RMS,time s"
    for k, row in enumerate(csv[1:], 1):
        number, words, iterations, rms, seconds = row.split(",")
        assert int(number) == k and words == " ".join(ends[k].split(" - Outputing")[0].split())
        iteration, _, final = misfits[k][-1]
        assert int(iterations) == iteration and (float(rms) == pytest.approx(final) if final else rms == "")
        assert 0 <= float(seconds) < 30


def test_difference_run_with_errors_from_the_file(tmp_path, resistances):
    """Eight items a line; two iterations, so that each dataset's difference
    table goes where its own run puts it (fort.19), kept per dataset."""
    run = make_run(tmp_path / "run", control(reg_mode=2, errors=(0, 0)),
                   protocol(resistances, 4, reference=True, errors=0.002))
    assert sequential(run, tmp_path / "seq").stdout.rstrip().endswith("All ok")
    done = batch(run, "-j", "2")
    assert done.returncode == 0, done.stdout + done.stderr
    assert_identical(tmp_path / "seq", run, [1, 2, 3, 4])
    # q5-plot reads the same misfits and ends from the gathered log
    assert results.read_misfits(run / "Q5.out") == results.read_misfits(tmp_path / "seq" / "Q5.out")
    # a dataset with a completed iteration writes its table to fort.19 and
    # leaves _diffres.dat empty; one that converged at once fills _diffres.dat
    iterated = [k for k in range(1, 5) if os.path.exists(run / f"{stem(k)}.001_res.vtk")]
    assert 1 <= len(iterated) < 4
    for k in range(1, 5):
        assert os.path.exists(run / "batch" / f"{k:03d}" / "fort.19") == (k in iterated)
        assert (os.path.getsize(run / f"{stem(k)}_diffres.dat") == 0) == (k in iterated)
    assert not os.path.exists(run / "fort.19")
    # the sequential run's shared fort.19 holds the table of the last dataset that wrote it
    last = run / "batch" / f"{iterated[-1]:03d}" / "fort.19"
    assert open(tmp_path / "seq" / "fort.19", "rb").read() == open(last, "rb").read()


def test_names_past_nine_and_ninety_nine_through_a_hosts_file(tmp_path, resistances):
    """103 datasets, run by GNU parallel on the hosts of a file: ':' is this machine, 2 jobs."""
    run = make_run(tmp_path / "run", control(iterations=1, res_calc=0), protocol(resistances, 103))
    sequential(run, tmp_path / "seq")
    done = batch(run, "--hosts", write(tmp_path / "hosts", "2/:\n"))
    assert done.returncode == 0, done.stdout + done.stderr
    assert f"GNU parallel on the hosts of {tmp_path / 'hosts'}, one job per core" in done.stdout
    assert_identical(tmp_path / "seq", run, range(1, 104))
    assert {"f009_res.dat", "f010_res.dat", "f099_err.dat", "f100_res.vtk", "f103_res.dat"} <= set(os.listdir(run))


def test_failing_datasets_are_reported_and_the_others_gathered(tmp_path, resistances):
    """Dataset 2 names an electrode the run lacks (FATAL error: a sequential
    run stops there); q5 is killed by a signal on dataset 3 and exits with
    status 3 on dataset 4 (a wrapper around the real q5 injects both); the
    last block is cut short by the end of the file. Datasets 1 and 5 are
    gathered, identical to a sequential run in which every block is good."""
    good = protocol(resistances, 6).splitlines()
    size = len(QUADS) + 1
    bad = list(good)
    items = bad[size + 3].split()
    bad[size + 3] = " ".join(items[:3] + ["33"] + items[4:])     # measurement 3: C+ 33
    run = make_run(tmp_path / "run", control(), "\n".join(bad[:-5]) + "\n")  # block 6 loses its last lines
    make_run(tmp_path / "good", control(), "\n".join(good[:5 * size]) + "\n")
    sequential(tmp_path / "good", tmp_path / "seq")
    faulty = write(tmp_path / "faulty-q5", "#!/bin/sh\ncase $(pwd) in\n*/003) kill -KILL $$;;\n"
                   f"*/004) echo 'solver crashed'; exit 3;;\nesac\nexec {q5_binary()}\n", 0o755)
    done = batch(run, "-j", "2", q5=faulty)
    assert done.returncode == 1
    for words in ["dataset 2 (f002, batch/002) failed: FATAL error: FATAL: An electrode in measurement 3 is not valid",
                  "dataset 3 (f003, batch/003) failed: killed by signal 9 (SIGKILL)",
                  "dataset 4 (f004, batch/004) failed: exit status 3: solver crashed",
                  "dataset 6 (f006, batch/006) failed: FATAL error: FATAL: duplication of electrode numbers in "
                  "quadropole 15", "4 dataset(s) failed: 2, 3, 4, 6; the other 2 are gathered",
                  "stops at the first FATAL error and never reads the blocks after it",
                  f"last lines of {run / 'batch' / '002' / 'console.txt'}:"]:
        assert words in done.stdout
    assert {n[:4] for n in results_of(run)} == {"f001", "f005"}
    assert_identical(tmp_path / "seq", run, [1, 5], only=True)
    assert "dataset 2, stem f002, run in batch/002: FATAL error" in open(run / "Q5.out").read()


def test_interrupted_batch_reruns_only_what_is_unfinished(tmp_path, resistances):
    """A q5 that is slow on dataset 2 (a wrapper that waits, then runs the
    real q5): q5-batch is interrupted while it waits; dataset 1 and 3 are
    gathered, nothing of dataset 2 is in DIR, and the rerun runs dataset 2
    alone, to the same bytes as a sequential run."""
    run = make_run(tmp_path / "run", control(), protocol(resistances, 3))
    sequential(run, tmp_path / "seq")
    slow = write(tmp_path / "slow-q5", f"#!/bin/sh\ncase $(pwd) in */002) sleep 60;; esac\nexec {q5_binary()}\n",
                 0o755)
    p = subprocess.Popen([sys.executable, os.path.join(BIN, "q5-batch"), run, "-j", "3", "--q5", slow],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    deadline = time.time() + 30
    while not (os.path.exists(run / "f001_res.dat") and os.path.exists(run / "f003_res.dat")):
        assert time.time() < deadline and p.poll() is None
        time.sleep(0.2)
    p.send_signal(signal.SIGINT)
    out, err = p.communicate(timeout=30)
    assert p.returncode == 130 and "interrupted" in err
    assert not [n for n in results_of(run) if n.startswith("f002")]
    again = batch(run)
    assert again.returncode == 0, again.stdout + again.stderr
    assert "2 dataset(s) finished before, 1 to run" in again.stdout
    assert_identical(tmp_path / "seq", run, [1, 2, 3])


@pytest.mark.parametrize("options, caller, threads", [
    # one thread unless asked: the caller's Q5_THREADS does not reach the tasks
    ([], "2", None),
    (["--threads", "2", "-j", "1"], None, 2),
])
def test_threads_of_every_task(tmp_path, resistances, options, caller, threads):
    run = make_run(tmp_path / "run", control(iterations=1, res_calc=0), protocol(resistances, 2))
    sequential(run, tmp_path / "seq")
    done = batch(run, *options, env=caller_env(caller))
    assert done.returncode == 0, done.stdout + done.stderr
    assert ("q5 on 2 threads each" in done.stdout) == (threads is not None)
    for k in (1, 2):
        line = None if threads is None else THREAD_LINE.format(threads)
        assert thread_line(run / "batch" / f"{k:03d}" / "Q5.out") == line
    assert_identical(tmp_path / "seq", run, [1, 2])


C = cores()
SLOWER = ": the runs slow each other down; keep -j times --threads within the cores"
# options ({hosts}: a hosts file of this machine), datasets, the warning (None: none); jobs run at
# most as many at a time as there are datasets to run
EXCESS = [
    (f"-j {C}", C, None),
    (f"-j {C + 1}", C + 1, f"{C + 1} jobs x 1 thread = {C + 1} threads on {C} cores" + SLOWER),
    (f"-j 1 --threads {C}", 2, None),
    (f"-j 2 --threads {C}", 1, None),
    ("--threads 2", C, f"{C} jobs x 2 threads = {2 * C} threads on {C} cores" + SLOWER),
    ("-j 1 --threads 0", 2, None),
    ("-j 2 --threads 0", 2, f"2 jobs x {C} threads (--threads 0: every core) = {2 * C} threads on {C} cores" + SLOWER),
    ("--hosts {hosts} --threads 2", 1, "one job per core on each host x 2 threads = more threads than cores "
                                      "on every host: give -j"),
    ("--hosts {hosts} -j 2 --threads 0", 1, "2 jobs x every core (--threads 0) = more threads than cores on "
                                           "every host: give -j 1 or a thread count"),
    ("--hosts {hosts} -j 1 --threads 2", 1, None),
]


@pytest.mark.parametrize("options, datasets, warning", EXCESS)
def test_warning_when_jobs_times_threads_exceed_the_cores(tmp_path, resistances, options, datasets, warning):
    run = make_run(tmp_path / "run", control(iterations=1, res_calc=0), protocol(resistances, datasets))
    hosts = write(tmp_path / "hosts", ":\n")
    done = batch(run, *options.format(hosts=hosts).split())
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stderr == ("" if warning is None else f"q5-batch: warning: {warning}\n")
