"""q5-batch against one sequential q5 run: blocks found as q5 reads them
(free-format lines, a count of 0, the end of the file), every gathered fKKK
file byte for byte, names past f009 and f099, a difference run with its
reference column, the rerun after an interruption and a failing dataset."""
import filecmp
import math
import os
import shutil
import signal
import subprocess
import sys
import time

import pytest

from conftest import BIN, q5_binary, tool, write
from q5tools import results
from q5tools.batch_dirs import gathered_name, stem
from q5tools.listread import BAD, EOF, OK, LineFile, read_items
from q5tools.runlayout import cut_blocks, read_layout

# a small grid: electrodes 1..8 at x = 2..9 m, cells of 0.5 m between them
XS = [0.0, 1.0, 1.5] + [2.0 + 0.5 * k for k in range(15)] + [9.5, 10.0, 11.0]
YS = [0.0, 0.25, 0.5, 0.8, 1.2, 1.8, 2.6, 4.0, 6.0]
ELEMENTS = (len(XS) - 1) * (len(YS) - 1)
QUADS = ([(i + a, i + 2 * a, i, i + 3 * a) for a in (1, 2) for i in range(1, 9 - 3 * a)] +
         [(i + 1 + n, i + 2 + n, i, i + 1) for n in (1, 2, 3) for i in range(1, 7 - n)])


def control(job=1, model="1\n1 {e} 90".format(e=ELEMENTS), reg_mode=0, errors=(0, 0.01),
            iterations=2, res_calc=1):
    lines = ["small grid for q5-batch", f"{job} 4 3.0 0 {res_calc}", f"{len(XS)} {len(YS)}",
             " ".join(map(str, XS)), " ".join(["0"] * len(XS)), " ".join(map(str, YS)), model]
    if job == 1:
        lines += ["1 1", "1 0.0", f"1 {reg_mode}", f"1.0 {iterations} 0 1.0",
                  f"{errors[0]} {errors[1]} 0.1 100000"]
    lines += ["0", "8"] + [f"{k} {XS.index(1.0 + k) + 1} 1" for k in range(1, 9)]
    return "\n".join(lines) + "\n"


@pytest.fixture(scope="module")
def resistances(tmp_path_factory):
    """Transfer resistances of QUADS over 100 ohm m with a 20 ohm m block,
    from q5's own forward job."""
    d = tmp_path_factory.mktemp("forward")
    write(d / "Q5.in", control(job=0, model=f"2\n1 {ELEMENTS} 100\n{8 * 7 + 2} {8 * 7 + 5} 20", res_calc=0))
    write(d / "protocol.dat", f"{len(QUADS)}\n" + "".join(f"{k} {m} {n} {a} {b}\n" for k, (m, n, a, b) in enumerate(QUADS, 1)))
    assert subprocess.run([q5_binary()], cwd=d, capture_output=True).returncode == 0
    rows = results.read_forward(d / "Q5_forward.dat")
    return list(rows["resistance"])


def block_rows(r, b, noise=0.01):
    """Survey b: the resistances with a change of 4 % per survey and noise."""
    return [v * (1 + noise * math.sin(7.1 * k + 3.3 * b)) * (1 + 0.04 * b) for k, v in enumerate(r)]


def protocol(r, count, reference=False, errors=None):
    out = []
    for b in range(count):
        out.append(f"{len(QUADS)}")
        for k, ((m, n, a, c), v) in enumerate(zip(QUADS, block_rows(r, b)), 1):
            line = f"{k} {m} {n} {a} {c} {v:.6e}"
            line += f" {r[k - 1]:.6e}" if reference else ""
            line += f" {errors * (1 + b % 3) * abs(v):.4e}" if errors else ""
            out.append(line)
    return "\n".join(out) + "\n"


def make_run(path, q5in, proto, extra=None):
    os.makedirs(path)
    write(path / "Q5.in", q5in)
    write(path / "protocol.dat", proto)
    for name, text in (extra or {}).items():
        write(path / name, text)
    return path


def sequential(run, where):
    """One q5 run over the whole protocol.dat in a copy of the run."""
    shutil.copytree(run, where)
    done = subprocess.run([q5_binary()], cwd=where, capture_output=True, text=True)
    return done


def batch(run, *args):
    return tool("q5-batch", run, "--q5", q5_binary(), *args)


def results_of(d):
    return sorted(n for n in os.listdir(d) if n.startswith("f") and not n.startswith("fort."))


def assert_identical(seq, run, datasets):
    """Every fKKK file and the electrode files of the sequential run are in
    the batch run's directory byte for byte, and no other fKKK file is."""
    names = results_of(seq)
    assert {n[:4] for n in names} == {stem(k) for k in datasets}
    assert results_of(run) == names
    for n in names + ["electrodes.dat", "electrodes.vtk"]:
        assert filecmp.cmp(seq / n, run / n, shallow=False), n


