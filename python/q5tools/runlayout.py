"""What an inverse run directory holds for q5-batch: from Q5.in the start
model file and the layout of a measurement line, from protocol.dat its
blocks, found the way q5 reads them.

Q5.in is read record by record as q5 reads it, as far as the inverse
settings (the electrode records after them do not matter here). A block of
protocol.dat is its head (a count) and that many measurement lines, each one
read statement of 5 to 8 items that may spread over several lines; a count
of 0 or the end of the file ends the data."""
import os
from dataclasses import dataclass, field

from .errors import InputError
from .listread import BAD, EOF, LineFile, read_items, read_line

CONTROL = "Q5.in"
PROTOCOL = "protocol.dat"
MESH = "mesh.dat"
KIND_NAMES = {"i": "an integer", "r": "a real"}


@dataclass
class Layout:
    """The facts of Q5.in that the batch needs."""
    job_type: int = 0
    mesh_type: int = 0
    inverse_type: int = 0
    reg_mode: int = 0
    a_wgt: float = 0.0
    b_wgt: float = 0.0
    start_file: str = None     # the start model file's name as q5 takes it
    start_line: int = None     # its line in Q5.in
    items: int = 0             # items of one measurement line

    @property
    def difference(self):
        return self.reg_mode == 2 and self.inverse_type != 3

    def describe(self):
        parts = [f"{self.items} items per measurement line"]
        if self.difference:
            parts.append("difference run (reference column)")
        if self.items == 8 or (self.items == 7 and not self.difference):
            parts.append("errors from protocol.dat")
        return ", ".join(parts)


