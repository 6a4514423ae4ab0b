"""q5-invert from a field file to pictures through the real q5: a difference
run against the slagdump line as its reference, whose own inversion keeps
every reading (a run that stops is among the refusals)."""
import os

import numpy as np

from conftest import field, q5_binary, tool, write
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
