"""Every refused input: a file a reader cannot use, with its message naming
file and line; and each of the four commands meeting refused input, bad
options or unusable paths with one line on stderr, exit status 1, and (where
it refuses before it starts) nothing changed on disk."""
import os

import pytest

from conftest import MEASURE, control, tool, write
from q5tools.errors import InputError
from q5tools.readers import read_survey
from q5tools.res2dinv import read_res2dinv

HEAD = "4# sensors\n#x\tz\n0 0\n1 0\n2 0\n3 0\n"
GOOD = HEAD + "1# data\n#a\tb\tm\tn\tR\n1 4 2 3 0.5\n"
SYSCAL = " El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp Vp In\r\n"
TABBED = "\tEl-array\tSpa.1\tSpa.2\tSpa.3\tSpa.4\tRho\tDev.\tM\tSp\tVp\tIn\r\n"
FORMATS = "not a unified data file, a Syscal Pro export or a Res2DInv file"
ABMN = "1\n#a b m n R\n"
DD = "dd\n1\n3\n2\n0\n0\n0 1 1 100\n"
GEN = f"g\n1\n11\n0\n{MEASURE}\n0\n1\n0\n0\n"
NUMBERED = "; sensors are numbered 1 to 4 (0 for a remote electrode)"

FILES = [
    ("", None, "is empty"),
    ("#only comments\n", None, f"holds only comments; {FORMATS}"),
    ("x# sensors\n", 1, FORMATS),
    ("# a title\n\nLine 12, Wenner\n1 2 3\n", 3, FORMATS),
    ("0# sensors\n#x z\n", 1, "the number of sensors must be at least 1, found 0"),
    ("99999999999999999999\n#x z\n0 0\n", None, "ends before the 99999999999999999999 sensor lines"),
    ("3\n#x z\n0 0\n1\n", 4, "expected 2 columns, found 1"),
    ("3\n#x z\n0 0\n1 0\n", None, "ends before the 3 sensor lines"),
    ("3\n#y z\n", 2, "the sensor columns y z name no x"),
    ("3\n#x z\n0 0\n1e999 0\n", 4, "a sensor position is not a finite number"),
    ("3\n#x z\n0 0\n1 0\n2 0\nnan\n", 6, "expected the number of data, found 'nan'"),
    (HEAD + "1\na b m n\n", 8, "expected a '#' line naming the data columns"),
    (HEAD + "1\n#a b m R\n", 8, "the data columns a b m R lack 'n'"),
    (HEAD + ABMN + "1 2 3 5 0.5\n", 9, "electrode n is 5" + NUMBERED),
    (HEAD + ABMN + "-1 2 3 4 0.5\n", 9, "electrode a is -1" + NUMBERED),
    (HEAD + ABMN + "1 2 nan 4 0.5\n", 9, "electrode m is nan" + NUMBERED),
    (HEAD + ABMN + "1 2 3 3 0.5\n", 9, "a reading uses one electrode twice"),
    (HEAD + ABMN + "0 0 3 4 0.5\n", 9, "a reading uses one electrode twice"),
    (HEAD + ABMN + "1 2 3\n", 9, "expected 5 columns, found 3"),
    (HEAD + ABMN + "1 2 3 x 0.5\n", 9, "not a number: 'x'"),
    (HEAD + "1\n#a b m n R err\n1 2 3 4 0.5 inf\n", 9, "the error err is not a finite number"),
    (HEAD + "2\n#a b m n R\n1 2 3 4 0.5\n", None, "ends before the 2 data lines"),
    (HEAD + "1\n#a b m n ip\n1 2 3 4 0.5\n", 8, "the data give none of R, u and i, or rhoa"),
    (SYSCAL.replace(" Vp", ""), 1, "the header lacks Vp"),
    ("Prosys\r\n" + SYSCAL.replace(" Rho", "").replace("Dev.", ""), 2, "the header lacks Rho, Dev."),
    (SYSCAL.replace("El-array Spa.1", "Spa.1 El-array"), 1, "the header names Spa.1 before the array label"),
    (SYSCAL + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0\r\n", 2, "expected 10 numbers after the array label, found 9"),
    (SYSCAL + " Wenner VES 0 3 1 inf 1.0 2.0 0 0 5.0 1.0\r\n", 2, "the position Spa.4 is not a finite number"),
    (SYSCAL + " Wenner VES 0 3 1 2 1.0 nan 0 0 5.0 1.0\r\n", 2, "the deviation Dev. is not a finite number"),
    (SYSCAL + " Wenner VES 0 3 1 1 1.0 2.0 0 0 5.0 1.0\r\n", 2, "a reading uses one electrode twice"),
    (SYSCAL + " Pole-Pole 0 -1 0 99999 1.0 2.0 0 0 5.0 1.0\r\n", None,
     "the readings use fewer than two cable positions"),
    (SYSCAL, None, "holds no readings"),
    (TABBED + "\tWenner VES\t0\t3\t1\t2\t1.0\t\t0\t0\t5.0\t1.0\r\n", 2, "expected a number in column Dev., found ''"),
    (TABBED + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0 1.0\r\n", 2,
     "expected a number in column Spa.1, found no such column (fields are tab-separated)"),
    ("t\n1\n3\n0\n0\n0\n", 4, "the number of data points must be at least 1, found 0"),
    ("t\n1\n3\n1e999\n0\n0\n", 4, "expected the number of data points, found '1e999'"),
    ("t\n1\n3\n123456789012345678901234567890\n0\n0\n0 1 1 10\n", 7,
     "the file ends before data point 2 of 123456789012345678901234567890"),
    ("t\n1\n3\n1\n3\n0\n0 1 1 10\n", 5, "expected the type of x-location (0 first electrode, 1 mid-point), found 3"),
    ("t\n1\n3\n1\n2\n0 1 1 10\n", 5, "expected the IP flag (0 or 1), found 2"),
    ("t\n1\n3\n1\n0\n1\n0 1 1 10 5\n", 7,
     "expected the name of the IP quantity (such as Chargeability), found '0 1 1 10 5'"),
    ("t\n1\n3\n1\n0\n1\nChargeability\nmV/V\n", 8, "the file ends before the IP delay and integration times"),
    (DD + "1 1 100\n", 8, "expected 4 numbers (x, a, n, rhoa), found 3"),
    (DD + "1 1 x 100\n", 8, "expected 4 numbers (x, a, n, rhoa), found 2 before 'x'"),
    (DD + "1 1 1 nan\n", 8, "rhoa is not a finite number: 'nan'"),
    (DD + "1e999 1 1 10\n", 8, "x is not a finite number: '1e999'"),
    (DD + "1 -1 1 10\n", 8, "the electrode spacing a must be above 0, found -1"),
    (DD + "1 1 0 10\n", 8, "n must be above 0, found 0"),
    (DD.replace("\n3\n", "\n6\n") + "1 1 0 10\n", 8, "n must not be 0"),
    (DD + "1e300 1 1 10\n", 8, "C1 would stand at x 1e+300, beyond 1e+08 m"),
    (DD + "0 1e-9 1 10\n", 8, "C1 and C2 stand at one place (x 0)"),
    (DD, 7, "the file ends before data point 2 of 2"),
    (DD + "1 1 1 10\n2 1 1 10\n", 9, "expected the topography type (0, 1 or 2) after 2 data points, found '2 1 1 10'"),
    (DD + "1 1 1 10\n0\n5\n", 10, "unexpected line after the data: '5'"),
    (DD + "1 1 1 10\n2\n0\n", 10, "the number of topography points must be at least 1, found 0"),
    (DD + "1 1 1 10\n2\n3\n0 0\n", 11, "the file ends before topography point 2 of 3"),
    (DD + "1 1 1 10\n2\n2\n2 0\n1 0\n", 12, "the topography positions must increase; 1 follows 2"),
    (DD + "1 1 1 10\n2\n2\n0 0\n3 4\n", 12, "the ground rises 4 m over 3 m of distance along it"),
    (DD + "1 1 1 10\n1\n2\n0 0\n3 nan\n", 12, "height is not a finite number: 'nan'"),
    (DD + "1 1 1 10\n1\n2\n0 0\n3 1\n1\nend\n", 14, "unexpected line after the topography: 'end'"),
    ("g\n1\n11\n0\n0\n", 5, f"expected the line '{MEASURE}', found '0'"),
    (GEN.replace(f"{MEASURE}\n0", f"{MEASURE}\n2"), 6,
     "expected the type of measurement (0 apparent resistivity, 1 resistance), found 2"),
    (GEN.replace("\n1\n0\n0\n", "\n1\n3\n0\n"), 8,
     "expected the type of x-location (0 or 1 horizontal, 2 along the ground), found 3"),
    (GEN + "5 0 0 1 0 2 0 3 0 4 0 10\n", 10, "expected the number of electrodes (2, 3 or 4) first, found '5'"),
    (GEN + "99999999999999999999 0 0 1 0 10\n", 10,
     "expected the number of electrodes (2, 3 or 4) first, found '99999999999999999999'"),
    (GEN + "4 0 0 1 0 2 0 3 0\n", 10,
     "expected 10 numbers (electrodes, C1 x, C1 z, C2 x, C2 z, P1 x, P1 z, P2 x, P2 z, rhoa), found 9"),
    (GEN + "3 0 0 1 -1 2 0 10\n", 10, "the depth z of P1 is negative (-1); z is measured down from the ground surface"),
    (GEN + "4 0 0 1 0 2 0 0 0 10\n", 10, "C1 and P2 stand at one place (x 0, depth 0)"),
    (GEN + "2 0 inf 1 0 10\n", 10, "C1 z is not a finite number: 'inf'"),
    # P1 and P2 are equally far from C1 and from C2: no voltage to turn into a resistance
    (GEN + "4 0 0 2 0 1 0 1 2 10\n", 10, "the electrodes give no voltage over a uniform ground (no geometric "
                                         "factor), so the apparent resistivity gives no resistance"),
    (GEN + "Error estimate\n2\n", 11, "expected the type of error estimate (0 or 1), found 2"),
    (GEN + "error estimate\n2 0 0 1 0 5 1\n", 11,
     "expected the type of error estimate (0 or 1), found '2 0 0 1 0 5 1'"),
    (GEN + "Error estimate\n0\n2 0 0 1 0 5\n", 12,
     "expected 7 numbers (electrodes, C1 x, C1 z, P1 x, P1 z, rhoa, error), found 6"),
]
# a Res2DInv head that is wrong is no Res2DInv head to read_survey: these go to the reader itself
RES2DINV_HEADS = [
    ("title only\n", 1, "the file ends before the unit electrode spacing"),
    ("t\none\n3\n", 2, "expected the unit electrode spacing, found 'one'"),
    ("t\n-1\n3\n", 2, "the unit electrode spacing must be a number above 0, found '-1'"),
    ("t\nnan\n3\n", 2, "the unit electrode spacing must be a number above 0, found 'nan'"),
    ("t\n1e999\n3\n", 2, "the unit electrode spacing must be a number above 0, found '1e999'"),
    ("t\n1\n8\n", 3, "unknown array type 8; known are 1 to 7 and 11"),
    ("t\n1\n3.5\n", 3, "expected the array type, found '3.5'"),
]


@pytest.mark.parametrize("read, text, line, message", [(read_survey, *c) for c in FILES]
                         + [(read_res2dinv, *c) for c in RES2DINV_HEADS])
def test_refused_files(tmp_path, read, text, line, message):
    path = write(tmp_path / "bad.dat", text)
    with pytest.raises(InputError) as err:
        read(path)
    assert str(err.value) == (f"{path} line {line}: {message}" if line else f"{path}: {message}")


# what every command case finds in its directory; None makes a directory
WORLD = {
    "good.dat": GOOD, "bad.ohm": HEAD + ABMN + "1 2 3\n", "file": "",
    "moved.dat": GOOD.replace("3 0\n1#", "3.5 0\n1#"), "zero.dat": HEAD + ABMN + "1 4 2 3 0\n",
    "stacked.dat": HEAD.replace("1 0", "0 -1") + ABMN + "1 4 2 3 1\n",
    "line.txt": SYSCAL + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0 1.0\r\n", "topo.txt": "5\n",
    "stop-q5": "#!/bin/sh\necho ' FATAL: Incorrect job type specified - must be 0/1'\necho 'FATAL error'\n",
    "ok-q5": "#!/bin/sh\necho 'All ok'\n",
}
RUN = {"run/Q5.in": control(), "run/protocol.dat": "1\n1 1 2 3 4 1.0\n"}
LINES = control().splitlines()
T = "{t}"   # the test's directory in an expected message
THREADS = "error: argument --threads: must be 0 (every core) or a whole number from 1 to 256, not '{}'"

# command, arguments, files besides WORLD, the message's fragment, whether nothing changes on disk
COMMANDS = [
    ("q5-import", "bad.ohm -o run", {}, "bad.ohm line 9: expected 5 columns, found 3", True),
    ("q5-import", "missing.dat -o run", {}, "missing.dat: No such file or directory", True),
    ("q5-import", ". -o run", {}, ".: Is a directory", True),
    ("q5-import", "good.dat -o file/run", {}, f"{T}/file: File exists", True),
    ("q5-import", "good.dat -o run", {"run/mine.txt": "keep"},
     f"{T}/run: exists and is not empty (use --force to replace it)", True),
    ("q5-import", "good.dat moved.dat -o run", {},
     "moved.dat: electrode 4 stands 0.5 m away from its place in good.dat", True),
    ("q5-import", "good.dat good.dat --forward -o run", {},
     "good.dat: --forward takes one field file and no --reference", True),
    ("q5-import", "zero.dat -o run", {}, "zero.dat: no reading is left to use", True),
    ("q5-import", "stacked.dat --mesh grid -o run", {},
     "stacked.dat: buried electrodes need --mesh triangles: a grid puts every electrode on the surface", True),
    ("q5-import", "good.dat --spacing 5 -o run", {}, "good.dat: --spacing applies to Syscal Pro exports only", True),
    ("q5-import", "line.txt --spacing 0 -o run", {}, "line.txt: electrode spacings must be above 0", True),
    ("q5-import", "line.txt --spacing nan -o run", {}, "line.txt: electrode spacings must be above 0", True),
    ("q5-import", "good.dat --start none_res.dat -o run", {}, "none_res.dat: No such file or directory", True),
    ("q5-import", "good.dat --remote 1,2,3 -o run", {}, "--remote: '1,2,3' is not X or X,Z in metres", True),
    ("q5-import", "good.dat --topography topo.txt -o run", {},
     "topo.txt line 1: expected 2 columns (position, height), found 1", True),
    ("q5-import", "good.dat --reference good.dat --no-sensitivity -o run", {},
     "good.dat: --no-sensitivity cannot go with --reference", True),
    ("q5-import", "good.dat", {}, "error: the following arguments are required: -o/--output", True),
    ("q5-import", "good.dat -o run --mesh hex", {}, "error: argument --mesh: invalid choice: 'hex'", True),
    ("q5-invert", "good.dat -o file/run --q5 ok-q5", {}, f"{T}/file: File exists", True),
    ("q5-invert", "good.dat -o run --q5 none", {}, "none: is not an executable q5", True),
    ("q5-invert", "good.dat -o run --q5 stop-q5", {},
     f"{T}/run/Q5.out: q5 stopped: FATAL: Incorrect job type specified - must be 0/1", False),
    ("q5-invert", "good.dat -o run --iterations many", {}, "error: argument --iterations: invalid int value", True),
    *[("q5-invert", f"good.dat -o run --q5 ok-q5 --threads {n}", {}, THREADS.format(n), True)
      for n in ("-1", "x", "1.5", "257")],
    ("q5-plot", "missing", {}, "missing: holds no model file (fNNN_res.vtk or forward_model.vtk)", True),
    ("q5-plot", ". --borehole missing.txt", {}, "missing.txt: No such file or directory", True),
    ("q5-plot", "", {}, "error: the following arguments are required: DIR", True),
    ("q5-batch", "missing", {}, "missing: is not a directory", True),
    ("q5-batch", "run --q5 ok-q5", {**RUN, "run/Q5.in": control(job=0)},
     f"{T}/run/Q5.in line 2: job_type 0 is a forward job", True),
    ("q5-batch", "run --q5 ok-q5", {**RUN, "run/Q5.in": control().replace("1 4 3.0 0 1", "1 4.0 3.0 0 1")},
     f"{T}/run/Q5.in line 2: '4.0' is not an integer (mesh_type", True),
    ("q5-batch", "run --q5 ok-q5", {**RUN, "run/Q5.in": control(model="0\nmissing.dat")},
     f"{T}/run/Q5.in line 8: the start model file 'missing.dat' is not in", True),
    ("q5-batch", "run --q5 ok-q5", {**RUN, "run/Q5.in": control(model="0\n../start.dat")},
     f"{T}/run/Q5.in line 8: the start model file '../start.dat' lies outside", True),
    ("q5-batch", "run --q5 ok-q5", {**RUN, "run/Q5.in": "\n".join(LINES[:9]) + "\n"},
     f"{T}/run/Q5.in line 9: the file ends inside the inverse type", True),
    ("q5-batch", "run --q5 ok-q5 -j 0", RUN, "error: -j needs a positive number", True),
    *[("q5-batch", f"run --q5 ok-q5 --threads {n}", RUN, THREADS.format(n), True)
      for n in ("-1", "x", "1.5", "257")],
    ("q5-batch", "run --q5 ok-q5 --engine slurm --hosts file", RUN,
     "file: --hosts belongs to the parallel engine; Slurm chooses the nodes", False),
    # an unusable path after the set-up, once the datasets have run
    ("q5-batch", "run --q5 ok-q5", {**RUN, "run/batch/summary.csv.part": None},
     f"{T}/run/batch/summary.csv.part: Is a directory", False),
]


def tree(top):
    return sorted((os.path.relpath(os.path.join(d, n), top), os.path.getsize(os.path.join(d, n)))
                  for d, dirs, names in os.walk(top) for n in names + dirs)


@pytest.mark.parametrize("name, args, files, message, unchanged", COMMANDS)
def test_commands_refuse_in_one_line_with_status_1(tmp_path, name, args, files, message, unchanged):
    for path, text in {**WORLD, **files}.items():
        os.makedirs(os.path.dirname(tmp_path / path), exist_ok=True)
        if text is None:
            os.mkdir(tmp_path / path)
        else:
            write(tmp_path / path, text, 0o755 if path.endswith("-q5") else None)
    before = tree(tmp_path)
    done = tool(name, *args.split(), cwd=tmp_path)
    message = message.replace(T, str(tmp_path))
    assert done.returncode == 1, done.stderr
    if message.startswith("error: "):   # argparse's usage, then its one line
        assert done.stderr.startswith(f"usage: {name} ") and done.stdout == ""
        assert done.stderr.splitlines()[-1].startswith(f"{name}: {message}"), done.stderr
    else:
        assert done.stderr.startswith(f"{name}: {message}") and done.stderr.count("\n") == 1, done.stderr
    if unchanged:
        assert tree(tmp_path) == before
