"""q5-batch through a real Slurm cluster of one node on this machine:
munged, slurmctld and slurmd started here (as root) with their own key,
state, spool, ports and configuration in a scratch directory, a batch run as
one job array, the results checked against a sequential q5 run, and the
daemons stopped by their own process ids."""
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time

import pytest

from conftest import BIN, q5_binary
from test_batch import assert_identical, control, make_run, protocol, resistances, sequential  # noqa: F401

DAEMONS = ("munged", "slurmctld", "slurmd", "sbatch", "sinfo")


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


def _tail(path, count=6):
    try:
        return "\n".join(open(path, errors="replace").read().splitlines()[-count:])
    except OSError:
        return "(no log)"


@pytest.fixture(scope="module")
def cluster():
    """A one-node cluster; yields the environment its clients need."""
    missing = [d for d in DAEMONS if not shutil.which(d)]
    if missing:
        pytest.skip(f"Slurm cluster not started: {', '.join(missing)} not installed "
                    "(Debian packages slurm-wlm and munge)")
    if os.geteuid() != 0:
        pytest.skip("Slurm cluster not started: slurmd must run as root")
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
            logs = "; ".join(f"{n}: {_tail(f'{d}/{n}.out', 2)}" for n, _ in daemons)
            pytest.skip(f"Slurm cluster not started (node state '{state}'): {logs}")
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


def slurm_batch(run, cluster, *args):
    return subprocess.run([sys.executable, os.path.join(BIN, "q5-batch"), run, "--engine", "slurm",
                           "--q5", q5_binary(), *args], capture_output=True, text=True, env=cluster,
                          timeout=300)


def test_batch_as_a_slurm_job_array(tmp_path, resistances, cluster):  # noqa: F811
    run = make_run(tmp_path / "run", control(), protocol(resistances, 3))
    sequential(run, tmp_path / "seq")
    done = slurm_batch(run, cluster, "-j", "2", "--sbatch-args", "--partition=q5 --time=10")
    assert done.returncode == 0, done.stdout + done.stderr
    assert "a Slurm job array, at most 2 running at a time (--partition=q5 --time=10)" in done.stdout
    assert_identical(tmp_path / "seq", run, range(1, 4))
    # every dataset ran as its own array task, on the cluster's node
    assert sorted(os.listdir(run / "batch" / "slurm")) == [f"task-{k}.out" for k in range(1, 4)]
    node = socket.gethostname().split(".")[0]
    for k in range(1, 4):
        assert open(run / "batch" / f"{k:03d}" / "q5-batch.exit").read().split()[3] == node


def test_more_datasets_than_an_array_holds(tmp_path, resistances, cluster):  # noqa: F811
    """The cluster's MaxArraySize of 5 allows indices 1 to 4: four tasks, the
    first two of which run two datasets each."""
    run = make_run(tmp_path / "run", control(), protocol(resistances, 6))
    sequential(run, tmp_path / "seq")
    done = slurm_batch(run, cluster)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "arrays hold at most 4 tasks: each task runs every 4th dataset" in done.stdout
    assert sorted(os.listdir(run / "batch" / "slurm")) == [f"task-{k}.out" for k in range(1, 5)]
    assert_identical(tmp_path / "seq", run, range(1, 7))
