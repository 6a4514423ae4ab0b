"""q5-batch DIR: the datasets of one inverse run, each run by q5 on its own
through GNU parallel or a Slurm job array, gathered into DIR under the names
one q5 run over the whole protocol.dat gives them."""
import fcntl
import glob
import os
import sys
import time

from .batch_dirs import BATCH, Dataset, Inputs, dir_name, stem, write_file
from .batch_engines import ParallelEngine, SlurmEngine, write_runner
from .batch_report import judge, log_tail, summary_table, write_reports
from .cli import Parser, command
from .errors import InputError
from .locate import find_q5
from .options import BatchOptions, add_options, from_args
from .runlayout import PROTOCOL, cut_blocks, read_layout
from .threads import cores

PROG = "q5-batch"
SEQUENTIAL_NOTE = ("Unlike one q5 run over the whole protocol.dat, which stops at the first "
                   "FATAL error and never reads the blocks after it, the batch runs every "
                   "other dataset.")

DESCRIPTION = f"""\
Run the datasets (blocks of protocol.dat) of the inverse run in DIR each on
its own, with GNU parallel on this machine's cores or on ssh hosts, or as one
Slurm job array, and gather the results into DIR under the names one q5 run
gives them (dataset k's f001... become fKKK...). Each dataset runs in
DIR/batch/NNN/, where its Q5.out, fort.18 and fort.19 stay; DIR/Q5.out gets
every dataset's log in dataset order and DIR/batch/summary.csv the summary.
A second q5-batch on the same DIR runs only the datasets without a finished
result. {SEQUENTIAL_NOTE}"""


def count_outcome(progress, ds, outcome):
    """Counts a settled dataset as done or failed, reporting a failure."""
    if outcome["ok"]:
        progress.done += 1
    else:
        progress.failed += 1
        report_failure(progress, ds, outcome)
    return outcome


def duration(seconds):
    seconds = int(round(seconds))
    if seconds < 60:
        return f"{seconds} s"
    if seconds < 3600:
        return f"{seconds // 60} min {seconds % 60:02d} s"
    return f"{seconds // 3600} h {seconds // 60 % 60:02d} min"


class Progress:
    """The progress line: datasets done, failed and left, and the time to go
    at the rate of this session's finished datasets."""

    def __init__(self, total, stream=sys.stdout):
        self.total, self.stream = total, stream
        self.done = self.failed = self.finished_now = 0
        self.start = time.time()
        self.tty = stream.isatty()
        self.shown = None
        self.shown_at = 0.0
        self.open = False

    def line(self):
        left = self.total - self.done - self.failed
        text = f"{PROG}: {self.done} done, {self.failed} failed, {left} left"
        if left and self.finished_now:
            rate = (time.time() - self.start) / self.finished_now
            text += f", about {duration(rate * left)} to go"
        elif left:
            text += ", time to go not known yet"
        return text

    def show(self, force=False):
        """On a terminal the line is rewritten in place; elsewhere a new line
        is written when the counts change, at most every 10 s until the end."""
        text = self.line()
        key = (self.done, self.failed) if not self.tty else text
        if key == self.shown and not force:
            return
        left = self.total - self.done - self.failed
        if not self.tty and not force and left and self.shown is not None \
                and time.time() - self.shown_at < 10:
            return
        self.shown, self.shown_at = key, time.time()
        if self.tty:
            self.stream.write("\r" + text + "\033[K")
            self.open = True
        else:
            self.stream.write(text + "\n")
        self.stream.flush()

    def say(self, text):
        """A message between progress lines."""
        if self.open:
            self.stream.write("\n")
            self.open = False
        self.stream.write(text + "\n")
        self.stream.flush()

    def close(self):
        if self.open:
            self.stream.write("\n")
            self.open = False


def report_failure(progress, ds, outcome):
    lines = [f"{PROG}: dataset {ds.number} ({stem(ds.number)}, batch/{dir_name(ds.number)}) "
             f"failed: {outcome['words']}"]
    tail = log_tail(ds)
    if tail:
        lines.append(f"  last lines of {ds.path('console.txt')}:")
        lines += ["    " + l for l in tail]
    lines.append(f"  its log: {ds.path('Q5.out')}")
    progress.say("\n".join(lines))


def settle(ds, run_dir):
    """Judges a dataset whose task has ended; gathers it if it ended well."""
    outcome = judge(ds)
    if outcome["ok"]:
        ds.gather(run_dir)
    ds.record(outcome)
    return outcome


def make_engine(opts, batch_dir, q5):
    jobs = opts.jobs
    if opts.engine == "slurm":
        if opts.hosts:
            raise InputError(opts.hosts, "--hosts belongs to the parallel engine; "
                             "Slurm chooses the nodes")
        return SlurmEngine(batch_dir, q5, jobs, opts.threads, opts.sbatch_args)
    if opts.sbatch_args:
        raise InputError("--sbatch-args", "belongs to the slurm engine")
    if opts.hosts:
        if not os.path.isfile(opts.hosts):
            raise InputError(opts.hosts, "not found")
        return ParallelEngine(batch_dir, q5, jobs, opts.threads, os.path.abspath(opts.hosts))
    return ParallelEngine(batch_dir, q5, jobs or cores(), opts.threads)


