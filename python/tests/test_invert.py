"""q5-invert from a field file to pictures, through the real q5: an inverse
run that keeps every reading, and a difference run against a reference."""
import os

import numpy as np

from conftest import field, q5_binary, tool, write
from q5tools import results


def test_slagdump_to_pictures(tmp_path):
    q5 = q5_binary()
    done = tool("q5-invert", field("slagdump", "slagdump.ohm"), "-o", tmp_path / "run",
                "--iterations", 1, "--q5", q5)
    assert done.returncode == 0, done.stderr
    run = tmp_path / "run"
    log = open(run / "Q5.out").read()
    # the limits written for the topography keep every reading
    assert "Measurements read:   222     Measurements rejected:     0" in log
    assert "Final RMS Misfit:" in done.stdout and "pictures:" in done.stdout
    for name in ("f001_model.png", "f001_data.png", "misfit.png"):
        assert f"  {run / name}" in done.stdout.split("\n")
        assert os.path.getsize(run / name) > 20000


def test_difference_run_against_a_reference(tmp_path):
    q5 = q5_binary()
    ref = field("slagdump", "slagdump.ohm")
    lines = open(ref).read().split("\n")
    # the later survey: readings of the middle of the line 20 % higher
    head = lines.index("#a\tb\tm\tn\tR")
    rows = [l.split("\t") for l in lines[head + 1:head + 223]]
    for r in rows:
        if 14 <= int(r[0]) <= 22:
            r[4] = f"{float(r[4]) * 1.2:.6g}"
    later = write(tmp_path / "later.ohm", "\n".join(lines[:head + 1] + ["\t".join(r) for r in rows]) + "\n")
    done = tool("q5-invert", later, "--reference", ref, "-o", tmp_path / "run", "--iterations", 2, "--q5", q5)
    assert done.returncode == 0, done.stderr
    run = tmp_path / "run"
    q5in = open(run / "Q5.in").read().split("\n")
    assert q5in[q5in.index("0        start model from file") + 1] == "start_res.dat"
    assert os.path.exists(run / "reference" / "f001_model.png")
    assert os.path.exists(run / "f001_difference.png") and os.path.exists(run / "f001_data.png")
    # the change is an increase under the middle of the line
    frame = results.read_frame(run)
    model = results.read_model(run / "f001_res.vtk", frame)
    diff = model.scalars["difference(percent)"]
    centre = model.polygons.mean(axis=1)
    middle = (centre[:, 0] > 28) & (centre[:, 0] < 42) & (centre[:, 1] > frame.datum - 6)
    ends = (centre[:, 0] < 12) | (centre[:, 0] > 58)
    assert np.median(diff[middle]) > 2 and abs(np.median(diff[ends])) < np.median(diff[middle]) / 2


def test_a_run_that_stops_is_reported(tmp_path):
    fake = write(tmp_path / "q5", "#!/bin/sh\necho ' FATAL: Incorrect job type specified - must be 0/1'\necho 'FATAL error'\n")
    os.chmod(fake, 0o755)
    done = tool("q5-invert", field("slagdump", "slagdump.ohm"), "-o", tmp_path / "run", "--q5", fake)
    assert done.returncode == 1 and "pictures:" not in done.stdout
    assert done.stderr == (f"q5-invert: {tmp_path / 'run' / 'Q5.out'}: q5 stopped: "
                           "FATAL: Incorrect job type specified - must be 0/1\n")
    done = tool("q5-invert", field("slagdump", "slagdump.ohm"), "-o", tmp_path / "run2", "--q5", tmp_path / "none")
    assert done.returncode == 1 and done.stderr == f"q5-invert: {tmp_path / 'none'}: is not an executable q5\n"
