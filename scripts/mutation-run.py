#!/usr/bin/python3
"""Mutation run: how many small faults planted in q5's source the tests catch.

Each mutant changes one snippet of src/ (an operator, an index, a constant),
found by its text so that the same list applies to any revision that still
holds the snippet. The revision is unpacked into a scratch tree, built once
in Release, and for each mutant rebuilt and tested with the release tree's
ctest (the C++ tests and the tools' tests, stopping at the first failure).
A mutant is killed when the build's tests fail; one that does not compile
is reported and left out of the share.

    scripts/mutation-run.py [--rev REV] [--work DIR] [--jobs N] [--only I,J]
"""
import argparse
import os
import shutil
import subprocess
import sys
import time

# (file, snippet, mutated snippet): 30 places spread over the subsystems.
MUTANTS = [
    # text layer
    ("src/textio/textio.cpp", "count = count * 10 + (*q - '0');", "count = count * 10 + (*q - '1');"),
    ("src/textio/textio.cpp", "if (neg) v = -v;", "if (!neg) v = -v;"),
    ("src/textio/textio.cpp", "if (exp_digits == 0 || i != n) return false;", "if (exp_digits == 0) return false;"),
    ("src/textio/textio.cpp", "if (len > 0 && c.line[len - 1] == '\\r') --len;", "if (len > 0 && c.line[len - 1] == '\\t') --len;"),
    # run: control file and timing
    ("src/run/control_file.cpp", "if (ctx->res_calc < 0 || ctx->res_calc > 3)", "if (ctx->res_calc < 0 || ctx->res_calc > 2)"),
    ("src/run/control_file.cpp", "ctx->num_wavenumbers = ctx->flux_type > 2.0 ? 10 : 1;", "ctx->num_wavenumbers = ctx->flux_type > 2.0 ? 12 : 1;"),
    ("src/run/control_file.cpp", "if (ctx->reg_mode < 0 || ctx->reg_mode > 2)", "if (ctx->reg_mode < 0 || ctx->reg_mode > 1)"),
    ("src/run/timers.cpp", "p.sum * 100.0f / total_time", "p.sum * 10.0f / total_time"),
    # mesh
    ("src/mesh/electrodes.cpp", "return (column - 1) * ctx.num_y + row;", "return column * ctx.num_y + row;"),
    ("src/mesh/electrodes.cpp", "if (node < 1 || node > mesh.num_nodes)", "if (node < 1 || node >= mesh.num_nodes)"),
    ("src/mesh/parameter_zones.cpp", "(i / size_x) * ctx->num_patch_y + j / size_y + 1;", "(i / size_x) * ctx->num_patch_y + j / size_y;"),
    ("src/mesh/start_model.cpp", "if (rho <= 0.0)", "if (rho < 0.0)"),
    ("src/mesh/mesh.cpp", "ys[j - 1] - offset[i - 1];", "ys[j - 1] + offset[i - 1];"),
    # forward
    ("src/forward/primary.cpp", "(yi - yj) * (xi - xk)", "(yi + yj) * (xi - xk)"),
    ("src/forward/primary.cpp", "return sigma_0 * 0.949999988079071;", "return sigma_0 * 0.849999988079071;"),
    ("src/forward/primary.cpp", "(1.25331414 + t * (-0.07832358", "(1.25331414 + t * (-0.07932358"),
    ("src/forward/forward_loop.cpp", "- va[pn - 1]) + vb[pn - 1]);", "- va[pn - 1]) - vb[pn - 1]);"),
    ("src/forward/element_equations.cpp", "const double D = 2.0 * (bJ * qK - bK * qJ);", "const double D = 4.0 * (bJ * qK - bK * qJ);"),
    ("src/forward/matrix_pattern.cpp", "const int count = start[n + 1];", "const int count = start[n];"),
    # data
    ("src/data/measurements.cpp", "double dy = mesh.node_y[p - 1] + mesh.node_y[q - 1];", "double dy = mesh.node_y[p - 1] - mesh.node_y[q - 1];"),
    ("src/data/misfit.cpp", "return std::sqrt(sum / (double)(n - *num_ignored));", "return std::sqrt(sum / (double)n);"),
    ("src/data/misfit.cpp", "sum = sum + W[i] * W[i] * e * e;", "sum = sum + W[i] * e * e;"),
    # inversion
    ("src/inversion/jacobian.cpp", "source_pair[i] = row[ea[i] - 1] - row[eb[i] - 1];", "source_pair[i] = row[ea[i] - 1] + row[eb[i] - 1];"),
    ("src/inversion/inner_solver.cpp", "for (int b = 0; b < B; ++b) out[j0 + b] = s[b];", "for (int b = 1; b < B; ++b) out[j0 + b] = s[b];"),
    ("src/inversion/regularisation.cpp", "return (p >= 1 && p <= num_parameters) ? p : 0;", "return (p >= 1 && p < num_parameters) ? p : 0;"),
    ("src/inversion/step_search.cpp", "st->step = st->step * 0.5;", "st->step = st->step * 0.6;"),
    ("src/inversion/step_search.cpp", "if (std::fabs(dlog) <= 0.001 || trials <= 1) {", "if (std::fabs(dlog) <= 0.001 || trials <= 2) {"),
    ("src/inversion/outer_iteration.cpp", "percent = 100.0 * (now - start) / start;", "percent = 100.0 * (now - start) / now;"),
    # results
    ("src/results/data_files.cpp", "std::log(c[i] / d[i]) : c[i] - d[i];", "std::log(c[i] / d[i]) : d[i] - c[i];"),
    ("src/results/model_files.cpp", "double y = npe == 3 ? mesh.node_y[n - 1] : -mesh.node_y[n - 1];",
     "double y = npe == 3 ? -mesh.node_y[n - 1] : mesh.node_y[n - 1];"),
]


