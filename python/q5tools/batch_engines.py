"""The engines that run a batch's tasks: GNU parallel on this machine's
cores or on ssh hosts, and a Slurm job array. Each task is the same small
shell script, run-dataset.sh, which runs q5 in one dataset directory and
records how it ended; q5-batch itself only starts the engine, watches the
directories and gathers."""
import os
import shlex
import signal
import subprocess
import time

from . import threads as q5threads
from .batch_dirs import write_file
from .errors import InputError

RUNNER = "run-dataset.sh"
SLURM_TASK = "slurm-task.sh"

RUNNER_TEXT = """#!/bin/sh
# One task of q5-batch: runs q5 in one dataset directory and records how it
# ended in q5-batch.exit: exit status (128 + N after signal N), start and
# end time (seconds since the epoch) and host.
# usage: run-dataset.sh Q5 DATASET_DIR
q5=$1
# The threads of q5 are the batch's, whatever the environment of the task
# holds: a Q5_THREADS exported in a user's shell must not multiply the jobs.
@THREADS@
export Q5_THREADS
# a task of an earlier batch whose list is gone finds no directory here
[ -n "$2" ] && [ -f "$2/Q5.in" ] || exit 2
cd "$2" || exit 2
rm -f q5-batch.exit q5-batch.exit.part
# A signal to the task also reaches q5; the record is still written.
trap 'caught=1' HUP INT TERM
start=$(date +%s.%N)
"$q5" < /dev/null > console.txt 2>&1
status=$?
end=$(date +%s.%N)
echo "$status $start $end $(uname -n)" > q5-batch.exit.part
mv q5-batch.exit.part q5-batch.exit
exit $status
"""


def write_runner(batch_dir, threads_setting):
    """The task script, with the shell lines that set Q5_THREADS."""
    path = os.path.join(batch_dir, RUNNER)
    write_file(path, RUNNER_TEXT.replace("@THREADS@", threads_setting).encode())
    os.chmod(path, 0o755)
    return path


class Engine:
    """A started engine: a process q5-batch waits for."""

    name = ""

    def __init__(self, batch_dir, q5, jobs, threads=None):
        self.batch_dir = batch_dir
        self.q5 = q5
        self.jobs = jobs
        self.threads = threads     # --threads; None: one
        self.process = None
        self.log_path = os.path.join(batch_dir, "engine.log")
        self.log = None

    def _popen(self, argv):
        self.log = open(self.log_path, "w")
        try:
            self.process = subprocess.Popen(argv, stdout=self.log, stderr=subprocess.STDOUT,
                                            stdin=subprocess.DEVNULL, text=True)
        except FileNotFoundError:
            raise InputError(argv[0], f"not found: the {self.name} engine needs it "
                             f"(Debian package {self.package})")

    def threads_setting(self):
        """Shell lines of the runner that set Q5_THREADS."""
        return f"Q5_THREADS={1 if self.threads is None else self.threads}"

    def describe_threads(self):
        return "" if self.threads is None else f", q5 on {q5threads.words(self.threads)} each"

    def excess(self, tasks):
        """A warning when the tasks ask for more threads than there are
        cores, else None."""
        return None

    def poll(self):
        return self.process.poll()

    def finish(self, timeout=None):
        try:
            code = self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.terminate()
            code = self.process.wait()
        self.log.close()
        return code

    def log_tail(self, count=8):
        try:
            with open(self.log_path, errors="replace") as f:
                return [l.rstrip() for l in f.read().splitlines() if l.strip()][-count:]
        except OSError:
            return []


class ParallelEngine(Engine):
    """GNU parallel: -j jobs at a time here, or on the hosts of a file (one
    sshlogin a line, as parallel reads them; ':' is this machine), which
    must see DIR and q5 under the same paths."""

    name, package = "parallel", "parallel"

    def __init__(self, batch_dir, q5, jobs, threads=None, hosts=None):
        super().__init__(batch_dir, q5, jobs, threads)
        self.hosts = hosts

    def describe(self):
        where = f"on the hosts of {self.hosts}" if self.hosts else "on this machine"
        per = " per host" if self.hosts else ""
        jobs = f"{self.jobs} job(s) at a time{per}" if self.jobs else "one job per core"
        return f"GNU parallel {where}, {jobs}{self.describe_threads()}"

    def excess(self, tasks):
        # Here the cores are known; on ssh hosts only what is too many on
        # any host can be told.
        if self.hosts:
            return q5threads.hosts_excess(self.jobs, self.threads)
        return q5threads.local_excess(min(self.jobs, tasks), self.threads, q5threads.cores())

    def start(self, dirs, tag):
        listing = os.path.join(self.batch_dir, f"tasks-{tag}.txt")
        write_file(listing, "".join(d + "\n" for d in dirs).encode())
        argv = ["parallel", "--will-cite", "--halt", "never",
                "--joblog", os.path.join(self.batch_dir, "parallel.joblog")]
        if self.jobs:
            argv += ["-j", str(self.jobs)]
        if self.hosts:
            argv += ["--sshloginfile", self.hosts]
        argv += ["sh", os.path.join(self.batch_dir, RUNNER), self.q5, "::::", listing]
        self._popen(argv)

    def stop(self):
        if self.process and self.process.poll() is None:
            # parallel passes a TERM on to its jobs when it is sent twice
            for _ in range(2):
                self.process.send_signal(signal.SIGTERM)
                time.sleep(0.2)