class _ControlReader:
    """Read statements on Q5.in with the names of their items, failing with
    the file and line."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as fh:
            self.file = LineFile(fh.read(), path)

    def where(self):
        return max(self.file.next, 1)

    def read(self, kinds, names, what):
        r = read_items(self.file, kinds)
        if r.status == EOF:
            raise InputError(self.path, f"the file ends inside {what} (q5 stops here)", self.where())
        if r.status == BAD:
            name = names[min(r.bad_index, len(names) - 1)]
            raise InputError(self.path, f"'{r.bad_token.decode(errors='replace')}' is not "
                             f"{KIND_NAMES[kinds[r.bad_index]]} ({name}; q5 stops here)", r.last_line + 1)
        # an item left unchanged (r* or ,,) keeps q5's initial value, 0
        return [0 if v is None else v for v in r.values], r.last_line + 1

    def line(self, length, what):
        text, index = read_line(self.file, length)
        if text is None:
            raise InputError(self.path, f"the file ends before {what} (q5 stops here)", self.where())
        return text, index + 1


def read_layout(run_dir):
    """Q5.in of run_dir as far as the inverse settings."""
    path = os.path.join(run_dir, CONTROL)
    if not os.path.isfile(path):
        raise InputError(path, "not found: q5-batch needs the run's control file")
    q = _ControlReader(path)
    lay = Layout()
    q.line(80, "the title")
    (lay.job_type, lay.mesh_type, _, _, _), line = q.read(
        "iirii", ["job_type", "mesh_type", "flux_type", "Singular_type", "res_calc"], "the job record")
    if lay.job_type == 0:
        raise InputError(path, "job_type 0 is a forward job, which reads one block of "
                         "protocol.dat only: run q5 itself", line)
    if lay.job_type != 1:
        raise InputError(path, f"job_type {lay.job_type} is neither 0 nor 1 (q5 stops here)", line)
    if lay.mesh_type in (4, 5):
        (nx, ny), line = q.read("ii", ["num_x", "num_y"], "the grid size")
        if nx < 1 or ny < 1:
            raise InputError(path, "the grid needs at least one column and one row (q5 stops here)", line)
        q.read("r" * nx, ["column position"], "the column positions")
        if lay.mesh_type == 4:
            q.read("r" * nx, ["surface offset"], "the surface offsets")
            q.read("r" * ny, ["row depth"], "the row depths")
        else:
            for _ in range(nx):
                q.read("r" * ny, ["depth"], "the depth lists")
    elif lay.mesh_type == 3:
        if not os.path.isfile(os.path.join(run_dir, MESH)):
            raise InputError(path, f"mesh_type 3 needs {MESH} beside Q5.in", line)
        q.read("r", ["mesh_scale"], "the mesh scale")
    else:
        raise InputError(path, f"mesh_type {lay.mesh_type} is not 3, 4 or 5 (q5 stops here)", line)
    (num_regions,), line = q.read("i", ["num_regions"], "the region count")
    for _ in range(max(num_regions, 0)):
        q.read("iir", ["elem1", "elem2", "resistivity"], "the region records")
    if num_regions == 0:
        name, line = q.line(30, "the start model file's name")
        lay.start_file = name.rstrip(b" ").decode(errors="surrogateescape")
        lay.start_line = line
    if lay.mesh_type in (4, 5):
        (px, py), line = q.read("ii", ["patch_size_x", "patch_size_y"], "the patch sizes")
        if px < 0 or py < 0:
            raise InputError(path, "a negative patch size (q5 stops here)", line)
        if px == 0 or py == 0:
            (npx, npy), line = q.read("ii", ["num_patch_x", "num_patch_y"], "the block counts")
            if npx < 0 or npy < 0:
                raise InputError(path, "a negative block count (q5 stops here)", line)
            q.read("i" * (npx + 1), ["npxstart", "block width"], "the block widths along x")
            q.read("i" * (npy + 1), ["npystart", "block width"], "the block widths along y")
    (lay.inverse_type, _), line = q.read("ir", ["inverse_type", "target_decrease"], "the inverse type")
    if not 0 <= lay.inverse_type <= 4:
        raise InputError(path, f"inverse_type {lay.inverse_type} is not 0 to 4 (q5 stops here)", line)
    if lay.inverse_type == 3:
        q.read("i", ["qualitative_mode"], "the qualitative mode")
        q.read("rr", ["rho_min", "rho_max"], "the resistivity range")
        lay.a_wgt, lay.b_wgt, lay.reg_mode = 0.0, 1.0, 0
        lay.items = 6
        return lay
    (_, lay.reg_mode), line = q.read("ii", ["data_type", "reg_mode"], "the data type record")
    if not 0 <= lay.reg_mode <= 2:
        raise InputError(path, f"reg_mode {lay.reg_mode} is not 0, 1 or 2 (q5 stops here)", line)
    names = ["tolerance", "max_iterations", "weight_update", "alpha_aniso", "joint_weight"]
    if lay.reg_mode == 1:
        q.read("riirr", names, "the iteration settings")
    else:
        q.read("riir", names[:4], "the iteration settings")
    (lay.a_wgt, lay.b_wgt, _, _), line = q.read(
        "rrrr", ["a_wgt", "b_wgt", "rho_min", "rho_max"], "the error settings")
    lay.items = 6 + (lay.reg_mode == 2) + (lay.a_wgt == 0.0 and lay.b_wgt == 0.0)
    return lay


@dataclass
class Block:
    """One block of protocol.dat: dataset `number`, its head, and its lines
    (1-based, inclusive) and bytes as they stand in the file."""
    number: int
    head: int
    first_line: int
    last_line: int
    text: bytes = field(repr=False)
    cut_short: bool = False    # the file ends inside the block


@dataclass
class Blocks:
    blocks: list
    end: str                   # how the data end, in words
    problem: str = None        # where q5 itself would stop with a read error


def cut_blocks(path, items):
    """The blocks of protocol.dat at `path` for measurement lines of `items`
    items, found as q5 finds them. A missing file has no blocks."""
    if not os.path.exists(path):
        return Blocks([], f"{path} does not exist: no datasets")
    with open(path, "rb") as fh:
        f = LineFile(fh.read(), path)
    kinds = "iiiii" + "r" * (items - 5)
    blocks = []
    while True:
        start = f.next
        head = read_items(f, "i")
        if head.status == EOF:
            return Blocks(blocks, "the end of the file ends the data")
        if head.status == BAD:
            return Blocks(blocks, f"line {head.last_line + 1} ends the data", problem=(
                f"{path} line {head.last_line + 1}: block head "
                f"'{head.bad_token.decode(errors='replace')}' is not a count: a sequential q5 run "
                f"stops there with a read error after {len(blocks)} dataset(s)"))
        count = head.values[0] or 0
        if count == 0:
            after = len(f.starts) - f.next
            more = f"; the {after} line(s) after it are never read" if after else ""
            return Blocks(blocks, f"the count of 0 on line {head.last_line + 1} ends the data{more}")
        cut_short = False
        for _ in range(max(count, 0)):
            if read_items(f, kinds, want_values=False).status == EOF:
                cut_short = True
                break
        last = f.next - 1
        blocks.append(Block(len(blocks) + 1, count, start + 1, last + 1, f.span(start, last), cut_short))
