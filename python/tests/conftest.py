import os
import shutil
import subprocess
import sys

import numpy as np
import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
PYTHON_DIR = os.path.dirname(HERE)
REPO = os.path.dirname(PYTHON_DIR)
sys.path.insert(0, PYTHON_DIR)

FIELD = os.environ.get("Q5_FIELDDATA", os.path.join(REPO, "..", "shared", "fielddata"))
BIN = os.path.join(PYTHON_DIR, "bin")


def field(*parts):
    path = os.path.join(FIELD, *parts)
    if not os.path.exists(path):
        pytest.skip(f"field data not present: {path}")
    return path


def q5_binary():
    """q5 from Q5_BINARY (set by the build's test entry), else a built tree."""
    for path in [os.environ.get("Q5_BINARY"), os.path.join(REPO, "build", "q5"),
                 os.path.join(REPO, "build-tools", "q5"), shutil.which("q5")]:
        if path and os.path.isfile(path) and os.access(path, os.X_OK):
            return path
    pytest.skip("no q5 program built")


def tool(name, *args, cwd=None):
    """Run one of the commands; returns the completed process."""
    return subprocess.run([sys.executable, os.path.join(BIN, name), *map(str, args)],
                          capture_output=True, text=True, cwd=cwd)


def write(path, text):
    with open(path, "w") as f:
        f.write(text)
    return str(path)


def forward_resistances(run_dir):
    """Run q5 in an imported forward-job directory; its transfer resistances."""
    from q5tools import results
    done = subprocess.run([q5_binary()], cwd=run_dir, capture_output=True, text=True)
    assert done.stdout.rstrip().endswith("All ok"), done.stdout[-500:]
    return results.read_forward(os.path.join(run_dir, "Q5_forward.dat"))["resistance"]


def relative_errors(value, reference):
    """Median and 90th percentile of |value / reference - 1|, percent."""
    e = 100 * np.abs(np.asarray(value) / np.asarray(reference) - 1)
    return float(np.median(e)), float(np.percentile(e, 90))
