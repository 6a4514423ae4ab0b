"""Every refused input, with its one-line message naming file and line, and
nothing left behind in the output directory."""
import os

import pytest

from conftest import field, tool, write
from q5tools.errors import InputError
from q5tools.importer import import_run, read_survey

HEAD = "4# sensors\n#x\tz\n0 0\n1 0\n2 0\n3 0\n"
GOOD = HEAD + "1# data\n#a\tb\tm\tn\tR\n1 4 2 3 0.5\n"


@pytest.mark.parametrize("text, where, message", [
    ("#only comments\n", None, "ends before the number of sensors"),
    ("x# sensors\n", "line 1", "expected the number of sensors, found 'x'"),
    ("0# sensors\n", "line 1", "the number of sensors must be at least 1, found 0"),
    ("3\n#x z\n0 0\n1\n", "line 4", "expected 2 columns, found 1"),
    ("3\n#x z\n0 0\n1 0\n", None, "ends before the 3 sensor lines"),
    ("3\n#y z\n", "line 2", "the sensor columns y z name no x"),
    (HEAD + "1\na b m n\n", "line 8", "expected a '#' line naming the data columns"),
    (HEAD + "1\n#a b m R\n", "line 8", "the data columns a b m R lack 'n'"),
    (HEAD + "1\n#a b m n R\n1 2 3 5 0.5\n", "line 9", "electrode n is 5; sensors are numbered 1 to 4"),
    (HEAD + "1\n#a b m n R\n0 2 3 4 0.5\n", "line 9", "electrode a is a remote electrode (0); sensors are numbered 1 to 4"),
    (HEAD + "1\n#a b m n R\n1 2 3 3 0.5\n", "line 9", "a reading uses one electrode twice"),
    (HEAD + "1\n#a b m n R\n1 2 3\n", "line 9", "expected 5 columns, found 3"),
    (HEAD + "1\n#a b m n R\n1 2 3 x 0.5\n", "line 9", "not a number: 'x'"),
    (HEAD + "2\n#a b m n R\n1 2 3 4 0.5\n", None, "ends before the 2 data lines"),
    (HEAD + "1\n#a b m n ip\n1 2 3 4 0.5\n", "line 8", "the data give none of R, u and i, or rhoa"),
    (" El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp In\r\n", "line 1", "the header lacks Vp"),
    (" El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp Vp In\r\n Wenner VES 0 3 1 2 1.0 2.0 0 0 5.0\r\n",
     "line 2", "expected 10 numbers after the array label, found 9"),
    (" El-array Spa.1 Spa.2 Spa.3 Spa.4 Rho Dev. M Sp Vp In\r\n", None, "holds no readings"),
])
def test_unreadable_files(tmp_path, text, where, message):
    path = write(tmp_path / "bad.dat", text)
    with pytest.raises(InputError) as err:
        read_survey(path)
    expected = f"{path} {where}: {message}" if where else f"{path}: {message}"
    assert str(err.value) == expected


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
            import_run(files, tmp_path / "out", opts)
        assert message in str(err.value)
        assert not os.path.exists(tmp_path / "out")
    stacked = write(tmp_path / "stacked.dat", HEAD.replace("1 0", "0 -1") + "1\n#a b m n R\n1 4 2 3 1\n")
    with pytest.raises(InputError) as err:
        import_run([stacked], tmp_path / "out", {})
    assert str(err.value) == f"{stacked}: two electrodes stand at x = 0 m; the grid needs one electrode per column"


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
    assert done.returncode == 0 and sorted(os.listdir(out)) == ["Q5.in", "protocol.dat", "q5-import.json"]
    assert sorted(os.listdir(tmp_path)) == ["good.dat", "run", "slag.ohm"]
    done = tool("q5-plot", tmp_path / "nothing-here")
    assert done.returncode == 1 and done.stderr.startswith("q5-plot: ")
    assert tool("q5-invert", "--help").returncode == 0


def test_screening_counts_and_reports(tmp_path):
    text = HEAD + ("6\n#a b m n R\n"
                   "1 4 2 3 0.5\n"      # kept
                   "1 4 2 3 0.7\n"      # the same quadrupole again
                   "2 3 1 4 0.45\n"     # again, reciprocal
                   "1 2 3 4 0\n"        # zero
                   "1 2 3 4 -0.2\n"     # negative, for log data
                   "1 3 2 4 nan\n")     # not a number
    path = write(tmp_path / "s.dat", text)
    meta, lines = import_run([path], tmp_path / "log", {})
    assert meta["readings"] == [1]
    assert f"{path}: 1 readings kept, 5 left out (1 zero, 1 negative, 1 not a number, 2 repeated)" in lines
    assert "  repeated: lines 10, 11" in lines and "  zero: line 12" in lines
    meta, lines = import_run([path], tmp_path / "true", {"data": "true"})
    assert meta["readings"] == [2]
    protocol = open(tmp_path / "true" / "protocol.dat").read().split("\n")
    # number, P+ = m, P- = n, C+ = a, C- = b, resistance, error (3 %)
    assert protocol[:3] == ["2", "1 2 3 1 4 0.5", "2 3 4 1 2 -0.2"]
