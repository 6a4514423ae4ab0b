"""Every refused input, with its one-line message naming file and line, and
nothing left behind in the output directory."""
import os
import sys

import pytest

from conftest import tool, write
from q5tools.errors import InputError
from q5tools.importer import import_run
from q5tools.options import ImportOptions
from q5tools.readers import read_survey

HEAD = "4# sensors\n#x\tz\n0 0\n1 0\n2 0\n3 0\n"
GOOD = HEAD + "1# data\n#a\tb\tm\tn\tR\n1 4 2 3 0.5\n"


SYSCAL_HEAD = " El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp Vp In\r\n"
TABBED_HEAD = "\tEl-array\tSpa.1\tSpa.2\tSpa.3\tSpa.4\tRho\tDev.\tM\tSp\tVp\tIn\r\n"
FORMATS = "not a unified data file, a Syscal Pro export or a Res2DInv file"


@pytest.mark.parametrize("text, where, message", [
    ("", None, "is empty"),
    ("#only comments\n", None, f"holds only comments; {FORMATS}"),
    ("x# sensors\n", "line 1", FORMATS),
    ("# a title\n\nLine 12, Wenner\n1 2 3\n", "line 3", FORMATS),
    ("0# sensors\n#x z\n", "line 1", "the number of sensors must be at least 1, found 0"),
    ("99999999999999999999\n#x z\n0 0\n", None, "ends before the 99999999999999999999 sensor lines"),
    ("3\n#x z\n0 0\n1\n", "line 4", "expected 2 columns, found 1"),
    ("3\n#x z\n0 0\n1 0\n", None, "ends before the 3 sensor lines"),
    ("3\n#y z\n", "line 2", "the sensor columns y z name no x"),
    ("3\n#x z\n0 0\n1e999 0\n", "line 4", "a sensor position is not a finite number"),
    ("3\n#x z\n0 0\n1 0\n2 0\nnan\n", "line 6", "expected the number of data, found 'nan'"),
    (HEAD + "1\na b m n\n", "line 8", "expected a '#' line naming the data columns"),
    (HEAD + "1\n#a b m R\n", "line 8", "the data columns a b m R lack 'n'"),
    (HEAD + "1\n#a b m n R\n1 2 3 5 0.5\n", "line 9", "electrode n is 5; sensors are numbered 1 to 4 (0 for a remote electrode)"),
    (HEAD + "1\n#a b m n R\n-1 2 3 4 0.5\n", "line 9", "electrode a is -1; sensors are numbered 1 to 4 (0 for a remote electrode)"),
    (HEAD + "1\n#a b m n R\n1 2 nan 4 0.5\n", "line 9", "electrode m is nan; sensors are numbered 1 to 4 (0 for a remote electrode)"),
    (HEAD + "1\n#a b m n R\n1 2 3 3 0.5\n", "line 9", "a reading uses one electrode twice"),
    (HEAD + "1\n#a b m n R\n0 0 3 4 0.5\n", "line 9", "a reading uses one electrode twice"),
    (HEAD + "1\n#a b m n R\n1 2 3\n", "line 9", "expected 5 columns, found 3"),
    (HEAD + "1\n#a b m n R\n1 2 3 x 0.5\n", "line 9", "not a number: 'x'"),
    (HEAD + "1\n#a b m n R err\n1 2 3 4 0.5 inf\n", "line 9", "the error err is not a finite number"),
    (HEAD + "2\n#a b m n R\n1 2 3 4 0.5\n", None, "ends before the 2 data lines"),
    (HEAD + "1\n#a b m n ip\n1 2 3 4 0.5\n", "line 8", "the data give none of R, u and i, or rhoa"),
    (SYSCAL_HEAD.replace(" Vp", ""), "line 1", "the header lacks Vp"),
    ("Prosys\r\n" + SYSCAL_HEAD.replace(" Rho", "").replace("Dev.", ""), "line 2", "the header lacks Rho, Dev."),
    (SYSCAL_HEAD.replace("El-array Spa.1", "Spa.1 El-array"), "line 1", "the header names Spa.1 before the array label"),
    (SYSCAL_HEAD + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0\r\n", "line 2", "expected 10 numbers after the array label, found 9"),
    (SYSCAL_HEAD + " Wenner VES 0 3 1 inf 1.0 2.0 0 0 5.0 1.0\r\n", "line 2", "the position Spa.4 is not a finite number"),
    (SYSCAL_HEAD + " Wenner VES 0 3 1 2 1.0 nan 0 0 5.0 1.0\r\n", "line 2", "the deviation Dev. is not a finite number"),
    (SYSCAL_HEAD + " Wenner VES 0 3 1 1 1.0 2.0 0 0 5.0 1.0\r\n", "line 2", "a reading uses one electrode twice"),
    (SYSCAL_HEAD + " Pole-Pole 0 -1 0 99999 1.0 2.0 0 0 5.0 1.0\r\n", None, "the readings use fewer than two cable positions"),
    (SYSCAL_HEAD, None, "holds no readings"),
    (TABBED_HEAD + "\tWenner VES\t0\t3\t1\t2\t1.0\t\t0\t0\t5.0\t1.0\r\n", "line 2", "expected a number in column Dev., found ''"),
    (TABBED_HEAD + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0 1.0\r\n", "line 2",
     "expected a number in column Spa.1, found no such column (fields are tab-separated)"),
])
def test_unreadable_files(tmp_path, text, where, message):
    path = write(tmp_path / "bad.dat", text)
    with pytest.raises(InputError) as err:
        read_survey(path)
    expected = f"{path} {where}: {message}" if where else f"{path}: {message}"
    assert str(err.value) == expected


@pytest.mark.parametrize("text, options, message", [
    (GOOD, {"spacing": 5.0}, "--spacing applies to Syscal Pro exports only"),
    (GOOD, {"instrument_spacing": 1.0}, "--spacing applies to Syscal Pro exports only"),
    (SYSCAL_HEAD + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0 1.0\r\n", {"spacing": 0.0}, "electrode spacings must be above 0"),
    (SYSCAL_HEAD + " Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0 1.0\r\n", {"spacing": float("nan")},
     "electrode spacings must be above 0"),
])
def test_refused_spacing(tmp_path, text, options, message):
    path = write(tmp_path / "line.txt", text)
    with pytest.raises(InputError) as err:
        read_survey(path, **options)
    assert str(err.value) == f"{path}: {message}"


def test_unreadable_paths(tmp_path):
    for path, kind in [(tmp_path / "missing.dat", FileNotFoundError), (tmp_path, IsADirectoryError)]:
        with pytest.raises(kind):
            read_survey(path)


def test_unusable_combinations(tmp_path):
    good = write(tmp_path / "good.dat", GOOD)
    moved = write(tmp_path / "moved.dat", GOOD.replace("3 0\n1#", "3.5 0\n1#"))
    cases = [
        ([good, moved], {}, f"{moved}: electrode 4 stands 0.5 m away from its place in {good}"),
        ([good, good], {"forward": True}, "--forward takes one field file and no --reference"),
        ([good], {"spacing": 5.0}, f"{good}: --spacing applies to Syscal Pro exports only"),
        ([write(tmp_path / "zero.dat", HEAD + "1\n#a b m n R\n1 4 2 3 0\n")], {}, "no reading is left to use"),
        ([write(tmp_path / "flat.dat", "2\n#x z\n0 0\n0 0\n1\n#a b m n R\n1 2 1 2 1\n")], {},
         "a reading uses one electrode twice"),
    ]
    for files, opts, message in cases:
        with pytest.raises(InputError) as err:
            import_run(files, tmp_path / "out", ImportOptions(**opts))
        assert message in str(err.value)
        assert not os.path.exists(tmp_path / "out")
    stacked = write(tmp_path / "stacked.dat", HEAD.replace("1 0", "0 -1") + "1\n#a b m n R\n1 4 2 3 1\n")
    with pytest.raises(InputError) as err:
        import_run([stacked], tmp_path / "out", ImportOptions(mesh="grid"))
    assert str(err.value) == f"{stacked}: buried electrodes need --mesh triangles: a grid puts every electrode on the surface"


def test_command_line_failure_leaves_nothing(tmp_path):
    bad = write(tmp_path / "slag.ohm", HEAD + "1\n#a b m n R\n1 2 3\n")
    out = tmp_path / "run"
    done = tool("q5-import", bad, "-o", out)
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr == f"q5-import: {bad} line 9: expected 5 columns, found 3\n"
    assert sorted(os.listdir(tmp_path)) == ["slag.ohm"]
    # an existing, non-empty directory is kept as it was
    os.mkdir(out)
    write(out / "mine.txt", "keep")
    good = write(tmp_path / "good.dat", GOOD)
    done = tool("q5-import", good, "-o", out)
    assert done.returncode == 1 and "exists and is not empty" in done.stderr
    assert os.listdir(out) == ["mine.txt"]
    done = tool("q5-import", good, "-o", out, "--force")
    assert done.returncode == 0 and sorted(os.listdir(out)) == ["Q5.in", "mesh.dat", "protocol.dat", "q5-import.json"]
    assert sorted(os.listdir(tmp_path)) == ["good.dat", "run", "slag.ohm"]
    done = tool("q5-plot", tmp_path / "nothing-here")
    assert done.returncode == 1 and done.stderr.startswith("q5-plot: ")
    assert tool("q5-invert", "--help").returncode == 0


@pytest.mark.parametrize("name, args, where", [
    ("q5-import", ["{missing}", "-o", "{tmp}/run"], "{missing}"),
    ("q5-import", ["{good}", "-o", "{file}/run"], "{file}"),
    ("q5-invert", ["{good}", "-o", "{file}/run", "--q5", sys.executable], "{file}"),
    ("q5-plot", ["{missing}"], "{missing}"),
    ("q5-batch", ["{missing}"], "{missing}"),
])
def test_unusable_paths_end_in_one_line_and_status_1(tmp_path, name, args, where):
    paths = {"good": write(tmp_path / "good.dat", GOOD), "file": write(tmp_path / "file", ""),
             "missing": tmp_path / "missing", "tmp": tmp_path}
    done = tool(name, *(a.format(**paths) for a in args))
    assert done.returncode == 1 and done.stderr.count("\n") == 1, done.stderr
    assert done.stderr.startswith(f"{name}: {where.format(**paths)}: "), done.stderr


def test_screening_counts_and_reports(tmp_path):
    text = HEAD + ("6\n#a b m n R\n"
                   "1 4 2 3 0.5\n"      # kept
                   "1 4 2 3 0.7\n"      # the same quadrupole again
                   "2 3 1 4 0.48\n"     # its reciprocal: the pair's mean is the datum
                   "1 2 3 4 0\n"        # zero
                   "1 2 3 4 -0.2\n"     # negative, as its factor is: kept
                   "1 3 2 4 nan\n")     # not a number
    path = write(tmp_path / "s.dat", text)
    meta, lines = import_run([path], tmp_path / "log", ImportOptions())
    assert meta["readings"] == [2]
    assert f"{path}: 2 readings kept, 3 left out (1 not a number, 1 zero, 1 repeated)" in lines
    assert "  repeated: line 10" in lines and "  zero: line 12" in lines
    meta, lines = import_run([path], tmp_path / "true", ImportOptions(data="true"))
    assert meta["readings"] == [2]
    protocol = open(tmp_path / "true" / "protocol.dat").read().split("\n")
    # number, P+ = m, P- = n, C+ = a, C- = b, resistance, error (3 %)
    assert protocol[:3] == ["2", "1 2 3 1 4 0.49", "2 3 4 1 2 -0.2"]
