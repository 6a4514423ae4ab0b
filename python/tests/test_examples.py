"""The committed field runs under examples/field are what q5-import makes
from the field files with the options recorded in each run."""
import json
import os

import pytest

from conftest import FIELD, REPO
from q5tools.importer import META, START, prepare
from q5tools.options import ImportOptions

EXAMPLES = os.path.join(REPO, "examples", "field")
RUNS = ["slagdump", "bedrock", "xochimilco", "mulda-hillslope", os.path.join("mulda-hillslope", "reference")]


@pytest.mark.parametrize("name", RUNS)
def test_committed_run_is_reproducible(name, monkeypatch):
    run = os.path.join(EXAMPLES, name)
    if not os.path.isdir(FIELD):
        pytest.skip("field data not present")
    meta = json.load(open(os.path.join(run, META)))
    opts = dict(meta["options"])
    if opts.get("start"):
        opts["start"] = os.path.join(run, START)
    monkeypatch.chdir(EXAMPLES)  # the commands run in examples/field
    texts, _, _ = prepare(meta["files"], ImportOptions(**opts))
    for file_name, text in texts.items():
        assert open(os.path.join(run, file_name)).read() == text, f"{name}/{file_name} differs"
