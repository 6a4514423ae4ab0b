"""Helpers of the tools' tests: field files, the real q5, the commands, small
survey files, and the small grid run that q5-batch is checked on."""
import filecmp
import json
import math
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


def tool(name, *args, cwd=None, **kw):
    """Run one of the commands; returns the completed process."""
    return subprocess.run([sys.executable, os.path.join(BIN, name), *map(str, args)],
                          capture_output=True, text=True, cwd=cwd, **kw)


def caller_env(q5_threads):
    """The tools' environment with the caller's Q5_THREADS set (None: unset)."""
    env = {k: v for k, v in os.environ.items() if k != "Q5_THREADS"}
    if q5_threads is not None:
        env["Q5_THREADS"] = q5_threads
    return env


THREAD_LINE = " >> T h r e a d s : {:3d}"


def thread_line(q5_out):
    """The thread line of a Q5.out, which q5 writes right after the date line
    and nowhere else, or None without one."""
    lines = open(q5_out).read().splitlines()
    after_date = lines[next(k for k, l in enumerate(lines) if l.startswith(" >> D a t e")) + 1]
    found = after_date if after_date.startswith(" >> T h r e a d s") else None
    assert sum("T h r e a d s" in l for l in lines) == (found is not None), q5_out
    return found


def write(path, text, mode=None):
    with open(path, "w") as f:
        f.write(text)
    if mode:
        os.chmod(path, mode)
    return str(path)


def unified(sensors, readings, r=None, err=None):
    """A unified file of sensors (x, z) and readings (a, b, m, n) with R
    (default 1) and a relative error column err."""
    r = np.ones(len(readings)) if r is None else r
    text = f"{len(sensors)}\n#x z\n" + "".join(f"{x:g} {z:g}\n" for x, z in sensors)
    text += f"{len(readings)}\n#a b m n R{' err' if err is not None else ''}\n"
    for k, (a, b, m, n) in enumerate(readings):
        text += f"{a} {b} {m} {n} {r[k]:.10g}" + (f" {err[k]:.6g}" if err is not None else "") + "\n"
    return text


def import_dir(where, text, *options):
    """q5-import of one unified text into where/run: (run, its record, stdout, file)."""
    os.makedirs(where, exist_ok=True)
    path = write(os.path.join(where, "survey.dat"), text)
    run = os.path.join(where, "run")
    done = tool("q5-import", path, "-o", run, *options)
    assert done.returncode == 0, done.stderr
    return run, json.load(open(os.path.join(run, "q5-import.json"))), done.stdout, path


MEASURE = "Type of measurement (0=app. resistivity,1=resistance)"
SLOPE = "2\n3\n0 0\n5 3\n15 3\n1\n0\n0\n0\n"   # a Res2DInv topography section along the ground


def standard(kind, line, layout, ip=False, tail="0\n0\n0\n"):
    """A one-reading file of a standard array; layout 'first' or 'mid' with
    the x-location line, 'old' without it."""
    xloc = {"first": "0\n", "mid": "1\n", "old": ""}[layout]
    ip_lines = "1\nChargeability\nmV/V\n0.12, 0.26\n" if ip else "0\n"
    return f"Line 1 survey\n1.0\n{kind}\n1\n{xloc}{ip_lines}{line}\n{tail}"


def general(rows, measure=0, xloc=0, ip=False, err=None, err_text=True, tail="0\n0\n"):
    text = f"general array\n1.0\n11\n0\n{MEASURE}\n{measure}\n{len(rows)}\n{xloc}\n{int(ip)}\n"
    if ip:
        text += "Chargeability\nmsec\n0.1 0.5\n"
    if err is not None:
        text += "ERROR ESTIMATE for data present\n"
        text += "Type of error estimate (0=same unit as data)\n" if err_text else ""
        text += f"{err}\n"
    return text + "".join(r + "\n" for r in rows) + tail


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


def protocol_blocks(path):
    """The blocks of a protocol.dat q5-import wrote: lists of split lines."""
    lines = open(path).read().split("\n")
    out, k = [], 0
    while k < len(lines) and lines[k]:
        count = int(lines[k])
        out.append([l.split() for l in lines[k + 1:k + 1 + count]])
        k += count + 1
    return out


# The small grid run of q5-batch: electrodes 1..8 at x = 2..9 m, cells of 0.5 m between them
XS = [0.0, 1.0, 1.5] + [2.0 + 0.5 * k for k in range(15)] + [9.5, 10.0, 11.0]
YS = [0.0, 0.25, 0.5, 0.8, 1.2, 1.8, 2.6, 4.0, 6.0]
ELEMENTS = (len(XS) - 1) * (len(YS) - 1)
QUADS = ([(i + a, i + 2 * a, i, i + 3 * a) for a in (1, 2) for i in range(1, 9 - 3 * a)] +
         [(i + 1 + n, i + 2 + n, i, i + 1) for n in (1, 2, 3) for i in range(1, 7 - n)])


def control(job=1, model=f"1\n1 {ELEMENTS} 90", reg_mode=0, errors=(0, 0.01), iterations=2, res_calc=1):
    lines = ["small grid for q5-batch", f"{job} 4 3.0 0 {res_calc}", f"{len(XS)} {len(YS)}",
             " ".join(map(str, XS)), " ".join(["0"] * len(XS)), " ".join(map(str, YS)), model]
    if job == 1:
        lines += ["1 1", "1 0.0", f"1 {reg_mode}", f"1.0 {iterations} 0 1.0", f"{errors[0]} {errors[1]} 0.1 100000"]
    lines += ["0", "8"] + [f"{k} {XS.index(1.0 + k) + 1} 1" for k in range(1, 9)]
    return "\n".join(lines) + "\n"


@pytest.fixture(scope="session")
def resistances(tmp_path_factory):
    """Transfer resistances of QUADS over 100 ohm m with a 20 ohm m block, from q5's own forward job."""
    d = tmp_path_factory.mktemp("forward")
    write(d / "Q5.in", control(job=0, model=f"2\n1 {ELEMENTS} 100\n{8 * 7 + 2} {8 * 7 + 5} 20", res_calc=0))
    write(d / "protocol.dat", f"{len(QUADS)}\n" + "".join(f"{k} {m} {n} {a} {b}\n"
                                                          for k, (m, n, a, b) in enumerate(QUADS, 1)))
    assert subprocess.run([q5_binary()], cwd=d, capture_output=True).returncode == 0
    from q5tools import results
    return list(results.read_forward(d / "Q5_forward.dat")["resistance"])


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
    for name, text in {"Q5.in": q5in, "protocol.dat": proto, **(extra or {})}.items():
        write(path / name, text)
    return path


def sequential(run, where):
    """One q5 run over the whole protocol.dat in a copy of the run."""
    shutil.copytree(run, where)
    return subprocess.run([q5_binary()], cwd=where, capture_output=True, text=True)


def results_of(d):
    return sorted(n for n in os.listdir(d) if n.startswith("f") and not n.startswith("fort."))


def assert_identical(seq, run, datasets, only=False):
    """Every fKKK file of the datasets and the electrode files of the
    sequential run are in the batch run's directory byte for byte, and (but
    with only) no other fKKK file is."""
    from q5tools.batch_dirs import stem
    names = [n for n in results_of(seq) if n[:4] in {stem(k) for k in datasets}]
    if not only:
        assert {n[:4] for n in results_of(seq)} == {stem(k) for k in datasets}
        assert results_of(run) == names
    for n in names + ["electrodes.dat", "electrodes.vtk"]:
        assert filecmp.cmp(seq / n, run / n, shallow=False), n
