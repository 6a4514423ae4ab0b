"""Field files with one thing broken: a reader reads them or refuses them in
one line naming the file, never with any other exception. Small files are
broken in every place (every cut, every number made odd), the field files
in random places."""
import random
import re

import numpy as np
import pytest

from conftest import SLOPE, field, general, standard
from q5tools.errors import InputError
from q5tools.readers import read_survey
from q5tools.survey import Survey

ODD = ["nan", "inf", "-inf", "1e999", "-1", "0", "99999999999999999999", "x", "", "3.5", "1e300"]
PER_FIELD_FILE = 50

SMALL = {
    "syscal-tabs": "\tEl-array\tSpa.1\tSpa.2\tSpa.3\tSpa.4\tRho\tDev.\tM\tSp\tVp\tIn\r\n"
                   + "".join(f"\tPole-Dipole\t{a}\t-1\t{a + 1}\t{a + 2}\t{10 + a}\t1.5\t0\t0\t{2 * a + 1}\t{a}\r\n"
                             for a in range(3)),
    "unified-remote": "5# sensors\n#x z\n0 0\n1 0\n2 0\n3 0\n500 0\n6# data\n#a b m n rhoa k err\n"
                      + "".join(f"{a} 0 {a + 1} {a + 2} {a + 10} {6.28 * a} 0.03\n" for a in (1, 2))
                      + "".join(f"{a} 5 {a + 1} {a + 2} -{a} -1 0.03\n" for a in (1, 2))
                      + "1 2 3 0 1 1 0.03\n2 1 0 4 1 1 0.03\n",
    "res2dinv-standard": standard(6, "10 1 -2 100 3", "mid", ip=True, tail=SLOPE),
    "res2dinv-general": general(["4 0 0 3 0 1 0 2 0.5 60 3 6", "2 0 0 2 0 1 0.1 1"], ip=True, err=1, tail=SLOPE),
}
FIELD = {
    "slagdump": ("slagdump", "slagdump.ohm"),
    "bedrock": ("bedrock", "bedrock.dat"),
    "mulda": ("mulda-hillslope", "data", "MuldaA-2008-05-09.data"),
    "xochimilco": ("xochimilco", "Xoch2We.txt"),
}


def every_mutant(text):
    """Every cut of the text, and every token replaced by every odd value."""
    yield from ((f"cut at byte {k}", text[:k]) for k in range(len(text)))
    for t in re.finditer(r"[^\s,]+", text):
        for odd in ODD:
            yield f"token {t.group()!r} at byte {t.start()} -> {odd!r}", text[:t.start()] + odd + text[t.end():]


def random_mutants(text, rng, count):
    """One token replaced, one line deleted or doubled, or the file cut short."""
    tokens, lines = list(re.finditer(r"\S+", text)), text.splitlines(keepends=True)
    for _ in range(count):
        how = rng.randrange(4)
        if how == 0:
            t, new = rng.choice(tokens), rng.choice(ODD)
            yield f"token {t.group()!r} at byte {t.start()} -> {new!r}", text[:t.start()] + new + text[t.end():]
        elif how in (1, 2):
            k = rng.randrange(len(lines))
            kept = lines[:k] + lines[k + 1:] if how == 1 else lines[:k + 1] + lines[k:]
            yield f"line {k + 1} {'deleted' if how == 1 else 'doubled'}", "".join(kept)
        else:
            cut = rng.randrange(len(text))
            yield f"cut at byte {cut}", text[:cut]


@pytest.mark.parametrize("source", [*SMALL, *FIELD])
def test_mutants_are_read_or_refused_in_one_line(tmp_path, source):
    if source in SMALL:
        mutants = every_mutant(SMALL[source])
    else:
        with open(field(*FIELD[source]), encoding="latin-1", newline="") as f:
            mutants = random_mutants(f.read(), random.Random(f"probe {source}"), PER_FIELD_FILE)
    path = tmp_path / "mutant.txt"
    refused = 0
    for what, mutant in mutants:
        with open(path, "w", encoding="latin-1", newline="") as f:
            f.write(mutant)
        try:
            s = read_survey(path)
        except InputError as e:
            refused += 1
            assert str(e).startswith(str(path)) and "\n" not in str(e), what
            continue
        except Exception as e:  # noqa: BLE001 - any other exception is the fault looked for
            pytest.fail(f"{source}, {what}: {type(e).__name__}: {e}")
        assert isinstance(s, Survey), what
        # a place is finite or absent (a remote); a resistance is finite or NaN
        placed = ~np.isnan(s.x)
        assert np.isfinite(s.x[placed]).all() and np.isfinite(s.z[placed]).all(), what
        assert np.all(np.isnan(s.x) == np.isnan(s.z)) and not np.isinf(s.r).any(), what
        assert len(s.a) == len(s.b) == len(s.m) == len(s.n) == len(s.r) == len(s.lines), what
    # the mutations must reach the readers' refusals, not only harmless corners
    assert refused > 0
