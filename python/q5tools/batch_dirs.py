"""The dataset directories of a batch under DIR/batch/: one run directory
per block of protocol.dat, what state each is in, and the gathering of a
finished dataset's files into DIR under the names of a sequential run.

DIR/batch/NNN/ holds Q5.in, mesh.dat (if DIR has one), the start model file
(if Q5.in names one) and a protocol.dat with block NNN alone, so q5 writes
dataset NNN's files there as f001...; besides q5's own files:

- q5-batch.inputs: fingerprint of the inputs the directory was made from;
- console.txt: q5's console;
- q5-batch.exit: written by the task when q5 has ended: exit status, start
  and end time, host;
- q5-batch.result: the dataset's outcome (JSON), written once it has been
  judged; for a dataset that ended well its f001 files then move to DIR."""
import hashlib
import json
import os
import re
import shutil

from .errors import InputError
from .runlayout import CONTROL, MESH, PROTOCOL

BATCH = "batch"
INPUTS = "q5-batch.inputs"
EXIT = "q5-batch.exit"
RESULT = "q5-batch.result"
CONSOLE = "console.txt"
LOG = "Q5.out"
ELECTRODE_FILES = ("electrodes.dat", "electrodes.vtk")
_OWN_STEM = re.compile(r"f001([._].*)\Z", re.DOTALL)


def stem(n):
    """q5's file stem of dataset n: 'f' and three digits, each digit the
    character 48 + d, so that from dataset 1000 the hundreds place runs on
    past '9' (':' for 10)."""
    hundreds = n // 100
    tens = (n - 100 * hundreds) // 10
    ones = n - 100 * hundreds - 10 * tens
    return "f" + "".join(chr(48 + d) for d in (hundreds, tens, ones))


def dir_name(n):
    return f"{n:03d}"


def gathered_name(name, n):
    """The name in DIR of a file that dataset n's own run wrote as `name`
    (f001_res.dat -> f007_res.dat, f001.002_res.vtk -> f007.002_res.vtk),
    or None for a file that is not one of the dataset's own."""
    m = _OWN_STEM.match(name)
    return stem(n) + m.group(1) if m else None


def _sha(*parts):
    h = hashlib.sha256()
    for p in parts:
        h.update(len(p).to_bytes(8, "little"))
        h.update(p)
    return h.hexdigest()


def _read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


class Inputs:
    """The files every dataset directory shares, read once from DIR."""

    def __init__(self, run_dir, layout):
        self.run_dir = run_dir
        self.control = _read_bytes(os.path.join(run_dir, CONTROL))
        mesh = os.path.join(run_dir, MESH)
        self.mesh_path = mesh if os.path.isfile(mesh) else None
        self.start_name = layout.start_file
        self.start_path = None
        parts = [self.control]
        if self.mesh_path:
            parts += [b"mesh", _read_bytes(self.mesh_path)]
        if self.start_name is not None:
            self.start_path = self._start_path(layout)
            parts += [b"start", self.start_name.encode(errors="surrogateescape"),
                      _read_bytes(self.start_path)]
        self.shared = _sha(*parts)

    def _start_path(self, layout):
        name = self.start_name
        where = os.path.join(self.run_dir, CONTROL)
        if not name:
            raise InputError(where, "the start model file's name is blank", layout.start_line)
        if os.path.isabs(name):
            path = name
        else:
            if ".." in name.split("/"):
                raise InputError(where, f"the start model file '{name}' lies outside the run "
                                 "directory: give a name inside it, or an absolute path",
                                 layout.start_line)
            path = os.path.join(self.run_dir, name)
        if not os.path.isfile(path):
            raise InputError(where, f"the start model file '{name}' is not in {self.run_dir}",
                             layout.start_line)
        return path

    def fingerprint(self, block):
        return _sha(self.shared.encode(), block.text)


class Dataset:
    """One dataset of the batch: its number, block and directory."""

    def __init__(self, batch_dir, block, inputs):
        self.number = block.number
        self.block = block
        self.dir = os.path.join(batch_dir, dir_name(block.number))
        self.inputs = inputs
        self.fingerprint = inputs.fingerprint(block)

    def path(self, name):
        return os.path.join(self.dir, name)

    def made_from_these_inputs(self):
        try:
            with open(self.path(INPUTS)) as f:
                return f.read().strip() == self.fingerprint
        except OSError:
            return False

    def result(self):
        """The recorded outcome, or None."""
        try:
            with open(self.path(RESULT)) as f:
                return json.load(f)
        except (OSError, ValueError):
            return None

    def exit_record(self):
        """(status, start, end, host) from the task's record, or None."""
        try:
            with open(self.path(EXIT)) as f:
                items = f.read().split()
            return int(items[0]), float(items[1]), float(items[2]), " ".join(items[3:])
        except (OSError, ValueError, IndexError):
            return None

    def make(self):
        """A fresh run directory for this dataset: whatever an earlier
        attempt left is removed first; the fingerprint is written last."""
        if os.path.lexists(self.dir):
            shutil.rmtree(self.dir)
        os.makedirs(self.dir)
        write_file(self.path(CONTROL), self.inputs.control)
        write_file(self.path(PROTOCOL), self.block.text)
        if self.inputs.mesh_path:
            # q5 only reads mesh.dat: a link will do where the file system has them
            try:
                os.link(self.inputs.mesh_path, self.path(MESH))
            except OSError:
                shutil.copyfile(self.inputs.mesh_path, self.path(MESH))
        if self.inputs.start_path and not os.path.isabs(self.inputs.start_name):
            # copied, never linked: q5 may write a file of the same name
            target = self.path(self.inputs.start_name)
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copyfile(self.inputs.start_path, target)
        write_file(self.path(INPUTS), (self.fingerprint + "\n").encode())

    def record(self, outcome):
        write_file(self.path(RESULT), (json.dumps(outcome, indent=1) + "\n").encode())

    def gather(self, run_dir):
        """Moves the dataset's own files (f001...) into run_dir under the
        dataset's stem, and copies the electrode files if they differ from
        run_dir's. Returns the names written in run_dir."""
        written = []
        for name in sorted(os.listdir(self.dir)):
            new = gathered_name(name, self.number)
            if new is None or not os.path.isfile(self.path(name)):
                continue
            if name == self.inputs.start_name and \
                    _read_bytes(self.path(name)) == _read_bytes(self.inputs.start_path):
                continue  # the start model itself, untouched by q5
            os.replace(self.path(name), os.path.join(run_dir, new))
            written.append(new)
        for name in ELECTRODE_FILES:
            src, dst = self.path(name), os.path.join(run_dir, name)
            if os.path.isfile(src) and not (os.path.isfile(dst) and _read_bytes(src) == _read_bytes(dst)):
                tmp = dst + ".q5-batch"
                shutil.copyfile(src, tmp)
                os.replace(tmp, dst)
                written.append(name)
        return written


def write_file(path, data):
    """Writes a file whole: a reader sees the old one or the new one."""
    tmp = path + ".part"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)