def test_file_stems_and_gathered_names():
    assert [stem(k) for k in (1, 9, 10, 99, 100, 999, 1000, 1009, 1100)] == \
        ["f001", "f009", "f010", "f099", "f100", "f999", "f:00", "f:09", "f;00"]
    assert gathered_name("f001_res.dat", 7) == "f007_res.dat"
    assert gathered_name("f001.002_res.vtk", 1000) == "f:00.002_res.vtk"
    assert gathered_name("f0011_res.dat", 7) is None and gathered_name("fort.19", 7) is None


def reads(text, *lists):
    f = LineFile(text.encode(), "text")
    return [(r.status, r.values, r.last_line) for r in (read_items(f, k) for k in lists)]


def test_read_statements_as_q5_makes_them():
    inf = float("inf")
    assert reads("1 2\n3 ! 7 8\n4\n", "iii", "i") == [(OK, [1, 2, 3], 1), (OK, [4], 2)]
    assert reads("1,,3 9\n", "iii") == [(OK, [1, None, 3], 0)]
    assert reads("1,\n,2\n", "iii") == [(OK, [1, None, 2], 1)]
    assert reads("2*7, 3*\n5\n", "iiii", "i") == [(OK, [7, 7, None, None], 0), (OK, [5], 1)]
    assert reads("1 / 2 3\n4\n", "iii", "i") == [(OK, [1, None, None], 0), (OK, [4], 1)]
    assert reads("1 x 3\n4 5 6\n", "iii", "iii") == [(BAD, [1, None, None], 0), (OK, [4, 5, 6], 1)]
    assert reads("1.5-3 2d2\t.5 -INF\n", "rrrr") == [(OK, [0.0015, 200.0, 0.5, -inf], 0)]
    assert reads("3.0\n", "i")[0][0] == BAD and reads("0*4\n", "i")[0][0] == BAD
    assert reads("\n\n1\n", "ii") == [(EOF, [1, None], 2)]


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
    run = make_run(tmp_path / "run", control(model=f"0\nstart_res.dat", reg_mode=2, iterations=1),
                   "\n".join(lines) + "\n", {"start_res.dat": "".join(
                       f"0 0 {90 + e % 7}\n" for e in range(ELEMENTS))})
    layout = read_layout(run)
    assert (layout.items, layout.start_file, layout.start_line) == (7, "start_res.dat", 8)
    found = cut_blocks(run / "protocol.dat", layout.items)
    assert [(b.first_line, b.last_line) for b in found.blocks] == expect
    assert "count of 0 on line" in found.end and "2 line(s) after it are never read" in found.end
    seq = sequential(run, tmp_path / "seq")
    assert seq.stdout.rstrip().endswith("All ok")
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
    seq = sequential(run, tmp_path / "seq")
    assert seq.stdout.rstrip().endswith("All ok")
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
        fort = run / "batch" / f"{k:03d}" / "fort.19"
        assert os.path.exists(fort) == (k in iterated)
        assert (os.path.getsize(run / f"{stem(k)}_diffres.dat") == 0) == (k in iterated)
    assert not os.path.exists(run / "fort.19")
    # the sequential run's shared fort.19 holds the table of the last dataset that wrote it
    last = run / "batch" / f"{iterated[-1]:03d}" / "fort.19"
    assert open(tmp_path / "seq" / "fort.19", "rb").read() == open(last, "rb").read()


def test_names_past_nine_and_ninety_nine(tmp_path, resistances):
    run = make_run(tmp_path / "run", control(iterations=1, res_calc=0), protocol(resistances, 103))
    sequential(run, tmp_path / "seq")
    done = batch(run, "-j", "2")
    assert done.returncode == 0, done.stdout + done.stderr
    assert_identical(tmp_path / "seq", run, range(1, 104))
    assert {"f009_res.dat", "f010_res.dat", "f099_err.dat", "f100_res.vtk", "f103_res.dat"} <= set(os.listdir(run))