def slurm_array_limit(default=1001):
    """MaxArraySize of the cluster: array indices run below it."""
    try:
        out = subprocess.run(["scontrol", "show", "config"], capture_output=True, text=True,
                             timeout=30).stdout
    except (OSError, subprocess.TimeoutExpired):
        return default
    for line in out.splitlines():
        key, _, value = line.partition("=")
        if key.strip() == "MaxArraySize" and value.strip().isdigit():
            return int(value.strip())
    return default


class SlurmEngine(Engine):
    """One Slurm job array, a task per dataset, %N running at a time. A
    batch of more datasets than the cluster's MaxArraySize allows gives each
    task every T-th dataset of the list (T tasks)."""

    name, package = "slurm", "slurm-client (slurm-wlm)"

    def __init__(self, batch_dir, q5, jobs, threads=None, sbatch_args=""):
        super().__init__(batch_dir, q5, jobs, threads)
        self.sbatch_args = shlex.split(sbatch_args or "")
        self.job_id = None
        self.tasks = None

    def describe(self):
        limit = f", at most {self.jobs} running at a time" if self.jobs else ""
        extra = f" ({' '.join(self.sbatch_args)})" if self.sbatch_args else ""
        return f"a Slurm job array{limit}{extra}{self.describe_threads()}"

    def cpus_per_task(self):
        return self.threads if self.threads else 1

    def threads_setting(self):
        if self.threads != q5threads.EVERY_CORE:
            return super().threads_setting()
        # Every CPU Slurm gave the task (--cpus-per-task or --exclusive in
        # --sbatch-args), not the node's: without task binding q5 could
        # run on all of them.
        return (f"Q5_THREADS=${{SLURM_CPUS_ON_NODE:-{q5threads.EVERY_CORE}}}\n"
                f"[ \"$Q5_THREADS\" -le {q5threads.MAX_THREADS} ] 2>/dev/null || "
                f"Q5_THREADS={q5threads.EVERY_CORE}")

    def describe_threads(self):
        if self.threads == q5threads.EVERY_CORE:
            return ", q5 on every CPU of its task"
        return super().describe_threads()

    def start(self, dirs, tag):
        listing = os.path.join(self.batch_dir, f"tasks-{tag}.txt")
        write_file(listing, "".join(d + "\n" for d in dirs).encode())
        self.tasks = min(len(dirs), max(slurm_array_limit() - 1, 1))
        script = os.path.join(self.batch_dir, SLURM_TASK)
        write_file(script, (
            "#!/bin/sh\n"
            "# One array task of q5-batch: the dataset directories on lines\n"
            f"# SLURM_ARRAY_TASK_ID, + {self.tasks}, + {2 * self.tasks}, ... of the task list, each run by\n"
            "# run-dataset.sh.\n"
            f"list={shlex.quote(listing)}\n"
            "n=$(wc -l < \"$list\")\n"
            "i=$SLURM_ARRAY_TASK_ID\n"
            "while [ \"$i\" -le \"$n\" ]; do\n"
            "  dir=$(sed -n \"${i}p\" \"$list\")\n"
            f"  sh {shlex.quote(os.path.join(self.batch_dir, RUNNER))} {shlex.quote(self.q5)} \"$dir\"\n"
            f"  i=$((i + {self.tasks}))\n"
            "done\n").encode())
        if self.tasks < len(dirs):
            print(f"q5-batch: the cluster's arrays hold at most {self.tasks} tasks: each task runs "
                  f"every {self.tasks}th dataset of the list")
        outputs = os.path.join(self.batch_dir, "slurm")
        os.makedirs(outputs, exist_ok=True)
        array = f"1-{self.tasks}" + (f"%{self.jobs}" if self.jobs else "")
        argv = ["sbatch", "--parsable", "--wait", f"--array={array}", "--job-name=q5-batch",
                "--ntasks=1", f"--cpus-per-task={self.cpus_per_task()}",
                f"--output={os.path.join(outputs, 'task-%a.out')}", f"--chdir={self.batch_dir}",
                *self.sbatch_args, script]
        self._popen(argv)

    def _read_job_id(self):
        if self.job_id is None:
            try:
                with open(self.log_path) as f:
                    first = f.readline().strip()
                if first.split(";")[0].isdigit():
                    self.job_id = first.split(";")[0]
            except OSError:
                pass
        return self.job_id

    def poll(self):
        self._read_job_id()
        return super().poll()

    def stop(self):
        job = self._read_job_id()
        if job:
            subprocess.run(["scancel", job], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if self.process and self.process.poll() is None:
            self.process.terminate()