def sh(cmd, cwd=None, log=None, env=None):
    with open(log, "a") if log else open(os.devnull, "w") as out:
        return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT, env=env).returncode


def find_snippet(tree, hint, snippet):
    """The file under src/ that holds `snippet` exactly once (the hinted one
    first, since code may move between files from one revision to the next)."""
    paths = [hint]
    for d, _, names in os.walk(os.path.join(tree, "src")):
        for n in sorted(names):
            rel = os.path.relpath(os.path.join(d, n), tree)
            if rel != hint and n.endswith((".cpp", ".h")):
                paths.append(rel)
    hits = []
    for rel in paths:
        p = os.path.join(tree, rel)
        if os.path.exists(p):
            hits += [rel] * open(p).read().count(snippet)
    return hits[0] if len(hits) == 1 else None


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--rev", default="HEAD", help="git revision to test (default HEAD)")
    ap.add_argument("--work", help="scratch directory (default scratch/mutation-REV)")
    ap.add_argument("--jobs", type=int, default=2, help="build and test jobs (default 2)")
    ap.add_argument("--only", help="comma-separated mutant numbers (1-based) to run")
    a = ap.parse_args()
    repo = subprocess.run(["git", "rev-parse", "--show-toplevel"], capture_output=True,
                          text=True, check=True).stdout.strip()
    rev = subprocess.run(["git", "-C", repo, "rev-parse", "--short", a.rev], capture_output=True,
                         text=True, check=True).stdout.strip()
    work = os.path.abspath(a.work or os.path.join(repo, "scratch", "mutation-" + rev))
    tree, build, log = os.path.join(work, "q5"), os.path.join(work, "build"), os.path.join(work, "log")
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(tree)
    # The tests find the field surveys beside the source tree.
    os.symlink(os.path.realpath(os.path.join(repo, "..", "shared")), os.path.join(work, "shared"))
    archive = subprocess.run(["git", "-C", repo, "archive", rev], capture_output=True, check=True).stdout
    subprocess.run(["tar", "-x", "-C", tree], input=archive, check=True)
    env = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")
    jobs = str(a.jobs)
    ctest = ["ctest", "--stop-on-failure", "-j", jobs, "--timeout", "900"]
    if sh(["cmake", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=Release"], log=log) or \
       sh(["cmake", "--build", build, "-j", jobs], log=log) or sh(ctest, cwd=build, log=log, env=env):
        sys.exit(f"mutation-run: the unmutated {rev} does not build or pass its tests; see {log}")
    chosen = [int(x) for x in a.only.split(",")] if a.only else range(1, len(MUTANTS) + 1)
    killed = tested = 0
    print(f"mutation run of {rev}, {len(chosen)} mutants")
    for i in chosen:
        hint, old, new = MUTANTS[i - 1]
        rel = find_snippet(tree, hint, old)
        if rel is None:
            print(f"{i:3d}  absent     {hint}: {old}")
            continue
        path = os.path.join(tree, rel)
        text = open(path).read()
        open(path, "w").write(text.replace(old, new))
        t0 = time.time()
        if sh(["cmake", "--build", build, "-j", jobs], log=log):
            verdict = "no build"
        else:
            tested += 1
            dead = sh(ctest, cwd=build, log=log, env=env) != 0
            killed += dead
            verdict = "killed" if dead else "SURVIVED"
        open(path, "w").write(text)
        print(f"{i:3d}  {verdict:9s}  {rel}: {old}  ({time.time() - t0:.0f} s)", flush=True)
    sh(["cmake", "--build", build, "-j", jobs], log=log)
    print(f"killed {killed} of {tested} mutants ({100.0 * killed / max(tested, 1):.0f} %)")


if __name__ == "__main__":
    main()
