"""q5-batch through a real Slurm cluster of one node on this machine:
munged, slurmctld and slurmd started here (as root) with their own key,
state, spool, ports and configuration in a scratch directory, a batch run as
one job array, the results checked against a sequential q5 run, and the
daemons stopped by their own process ids. It needs root and starts daemons,
so it runs only where Q5_TEST_SLURM=1 asks for it (CI sets it); asked for,
a cluster that cannot start is a failure, not a skip."""
import os
import shutil
import socket
import subprocess
import tempfile
import time

import pytest

from conftest import (THREAD_LINE, assert_identical, control, make_run, protocol, q5_binary, sequential,
                      thread_line, tool)

DAEMONS = ("munged", "slurmctld", "slurmd", "sbatch", "sinfo")
pytestmark = pytest.mark.skipif(os.environ.get("Q5_TEST_SLURM") != "1",
                                reason="starts Slurm daemons as root: set Q5_TEST_SLURM=1 to run it")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def slurm_conf(d, node, cpus):
    return f"""ClusterName=q5batch
SlurmctldHost={node}(127.0.0.1)
SlurmUser=root
SlurmdUser=root
SlurmctldPort={free_port()}
SlurmdPort={free_port()}
AuthType=auth/munge
AuthInfo=socket={d}/munge.socket
CredType=cred/munge
StateSaveLocation={d}/state
SlurmdSpoolDir={d}/spool
SlurmctldPidFile={d}/slurmctld.pid
SlurmdPidFile={d}/slurmd.pid
SlurmctldLogFile={d}/slurmctld.log
SlurmdLogFile={d}/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
JobCompType=jobcomp/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MpiDefault=none
ReturnToService=2
MaxArraySize=5
NodeName={node} NodeAddr=127.0.0.1 CPUs={cpus} State=UNKNOWN
PartitionName=q5 Nodes={node} Default=YES MaxTime=INFINITE State=UP
"""


@pytest.fixture(scope="module")
def cluster():
    """A one-node cluster; yields the environment its clients need."""
    missing = [d for d in DAEMONS if not shutil.which(d)]
    if missing:
        pytest.fail(f"Slurm cluster not started: {', '.join(missing)} not installed "
                    "(Debian packages slurm-wlm and munge)")
    if os.geteuid() != 0:
        pytest.fail("Slurm cluster not started: slurmd must run as root")
    d = tempfile.mkdtemp(prefix="q5-slurm-")
    os.makedirs(f"{d}/state")
    os.makedirs(f"{d}/spool")
    with open(f"{d}/munge.key", "wb") as f:
        f.write(os.urandom(1024))
    os.chmod(f"{d}/munge.key", 0o600)
    node = socket.gethostname().split(".")[0]
    with open(f"{d}/slurm.conf", "w") as f:
        f.write(slurm_conf(d, node, os.cpu_count()))
    env = dict(os.environ, SLURM_CONF=f"{d}/slurm.conf")
    daemons = []

    def start(name, argv):
        log = open(f"{d}/{name}.out", "w")
        daemons.append((name, subprocess.Popen(argv, stdout=log, stderr=subprocess.STDOUT,
                                               stdin=subprocess.DEVNULL, env=env)))
    try:
        start("munged", ["munged", "--foreground", "--force", f"--socket={d}/munge.socket",
                         f"--key-file={d}/munge.key", f"--pid-file={d}/munged.pid",
                         f"--seed-file={d}/munged.seed", f"--log-file={d}/munged.log"])
        deadline = time.time() + 10
        while not os.path.exists(f"{d}/munge.socket") and time.time() < deadline:
            time.sleep(0.1)
        start("slurmctld", ["slurmctld", "-D", "-c", "-f", f"{d}/slurm.conf"])
        start("slurmd", ["slurmd", "-D", "-f", f"{d}/slurm.conf"])
        deadline = time.time() + 30
        state = ""
        while time.time() < deadline:
            dead = [n for n, p in daemons if p.poll() is not None]
            if dead:
                break
            state = subprocess.run(["sinfo", "-h", "-o", "%T"], env=env, capture_output=True,
                                   text=True).stdout.strip()
            if state == "idle":
                break
            time.sleep(0.5)
        if state != "idle":
            logs = "; ".join(f"{n}: " + " ".join(open(f"{d}/{n}.out", errors="replace").read().splitlines()[-2:])
                             for n, _ in daemons)
            pytest.fail(f"Slurm cluster not started (node state '{state}'): {logs}")
        yield env
    finally:
        for name, p in reversed(daemons):      # by their own process ids
            if p.poll() is None:
                p.terminate()
                try:
                    p.wait(timeout=20)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait()
        shutil.rmtree(d, ignore_errors=True)


# datasets, options, what q5-batch says, array tasks, the threads each q5 says it runs on (None: one)
@pytest.mark.parametrize("count, args, says, tasks, threads", [
    (3, ["-j", "2", "--sbatch-args", "--partition=q5 --time=10"],
     "a Slurm job array, at most 2 running at a time (--partition=q5 --time=10)", 3, None),
    # the cluster's MaxArraySize of 5 allows indices 1 to 4: four tasks, the first two run two datasets each
    (6, [], "arrays hold at most 4 tasks: each task runs every 4th dataset", 4, None),
    (2, ["--threads", "2"], "a Slurm job array, q5 on 2 threads each", 2, 2),
    # every CPU of the task, which is one unless asked for: not the node's two, which the
    # cluster's task/none would let q5 see as its own
    (2, ["--threads", "0"], "a Slurm job array, q5 on every CPU of its task", 2, None),
    (2, ["--threads", "0", "--sbatch-args", "--partition=q5 --cpus-per-task=2"],
     "q5 on every CPU of its task", 2, 2),
])
def test_batch_as_a_slurm_job_array(tmp_path, resistances, cluster, count, args, says, tasks, threads):
    run = make_run(tmp_path / "run", control(), protocol(resistances, count))
    sequential(run, tmp_path / "seq")
    done = tool("q5-batch", run, "--engine", "slurm", "--q5", q5_binary(), *args, env=cluster, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    assert says in done.stdout
    assert_identical(tmp_path / "seq", run, range(1, count + 1))
    # every dataset ran in an array task, on the cluster's node
    assert sorted(os.listdir(run / "batch" / "slurm")) == [f"task-{k}.out" for k in range(1, tasks + 1)]
    node = socket.gethostname().split(".")[0]
    for k in range(1, count + 1):
        assert open(run / "batch" / f"{k:03d}" / "q5-batch.exit").read().split()[3] == node
        assert thread_line(run / "batch" / f"{k:03d}" / "Q5.out") == \
            (None if threads is None else THREAD_LINE.format(threads))
