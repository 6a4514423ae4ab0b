"""Several surveys of one line: blocks of protocol.dat, and the difference
run whose reference column is matched by quadrupole."""
import numpy as np

from conftest import field, protocol_blocks, write
from q5tools.importer import import_run
from q5tools.readers import read_survey
from q5tools.options import ImportOptions

MULDA = ["2008-05-09", "2008-07-15", "2008-09-16"]


def test_surveys_become_protocol_blocks(tmp_path):
    files = [field("mulda-hillslope", "data", f"MuldaA-{d}.data") for d in MULDA]
    meta, _ = import_run(files, tmp_path / "run", ImportOptions())
    got = protocol_blocks(tmp_path / "run" / "protocol.dat")
    assert [len(b) for b in got] == meta["readings"] == [784, 784, 784]
    for f, block in zip(files, got):
        s = read_survey(f)
        # P+ P- C+ C- = m n a b; value; error = relative err (floor 2 %) times R
        assert [int(v) for v in block[0][1:5]] == [s.m[0], s.n[0], s.a[0], s.b[0]]
        assert np.allclose([float(l[5]) for l in block], s.r, rtol=1e-7)
        assert np.allclose([float(l[6]) for l in block], np.maximum(s.rel_err, 0.02) * s.r, rtol=1e-5)
    q5in = open(tmp_path / "run" / "Q5.in").read().split("\n")
    assert any(l.startswith("0 0 ") and "errors from protocol.dat" in l for l in q5in)


def test_difference_run_matches_reference_by_quadrupole(tmp_path):
    ref = field("mulda-hillslope", "data", f"MuldaA-{MULDA[0]}.data")
    later = field("mulda-hillslope", "data", f"MuldaA-{MULDA[1]}.data")
    r0, r1 = read_survey(ref), read_survey(later)
    meta, lines = import_run([later], tmp_path / "run", ImportOptions(reference=ref))
    (block,) = protocol_blocks(tmp_path / "run" / "protocol.dat")
    assert len(block) == 784 and all(len(l) == 8 for l in block)
    assert np.allclose([float(l[6]) for l in block], r0.r, rtol=1e-7)
    assert np.allclose([float(l[5]) for l in block], r1.r, rtol=1e-7)
    q5in = open(tmp_path / "run" / "Q5.in").read()
    assert "\n0 2        data type, regularisation mode\n" in q5in
    assert meta["difference"] and meta["reference"].endswith("2008-05-09.data")

    # a later survey written in another order, with pairs turned round and
    # one quadrupole the reference lacks
    text = open(later).read().split("\n")
    head = text.index("#a\tb\tm\tn\tR\tip\terr\tk\trhoa")
    rows = [l.split("\t") for l in text[head + 1:head + 785]]
    turned = [[r[1], r[0]] + r[2:] for r in rows[:3]]              # A <-> B: the sign turns
    recip = [[r[2], r[3], r[0], r[1]] + r[4:] for r in rows[3:5]]   # reciprocal: the sign stays
    for r in turned:
        r[4] = str(-float(r[4]))
    extra = [["1", "50", "2", "49", "0.5", "0", "0.02", "1", "1"]]
    body = turned + recip + extra
    path = write(tmp_path / "odd.data", "\n".join(text[:head - 1] + [f"{len(body)}# Number of data", text[head]]
                                                  + ["\t".join(r) for r in body]) + "\n")
    meta, lines = import_run([path], tmp_path / "odd", ImportOptions(reference=ref))
    (block,) = protocol_blocks(tmp_path / "odd" / "protocol.dat")
    assert meta["readings"] == [5]
    assert any("1 left out (1 not in the reference)" in l for l in lines)
    assert np.allclose([float(l[6]) for l in block], np.concatenate([-r0.r[:3], r0.r[3:5]]), rtol=1e-7)
