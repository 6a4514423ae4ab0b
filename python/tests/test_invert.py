"""q5-invert from a field file to pictures through the real q5: a difference
run against the slagdump line as its reference, whose own inversion keeps
every reading (a run that stops is among the refusals); and q5 on two
threads, by --threads or by the caller's Q5_THREADS, to the same bytes."""
import filecmp
import os

import numpy as np

from conftest import THREAD_LINE, caller_env, field, q5_binary, thread_line, tool, write
from q5tools import results


def test_difference_run_against_a_reference(tmp_path):
    ref = field("slagdump", "slagdump.ohm")
    lines = open(ref).read().split("\n")
    # the later survey: readings of the middle of the line 20 % higher
    head = lines.index("#a\tb\tm\tn\tR")
    rows = [l.split("\t") for l in lines[head + 1:head + 223]]
    for r in rows:
        if 14 <= int(r[0]) <= 22:
            r[4] = f"{float(r[4]) * 1.2:.6g}"
    later = write(tmp_path / "later.ohm", "\n".join(lines[:head + 1] + ["\t".join(r) for r in rows]) + "\n")
    run = tmp_path / "run"
    done = tool("q5-invert", later, "--reference", ref, "-o", run, "--iterations", 2, "--q5", q5_binary())
    assert done.returncode == 0, done.stderr
    # the limits written for the topography keep every reading
    assert "Measurements read:   222     Measurements rejected:     0" in open(run / "reference" / "Q5.out").read()
    assert "Final RMS Misfit:" in done.stdout
    listed = done.stdout.split("pictures:\n")[1].splitlines()
    for name in ("f001_model.png", "f001_data.png", "f001_difference.png", "misfit.png",
                 "reference/f001_model.png", "reference/f001_data.png"):
        assert f"  {run / name}" in listed and os.path.getsize(run / name) > 20000
    q5in = open(run / "Q5.in").read().split("\n")
    assert q5in[q5in.index("0        start model from file") + 1] == "start_res.dat"
    # the change is an increase under the middle of the line
    frame = results.read_frame(run)
    model = results.read_model(run / "f001_res.vtk", frame)
    diff = model.scalars["difference(percent)"]
    centre = model.polygons.mean(axis=1)
    middle = (centre[:, 0] > 28) & (centre[:, 0] < 42) & (centre[:, 1] > frame.datum - 6)
    ends = (centre[:, 0] < 12) | (centre[:, 0] > 58)
    assert np.median(diff[middle]) > 2 and abs(np.median(diff[ends])) < np.median(diff[middle]) / 2


# run, options, the caller's Q5_THREADS, the threads q5 says it runs on (None: one, and no line)
THREAD_RUNS = [
    ("plain", [], None, None),
    # the option replaces the caller's value, which q5 itself would refuse
    ("option", ["--threads", "2"], "x", 2),
    # without the option the caller's environment reaches q5 as it is
    ("inherited", [], "2", 2),
]


def test_threads_leave_every_result_byte_unchanged(tmp_path):
    survey = field("slagdump", "slagdump.ohm")
    for name, options, caller, threads in THREAD_RUNS:
        done = tool("q5-invert", survey, "-o", tmp_path / name, "--iterations", 1, "--q5", q5_binary(),
                    *options, env=caller_env(caller))
        assert done.returncode == 0, done.stderr
        said = f"running q5 in {tmp_path / name}" + (" with Q5_THREADS=2" if options else "")
        assert said in done.stdout.splitlines(), done.stdout
        line = None if threads is None else THREAD_LINE.format(threads)
        assert thread_line(tmp_path / name / "Q5.out") == line, name
    made = sorted(n for n in os.listdir(tmp_path / "plain")
                  if n.startswith(("f0", "electrodes.")) and not n.endswith(".png"))
    assert {"f001_res.dat", "f001_res.vtk", "f001_err.dat", "f001_sen.dat", "electrodes.dat"} <= set(made)
    for name, *_ in THREAD_RUNS[1:]:
        assert sorted(n for n in os.listdir(tmp_path / name)
                      if n.startswith(("f0", "electrodes.")) and not n.endswith(".png")) == made
        different = [n for n in made if not filecmp.cmp(tmp_path / "plain" / n, tmp_path / name / n,
                                                        shallow=False)]
        assert different == [], name