def test_end_of_file_inside_a_block_and_a_failing_dataset(tmp_path, resistances):
    """Dataset 2 names an electrode the run lacks (FATAL error: a sequential
    run stops there); the last block is cut short by the end of the file.
    The others are gathered, identical to a sequential run in which block 2
    is a good one."""
    good = protocol(resistances, 4).splitlines()
    size = len(QUADS) + 1
    bad = list(good)
    items = bad[size + 3].split()
    bad[size + 3] = " ".join(items[:3] + ["33"] + items[4:])     # measurement 3: C+ 33
    bad = bad[:-5]                                   # block 4 loses its last lines
    run = make_run(tmp_path / "run", control(), "\n".join(bad) + "\n")
    seq = make_run(tmp_path / "seq", control(), "\n".join(good[:3 * size]) + "\n")
    subprocess.run([q5_binary()], cwd=seq, capture_output=True)
    done = batch(run, "-j", "2")
    assert done.returncode == 1
    out = done.stdout
    assert "dataset 2 (f002, batch/002) failed: FATAL error: FATAL: An electrode in measurement 3 is not valid" in out
    assert "dataset 4 (f004, batch/004) failed: FATAL error: FATAL: duplication of electrode numbers in quadropole 15" in out
    assert "2 dataset(s) failed: 2, 4; the other 2 are gathered" in out
    assert "stops at the first FATAL error and never reads the blocks after it" in out
    assert f"last lines of {run / 'batch' / '002' / 'console.txt'}:" in out
    assert [n for n in results_of(run) if n[:4] in ("f002", "f004")] == []
    for n in results_of(seq):
        if n[:4] in ("f001", "f003"):
            assert filecmp.cmp(seq / n, run / n, shallow=False), n
    assert "dataset 2, stem f002, run in batch/002: FATAL error" in open(run / "Q5.out").read()


def test_datasets_whose_q5_died_are_reported(tmp_path, resistances):
    """A q5 killed by a signal on dataset 2 and one that exits with status 3
    on dataset 3 (a wrapper around the real q5 injects both faults)."""
    run = make_run(tmp_path / "run", control(), protocol(resistances, 4))
    sequential(run, tmp_path / "seq")
    faulty = write(tmp_path / "faulty-q5", "#!/bin/sh\ncase $(pwd) in\n*/002) kill -KILL $$;;\n"
                   f"*/003) echo 'solver crashed'; exit 3;;\nesac\nexec {q5_binary()}\n")
    os.chmod(faulty, 0o755)
    done = tool("q5-batch", run, "--q5", faulty)
    assert done.returncode == 1
    assert "dataset 2 (f002, batch/002) failed: killed by signal 9 (SIGKILL)" in done.stdout
    assert "dataset 3 (f003, batch/003) failed: exit status 3: solver crashed" in done.stdout
    assert "never reads the blocks after it" not in done.stdout   # no FATAL error here
    assert [n[:4] for n in results_of(run) if n[:4] in ("f002", "f003")] == []
    for n in results_of(tmp_path / "seq"):
        if n[:4] in ("f001", "f004"):
            assert filecmp.cmp(tmp_path / "seq" / n, run / n, shallow=False), n


def test_interrupted_batch_reruns_only_what_is_unfinished(tmp_path, resistances):
    """A q5 that is slow on dataset 2 (a wrapper that waits, then runs the
    real q5): q5-batch is interrupted while it waits; dataset 1 and 3 are
    gathered, nothing of dataset 2 is in DIR, and the rerun runs dataset 2
    alone, to the same bytes as a sequential run."""
    run = make_run(tmp_path / "run", control(), protocol(resistances, 3))
    seq = sequential(run, tmp_path / "seq")
    slow = write(tmp_path / "slow-q5", f"#!/bin/sh\ncase $(pwd) in */002) sleep 60;; esac\nexec {q5_binary()}\n")
    os.chmod(slow, 0o755)
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


def test_hosts_file_through_parallel(tmp_path, resistances):
    """The --hosts road of GNU parallel, with ':' (this machine) as host."""
    run = make_run(tmp_path / "run", control(), protocol(resistances, 2))
    sequential(run, tmp_path / "seq")
    done = batch(run, "--hosts", write(tmp_path / "hosts", "1/:\n"))
    assert done.returncode == 0, done.stdout + done.stderr
    assert "on the hosts of" in done.stdout
    assert_identical(tmp_path / "seq", run, [1, 2])


@pytest.mark.parametrize("text, words", [
    (control(job=0), "Q5.in line 2: job_type 0 is a forward job"),
    (control().replace("1 4 3.0 0 1", "1 4.0 3.0 0 1"), "Q5.in line 2: '4.0' is not an integer (mesh_type"),
    (control(model="0\nmissing.dat"), "Q5.in line 8: the start model file 'missing.dat' is not in"),
    (control(model="0\n../start.dat"), "Q5.in line 8: the start model file '../start.dat' lies outside"),
    ("\n".join(control().splitlines()[:9]) + "\n", "Q5.in line 9: the file ends inside the inverse type"),
])
def test_refused_runs(tmp_path, text, words):
    run = make_run(tmp_path / "run", text, "1\n1 1 2 3 4 1.0\n")
    done = batch(run)
    assert done.returncode == 1 and not os.path.exists(run / "batch")
    assert done.stderr.startswith(f"q5-batch: {run / 'Q5.in'} line ") and words in done.stderr
    assert done.stderr.count("\n") == 1