def run_engine(engine, pending, run_dir, progress, outcomes):
    """Starts the engine on the pending datasets and gathers each as soon as
    its task has ended. Returns the engine's exit status."""
    tag = f"{int(time.time())}-{os.getpid()}"
    engine.start([ds.dir for ds in pending], tag)
    waiting = list(pending)
    while True:
        for ds in list(waiting):
            if ds.exit_record() is None:
                continue
            waiting.remove(ds)
            outcomes[ds.number] = count_outcome(progress, ds, settle(ds, run_dir))
            progress.finished_now += 1
        progress.show()
        if engine.poll() is not None or not waiting:
            break
        time.sleep(0.5)
    # once every task has its record the engine is only closing down (sbatch
    # --wait may poll for many seconds more; ending it leaves the job alone)
    code = engine.finish(timeout=None if waiting else 3)
    for ds in waiting:  # tasks the engine ended without a record
        outcomes[ds.number] = count_outcome(progress, ds, settle(ds, run_dir))
    progress.show()
    progress.close()
    return code


@command(PROG)
def main(argv=None):
    p = Parser(prog=PROG, description=DESCRIPTION)
    p.add_argument("dir", metavar="DIR", help="run directory with Q5.in and protocol.dat (an inverse job)")
    add_options(p, BatchOptions)
    args = p.parse_args(argv)
    opts = from_args(BatchOptions, args)
    if opts.jobs is not None and opts.jobs < 1:
        p.error("-j needs a positive number")
    run_dir = os.path.abspath(args.dir)
    if not os.path.isdir(run_dir):
        raise InputError(args.dir, "is not a directory")
    layout = read_layout(run_dir)
    found = cut_blocks(os.path.join(run_dir, PROTOCOL), layout.items)
    q5 = find_q5(opts.q5, PROG)
    inputs = Inputs(run_dir, layout)
    batch_dir = os.path.join(run_dir, BATCH)
    os.makedirs(batch_dir, exist_ok=True)
    lock = open(os.path.join(batch_dir, "q5-batch.lock"), "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        raise InputError(batch_dir, "another q5-batch is working on this run")
    engine = make_engine(opts, batch_dir, q5)
    datasets = [Dataset(batch_dir, b, inputs) for b in found.blocks]

    print(f"{PROG}: {run_dir}: {len(datasets)} dataset(s) in {PROTOCOL}, {layout.describe()}; "
          f"{found.end}")
    if found.problem:
        print(f"{PROG}: warning: {found.problem}")
    for old in glob.glob(os.path.join(batch_dir, "tasks-*.txt")):
        os.remove(old)

    outcomes, pending = {}, []
    for ds in datasets:
        if ds.made_from_these_inputs():
            result = ds.result()
            if result and result.get("ok"):
                ds.gather(run_dir)       # whatever an interrupted gathering left
                outcomes[ds.number] = result
                continue
            if result is None and ds.exit_record() is not None:
                outcome = settle(ds, run_dir)
                if outcome["ok"]:
                    outcomes[ds.number] = outcome
                    continue
        ds.make()
        pending.append(ds)
    before = len(outcomes)
    if before:
        print(f"{PROG}: {before} dataset(s) finished before, {len(pending)} to run")

    progress = Progress(len(datasets))
    progress.done = before
    code = 0
    if pending:
        write_runner(batch_dir, engine.threads_setting())
        print(f"{PROG}: running {len(pending)} dataset(s) with {engine.describe()}")
        excess = engine.excess(len(pending))
        if excess:
            print(f"{PROG}: warning: {excess}", file=sys.stderr)
        try:
            code = run_engine(engine, pending, run_dir, progress, outcomes)
        except KeyboardInterrupt:
            engine.stop()
            engine.finish(timeout=10)
            progress.close()
            print(f"{PROG}: interrupted; finished datasets are gathered, and {PROG} "
                  f"{args.dir} runs the others", file=sys.stderr)
            return 130
        ran = sum(1 for ds in pending if ds.exit_record() is not None)
        if ran == 0 and code != 0:
            print(f"{PROG}: the {engine.name} engine ended with status {code} before any task ran:",
                  file=sys.stderr)
            for line in engine.log_tail():
                print("  " + line, file=sys.stderr)
    else:
        progress.show(force=True)

    ordered = [outcomes.get(ds.number) or {"dataset": ds.number, "ok": False, "words": "not run"}
               for ds in datasets]
    if datasets:
        print(summary_table(ordered))
        write_reports(run_dir, batch_dir, datasets, ordered, write_file)
        print(f"{PROG}: summary in {os.path.join(batch_dir, 'summary.csv')}, "
              f"every dataset's log in {os.path.join(run_dir, 'Q5.out')}")
    failed = [o for o in ordered if not o.get("ok")]
    if failed:
        print(f"{PROG}: {len(failed)} dataset(s) failed: "
              + ", ".join(str(o["dataset"]) for o in failed) + f"; the other {len(ordered) - len(failed)} "
              "are gathered")
        if any(o.get("words", "").startswith("FATAL error") for o in failed):
            print(f"{PROG}: {SEQUENTIAL_NOTE}")
    return 1 if failed or found.problem else 0
