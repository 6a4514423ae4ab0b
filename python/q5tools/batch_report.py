"""How each dataset of a batch ended, told from its task's exit record and
q5's console and log; the summary table (console and summary.csv) and the
gathered Q5.out with every dataset's log in dataset order."""
import csv
import io
import os
import re
import signal

from .batch_dirs import CONSOLE, LOG, dir_name, stem

_ITERATION = re.compile(r"^\s*Iteration\s+(\d+)")
_FINAL_RMS = re.compile(r"^\s*Final RMS Misfit:\s*(\S+)")
_PROCESSING = re.compile(rb"^ Processing dataset (...)(\r?)$")


def _lines(path):
    try:
        with open(path, errors="replace") as f:
            return f.read().splitlines()
    except OSError:
        return []


def _last(lines):
    return next((l.strip() for l in reversed(lines) if l.strip()), "")


def _squeeze(text):
    return " ".join(text.split())


def dataset_words(log):
    """The closing words, iterations and final RMS (text as q5 printed it)
    of the first dataset in a log."""
    words, iterations, rms = None, 0, None
    for line in log:
        text = line.strip()
        if text.startswith("Processing dataset") and not text.endswith(" 1"):
            break
        m = _ITERATION.match(line)
        if m:
            iterations = int(m.group(1))
        m = _FINAL_RMS.match(line)
        if m:
            rms = m.group(1)
        if "Outputing results to file" in text:
            words = _squeeze(text.split(" - Outputing")[0])
        elif "Solution not converged in" in text or "Initial RMS shows solution" in text:
            words = _squeeze(text)
    return words, iterations, rms


def judge(dataset):
    """The outcome of a dataset whose task has ended (or was lost): a dict
    with ok, words, iterations, rms, seconds, host."""
    console = _lines(dataset.path(CONSOLE))
    log = _lines(dataset.path(LOG))
    out = {"dataset": dataset.number, "ok": False, "words": "", "iterations": None,
           "rms": None, "seconds": None, "host": ""}
    record = dataset.exit_record()
    if record is None:
        out["words"] = "no exit record: the task was killed or never ran"
        return out
    status, start, end, host = record
    out.update(seconds=round(end - start, 3), host=host)
    last = _last(console)
    words, iterations, rms = dataset_words(log)
    out.update(iterations=iterations, rms=rms)
    if status == 0 and last == "All ok":
        out.update(ok=True, words=words or "All ok")
    elif status == 0 and last == "FATAL error":
        out["words"] = "FATAL error: " + _squeeze(_last(log) or _last(console[:-1]))
    elif status > 128:
        try:
            name = signal.Signals(status - 128).name
        except ValueError:
            name = "unknown"
        out["words"] = f"killed by signal {status - 128} ({name})"
    else:
        out["words"] = f"exit status {status}: {_squeeze(last)}"
    return out


def log_tail(dataset, count=12):
    """The last lines of a dataset's console, to show with its failure."""
    lines = [l for l in _lines(dataset.path(CONSOLE)) if l.strip()]
    return lines[-count:]


HEADER = ["dataset", "exit words", "iterations", "final RMS", "time s"]


def _row(outcome):
    seconds = outcome.get("seconds")
    iterations = outcome.get("iterations")
    return [str(outcome["dataset"]), outcome.get("words") or "",
            "" if iterations is None else str(iterations), outcome.get("rms") or "",
            "" if seconds is None else f"{seconds:.2f}"]


def summary_table(outcomes):
    """The summary as console text, one line per dataset."""
    rows = [HEADER] + [_row(o) for o in outcomes]
    widths = [max(len(r[k]) for r in rows) for k in range(len(HEADER))]
    lines = []
    for r in rows:
        cells = [r[0].rjust(widths[0]), r[1].ljust(widths[1]), r[2].rjust(widths[2]),
                 r[3].rjust(widths[3]), r[4].rjust(widths[4])]
        lines.append("  ".join(cells).rstrip())
    return "\n".join(lines)


def summary_csv(outcomes):
    buf = io.StringIO()
    w = csv.writer(buf, lineterminator="\n")
    w.writerow(HEADER)
    for o in outcomes:
        w.writerow(_row(o))
    return buf.getvalue()


def _i3(n):
    return f"{n:3d}" if n <= 999 else "***"


def gathered_log(datasets, outcomes):
    """Q5.out of the whole batch: each dataset's log in dataset order under a
    line that names it, its 'Processing dataset' records numbered as in one
    run over the whole protocol.dat."""
    out = bytearray()
    for ds, o in zip(datasets, outcomes):
        words = o.get("words") or "not run"
        out += (f" ==== q5-batch: dataset {ds.number}, stem {stem(ds.number)}, "
                f"run in batch/{dir_name(ds.number)}: {words} ====\n").encode()
        try:
            with open(ds.path(LOG), "rb") as f:
                text = f.read()
        except OSError:
            out += b" (no log)\n"
            continue
        for line in text.splitlines(keepends=True):
            body = line.rstrip(b"\n")
            m = _PROCESSING.match(body)
            if m and m.group(1).strip().isdigit():
                n = int(m.group(1)) + ds.number - 1
                line = b" Processing dataset " + _i3(n).encode() + m.group(2) + line[len(body):]
            out += line
        if text and not text.endswith(b"\n"):
            out += b"\n"
    return bytes(out)


def write_reports(run_dir, batch_dir, datasets, outcomes, write):
    """summary.csv under batch_dir and the gathered Q5.out in run_dir."""
    write(os.path.join(batch_dir, "summary.csv"), summary_csv(outcomes).encode())
    write(os.path.join(run_dir, LOG), gathered_log(datasets, outcomes))
